#include "util/files.h"

#include "util/logging.h"
#include "util/ownerumask.h"

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

/// Opens \a path for reading and appending and creates it, if need be, readable and writable by its owner alone.
/// Returns the descriptor, or -1. Neither follows a symbolic link nor waits for the other end of a FIFO.
int openPrivately(const QString &path)
{
    constexpr int flags
        = O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const OwnerUmask ownerUmask;
    return ::open(QFile::encodeName(path).constData(), flags, S_IRUSR | S_IWUSR);
}

/// True when what was opened can only be meant for this user: it belongs to him, it has no second name, which
/// somebody else can give to a file of his, and its reader is not somebody else's process.
bool isOwnFile(int descriptor)
{
    struct stat status;
    return ::fstat(descriptor, &status) == 0 && status.st_uid == ::geteuid() && status.st_nlink <= 1
        && !S_ISFIFO(status.st_mode);
}

/// The reports lie in a folder that everybody knows, under names that everybody can foresee. So it is decided
/// on the opened descriptor whether it may be written to: a path could be exchanged after it was checked.
bool openForAppending(QFile &file, const QString &path)
{
    const int descriptor = openPrivately(path);
    if (descriptor == -1)
        return false;
    if (isOwnFile(descriptor)
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
