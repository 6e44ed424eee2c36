#include "util/files.h"

#include "util/logging.h"

#include <QFile>

namespace {

void warnNotOpened(const QString &path)
{
    qCWarning(logCrashHandler) << "Warning: Could not open " << path;
}

QByteArray readWholeFile(const QString &path, QIODevice::OpenMode mode)
{
    qCDebug(logCrashHandler) << "Reading file contents:" << path;
    QFile file(path);
    if (!file.open(mode)) {
        qCCritical(logCrashHandler) << "Failed to open file for reading:" << path;
        warnNotOpened(path);
        return {};
    }
    qCDebug(logCrashHandler) << "Successfully read file:" << path;
    return file.readAll();
}

} // namespace

QByteArray readFile(const QString &path)
{
    return readWholeFile(path, QIODevice::ReadOnly | QIODevice::Text);
}

QByteArray readBinaryFile(const QString &path)
{
    return readWholeFile(path, QIODevice::ReadOnly);
}

bool writeToFile(const QString &path, const QByteArray &data)
{
    qCDebug(logCrashHandler) << "Writing to file:" << path;
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite | QIODevice::Append | QIODevice::Text)) {
        qCCritical(logCrashHandler) << "Failed to open file for writing:" << path;
        warnNotOpened(path);
        return false;
    }
    const qint64 count = file.write(data);
    qCDebug(logCrashHandler) << "Wrote" << count << "bytes to file:" << path;
    return count != -1;
}
