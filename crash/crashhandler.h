#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class CrashHandlerPrivate;

/// Carries one crash from start to end: collects the backtrace of the crashed process into a dump file, then
/// starts the application again and ends the event loop.
///
/// The entry function constructs one on the main thread, calls run() once and enters the event loop
/// QCoreApplication::exec(), which the handler ends with status 0 when the backtrace is complete or its
/// collection has failed, even when that is known before the loop is entered. The handler is destroyed
/// after the loop and before the application object; a debugger that still runs then is killed and reaped.
///
/// Steps are logged through logCrashHandler. No slot waits for the debugger or for the restarted application.
class CrashHandler : public QObject
{
    Q_OBJECT

public:
    /// \a pid is the crashed process; \a appName and \a signalName go into the report as they are. Before
    /// this returns, the dump file has been started (what fails of it is logged by DumpFile, and changes
    /// nothing else) and, unless \a restartDisabled, the process's command line and environment have been
    /// copied from /proc/PID/cmdline and /proc/PID/environ (proc(5)). When there is no usable command line,
    /// that is logged as a warning and nothing will be started.
    CrashHandler(qint64 pid, const QString &appName, const QString &signalName,
                 bool restartDisabled, QObject *parent = nullptr);
    ~CrashHandler() override;

public Q_SLOTS:
    /// Starts the collection of the backtrace and returns.
    void run();

    /// The collection has failed: logs \a errorMessage as critical through the default logger, writes it to
    /// standard error, appends a hint and the text to the dump file, and ends the event loop. The
    /// application is not restarted.
    void onError(const QString &errorMessage);

    /// Appends \a chunk to the dump file, unchanged.
    void onBacktraceChunk(const QString &chunk);

    /// The collection is complete and \a backtrace is its whole output, of which every chunk has been
    /// appended before: appends the current-thread marker, starts the application again and ends the event
    /// loop.
    void onBacktraceFinished(const QString &backtrace);

    /// Starts the application, detached, once for each call, with
    ///
    /// - the program and the arguments of the crashed process; a program named without a slash is looked for in
    ///   PATH. Nothing is started without a command line;
    /// - the variables of the crashed process laid over those of this one; entries without "=" are skipped;
    /// - this process's working directory, umask, resource limits and standard streams.
    ///
    /// Arguments and variables arrive byte for byte where they are valid UTF-8; where not, each byte arrives as
    /// the UTF-8 of the Latin-1 character of its code. A program that cannot be started is not reported.
    void restartApplication();

    /// Aborts a running collection, whose dump then ends in a note, and starts the application as
    /// restartApplication() does, but with two arguments only: "-debug" and the crashed process's ID in decimal.
    /// After an aborted collection nothing of this handler ends the event loop: that is up to the caller.
    void debugApplication();

private:
    static void startApplication(const QStringList &commandLine, const QStringList &environment);
    /// Returns false, and logs a warning, when there is no usable command line.
    [[nodiscard]] bool collectRestartInfo();
    void reportError(const QString &errorMessage);
    void markCurrentThread(const QString &backtrace);

    std::unique_ptr<CrashHandlerPrivate> d;
};
