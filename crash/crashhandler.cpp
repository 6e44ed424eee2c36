#include "crash/crashhandler.h"

#include "crash/crashhandler_p.h"
#include "util/logging.h"

#include <QCoreApplication>
#include <QTextStream>

namespace {

/// Ends the event loop even if it does not run yet: a collection can fail inside run(), before the
/// loop, where QCoreApplication::quit() has no effect. A queued call waits for the loop.
void quitEventLoop()
{
    QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit,
                              Qt::QueuedConnection);
}

} // namespace

CrashHandler::CrashHandler(qint64 pid, const QString &appName, const QString &signalName,
                           bool restartDisabled, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<CrashHandlerPrivate>(pid, appName, signalName))
{
    qCDebug(logCrashHandler) << "CrashHandler initialized for PID:" << pid << "App:" << appName
                             << "Signal:" << signalName;
    connect(&d->collector, &BacktraceCollector::error, this, &CrashHandler::onError);
    connect(&d->collector, &BacktraceCollector::backtraceChunk, this,
            &CrashHandler::onBacktraceChunk);
    connect(&d->collector, &BacktraceCollector::backtrace, this,
            &CrashHandler::onBacktraceFinished);
    if (restartDisabled || !collectRestartInfo())
        qCWarning(logCrashHandler) << "Unable to restart";
}

CrashHandler::~CrashHandler()
{
    qCDebug(logCrashHandler) << "CrashHandler destroyed";
}

void CrashHandler::run()
{
    qCInfo(logCrashHandler) << "Starting backtrace collection for PID:" << d->pid;
    d->collector.start(d->pid);
}

void CrashHandler::onError(const QString &errorMessage)
{
    qCritical() << "Backtrace collection error:" << errorMessage;
    QTextStream(stderr) << errorMessage;
    reportError(errorMessage);
    quitEventLoop();
}

void CrashHandler::onBacktraceFinished(const QString &backtrace)
{
    qCInfo(logCrashHandler) << "Backtrace collection completed";
    markCurrentThread(backtrace);
    restartApplication();
    quitEventLoop();
}
