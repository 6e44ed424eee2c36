#pragma once

#include <QByteArray>
#include <QString>

// Whole files, read and appended to. The functions hold no state and keep no file open between calls;
// they log what they do through logCrashHandler. Paths that are relative are taken from the current working
// directory.

/// Returns the whole content of the file at \a path, read in text mode: carriage returns are dropped,
/// every other byte is kept, NUL included. Files of proc(5), which report a size of 0, are read whole.
///
/// Returns an empty byte array when the file cannot be opened; that is logged as critical and warning. A read that
/// fails part-way is not reported: it returns what was read.
[[nodiscard]] QByteArray readFile(const QString &path);

/// As readFile(), but with every byte kept, carriage returns too: for content that is not text.
[[nodiscard]] QByteArray readBinaryFile(const QString &path);

/// Appends \a data to the file at \a path with one write, in text mode, which changes nothing on Linux.
/// A missing file is created with mode 0600 whatever the umask, so that its owner alone can read and write it;
/// the folder that is to hold it must exist. Nothing is ever truncated.
///
/// Only a file of one's own is written to. A symbolic link as the path's last component, a FIFO, a file with a
/// second name (a hard link) and anything that belongs to another user than the process's effective one
/// count as files that cannot be opened: what is behind them is neither created nor changed, and opening
/// them does not wait.
///
/// Returns true when the file was opened and the write did not report -1. A short write counts as
/// success, and so does, unlogged, data that is lost only when the file is closed. Returns false when the file
/// cannot be opened, logged as critical and warning, or when the write reports -1, logged as the count.
bool writeToFile(const QString &path, const QByteArray &data);
