#include "util/systeminformation.h"

#include "util/files.h"
#include "util/logging.h"

#include <QDateTime>

using namespace Qt::StringLiterals;

namespace {

// Many systems, Debian among them, do not have it by default. Their reports leave the place empty.
const QString lsbReleaseFilePath = u"/etc/lsb-release"_s;
const QString procVersionFilePath = u"/proc/version"_s;
const QString timestampFormat = u"yyyyMMdd_hhmmsszzz"_s;

} // namespace

QString currentTimestamp()
{
    qCDebug(logCrashHandler) << "Generating current timestamp";
    const QString timestamp = QDateTime::currentDateTime().toString(timestampFormat);
    qCDebug(logCrashHandler) << "Generated timestamp:" << timestamp;
    return timestamp;
}

QString linuxDistributionInfo()
{
    qCDebug(logCrashHandler) << "Getting Linux distribution info";
    return QString::fromLatin1(readFile(lsbReleaseFilePath));
}

QString kernelVersionInfo()
{
    qCDebug(logCrashHandler) << "Getting kernel version info";
    return QString::fromLatin1(readFile(procVersionFilePath));
}
