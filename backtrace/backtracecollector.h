#pragma once

#include <QObject>
#include <QProcess>
#include <QString>

#include <memory>

class BacktraceCollectorPrivate;

/// Collects the backtrace of one crashed process: runs the debugger `gdb` on it in batch mode,
/// forwards each chunk of its output as soon as it is read, and delivers the whole output at the
/// end.
///
/// The owner constructs it, connects its signals, calls start() once, and runs the event loop of
/// its thread. The collection ends in exactly one of backtrace() and error(), after which no signal
/// follows. kill() and isRunning() may be called at any time. Only the destructor waits for the
/// debugger.
///
/// The destructor kills a debugger that still runs (Qt logs a warning then), waits for its end for
/// at most 30 seconds, and removes its command file. It emits no signal. Every step is logged
/// through the default logger.
class BacktraceCollector : public QObject
{
    Q_OBJECT

public:
    explicit BacktraceCollector(QObject *parent = nullptr);
    ~BacktraceCollector() override;

    /// Writes the command file and launches "gdb", found on the search path, attached to the
    /// process \a pid. Returns without waiting for the debugger.
    ///
    /// The debugger has the environment and the working directory of this process, except:
    ///
    /// - Variables that begin with PYTHON or LD_, LANGUAGE and DEBUGINFOD_URLS are unset.
    /// - LC_ALL is C.UTF-8, GDBHISTFILE is /dev/null.
    /// - If the working directory has been removed, the debugger starts in "/".
    ///
    /// When the command file cannot be created or written, which is logged as critical, error() is
    /// emitted before this returns, and nothing that the debugger does is reported. error() can also
    /// be emitted before this returns when the system cannot create a process.
    ///
    /// On a full disk, the commands can get lost unnoticed when the file is closed. The debugger
    /// then succeeds without them, and backtrace() delivers what little it prints.
    void start(qint64 pid);

    /// Kills the debugger at once (SIGKILL), also while it is still being started. This is then
    /// reported as a debugger that has crashed, unless error() has been emitted before. Without a
    /// debugger it only logs.
    void kill();

    /// True while the debugger runs, also after error(). False while it is being started and after
    /// its end.
    [[nodiscard]] bool isRunning() const;

Q_SIGNALS:
    /// The collection has failed, and no backtrace will come. Emitted at most once, after the failure
    /// was logged as critical. \a errorMessage is a text for a person, one of:
    ///
    /// - "Error: Could not create temporary command file."
    /// - "Error: Could not write temporary command file."
    /// - "QProcess: " and QProcess::errorString()
    /// - "Debugger exited with code 3.", with the debugger's exit code
    void error(const QString &errorMessage);

    /// The debugger has ended with exit code 0. \a backtrace is its whole output: all chunks, in
    /// their order. Emitted at most once, after the last chunk.
    void backtrace(const QString &backtrace);

    /// One chunk of the debugger's output: standard output and standard error together, in the
    /// order in which they were written. Each chunk is decoded by itself, as UTF-8, so a character
    /// that is split between two chunks becomes replacement characters. Can be empty.
    void backtraceChunk(const QString &chunk);

private Q_SLOTS:
    void onDebuggerOutputAvailable();
    void onDebuggerFinished(int exitCode, QProcess::ExitStatus exitStatus);
    void onDebuggerError(QProcess::ProcessError err);

private:
    /// Returns the path of the command file, or an empty string after it has emitted error().
    QString createCommandFile();
    void failWithoutCommands(const QString &errorMessage);

    std::unique_ptr<BacktraceCollectorPrivate> d;
};
