#include "app/inheritedstate.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// The next file or pipe that is opened would otherwise become standard input, output or error: the log would
/// be written into the report, or the debugger's output taken for ours.
void openStandardDescriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) != -1)
            continue;
        // open(2) returns the lowest free descriptor, which is this one: those below it are open. Where there
        // is no /dev, a folder takes the place, to which nothing can be written either.
        if (::open("/dev/null", O_RDWR) == -1)
            ::open("/", O_PATH);
    }
}

void setSignalAction(int number, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    // Refused, without harm, for SIGKILL and SIGSTOP and for the two signals that the C library keeps.
    ::sigaction(number, &action, nullptr);
}

/// What a user, by nohup(1) for one, or a shell has ignored for the application, so that a hang-up, a key or the
/// terminal's rules for background jobs do not end or stop it.
constexpr std::array userSignals{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP, SIGTTIN, SIGTTOU};

/// Sets every signal to its default: an ignored one would stay ignored across execve(2), and with SIGCHLD ignored
/// the kernel reaps a child itself and its exit code is lost (wait(2)). What must not end this program is caught
/// to no effect, since a caught signal is back at its default after execve(2).
void resetSignalActions()
{
    const auto doNothing = [](int) {};
    for (int number = 1; number <= SIGRTMAX; ++number) {
        struct sigaction inherited = {};
        ::sigaction(number, nullptr, &inherited);
        const bool isUsers
            = std::find(userSignals.begin(), userSignals.end(), number) != userSignals.end();
        setSignalAction(number, isUsers && inherited.sa_handler == SIG_IGN ? +doNothing : SIG_DFL);
    }
    // A write is to fail where it would end this process: to a pipe without reader, and past the inherited
    // limit of a file's size.
    setSignalAction(SIGPIPE, doNothing);
    setSignalAction(SIGXFSZ, doNothing);
}

/// The handler is started from a signal handler, where at least the crash's own signal is blocked. A blocked
/// mask stays across execve(2), and a fault whose signal is blocked ends a process without its handler.
void unblockSignals()
{
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Qt would take the first warning, of a missing system file perhaps, for a reason to abort. The application gets
/// its variables back with the rest of its environment.
void outliveWarnings()
{
    ::unsetenv("QT_FATAL_WARNINGS");
    ::unsetenv("QT_FATAL_CRITICALS");
}

/// The log may go into a pipe that somebody holds, but does not read: the crashed application itself, which shows
/// its log in a window and is stopped. Rather than wait for him for ever, this program loses log lines.
void keepLogFromWaiting()
{
    struct stat status = {};
    if (::fstat(STDERR_FILENO, &status) == -1 || !S_ISFIFO(status.st_mode))
        return;
    // Opened anew, because O_NONBLOCK belongs to the open pipe, which others share, and the restarted application
    // is to have as it is. Without any reader this fails; then writing fails as well and does not wait.
    const int descriptor = ::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    std::FILE *log = descriptor == -1 ? nullptr : ::fdopen(descriptor, "w");
    if (log == nullptr)
        return;
    // The largest that an ordinary user may have (pipe(7)): a reader who is only slow misses nothing.
    constexpr int pipeSize = 1024 * 1024;
    ::fcntl(descriptor, F_SETPIPE_SZ, pipeSize);
    std::setvbuf(log, nullptr, _IONBF, 0);
    stderr = log;
}

} // namespace

void resetInheritedState()
{
    openStandardDescriptors();
    // Sockets, locks and files of the application; they stay as they are in the crashed process itself.
    ::closefrom(STDERR_FILENO + 1);
    resetSignalActions();
    // Only now: a signal that is already waiting to be delivered meets the actions that hold from here on.
    unblockSignals();
    outliveWarnings();
    keepLogFromWaiting();
}
