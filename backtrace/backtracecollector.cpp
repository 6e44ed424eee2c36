#include "backtrace/backtracecollector.h"

#include <QDebug>
#include <QDir>
#include <QProcessEnvironment>
#include <QTemporaryFile>

using namespace Qt::StringLiterals;

namespace {

// Height and width 0 switch paging and line wrapping off. "thread" prints the line that names the
// current thread.
constexpr char commandScript[] = "set height 0\n"
                                 "set width 0\n"
                                 "thread\n"
                                 "thread apply all backtrace full\n";
constexpr qint64 commandScriptSize = sizeof commandScript - 1; // without the terminating NUL

QString errorDescription(const QProcess &process)
{
    return u"QProcess: "_s + process.errorString();
}

/// Returns the environment \a inherited without what an application sets for itself and what keeps
/// the debugger from its work.
QProcessEnvironment debuggerEnvironment(QProcessEnvironment inherited)
{
    for (const QStringList names = inherited.keys(); const QString &name : names) {
        // The debugger embeds Python, and has libraries of its own.
        if (name.startsWith(u"PYTHON") || name.startsWith(u"LD_"))
            inherited.remove(name);
    }
    // With this variable, the debugger would ask in the report whether it may use a server. Nothing
    // here may reach a network.
    inherited.remove(u"DEBUGINFOD_URLS"_s);
    // The debugger reads its history even in batch mode, by default from the working directory,
    // where anybody could have made a FIFO of that name.
    inherited.insert(u"GDBHISTFILE"_s, u"/dev/null"_s);
    // The crash handler and readers of reports look for the untranslated texts of the debugger, and
    // its output is decoded as UTF-8. LANGUAGE would translate even in this locale.
    inherited.insert(u"LC_ALL"_s, u"C.UTF-8"_s);
    inherited.remove(u"LANGUAGE"_s);
    return inherited;
}

/// Returns the working directory for the debugger, or an empty string for the inherited one. If
/// that has been removed, gdb 13 would crash at its start.
QString debuggerDirectory()
{
    return QDir::currentPath().isEmpty() ? QDir::rootPath() : QString();
}

} // namespace

class BacktraceCollectorPrivate
{
public:
    bool errorOccurred = false;
    // Before the process, and so destroyed after it: the file must not vanish while a debugger may
    // still read it.
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
    // QProcess's destructor kills a running debugger and emits signals about its end. The slots
    // must not run then: their data is being destroyed.
    disconnect(&d->process, nullptr, this, nullptr);
}

void BacktraceCollector::start(qint64 pid)
{
    qInfo() << "Starting gdb process for backtrace collection";
    const QStringList arguments{
        u"--nw"_s, // no graphical interface
        u"--nx"_s, // no initialisation files
        u"--batch"_s, u"--command"_s, createCommandFile(), u"--pid"_s, QString::number(pid),
    };
    d->process.setProcessEnvironment(debuggerEnvironment(QProcessEnvironment::systemEnvironment()));
    d->process.setWorkingDirectory(debuggerDirectory());
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
    d->commandFile = std::make_unique<QTemporaryFile>();
    if (!d->commandFile->open()) {
        qCritical() << "Failed to create temporary command file";
        failWithoutCommands(u"Error: Could not create temporary command file."_s);
        return {};
    }
    if (d->commandFile->write(commandScript, commandScriptSize) == -1) {
        qCritical() << "Failed to write to temporary command file";
        failWithoutCommands(u"Error: Could not write temporary command file."_s);
        return {};
    }
    // Closing writes the buffered commands to disk, where the debugger reads them.
    d->commandFile->close();
    return d->commandFile->fileName();
}

void BacktraceCollector::failWithoutCommands(const QString &errorMessage)
{
    // start() goes on: its steps and their log lines are the same in every case. But the report ends
    // with this error, so the output and the end of the debugger must not reach the owner.
    d->process.blockSignals(true);
    Q_EMIT error(errorMessage);
}

void BacktraceCollector::onDebuggerOutputAvailable()
{
    qDebug() << "Received new debugger output chunk";
    // On Linux, Qt's local 8-bit encoding is always UTF-8, like the debugger's locale.
    const QString chunk = QString::fromLocal8Bit(d->process.readAll());
    d->output += chunk;
    Q_EMIT backtraceChunk(chunk);
}

void BacktraceCollector::onDebuggerFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    // A crash of the debugger is known from onDebuggerError().
    Q_UNUSED(exitStatus)

    if (d->errorOccurred) {
        qCritical() << "Debugger error occurred:" << d->process.errorString();
        Q_EMIT error(errorDescription(d->process));
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
    // After every other error the process finishes, and onDebuggerFinished() reports the error.
    if (err == QProcess::FailedToStart)
        Q_EMIT error(errorDescription(d->process));
}
