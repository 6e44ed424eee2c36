#include "app/inheritedstate.h"

#include <csignal>
#include <initializer_list>

#include <fcntl.h>
#include <unistd.h>

namespace {

/// The next file or pipe that is opened would otherwise become standard input, output or error: the log would
/// be written into the report, or the debugger's output taken for ours.
void openStandardDescriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // open(2) returns the lowest free descriptor, which is this one: those below it are open.
        if (::fcntl(descriptor, F_GETFD) == -1) {
            [[maybe_unused]] const int opened = ::open("/dev/null", O_RDWR);
        }
    }
}

/// An ignored signal stays ignored across execve(2). With SIGCHLD ignored, moreover, the kernel reaps a child
/// itself, and its exit code is lost (wait(2)).
void resetSignalActions()
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    // Refused, without harm, for SIGKILL and SIGSTOP and for the two signals that the C library keeps.
    for (int number = 1; number <= SIGRTMAX; ++number)
        ::sigaction(number, &action, nullptr);
}

/// Lets a write fail where it would end this process: to a pipe without reader (SIGPIPE), and past the
/// inherited limit of a file's size (SIGXFSZ). Caught signals, unlike ignored ones, are back at their default
/// after execve(2).
void surviveFailedWrites()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGPIPE, &action, nullptr);
    ::sigaction(SIGXFSZ, &action, nullptr);
}

/// The handler is started from a signal handler, where at least the crash's own signal is blocked. A blocked
/// mask stays across execve(2), and a fault whose signal is blocked ends a process without its handler.
void unblockSignals()
{
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

} // namespace

void resetInheritedState()
{
    openStandardDescriptors();
    // Sockets, locks and files of the application; they stay as they are in the crashed process itself.
    ::closefrom(STDERR_FILENO + 1);
    resetSignalActions();
    surviveFailedWrites();
    // Last: a signal that is already waiting to be delivered meets the actions that hold from here on.
    unblockSignals();
}
