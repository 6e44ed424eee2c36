#pragma once

#include <QByteArray>
#include <QString>

// Reads whole files and appends to them. The functions keep no state and no open file between
// calls. They log every step through logCrashHandler. A relative path is taken from the current
// working directory.

/// Returns the whole content of the file at \a path, read in text mode: carriage returns are
/// dropped, every other byte is kept, NUL included. Files of proc(5), which report a size of 0, are
/// read whole.
///
/// Returns an empty byte array when the file cannot be opened, which is logged as critical and as
/// warning. When a read fails part-way, it returns what was read before, and nothing is logged.
[[nodiscard]] QByteArray readFile(const QString &path);

/// Like readFile(), but keeps every byte, carriage returns too. For content that is not text.
[[nodiscard]] QByteArray readBinaryFile(const QString &path);

/// Appends \a data to the file at \a path with one write, in text mode, which changes nothing on
/// Linux. Never truncates.
///
/// Creates a missing file with mode 0600, so that only its owner can read and write it. Does not
/// create the folder.
///
/// Writes only to a regular file that the process's effective user owns and that has a single name.
/// A symbolic link as the last component of the path, a FIFO, a hard link or a file of another user
/// counts as a file that cannot be opened. It is not changed, and opening it does not wait.
///
/// Returns true when the file was opened and the write did not report -1. A short write counts as
/// success. So does data that is lost when the file is closed, which is not logged. Returns false
/// when the file cannot be opened, which is logged as critical and as warning, or when the write
/// reports -1, which is logged as the count.
bool writeToFile(const QString &path, const QByteArray &data);
