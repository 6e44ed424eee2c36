// The header of a report: which application ended on which signal, what the reader is asked to do
// with the report, and which build and machine it comes from.

#include "dump/dumpfile.h"

#include "util/logging.h"
#include "util/systeminformation.h"

#include <QSysInfo>

using namespace Qt::StringLiterals;

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

    // Each element ends in a line feed here. Those that have one of their own, the build line and
    // usually the two system texts, are followed by an empty line. The result is ignored: a report
    // without its header is still worth having.
    writeMessage(headers.join(u'\n') + u'\n');
}
