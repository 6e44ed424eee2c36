// How the crashed application comes back: what is kept of it while its process still exists, and
// how it is started again.

#include "crash/crashhandler.h"

#include "crash/crashhandler_p.h"
#include "util/files.h"
#include "util/logging.h"

#include <QCoreApplication>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringDecoder>

using namespace Qt::StringLiterals;

namespace {

const QString environmentSeparator = u"="_s;

/// Appends \a entries to \a list, each byte as the Latin-1 character of its code: no byte is lost,
/// whatever the encoding.
void appendLatin1(QStringList &list, const QByteArrayList &entries)
{
    for (const QByteArray &entry : entries)
        list.append(QString::fromLatin1(entry));
}

/// Undoes appendLatin1() for the programs, arguments and variables that are given to QProcess,
/// which encodes them as UTF-8: bytes that are valid UTF-8 arrive unchanged. Other bytes cannot be
/// given to it; their \a latin1 text is returned as it is.
QString decodedUtf8(const QString &latin1)
{
    // Stateless: a sequence that is cut off at the end is an error. An initial byte order mark is a
    // part of the text.
    QStringDecoder decode(QStringDecoder::Utf8,
                          QStringDecoder::Flag::Stateless
                              | QStringDecoder::Flag::ConvertInitialBom);
    const QString text = decode(latin1.toLatin1());
    return decode.hasError() ? latin1 : text;
}

QStringList decodedUtf8(const QStringList &latin1)
{
    QStringList texts;
    for (const QString &entry : latin1)
        texts.append(decodedUtf8(entry));
    return texts;
}

} // namespace

bool CrashHandler::collectRestartInfo()
{
    const QString processDirectory = u"/proc/%1"_s.arg(d->pid);

    qCInfo(logCrashHandler) << "Collecting restart command line from:" << processDirectory;
    const QString commandLinePath = processDirectory + u"/cmdline"_s;
    QByteArrayList arguments = readBinaryFile(commandLinePath).split('\0');
    if (arguments.size() < 2) {
        qCWarning(logCrashHandler) << "Unexpected format in file: " << commandLinePath;
        return false;
    }
    // After the last NUL there is nothing, or an argument that was cut off.
    arguments.removeLast();
    appendLatin1(d->restartCommandLine, arguments);

    qCInfo(logCrashHandler) << "Collecting environment variables from:" << processDirectory;
    QByteArrayList variables = readBinaryFile(processDirectory + u"/environ"_s).split('\0');
    if (variables.constLast().isEmpty())
        variables.removeLast();
    appendLatin1(d->restartEnvironment, variables);
    return true;
}

void CrashHandler::startApplication(const QStringList &commandLine, const QStringList &environment)
{
    qCInfo(logCrashHandler) << "command line:" << commandLine;
    qCInfo(logCrashHandler) << "environment:" << environment;
    qCInfo(logCrashHandler) << "Preparing to restart application";

    QProcess process;
    QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
    for (const QString &entry : environment) {
        const qsizetype separator = entry.indexOf(environmentSeparator);
        if (separator == -1)
            continue;
        const QString value = entry.mid(separator + environmentSeparator.size());
        variables.insert(decodedUtf8(entry.left(separator)), decodedUtf8(value));
    }
    if (commandLine.isEmpty())
        return;

    process.setProgram(decodedUtf8(commandLine.constFirst()));
    process.setProcessEnvironment(variables);
    process.setArguments(decodedUtf8(commandLine.mid(1)));
    qCInfo(logCrashHandler) << "Starting detached process:" << commandLine.constFirst()
                            << "with arguments:" << commandLine.mid(1);
    // The result is ignored: when the program cannot be started, nothing is left to do, and the
    // report is complete.
    process.startDetached();
}

void CrashHandler::restartApplication()
{
    startApplication(d->restartCommandLine, d->restartEnvironment);
}

void CrashHandler::debugApplication()
{
    qCInfo(logCrashHandler) << "Debugging application requested";
    if (d->collector.isRunning()) {
        // Before the kill: the end of a killed debugger counts as a failed collection.
        d->collector.disconnect();
        d->collector.kill();
        d->dumpFile.writeMessage(tr("\n\nCollecting backtrace aborted by user."));
        // A debugger that has ended by now is reaped here: the caller may never run the event loop
        // again.
        QCoreApplication::processEvents();
    }
    startApplication({d->restartCommandLine.value(0), u"-debug"_s, QString::number(d->pid)},
                     d->restartEnvironment);
}
