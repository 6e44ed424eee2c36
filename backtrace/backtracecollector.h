#pragma once

#include <QObject>
#include <QProcess>
#include <QString>

#include <memory>

class BacktraceCollectorPrivate;

/// Collects the backtrace of one crashed process: runs the debugger `gdb` against it in batch mode, forwards
/// every piece of its output the moment it is read, and reports the whole at the end.
///
/// The owner constructs it, connects its signals, calls start() once, and lets the event loop of its thread
/// run; kill() and isRunning() may be called at any time. Nothing waits for the debugger. Every start() that finds
/// no debugger running is answered by exactly one of backtrace() and error(), after which nothing more comes of
/// that debugger.
///
/// Destroying the collector kills and reaps a debugger that still runs, which Qt logs as a warning and waits for up
/// to 30 seconds for, and then removes its command file, without emitting a signal. Every step is logged through
/// the default logger.
class BacktraceCollector : public QObject
{
    Q_OBJECT

public:
    explicit BacktraceCollector(QObject *parent = nullptr);
    ~BacktraceCollector() override;

    /// Writes the debugger's command file and launches "gdb", found on the search path, attached to the
    /// process \a pid. Returns without waiting for it to start.
    ///
    /// When the command file cannot be created or the write to it fails (logged as critical), error() is emitted
    /// before this returns. The debugger is launched all the same, without commands, and nothing that it does
    /// is reported any more. error() can also be emitted before this returns when no process can be made.
    /// Commands that are lost only when the file is closed, on a full disk, go unnoticed: the debugger then has
    /// nothing to say.
    ///
    /// Not to be called while a debugger runs: QProcess refuses a second one, and this call gets no answer. A later
    /// collection appends its output to that of the earlier ones.
    void start(qint64 pid);

    /// Kills the debugger at once (SIGKILL), also while it is still being started. What follows is reported as a
    /// debugger that has crashed, unless error() has been emitted before. Has no effect, but is logged, when
    /// there is no debugger.
    void kill();

    /// True while the debugger runs, heard or not: not while it is still being started, and not after its end.
    [[nodiscard]] bool isRunning() const;

Q_SIGNALS:
    /// The collection has failed: no backtrace will come. Emitted at most once for each start(), with one of
    /// these texts for a person: "Error: Could not create temporary command file.",
    /// "Error: Could not write temporary command file.", "QProcess: " and what QProcess says of the failure,
    /// or "Debugger exited with code 3." with the debugger's exit code. The failure is logged as critical before.
    void error(const QString &errorMessage);

    /// The debugger has ended with exit code 0. \a backtrace is the whole output: all chunks in their order.
    /// Emitted at most once for each start(), after the last chunk.
    void backtrace(const QString &backtrace);

    /// One piece of the debugger's output, both of its streams in the order in which it wrote them. It is
    /// decoded by itself, as UTF-8, so a character that two reads cut in half becomes replacement
    /// characters. Can be empty.
    void backtraceChunk(const QString &chunk);

private Q_SLOTS:
    void onDebuggerOutputAvailable();
    void onDebuggerFinished(int exitCode, QProcess::ExitStatus exitStatus);
    void onDebuggerError(QProcess::ProcessError err);

private:
    QString createCommandFile();

    std::unique_ptr<BacktraceCollectorPrivate> d;
};
