#pragma once

#include <QObject>
#include <QString>

#include <memory>

class DumpFilePrivate;

/// The crash report on disk: one UTF-8 text file for each handled crash, made only by appending. Crashes in the same
/// millisecond share one file, piece by piece.
///
/// Construction fixes the file's path and writes the report's header; after that any number of texts are
/// appended with writeMessage(). No file stays open between two writes, so a handler that is killed leaves
/// behind everything that it was given. The file outlives the object: it is never read, truncated, renamed
/// or deleted here.
///
/// The owner uses it on one thread. Every step is logged through logCrashHandler. A failed write is
/// reported and otherwise ignored: the next one tries again from the start.
class DumpFile : public QObject
{
    Q_OBJECT

public:
    /// Chooses the path, creates its folder if need be, and writes the header, which creates the file.
    ///
    /// \a appName and \a signalName go into the header as they are. \a dumpDirectory is the folder of the
    /// file, "/tmp/vastel-mail" when it is empty; it is created with every missing parent and the process's
    /// default permissions, of which the umask takes none from the owner. When that fails (logged as critical
    /// and warning) the file is put into QDir::tempPath() instead, which is not tested. Anything that already
    /// exists at the folder's path is taken as the folder. A header that cannot be written is logged and lost.
    DumpFile(const QString &appName, const QString &signalName, const QString &dumpDirectory,
             QObject *parent = nullptr);
    ~DumpFile() override;

    /// Appends \a message, encoded as UTF-8, with nothing before or after it. An empty one still creates a
    /// missing file. Returns what writeToFile() returns, which also logs a failure.
    bool writeMessage(const QString &message);

    /// The full path chosen at construction: the folder, "/", the local time as
    /// "yyyyMMdd_hhmmsszzz", ".dump"; for example "/tmp/vastel-mail/20260305_140709042.dump".
    [[nodiscard]] QString dumpFilePath() const;

private:
    void writeHeaders(const QString &appName, const QString &signalName);

    std::unique_ptr<DumpFilePrivate> d;
};
