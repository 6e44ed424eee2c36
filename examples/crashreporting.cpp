#include "examples/crashreporting.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace crashreporting {

namespace {

struct CrashSignal
{
    int number;
    const char *name;
};

/// The signals of signal(7) whose default action is to dump core and that a fault of the program raises.
constexpr std::array crashSignals{
    CrashSignal{SIGSEGV, "SIGSEGV"}, CrashSignal{SIGBUS, "SIGBUS"},
    CrashSignal{SIGFPE, "SIGFPE"},   CrashSignal{SIGILL, "SIGILL"},
    CrashSignal{SIGABRT, "SIGABRT"}, CrashSignal{SIGTRAP, "SIGTRAP"},
    CrashSignal{SIGSYS, "SIGSYS"},
};

/// Enough for the signal frame with the largest register state there is and for the few calls below.
constexpr std::size_t signalStackSize = std::size_t{64} * 1024;

/// The exit code by which a shell, too, reports a program that it cannot start.
constexpr int commandNotFound = 127;

// Everything that the signal handler reads is set before it is installed.
Settings settings;
timespec installTime;
/// The crashed process tells its child through this pipe that it may be traced. Made beforehand, because a
/// process that crashes may have used up its descriptors.
std::array<int, 2> permissionPipe;
std::atomic_flag handlingCrash;

const char *signalName(int number)
{
    for (const CrashSignal &signal : crashSignals) {
        if (signal.number == number)
            return signal.name;
    }
    return "unknown signal";
}

bool diedTooEarly()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const std::chrono::nanoseconds uptime = std::chrono::seconds(now.tv_sec - installTime.tv_sec)
        + std::chrono::nanoseconds(now.tv_nsec - installTime.tv_nsec);
    return uptime < settings.minimumUptime;
}

void setDefaultAction(int number)
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigaction(number, &action, nullptr);
}

/// Runs in the child: becomes the crash handler once the parent may be traced.
[[noreturn]] void becomeHandler(int signalNumber)
{
    // With its own copy closed, the child sees the end of the pipe if the parent is killed. It must end
    // then: the handler takes its parent for the crashed process, and that would be a stranger by now.
    close(permissionPipe[1]);
    char permission;
    ssize_t count;
    do {
        count = read(permissionPipe[0], &permission, sizeof permission);
    } while (count == -1 && errno == EINTR);
    if (count != sizeof permission)
        _exit(EXIT_FAILURE);

    const char *restart = diedTooEarly() ? "--disable-restart" : nullptr;
    const char *const arguments[]
        = {settings.handlerPath, signalName(signalNumber), settings.appName, restart, nullptr};
    // execv(3) takes pointers to non-const for historical reasons only.
    execv(settings.handlerPath, const_cast<char *const *>(arguments));
    _exit(commandNotFound);
}

/// Only async-signal-safe calls from here (signal-safety(7)): the crash may have left any lock taken, the
/// allocator's first of all.
void onCrash(int signalNumber)
{
    // The first crash is the one to report. A second thread that crashes meanwhile waits, so that it is seen
    // in the report where it stands, until the first one ends the process. The same thread cannot come
    // here twice: all signals are blocked, and the kernel ends a process that faults with its signal
    // blocked.
    if (handlingCrash.test_and_set()) {
        for (;;)
            pause();
    }

    // With SIGCHLD ignored the child would be gone before it can be waited for.
    setDefaultAction(SIGCHLD);

    // Not fork(3), which runs the handlers of pthread_atfork(3) and takes the allocator's lock.
    const pid_t child = _Fork();
    if (child == 0)
        becomeHandler(signalNumber);

    if (child > 0) {
        // The Yama security module lets only a process's ancestors trace it, unless it names another one;
        // the debugger is covered as a descendant of the named one. Elsewhere the call fails, harmlessly.
        prctl(PR_SET_PTRACER, child, 0, 0, 0);
        const char permission = 1;
        // An empty pipe takes a byte without fail.
        [[maybe_unused]] const ssize_t written
            = write(permissionPipe[1], &permission, sizeof permission);
        while (waitpid(child, nullptr, 0) == -1 && errno == EINTR) { }
    }

    // The signal is blocked as long as this function runs. When it returns, the process ends by it exactly
    // where it crashed, so a core dump shows the crash and the parent learns the signal.
    setDefaultAction(signalNumber);
    raise(signalNumber);
}

} // namespace

AlternateSignalStack::AlternateSignalStack()
    : memory(
        mmap(nullptr, signalStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
{
    if (memory == MAP_FAILED)
        return; // without one, only a stack overflow of this thread goes unreported
    stack_t stack = {};
    stack.ss_sp = memory;
    stack.ss_size = signalStackSize;
    sigaltstack(&stack, nullptr);
}

AlternateSignalStack::~AlternateSignalStack()
{
    if (memory == MAP_FAILED)
        return;
    stack_t stack = {};
    stack.ss_flags = SS_DISABLE;
    sigaltstack(&stack, nullptr);
    munmap(memory, signalStackSize);
}

bool install(const Settings &newSettings)
{
    settings = newSettings;
    clock_gettime(CLOCK_MONOTONIC, &installTime);
    if (pipe2(permissionPipe.data(), O_CLOEXEC) == -1)
        return false;

    // Lives as long as the process: the main thread can crash at any moment up to its end.
    static const auto *const mainThreadStack = new AlternateSignalStack;
    static_cast<void>(mainThreadStack);

    struct sigaction action = {};
    action.sa_handler = onCrash;
    action.sa_flags = SA_ONSTACK;
    // Nothing else of the application is to run on the crashed thread any more.
    sigfillset(&action.sa_mask);
    for (const CrashSignal &signal : crashSignals) {
        if (sigaction(signal.number, &action, nullptr) == -1)
            return false;
    }
    return true;
}

} // namespace crashreporting
