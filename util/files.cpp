#include "util/files.h"

#include "util/logging.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

/// Opens the file at \a path for appending, or creates it for its owner alone. Returns the
/// descriptor, or -1. Does not follow a symbolic link.
int openPrivately(const QString &path)
{
    // O_NONBLOCK: another user's lease on a planted file would delay the opening (fcntl(2)).
    constexpr int flags = O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    return ::open(QFile::encodeName(path).constData(), flags, S_IRUSR | S_IWUSR);
}

/// True for a regular file that the user owns and that has a single name. Anything else could have
/// been planted there by another user.
bool isTrustworthy(int descriptor)
{
    struct stat status = {};
    // When this fails, the type stays 0, which is refused.
    ::fstat(descriptor, &status);
    return S_ISREG(status.st_mode) && status.st_uid == ::geteuid() && status.st_nlink <= 1;
}

/// Other users know the folder of the dump files and can foresee their names. So the check is made
/// on the opened descriptor: a path could be exchanged after its check.
bool openForAppending(QFile &file, const QString &path)
{
    const int descriptor = openPrivately(path);
    if (descriptor == -1)
        return false;
    if (isTrustworthy(descriptor)
        && file.open(descriptor, QIODevice::ReadWrite | QIODevice::Append | QIODevice::Text,
                     QFileDevice::AutoCloseHandle))
        return true;
    ::close(descriptor);
    return false;
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
    QFile file;
    if (!openForAppending(file, path)) {
        qCCritical(logCrashHandler) << "Failed to open file for writing:" << path;
        warnNotOpened(path);
        return false;
    }
    const qint64 count = file.write(data);
    qCDebug(logCrashHandler) << "Wrote" << count << "bytes to file:" << path;
    return count != -1;
}
