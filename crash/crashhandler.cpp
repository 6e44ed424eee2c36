#include "crash/crashhandler.h"

#include "backtrace/backtracecollector.h"
#include "dump/dumpfile.h"
#include "util/files.h"
#include "util/logging.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QStringDecoder>
#include <QStringList>
#include <QTextStream>

using namespace Qt::StringLiterals;

namespace {

/// The debugger's answer to its "thread" command, which it prints before the backtraces.
const QString currentThreadPattern = uR"(\[Current thread is (\d+))"_s;

/// Between the name and the value of a variable.
const QString environmentSeparator = u"="_s;

/// Ends the event loop even if it does not run yet: a collection can fail inside run(), before the
/// loop, where QCoreApplication::quit() has no effect. A queued call waits for the loop.
void quitEventLoop()
{
    QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit,
                              Qt::QueuedConnection);
}

/// False where /proc shows another PID namespace than the one in which this process lives. The same
/// ID then names another process there. A system without /proc has nothing that could mislead.
bool isProcOfThisNamespace()
{
    const QFileInfo self(u"/proc/self"_s);
    return !self.isSymLink()
        || self.symLinkTarget() == u"/proc/%1"_s.arg(QCoreApplication::applicationPid());
}

/// Appends \a entries to \a list, each byte as the Latin-1 character of its code. This is the form
/// in which the log shows them, and no byte is lost, whatever the encoding.
void appendLatin1(QStringList &list, const QByteArrayList &entries)
{
    for (const QByteArray &entry : entries)
        list.append(QString::fromLatin1(entry));
}

/// Undoes appendLatin1() for QProcess, which takes text only and encodes it as UTF-8. Returns the
/// bytes decoded as UTF-8, so that they arrive unchanged. Bytes that are not UTF-8 cannot be given
/// to it; then this returns \a latin1 itself.
QString decodedUtf8(const QString &latin1)
{
    // Stateless: a sequence that is cut off at the end is an error. An initial byte order mark is a
    // part of the text.
    QStringDecoder decode(QStringDecoder::Utf8,
                          QStringDecoder::Flag::Stateless
                              | QStringDecoder::Flag::ConvertInitialBom);
    const QString text = decode(latin1.toLatin1());
    return decode.hasError() ? latin1 : text;
}

QStringList decodedUtf8(const QStringList &latin1)
{
    QStringList texts;
    for (const QString &entry : latin1)
        texts.append(decodedUtf8(entry));
    return texts;
}

/// Returns \a environment with \a entries, normally NAME=VALUE, laid over it: if the entries could
/// not be read, the application still gets an environment.
QProcessEnvironment overlaid(QProcessEnvironment environment, const QStringList &entries)
{
    for (const QString &entry : entries) {
        const qsizetype separator = entry.indexOf(environmentSeparator);
        if (separator == -1)
            continue; // not a variable
        const QString value = entry.mid(separator + environmentSeparator.size());
        environment.insert(decodedUtf8(entry.left(separator)), decodedUtf8(value));
    }
    return environment;
}

} // namespace

/// Do not reorder the fields: their constructors and destructors log.
class CrashHandlerPrivate
{
public:
    CrashHandlerPrivate(qint64 pid, const QString &appName, const QString &signalName)
        : pid(pid)
        , dumpFile(appName, signalName, QString())
    {
    }

    const qint64 pid;
    BacktraceCollector collector;
    DumpFile dumpFile;
    /// The program and its arguments, each byte as a Latin-1 character. Empty when there is nothing
    /// to start.
    QStringList restartCommandLine;
    /// Whole entries, normally NAME=VALUE, each byte as a Latin-1 character.
    QStringList restartEnvironment;
};

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
    if (restartDisabled || !isProcOfThisNamespace() || !collectRestartInfo())
        qCWarning(logCrashHandler) << "Unable to restart";
}

CrashHandler::~CrashHandler()
{
    qCDebug(logCrashHandler) << "CrashHandler destroyed";
}

