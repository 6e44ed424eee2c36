#include "tests/support.h"

#include <csignal>
#include <cstdlib>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <linux/capability.h>

namespace {

constexpr char ownTmpVariable[] = "TEST_HAS_OWN_TMP";
const QString dumpFolder = u"/tmp/vastel-mail"_s;

bool write(const char *path, const QByteArray &text)
{
    QFile file(QString::fromLatin1(path));
    return file.open(QIODevice::WriteOnly | QIODevice::Unbuffered)
        && file.write(text) == text.size();
}

/// Gives this process a /tmp of its own, in which the source and build folders stay where they are.
/// Only root needs no user namespace for that; everybody stays the same user in it.
bool makeOwnTmp()
{
    const QByteArray user = QByteArray::number(::geteuid());
    const QByteArray group = QByteArray::number(::getegid());
    const bool isRoot = ::geteuid() == 0;
    if (::unshare(isRoot ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) == -1)
        return false;
    if (!isRoot
        && !(write("/proc/self/setgroups", "deny")
             && write("/proc/self/uid_map", user + ' ' + user + " 1")
             && write("/proc/self/gid_map", group + ' ' + group + " 1")))
        return false;

    // Their descriptors reach the folders that the mount covers.
    const int source = ::open(SOURCE_FOLDER, O_PATH | O_CLOEXEC);
    const int build = ::open(BUILD_FOLDER, O_PATH | O_CLOEXEC);
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == -1
        || ::mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID, "mode=1777") == -1)
        return false;
    for (const auto &[path, descriptor] :
         {std::pair(u"" SOURCE_FOLDER ""_s, source), std::pair(u"" BUILD_FOLDER ""_s, build)}) {
        const QByteArray covered = "/proc/self/fd/" + QByteArray::number(descriptor);
        if (path.startsWith(u"/tmp/")
            && !(QDir().mkpath(path)
                 && ::mount(covered.constData(), QFile::encodeName(path).constData(), nullptr,
                            MS_BIND | MS_REC, nullptr)
                     == 0))
            return false;
    }
    return ::chdir(BUILD_FOLDER) == 0;
}

/// Ends what a row has left running. All that it has started are children of this process by now, see
/// prepareProcess().
void endChildren()
{
    while (::waitpid(-1, nullptr, WNOHANG) != -1) {
        const QByteArray list = contentOf(u"/proc/thread-self/children"_s);
        for (const QByteArray &child : list.simplified().split(' ')) {
            if (child.toInt() > 0)
                ::kill(child.toInt(), SIGKILL);
        }
    }
}

struct OpenChannel
{
    explicit OpenChannel(Channel::Kind kind)
    {
        int ends[2] = {-1, -1}; // to read from, to write to
        if (kind == Channel::Kind::StreamSocket)
            ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
        else if (kind == Channel::Kind::DatagramSocket)
            ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends);
        else if (kind == Channel::Kind::Terminal)
            openTerminal(ends);
        else
            ::pipe2(ends, O_CLOEXEC);
        if (kind == Channel::Kind::ForeignPipe)
            ::fchmod(ends[1], 0); // as for another user, nobody can open it anew
        readEnd = ends[0];
        writeEnd = ends[1];
    }
    ~OpenChannel()
    {
        ::close(readEnd);
        ::close(writeEnd);
    }
    OpenChannel(const OpenChannel &) = delete;
    OpenChannel &operator=(const OpenChannel &) = delete;

    static void openTerminal(int *ends)
    {
        ends[0] = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ::grantpt(ends[0]);
        ::unlockpt(ends[0]);
        ends[1] = ::open(::ptsname(ends[0]), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios settings = {};
        ::tcgetattr(ends[1], &settings);
        ::cfmakeraw(&settings); // so that line feeds stay what they are
        ::tcsetattr(ends[1], TCSANOW, &settings);
    }

    [[nodiscard]] bool isFull() const
    {
        pollfd writing{writeEnd, POLLOUT, 0};
        return ::poll(&writing, 1, 0) == 0;
    }

    void fill() const
    {
        ::fcntl(writeEnd, F_SETFL, flags() | O_NONBLOCK);
        const QByteArray page(4096, 'x');
        while (::write(writeEnd, page.constData(), std::size_t(page.size())) > 0) { }
        ::fcntl(writeEnd, F_SETFL, flags() & ~O_NONBLOCK);
    }

    /// Appends to \a output what can be read now or comes within \a timeout. False if nothing does.
    bool read(QByteArray &output, int timeout) const
    {
        pollfd reading{readEnd, POLLIN, 0};
        if (::poll(&reading, 1, timeout) != 1)
            return false;
        QByteArray part(256 * 1024, Qt::Uninitialized); // more than a datagram can have
        const ssize_t size = ::read(readEnd, part.data(), std::size_t(part.size()));
        output += part.left(size);
        return size > 0;
    }

    [[nodiscard]] int flags() const { return ::fcntl(writeEnd, F_GETFL); }

    int readEnd;
    int writeEnd;
};

std::vector<char *> pointersTo(const QByteArrayList &texts)
{
    std::vector<char *> pointers;
    for (const QByteArray &text : texts)
        pointers.push_back(const_cast<char *>(text.constData())); // execve(2) does not write to it
    pointers.push_back(nullptr);
    return pointers;
}

pid_t start(const QByteArrayList &command, const QByteArrayList &environment,
            const OpenChannel &channel, bool isForeign)
{
    const std::vector<char *> arguments = pointersTo(command);
    const std::vector<char *> variables = pointersTo(environment);
    const pid_t child = ::fork();
    if (child != 0)
        return child;
    ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
    ::dup2(channel.writeEnd, STDOUT_FILENO);
    ::dup2(channel.writeEnd, STDERR_FILENO);
    // The program must have no more descriptors than one that is restarted.
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    if (isForeign) // otherwise root may open everything
        ::prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0);
    ::execve(arguments[0], arguments.data(), variables.data());
    ::_exit(EXIT_FAILURE);
}

} // namespace

