#include "tests/support.h"

#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const QString dumpFolder = u"/tmp/vastel-mail"_s;

/// Opens the end to read from and the end to write to.
void open(Channel::Kind kind, int *ends)
{
    termios raw = {};
    ::cfmakeraw(&raw); // line feeds stay what they are
    int failure = 0;
    if (kind == Channel::Terminal)
        failure = ::openpty(&ends[0], &ends[1], nullptr, &raw, nullptr);
    else if (kind == Channel::Socket)
        failure = ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    else
        failure = ::pipe(ends);
    if (failure != 0)
        qFatal("no channel for the output");
}

bool isReady(int descriptor, short events, int timeout)
{
    pollfd waiting{descriptor, events, 0};
    return ::poll(&waiting, 1, timeout) == 1;
}

QStringList decoded(const QByteArrayList &texts)
{
    return QString::fromUtf8(texts.join('\0')).split(u'\0');
}

} // namespace

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    // A FIFO would wait for its writer.
    const bool isOpen = QFileInfo(path).isFile() && file.open(QIODevice::ReadOnly);
    return isOpen ? file.readAll() : QByteArray();
}

int shell(const QByteArray &script)
{
    return QProcess::execute(u"/bin/sh"_s, {u"-c"_s, QString::fromUtf8(script)});
}

void writeProgram(const QByteArray &name, const QByteArray &script)
{
    const QByteArray write = "cat > new << 'END'\n#!/bin/sh\n" + script + "\nEND\n";
    QCOMPARE(shell(write + "chmod +x new; mv new " + name), 0);
}

Outcome run(const QByteArrayList &command, const QByteArrayList &environment,
            const Channel &channel)
{
    int ends[2] = {-1, -1};
    open(channel.kind, ends);
    const int flags = ::fcntl(ends[1], F_GETFL);
    QProcess process;
    process.setEnvironment(decoded(environment));
    process.setStandardInputFile(QProcess::nullDevice());
    process.setChildProcessModifier([&ends] {
        ::dup2(ends[1], STDOUT_FILENO);
        ::dup2(ends[1], STDERR_FILENO);
        // The program must have no more descriptors than one that is restarted.
        ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    });
    // What the program leaves running becomes a child of this process, which sees its end as well.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    process.start(QString::fromUtf8(command.constFirst()), decoded(command.sliced(1)));
    Outcome outcome{process.processId()};
    const auto read = [&outcome, &ends](int timeout) {
        QByteArray part(qsizetype{64} * 1024, Qt::Uninitialized);
        while (isReady(ends[0], POLLIN, timeout))
            outcome.output += part.left(::read(ends[0], part.data(), std::size_t(part.size())));
    };
    bool isReading = false;
    const auto hasEnded = [&] {
        isReading = isReading || (channel.isRead && !isReady(ends[1], POLLOUT, 0));
        if (isReading)
            read(10); // ms; the writer does not wait longer than that
        return process.state() == QProcess::NotRunning && ::waitpid(-1, nullptr, WNOHANG) == -1;
    };
    const bool isOver = QTest::qWaitFor(hasEnded, 2 * patience);
    [isOver] { QVERIFY2(isOver, "The program, or one that it has started, does not end."); }();
    read(0);
    const int signalBase = process.exitStatus() == QProcess::CrashExit ? 128 : 0;
    outcome.exitCode = isOver ? signalBase + process.exitCode() : -1;
    outcome.keptFlags = ::fcntl(ends[1], F_GETFL) == flags;
    ::close(ends[0]);
    ::close(ends[1]);
    return outcome;
}

int TestInFolder::runRows(int argc, char *argv[])
{
    if (!qEnvironmentVariableIsSet("TEST_IN_PLACE")) {
        const QByteArray program = QFile::encodeName(QFile::symLinkTarget(u"/proc/self/exe"_s));
        std::vector<const char *> command{SOURCE_FOLDER "/tests/own-tmp.sh", SOURCE_FOLDER,
                                          BUILD_FOLDER, program.constData()};
        command.insert(command.end(), argv + 1, argv + argc + 1);
        ::execv(command.front(), const_cast<char *const *>(command.data())); // does not write to it
        return EXIT_FAILURE;
    }
    // Qt Test would run the stand-in for gdb when it crashes itself.
    qputenv("QTEST_DISABLE_STACK_DUMP", "1");
    const QCoreApplication application(argc, argv);
    const int failures = QTest::qExec(this, argc, argv);
    return rows > 0 ? failures : EXIT_FAILURE;
}

void TestInFolder::init()
{
    ++rows;
    hadDumpFolder = QFile::exists(dumpFolder);
    folder = std::make_unique<QTemporaryDir>(u"/tmp/vastel-test-XXXXXX"_s);
    QDir::setCurrent(folder->path());
    qputenv("TMPDIR", path());
    qputenv("PATH", path() + ":/bin:/usr/bin");
}

void TestInFolder::cleanup()
{
    // A failed row can have left programs running.
    while (::waitpid(-1, nullptr, WNOHANG) != -1) {
        const QByteArrayList children = contentOf(u"/proc/thread-self/children"_s).split(' ');
        for (const QByteArray &child : children) {
            if (child.toInt() > 0)
                ::kill(child.toInt(), SIGKILL);
        }
    }
    for (const QString &file : std::as_const(dumpFiles))
        QFile::remove(file);
    dumpFiles.clear();
    if (hasOwnTmp())
        shell("rm -rf /tmp/vastel-mail");
    else if (!hadDumpFolder)
        QDir().rmdir(dumpFolder);
    QDir::setCurrent(u"/"_s);
    folder.reset();
}

QByteArray TestInFolder::dumps(const QByteArray &log, const QByteArray &appName)
{
    static const QRegularExpression expression(u"Dump file path set to: \"(.*)\""_s);
    QStringList paths;
    for (const QRegularExpressionMatch &match : expression.globalMatch(QString::fromUtf8(log)))
        paths.append(match.captured(1));
    if (paths.isEmpty()) {
        for (const QFileInfo &file : QDir(dumpFolder).entryInfoList({u"*.dump"_s}, QDir::Files)) {
            if (contentOf(file.filePath()).startsWith(appName + " has closed"))
                paths.append(file.filePath());
        }
    }
    dumpFiles += paths;
    QByteArray contents;
    for (const QString &file : std::as_const(paths))
        contents += contentOf(file);
    return contents;
}
