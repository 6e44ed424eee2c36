#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class CrashHandlerPrivate;

/// Carries one crash from start to end: collects the backtrace of the crashed process into a dump file, then
/// ends the event loop.
///
/// The entry function constructs one on the main thread, calls run() once and enters the event loop
/// QCoreApplication::exec(), which the handler ends with status 0 when the backtrace is complete or its
/// collection has failed, even when that is known before the loop is entered. The handler is destroyed
/// after the loop and before the application object; a debugger that still runs then is killed and reaped.
///
/// Steps are logged through logCrashHandler. No slot blocks.
class CrashHandler : public QObject
{
    Q_OBJECT

public:
    /// \a pid is the crashed process; \a appName and \a signalName go into the report as they are.
    /// The dump file, header included, is written before this returns.
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
    /// appended before: appends the current-thread marker and ends the event loop.
    void onBacktraceFinished(const QString &backtrace);

private:
    void reportError(const QString &errorMessage);
    void markCurrentThread(const QString &backtrace);

    std::unique_ptr<CrashHandlerPrivate> d;
};
