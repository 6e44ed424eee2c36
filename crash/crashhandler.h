#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class CrashHandlerPrivate;

/// Handles one crash from start to end: collects the backtrace of the crashed process into a dump
/// file, starts the application again, and ends the event loop.
///
/// The entry function constructs it on the main thread, calls run() once, and runs
/// QCoreApplication::exec(). The handler ends that event loop with status 0 when the backtrace is
/// complete or its collection has failed, even if that is known before the loop runs. The entry
/// function destroys the handler after the loop and before the application object. A debugger that
/// still runs then is killed.
///
/// Steps are logged through logCrashHandler, unless stated otherwise. No operation waits for the
/// end of the restarted application or of the debugger, but for the destructor: it waits for the
/// end of a debugger that it has killed.
class CrashHandler : public QObject
{
    Q_OBJECT

public:
    /// \a pid is the crashed process. \a appName and \a signalName are written into the report
    /// unchanged.
    ///
    /// Creates the dump file and writes its header; see DumpFile for failures. Then copies the
    /// process's command line and environment from /proc/PID/cmdline and /proc/PID/environ
    /// (proc(5)). If \a restartDisabled, without a usable command line, and where /proc is that of
    /// another PID namespace, it logs a warning instead, and nothing is started later.
    CrashHandler(qint64 pid, const QString &appName, const QString &signalName,
                 bool restartDisabled, QObject *parent = nullptr);
    ~CrashHandler() override;

public Q_SLOTS:
    /// Starts the collection of the backtrace and returns.
    void run();

    /// Reports that the collection has failed: logs \a errorMessage as critical through the default
    /// logger, writes it to standard error, appends a hint and the text to the dump file, and ends
    /// the event loop. The application is not started again.
    void onError(const QString &errorMessage);

    /// Appends \a chunk to the dump file, unchanged.
    void onBacktraceChunk(const QString &chunk);

    /// Reports that the collection is complete: appends the marker of the current thread, for
    /// example "text to select is [Thread 1]", to the dump file, starts the application again, and ends the event loop. \a backtrace is the whole
    /// output; its chunks have been appended before.
    void onBacktraceFinished(const QString &backtrace);

    /// Starts the application, detached, each time it is called, with:
    ///
    /// - the program and the arguments of the crashed process. A program without a slash in its
    ///   name is looked for in PATH, and its argument 0 becomes the path at which it was found
    ///   (QProcess);
    /// - the variables of the crashed process laid over those of this process. Entries without "="
    ///   are skipped;
    /// - this process's working directory, umask, resource limits and standard streams.
    ///
    /// Arguments and variables that are valid UTF-8 arrive byte for byte. In all others, each byte
    /// becomes the Latin-1 character of its code, encoded as UTF-8.
    ///
    /// Nothing is started without a command line. A program that cannot be started is not reported.
    void restartApplication();

    /// Aborts the collection, with a note in the dump file, if the debugger runs. A debugger that
    /// is still being started is not stopped. Then starts the application like
    /// restartApplication(), but with two arguments only: "-debug" and the decimal ID of the
    /// crashed process.
    ///
    /// Does not end the event loop. After an aborted collection, the caller has to end it. Nothing
    /// in this program calls it: it is promised to code that uses the meta-object.
    void debugApplication();

private:
    /// See restartApplication() and debugApplication().
    static void startApplication(const QStringList &commandLine, const QStringList &environment);
    /// Returns false, after a warning, when there is no usable command line.
    [[nodiscard]] bool collectRestartInfo();
    void markCurrentThread(const QString &backtrace);

    std::unique_ptr<CrashHandlerPrivate> d;
};
