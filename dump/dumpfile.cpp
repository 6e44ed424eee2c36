#include "dump/dumpfile.h"

#include "util/files.h"
#include "util/logging.h"
#include "util/systeminformation.h"

#include <QDir>
#include <QSysInfo>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

const QString defaultDumpDirectory = u"/tmp/vastel-mail"_s;
const QString dumpFileSuffix = u".dump"_s;

/// Creates a folder and its missing parents, writable for neither group nor others: they could
/// delete the reports of its owner.
bool createDirectory(const QString &directory)
{
    const mode_t inherited = ::umask(0);
    ::umask(inherited | S_IWGRP | S_IWOTH);
    const bool isCreated = QDir().mkpath(directory);
    ::umask(inherited); // for the restarted application
    return isCreated;
}

/// Returns a folder for the dump file. See the constructor of DumpFile.
QString ensuredDirectory(const QString &dumpDirectory)
{
    const QString directory = dumpDirectory.isEmpty() ? defaultDumpDirectory : dumpDirectory;
    if (QDir().exists(directory) || createDirectory(directory))
        return directory;

    qCCritical(logCrashHandler) << "Failed to create dump directory:" << directory;
    qCWarning(logCrashHandler) << u"mkpath [%1] failed"_s.arg(directory);
    return QDir::tempPath();
}

} // namespace

class DumpFilePrivate
{
public:
    explicit DumpFilePrivate(const QString &dumpDirectory);

    QString dumpFilePath;
};

DumpFilePrivate::DumpFilePrivate(const QString &dumpDirectory)
{
    const QString directory = ensuredDirectory(dumpDirectory);
    dumpFilePath = directory + u'/' + currentTimestamp() + dumpFileSuffix;
    qCInfo(logCrashHandler) << "Dump file path set to:" << dumpFilePath;
}

DumpFile::DumpFile(const QString &appName, const QString &signalName, const QString &dumpDirectory,
                   QObject *parent)
    : QObject(parent)
    , d(std::make_unique<DumpFilePrivate>(dumpDirectory))
{
    qCDebug(logCrashHandler) << "Creating dump file for app:" << appName << "signal:" << signalName;
    qCInfo(logCrashHandler) << "Setting application info for dump file";
    writeHeaders(appName, signalName);
}

DumpFile::~DumpFile()
{
    qCDebug(logCrashHandler) << "Destroying dump file handler";
}

/// Where both system files end in a line feed, the header is:
///
///     Mail has closed unexpectedly (Signal "SIGSEGV")
///     please file a bug report with the debug information provided below.
///     Mail, based on Qt 6.8.0 (64 bit)
///     (an empty line)
///     DISTRIB_ID=...
///     (an empty line)
///     Linux version ...
///     (an empty line)
void DumpFile::writeHeaders(const QString &appName, const QString &signalName)
{
    // One call of arg() for each text: a "%2" inside a name must not become a placeholder itself.
    QStringList headers{
        tr("%1 has closed unexpectedly (Signal \"%2\")").arg(appName, signalName),
        tr("please file a bug report with the debug information provided below."),
        tr("%1, based on Qt %2 (%3 bit)\n")
            .arg(appName, QStringLiteral(QT_VERSION_STR), QString::number(QSysInfo::WordSize)),
    };
    headers.append(linuxDistributionInfo());
    headers.append(kernelVersionInfo());
    qCInfo(logCrashHandler) << "Writing headers to dump file";

    // The result is ignored: a report without its header is still worth having.
    writeMessage(headers.join(u'\n') + u'\n');
}

bool DumpFile::writeMessage(const QString &message)
{
    qCDebug(logCrashHandler) << "Writing message to dump file:" << d->dumpFilePath;
    return writeToFile(d->dumpFilePath, message.toUtf8());
}

QString DumpFile::dumpFilePath() const
{
    return d->dumpFilePath;
}
