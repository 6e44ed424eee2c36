// How the crashed application comes back: what is kept of it while it can still be asked, and how it is
// started again.

#include "crash/crashhandler.h"

#include "crash/crashhandler_p.h"
#include "util/files.h"
#include "util/logging.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QStringDecoder>

#include <csignal>
#include <cstdlib>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

const QString environmentSeparator = u"="_s;

/// Appends \a pieces to \a list, each byte as the character of the same code, so that no byte is lost
/// whatever its encoding.
void appendLatin1(QStringList &list, const QByteArrayList &pieces)
{
    for (const QByteArray &piece : pieces)
        list.append(QString::fromLatin1(piece));
}

/// Returns the text that Qt, which hands text to processes as UTF-8, turns into the bytes that \a latin1
/// stands for. Bytes that are no UTF-8 cannot be handed over that way; they stay the text that they are.
QString processText(const QString &latin1)
{
    // Stateless: a sequence cut off at the end is an error. An initial byte order mark is a part of the text.
    QStringDecoder decode(QStringDecoder::Utf8,
                          QStringDecoder::Flag::Stateless
                              | QStringDecoder::Flag::ConvertInitialBom);
    const QString text = decode(latin1.toLatin1());
    return decode.hasError() ? latin1 : text;
}

QStringList processTexts(const QStringList &latin1)
{
    QStringList texts;
    for (const QString &entry : latin1)
        texts.append(processText(entry));
    return texts;
}

/// Returns the path of a \a program that is named without a folder, or nothing when it names one itself.
QString foundOnSearchPath(const QString &program)
{
    return program.contains(u'/') ? QString() : QStandardPaths::findExecutable(program);
}

/// Becomes \a executable, with \a variables laid over this process's own. Returns when that fails.
void execute(const QString &executable, const QStringList &arguments,
             const QProcessEnvironment &variables)
{
    const QStringList names = variables.keys();
    for (const QString &name : names)
        qputenv(name.toUtf8().constData(), variables.value(name).toUtf8());

    std::vector<QByteArray> strings;
    std::vector<char *> vector;
    strings.reserve(arguments.size());
    vector.reserve(arguments.size() + 1);
    for (const QString &argument : arguments)
        vector.push_back(strings.emplace_back(argument.toUtf8()).data());
    vector.push_back(nullptr);

    // Qt ignores it to write to processes, and an ignored signal stays ignored across execve(2).
    ::signal(SIGPIPE, SIG_DFL);
    ::execv(QFile::encodeName(executable).constData(), vector.data());
}

/// Does what QProcess::startDetached() does, but leaves argument 0 as it is: QProcess would replace it by the
/// path that it finds, and the application would not get back the argument vector that it had.
void executeDetached(const QString &executable, const QStringList &arguments,
                     const QProcessEnvironment &variables)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::setsid();
        // The grandchild outlives its parent at once, and so belongs to the system, not to the handler.
        if (::fork() == 0)
            execute(executable, arguments, variables);
        ::_exit(EXIT_SUCCESS);
    }
    // Without a child, waitpid(2) would take -1 for any child and wait for the debugger.
    if (child > 0)
        ::waitpid(child, nullptr, 0);
}

} // namespace

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
    // What follows the last NUL is nothing, or an argument that was cut off.
    arguments.removeLast();
    appendLatin1(d->restartCommandLine, arguments);

    qCInfo(logCrashHandler) << "Collecting environment variables from:" << processDirectory;
    QByteArrayList variables = readBinaryFile(processDirectory + u"/environ"_s).split('\0');
    if (variables.constLast().isEmpty())
        variables.removeLast();
    appendLatin1(d->restartEnvironment, variables);
    return true;
}

void CrashHandler::startApplication(const QStringList &commandLine, const QStringList &environment)
{
    qCInfo(logCrashHandler) << "command line:" << commandLine;
    qCInfo(logCrashHandler) << "environment:" << environment;
    qCInfo(logCrashHandler) << "Preparing to restart application";

    QProcess process;
    QProcessEnvironment processEnvironment = QProcessEnvironment::systemEnvironment();
    QProcessEnvironment variables;
    for (const QString &entry : environment) {
        const qsizetype separator = entry.indexOf(environmentSeparator);
        if (separator == -1)
            continue;
        variables.insert(processText(entry.left(separator)),
                         processText(entry.mid(separator + environmentSeparator.size())));
    }
    processEnvironment.insert(variables);
    if (commandLine.isEmpty())
        return;

    const QStringList texts = processTexts(commandLine);
    process.setProgram(texts.constFirst());
    process.setProcessEnvironment(processEnvironment);
    process.setArguments(texts.mid(1));

    qCInfo(logCrashHandler) << "Starting detached process:" << commandLine.constFirst()
                            << "with arguments:" << commandLine.mid(1);
    // A program that cannot be started is not brought back; the report is complete all the same.
    const QString executable = foundOnSearchPath(texts.constFirst());
    if (executable.isEmpty())
        process.startDetached();
    else
        executeDetached(executable, texts, variables);
}

void CrashHandler::restartApplication()
{
    startApplication(d->restartCommandLine, d->restartEnvironment);
}

void CrashHandler::debugApplication()
{
    qCInfo(logCrashHandler) << "Debugging application requested";
    if (d->collector.isRunning()) {
        // First: the end of a killed debugger must not be taken for a failed collection.
        d->collector.disconnect();
        d->collector.kill();
        d->dumpFile.writeMessage(tr("\n\nCollecting backtrace aborted by user."));
        QCoreApplication::processEvents();
    }
    startApplication({d->restartCommandLine.value(0), u"-debug"_s, QString::number(d->pid)},
                     d->restartEnvironment);
}
