#include "tests/support.h"

#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <linux/capability.h>

namespace {

const QString dumpFolder = u"/tmp/vastel-mail"_s;

/// Opens the end to read from and the end to write to.
void open(Channel::Kind kind, int *ends)
{
    int failure = 0;
    if (kind == Channel::Terminal)
        failure = ::openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr);
    else if (kind == Channel::StreamSocket || kind == Channel::DatagramSocket)
        failure = ::socketpair(AF_UNIX, kind == Channel::StreamSocket ? SOCK_STREAM : SOCK_DGRAM, 0,
                               ends);
    else
        failure = ::pipe(ends);
    if (failure != 0)
        qFatal("no channel for the output");
    if (kind == Channel::ForeignPipe)
        ::fchmod(ends[1], 0); // nobody can open it anew, as if it were another user's
    termios settings = {};
    if (::tcgetattr(ends[1], &settings) == 0) {
        ::cfmakeraw(&settings); // line feeds stay what they are
        ::tcsetattr(ends[1], TCSANOW, &settings);
    }
}

void fill(int descriptor)
{
    const int flags = ::fcntl(descriptor, F_GETFL);
    ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
    while (::write(descriptor, "x", 1) == 1) { }
    ::fcntl(descriptor, F_SETFL, flags);
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

QByteArray difference(const QByteArray &what, const QByteArray &expected, const QByteArray &got)
{
    if (got == expected)
        return {};
    QByteArrayList files;
    for (const auto &[label, text] : {std::pair("expected ", expected), std::pair("got ", got)}) {
        files.append(label + what);
        QFile file(QString::fromUtf8(files.constLast()));
        if (file.open(QIODevice::WriteOnly))
            file.write(QByteArray(text).replace('\0', "\\0\n"));
    }
    QProcess diff;
    const QString script = u"diff -a -u \"$0\" \"$1\" | cut -c -300"_s;
    diff.start(u"/bin/sh"_s, QStringList{u"-c"_s, script} + decoded(files));
    diff.waitForFinished(patience);
    return "\n\n" + diff.readAll();
}

Outcome run(const QByteArrayList &command, const QByteArrayList &environment,
            const Channel &channel)
{
    int ends[2] = {-1, -1};
    open(channel.kind, ends);
    if (channel.fullFromTheStart)
        fill(ends[1]);
    const int flags = ::fcntl(ends[1], F_GETFL);
    QProcess process;
    process.setEnvironment(decoded(environment));
    process.setStandardInputFile(QProcess::nullDevice());
    process.setChildProcessModifier([&] {
        ::dup2(ends[1], STDOUT_FILENO);
        ::dup2(ends[1], STDERR_FILENO);
        // The program must have no more descriptors than one that is restarted.
        ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
        if (channel.kind == Channel::ForeignPipe) // root may open everything
            ::prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0);
    });
    // What the program leaves running becomes a child of this process, which sees its end as well.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    process.start(QString::fromUtf8(command.constFirst()), decoded(command.sliced(1)));
    process.waitForStarted(patience);

    Outcome outcome{process.processId()};
    bool isRead = channel.reader == Channel::AtOnce;
    const auto read = [&](int timeout) {
        QByteArray part(qsizetype{256} * 1024, Qt::Uninitialized); // more than a datagram can have
        const bool isThere = isReady(ends[0], POLLIN, timeout);
        if (isThere)
            outcome.output += part.left(::read(ends[0], part.data(), std::size_t(part.size())));
        return isThere;
    };
    const QDeadlineTimer deadline(qint64{2} * patience);
    while (!deadline.hasExpired()
           && ((process.state() != QProcess::NotRunning && !process.waitForFinished(0))
               || ::waitpid(-1, nullptr, WNOHANG) != -1)) {
        constexpr int interval = 10; // ms
        isRead = isRead || (channel.reader == Channel::WhenFull && !isReady(ends[1], POLLOUT, 0));
        isRead ? read(interval) : isReady(-1, 0, interval);
    }
    while (read(0)) { }
    outcome.exitCode = process.exitCode() + (process.exitStatus() == QProcess::CrashExit ? 128 : 0);
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
    messageHandler = qInstallMessageHandler(nullptr);
    qInstallMessageHandler(messageHandler);
    hadDumpFolder = QFile::exists(dumpFolder);
    folder = std::make_unique<QTemporaryDir>(u"/tmp/vastel-test-XXXXXX"_s);
    QDir::setCurrent(folder->path());
    qputenv("TMPDIR", path());
    qputenv("PATH", path() + ":/bin:/usr/bin");
}

void TestInFolder::cleanup()
{
    qInstallMessageHandler(messageHandler);
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

QStringList &TestInFolder::keepLog()
{
    static QStringList log;
    log.clear();
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        static const QStringList levels{u"debug "_s, u"warning "_s, u"critical "_s, u"fatal "_s,
                                        u"info "_s}; // in the order of the enumeration
        log.append(levels.at(type) + text);
    });
    return log;
}
