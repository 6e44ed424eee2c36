#include "backtrace/backtracecollector.h"

#include "util/ownerumask.h"

#include <QDebug>
#include <QTemporaryFile>

using namespace Qt::StringLiterals;

namespace {

/// Output is neither paged nor wrapped; "thread" names the current thread, for the report's last line.
constexpr char commandScript[] = "set height 0\n"
                                 "set width 0\n"
                                 "thread\n"
                                 "thread apply all backtrace full\n";
constexpr qint64 commandScriptSize = sizeof commandScript - 1; // without the terminating NUL

QString describedError(const QProcess &process)
{
    return u"QProcess: "_s + process.errorString();
}

} // namespace

class BacktraceCollectorPrivate
{
public:
    bool errorOccurred = false;
    // Declared before the process and so destroyed after it: a debugger never sees its commands vanish.
    std::unique_ptr<QTemporaryFile> commandFile;
    QProcess process;
    QString output;
};

BacktraceCollector::BacktraceCollector(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<BacktraceCollectorPrivate>())
{
    qDebug() << "BacktraceCollector constructor called";
    connect(&d->process, &QProcess::finished, this, &BacktraceCollector::onDebuggerFinished);
    connect(&d->process, &QProcess::errorOccurred, this, &BacktraceCollector::onDebuggerError);
    connect(&d->process, &QIODevice::readyRead, this,
            &BacktraceCollector::onDebuggerOutputAvailable);
    d->process.setProcessChannelMode(QProcess::MergedChannels);
}

BacktraceCollector::~BacktraceCollector()
{
    qDebug() << "BacktraceCollector destructor called";
    // QProcess's destructor kills and reaps a running debugger and signals its end. By then the slots'
    // data is partly destroyed, and the owner may be as well.
    disconnect(&d->process, nullptr, this, nullptr);
}

void BacktraceCollector::start(qint64 pid)
{
    qInfo() << "Starting gdb process for backtrace collection";
    // An earlier start() without a command file has silenced its debugger, which may still run.
    if (d->process.state() == QProcess::NotRunning)
        d->process.blockSignals(false);
    const QStringList arguments{
        u"--nw"_s, // in the terminal
        u"--nx"_s, // without anybody's start-up files
        u"--batch"_s, u"--command"_s, createCommandFile(), u"--pid"_s, QString::number(pid),
    };
    d->process.start(u"gdb"_s, arguments, QIODevice::ReadWrite);
}

void BacktraceCollector::kill()
{
    qInfo() << "Killing debugger process";
    d->process.kill();
}

bool BacktraceCollector::isRunning() const
{
    return d->process.state() == QProcess::Running;
}

QString BacktraceCollector::createCommandFile()
{
    // The error below is this collection's final signal, so the debugger that is launched all the same must
    // not be heard of any more: it would add its own output and ending to a report that is closed.
    const auto fail = [this](const QString &errorMessage) {
        d->process.blockSignals(true);
        Q_EMIT error(errorMessage);
        return QString();
    };

    // The debugger must be able to read it.
    const OwnerUmask ownerUmask;
    d->commandFile = std::make_unique<QTemporaryFile>();
    if (!d->commandFile->open()) {
        qCritical() << "Failed to create temporary command file";
        return fail(u"Error: Could not create temporary command file."_s);
    }
    if (d->commandFile->write(commandScript, commandScriptSize) == -1) {
        qCritical() << "Failed to write to temporary command file";
        return fail(u"Error: Could not write temporary command file."_s);
    }
    // Closing flushes: the debugger reads the commands from disk.
    d->commandFile->close();
    return d->commandFile->fileName();
}

void BacktraceCollector::onDebuggerOutputAvailable()
{
    qDebug() << "Received new debugger output chunk";
    const QString chunk = QString::fromLocal8Bit(d->process.readAll());
    d->output += chunk;
    Q_EMIT backtraceChunk(chunk);
}

void BacktraceCollector::onDebuggerFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    // A debugger that has crashed has reported that as an error before.
    Q_UNUSED(exitStatus)

    if (d->errorOccurred) {
        qCritical() << "Debugger error occurred:" << d->process.errorString();
        Q_EMIT error(describedError(d->process));
    } else if (exitCode == 0) {
        qInfo() << "Backtrace collection completed successfully";
        Q_EMIT backtrace(d->output);
    } else {
        qCritical() << "Debugger exited with error code:" << exitCode;
        Q_EMIT error(u"Debugger exited with code %1."_s.arg(exitCode));
    }
}

void BacktraceCollector::onDebuggerError(QProcess::ProcessError err)
{
    qCritical() << "Debugger process error:" << err;
    d->errorOccurred = true;
    // Every other error is followed by the process's finish, which reports it to the owner.
    if (err == QProcess::FailedToStart)
        Q_EMIT error(describedError(d->process));
}
