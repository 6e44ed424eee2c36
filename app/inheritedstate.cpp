#include "app/inheritedstate.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace {

/// A descriptor that the application had closed would be given to the next file or pipe that is
/// opened here. The log would then be written into the dump file, for example.
void openStandardDescriptors()
{
    // open(2) returns the lowest free descriptor, so /dev/null is opened until 0, 1 and 2 are
    // taken. closefrom(3) closes the surplus one.
    int descriptor = STDIN_FILENO;
    while (descriptor != -1 && descriptor <= STDERR_FILENO)
        descriptor = ::open("/dev/null", O_RDWR);
}

void setSignalAction(int number, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    // Fails, without harm, for SIGKILL, SIGSTOP and the two signals that the C library keeps for
    // itself.
    ::sigaction(number, &action, nullptr);
}

/// The signals that nohup(1), shells and service managers ignore on behalf of the user: a hang-up,
/// a request to end, the keys of the terminal and its rules for background jobs.
constexpr std::array userSignals{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP, SIGTTIN, SIGTTOU};

/// An ignored signal stays ignored across execve(2), in the debugger and in the restarted
/// application. There it is wanted for the user's signals only. With SIGCHLD ignored, the exit code
/// of the debugger would be lost as well (wait(2)).
void resetSignalActions()
{
    for (int number = 1; number <= SIGRTMAX; ++number) {
        if (std::find(userSignals.begin(), userSignals.end(), number) == userSignals.end())
            setSignalAction(number, SIG_DFL);
    }
    // A write to a pipe without a reader, or beyond the limit of a file's size, must fail instead
    // of ending this program. Unlike an ignored signal, a handled one returns to its default on
    // execve(2).
    const auto doNothing = [](int) {};
    setSignalAction(SIGPIPE, doNothing);
    setSignalAction(SIGXFSZ, doNothing);
}

/// A signal handler blocks at least its own signal, and a child keeps the signal mask across
/// execve(2). A fault whose signal is blocked ends a process without calling its signal handler: the
/// next crash of the restarted application would not be reported.
void unblockSignals()
{
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// With these variables, Qt aborts at the first warning, for example about a missing system file.
/// If the application was started with them, it gets them back with its first environment.
void outliveWarnings()
{
    ::unsetenv("QT_FATAL_WARNINGS");
    ::unsetenv("QT_FATAL_CRITICALS");
}

} // namespace

void resetInheritedState()
{
    openStandardDescriptors();
    // Sockets, locks and files of the application. The crashed process keeps its own.
    ::closefrom(STDERR_FILENO + 1);
    resetSignalActions();
    // After the actions are set: a pending signal is delivered at once, and with its old action it
    // could end this program.
    unblockSignals();
    outliveWarnings();
}