bool hasOwnTmp()
{
    return qEnvironmentVariableIsSet(ownTmpVariable);
}

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
    QCOMPARE(
        shell("cat > new << 'END'\n#!/bin/sh\n" + script + "\nEND\nchmod +x new; mv new " + name),
        0);
}

QStringList &keepLog()
{
    static QStringList log;
    log.clear();
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        // In the order of the enumeration.
        static const QStringList levels{u"debug "_s, u"warning "_s, u"critical "_s, u"fatal "_s,
                                        u"info "_s};
        log.append(levels.at(type) + text);
    });
    return log;
}

QByteArray difference(const QByteArray &what, const QByteArray &expected, const QByteArray &got)
{
    if (got == expected)
        return {};
    const QTemporaryDir folder;
    const auto file = [&](const QByteArray &label, QByteArray text) {
        QFile file(folder.filePath(QString::fromUtf8(label)));
        if (file.open(QIODevice::WriteOnly))
            file.write(text.replace('\0', "\\0\n"));
        return file.fileName();
    };
    QProcess diff;
    diff.start(u"/usr/bin/diff"_s,
               {u"-a"_s, u"-u"_s, u"--label"_s, QString::fromUtf8("expected " + what), u"--label"_s,
                QString::fromUtf8("got " + what), file("expected", expected), file("got", got)});
    diff.waitForFinished(patience);
    QByteArray shown = "\n\n";
    for (const QByteArray &line : diff.readAll().split('\n'))
        shown += line.left(300) + '\n';
    return shown;
}

Outcome run(const QByteArrayList &command, const QByteArrayList &environment,
            const Channel &settings)
{
    using Reader = Channel::Reader;
    const OpenChannel channel(settings.kind);
    if (settings.fullFromTheStart)
        channel.fill();
    const int earlierFlags = channel.flags();
    Outcome outcome;
    const pid_t application
        = start(command, environment, channel, settings.kind == Channel::Kind::ForeignPipe);
    const QDeadlineTimer deadline(2 * patience);
    bool isRead = settings.reader == Reader::AtOnce;
    for (pid_t ended = 0; ended != -1 && !deadline.hasExpired();) { // -1: all have ended
        int status = 0;
        ended = ::waitpid(-1, &status, WNOHANG);
        if (ended == application)
            outcome.exitCode = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        isRead = isRead || (settings.reader == Reader::WhenFull && channel.isFull());
        constexpr int interval = 10; // ms
        if (isRead)
            channel.read(outcome.output, interval);
        else if (ended == 0)
            ::poll(nullptr, 0, interval);
    }
    while (channel.read(outcome.output, 0)) { }
    outcome.pid = application;
    outcome.keptFlags = channel.flags() == earlierFlags;
    return outcome;
}

void TestInFolder::init()
{
    ++rows;
    hadDumpFolder = QFile::exists(dumpFolder);
    qunsetenv("TMPDIR");
    folder = std::make_unique<QTemporaryDir>();
    QDir::setCurrent(folder->path());
    qputenv("TMPDIR", path());
    qputenv("PATH", path() + ":/bin:/usr/bin");
}

void TestInFolder::cleanup()
{
    qInstallMessageHandler(nullptr);
    endChildren();
    for (const QString &dump : std::as_const(ownDumpFiles))
        QFile::remove(dump);
    ownDumpFiles.clear();
    if (hasOwnTmp())
        shell("rm -rf /tmp/vastel-mail");
    else if (!hadDumpFolder)
        QDir().rmdir(dumpFolder);
    QDir::setCurrent(earlierFolder);
    const QStringList variables = QProcessEnvironment::systemEnvironment().keys();
    for (const QString &variable : variables)
        qunsetenv(variable.toLocal8Bit().constData());
    for (const QString &variable : earlierEnvironment.keys())
        qputenv(variable.toLocal8Bit().constData(),
                earlierEnvironment.value(variable).toLocal8Bit());
    folder.reset();
}

QStringList TestInFolder::dumpFiles(const QByteArray &log, const QByteArray &appName)
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
    ownDumpFiles += paths;
    return paths;
}

void prepareProcess(char *argv[])
{
    // What starts the tests can have ignored or blocked signals: nohup(1), a shell, ninja(1).
    for (int number = 1; number <= SIGRTMAX; ++number)
        ::signal(number, SIG_DFL);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    // Programs that crash on purpose must leave no core dumps.
    const rlimit noCore = {0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    // Qt Test would run the stand-in for gdb when it crashes itself.
    qputenv("QTEST_DISABLE_STACK_DUMP", "1");
    // An application that is started again detached, or whose parent is killed, becomes a child of this
    // process. So its end is seen here.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);

    if (hasOwnTmp())
        return;
    // A refusal can come after half of the steps, so a child tries them first.
    const pid_t trial = ::fork();
    if (trial == 0)
        ::_exit(makeOwnTmp() ? EXIT_SUCCESS : EXIT_FAILURE);
    int status = 0;
    ::waitpid(trial, &status, 0);
    if (status != 0 || !makeOwnTmp()) {
        qWarning("No /tmp of its own for this test: the system refuses it.");
        return;
    }
    qputenv(ownTmpVariable, "yes");
    // Executed anew, an ordinary user's test loses the capabilities that the namespace gave it.
    ::execv("/proc/self/exe", argv);
}
