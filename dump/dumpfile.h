#pragma once

#include <QObject>
#include <QString>

#include <memory>

class DumpFilePrivate;

/// The report of one crash on disk: a UTF-8 text file that is only ever appended to.
///
/// The constructor fixes the path and writes the header. After that, writeMessage() appends any
/// number of texts. The file is open during a write only, so whatever ends this program, everything
/// that was written is kept. This class never reads, truncates, renames or deletes the file.
/// Crashes in the same millisecond share one file, in which their texts are mixed.
///
/// The owner uses it on one thread. It blocks for file access only. Every step is logged through
/// logCrashHandler. A failed write is logged and otherwise ignored: the next write opens the file
/// again.
class DumpFile : public QObject
{
    Q_OBJECT

public:
    /// Chooses the path, creates the folder if it is missing, and writes the header, which creates
    /// the file.
    ///
    /// \a appName and \a signalName are written into the header unchanged. \a dumpDirectory is the
    /// folder; empty, as in this program, for "/tmp/vastel-mail". It is created together with its
    /// missing parents, and whatever the umask, it is writable for neither group nor others. If it
    /// cannot be created, that is logged as critical and as warning, and the file goes to
    /// QDir::tempPath(). Anything that exists at the folder's path is taken for the folder: a
    /// symbolic link is followed, and if it is a file, every write fails. A header that cannot be
    /// written is logged and lost.
    DumpFile(const QString &appName, const QString &signalName, const QString &dumpDirectory,
             QObject *parent = nullptr);
    ~DumpFile() override;

    /// Appends \a message, encoded as UTF-8, with nothing before or after it. An empty text still
    /// creates a missing file. Returns what writeToFile() returns, which also logs a failure.
    bool writeMessage(const QString &message);

    /// The full path: the folder, "/", currentTimestamp() at construction, ".dump". For example
    /// "/tmp/vastel-mail/20260305_140709042.dump".
    [[nodiscard]] QString dumpFilePath() const;

private:
    void writeHeaders(const QString &appName, const QString &signalName);

    std::unique_ptr<DumpFilePrivate> d;
};