bool CrashHandler::collectRestartInfo()
{
    const QString processDirectory = u"/proc/%1"_s.arg(d->pid);

    qCInfo(logCrashHandler) << "Collecting restart command line from:" << processDirectory;
    const QString commandLinePath = processDirectory + u"/cmdline"_s;
    QByteArrayList arguments = readBinaryFile(commandLinePath).split('\0');
    if (arguments.size() < 2) {
        qCWarning(logCrashHandler) << "Unexpected format in file: " << commandLinePath;
        return false;
    }
    // A process can overwrite its command line. What then stands behind the last NUL can be a part
    // of an argument, and could mean something else, a file for example.
    arguments.removeLast();
    appendLatin1(d->restartCommandLine, arguments);

    qCInfo(logCrashHandler) << "Collecting environment variables from:" << processDirectory;
    QByteArrayList variables = readBinaryFile(processDirectory + u"/environ"_s).split('\0');
    // A part of a variable is kept: the application may not start without it.
    if (variables.constLast().isEmpty())
        variables.removeLast();
    appendLatin1(d->restartEnvironment, variables);
    return true;
}

void CrashHandler::run()
{
    qCInfo(logCrashHandler) << "Starting backtrace collection for PID:" << d->pid;
    d->collector.start(d->pid);
}

// The results of writes to the dump file are ignored here: DumpFile logs a failure, and the rest of
// the report and the application's restart must still take place.

void CrashHandler::onError(const QString &errorMessage)
{
    qCritical() << "Backtrace collection error:" << errorMessage;
    QTextStream(stderr) << errorMessage;
    qCInfo(logCrashHandler) << "Writing error message to dump file";
    d->dumpFile.writeMessage(u"A problem occurred providing the backtrace. Please make sure to "
                             "have the debugger \"gdb\" installed.\n"_s);
    d->dumpFile.writeMessage(errorMessage);
    quitEventLoop();
}

void CrashHandler::onBacktraceChunk(const QString &chunk)
{
    qCDebug(logCrashHandler) << "Writing backtrace chunk to dump file";
    d->dumpFile.writeMessage(chunk);
}

void CrashHandler::onBacktraceFinished(const QString &backtrace)
{
    qCInfo(logCrashHandler) << "Backtrace collection completed";
    markCurrentThread(backtrace);
    restartApplication();
    quitEventLoop();
}

void CrashHandler::markCurrentThread(const QString &backtrace)
{
    const QRegularExpressionMatch match = QRegularExpression(currentThreadPattern).match(backtrace);
    if (match.hasMatch())
        d->dumpFile.writeMessage(u"text to select is [Thread %1]"_s.arg(match.captured(1)));
}

void CrashHandler::restartApplication()
{
    startApplication(d->restartCommandLine, d->restartEnvironment);
}

void CrashHandler::debugApplication()
{
    qCInfo(logCrashHandler) << "Debugging application requested";
    if (d->collector.isRunning()) {
        // Before the kill: the end of a killed debugger counts as a failed collection.
        d->collector.disconnect();
        d->collector.kill();
        d->dumpFile.writeMessage(tr("\n\nCollecting backtrace aborted by user."));
        // A killed debugger that has ended by now is reaped here: the caller may never run the
        // event loop again.
        QCoreApplication::processEvents();
    }
    startApplication({d->restartCommandLine.value(0), u"-debug"_s, QString::number(d->pid)},
                     d->restartEnvironment);
}

void CrashHandler::startApplication(const QStringList &commandLine, const QStringList &environment)
{
    qCInfo(logCrashHandler) << "command line:" << commandLine;
    qCInfo(logCrashHandler) << "environment:" << environment;
    qCInfo(logCrashHandler) << "Preparing to restart application";
    if (commandLine.isEmpty())
        return;

    const QString &program = commandLine.constFirst();
    const QStringList arguments = commandLine.mid(1);
    QProcess process;
    process.setProgram(decodedUtf8(program));
    process.setProcessEnvironment(overlaid(QProcessEnvironment::systemEnvironment(), environment));
    process.setArguments(decodedUtf8(arguments));
    qCInfo(logCrashHandler) << "Starting detached process:" << program
                            << "with arguments:" << arguments;
    // The result is ignored: when the program cannot be started, nothing is left to do, and the
    // report is complete.
    process.startDetached();
}
