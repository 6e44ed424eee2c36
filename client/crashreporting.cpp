#include "client/crashreporting.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace crashreporting {

namespace {

struct CrashSignal
{
    int number;
    const char *name;
};

/// The signals of signal(7) whose default action is to dump core and that a fault of the program
/// raises.
constexpr std::array crashSignals{
    CrashSignal{SIGSEGV, "SIGSEGV"}, CrashSignal{SIGBUS, "SIGBUS"},
    CrashSignal{SIGFPE, "SIGFPE"},   CrashSignal{SIGILL, "SIGILL"},
    CrashSignal{SIGABRT, "SIGABRT"}, CrashSignal{SIGTRAP, "SIGTRAP"},
    CrashSignal{SIGSYS, "SIGSYS"},
};

/// Enough for the signal frame with the largest register state there is and for the few calls
/// below.
constexpr std::size_t signalStackSize = std::size_t{64} * 1024;

/// The exit code by which a shell, too, reports a program that it cannot start.
constexpr int commandNotFound = 127;

/// A copied setting. Not on the heap, which a crashing application may have damaged.
using Text = std::array<char, PATH_MAX>;

/// What is true of the process that called install(), and of none of its children.
struct Process
{
    pid_t id;
    std::atomic<bool> isCrashing;
};
static_assert(std::atomic<bool>::is_always_lock_free,
              "the signal handler must not wait for a lock");

// Everything that the signal handler reads is set before it is installed.
Process *installedProcess;
Text handlerPath;
Text appName;
std::chrono::seconds minimumUptime;
timespec installTime;
/// Through this pipe the crashed process tells its child that the child may trace it. It is made
/// beforehand, because a process that crashes may have used up its descriptors. execve(2) closes
/// it, so that the crash handler has two to load its libraries with.
std::array<int, 2> permissionPipe;

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
    // In whole seconds: in a smaller unit, a large minimum would overflow.
    const time_t begunSecond = now.tv_nsec < installTime.tv_nsec ? 1 : 0;
    return std::chrono::seconds(now.tv_sec - installTime.tv_sec - begunSecond) < minimumUptime;
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
    // With its own copy closed, the child sees the end of the pipe if the parent is killed. It must
    // end then: the crash handler takes its parent for the crashed process, and that would be a
    // stranger.
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
        = {handlerPath.data(), signalName(signalNumber), appName.data(), restart, nullptr};
    // execv(3) takes pointers to non-const for historical reasons only.
    execv(handlerPath.data(), const_cast<char *const *>(arguments));
    _exit(commandNotFound);
}

/// Starts the crash handler and waits for its end.
void reportCrash(int signalNumber)
{
    // The first crash is the one to report. A second thread that crashes meanwhile waits, so that
    // the report shows it where it stands, until the first one ends the process. The same thread
    // cannot come here twice: all signals are blocked, and the kernel ends a process that faults
    // with its signal blocked.
    if (installedProcess->isCrashing.exchange(true)) {
        for (;;)
            pause();
    }

    // If it is ignored, the child's end cannot be waited for.
    setDefaultAction(SIGCHLD);

    // fork(3) would run the handlers of pthread_atfork(3) and take the allocator's lock.
    const pid_t child = _Fork();
    if (child == 0)
        becomeHandler(signalNumber);
    if (child == -1)
        return;

    // For the Yama security module, which by itself lets only ancestors trace. Elsewhere the call
    // fails.
    prctl(PR_SET_PTRACER, child, 0, 0, 0);
    const char permission = 1;
    // An empty pipe takes a byte without fail.
    [[maybe_unused]] const ssize_t written
        = write(permissionPipe[1], &permission, sizeof permission);
    while (waitpid(child, nullptr, 0) == -1 && errno == EINTR) { }
}

/// The signal handler. It and what it calls are async-signal-safe (signal-safety(7)): the crash may
/// have left any lock taken.
void onCrash(int signalNumber)
{
    // A child of vfork(2) shares this memory, but has another ID. A forked child can have the same
    // ID, in a PID namespace of its own, but the kernel clears the stored one there.
    if (installedProcess->id == getpid())
        reportCrash(signalNumber);

    // The signal is blocked until this function returns, and then ends the process where it
    // crashed.
    setDefaultAction(signalNumber);
    raise(signalNumber);
}

/// Returns memory of its own pages, or null with errno.
void *mapMemory(std::size_t size)
{
    void *const memory
        = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : memory;
}

/// Sets a signal stack for the calling thread. Returns its memory, or null.
void *setSignalStack()
{
    void *const memory = mapMemory(signalStackSize);
    if (memory == nullptr)
        return nullptr; // without one, only a stack overflow of this thread goes unreported
    stack_t stack = {};
    stack.ss_sp = memory;
    stack.ss_size = signalStackSize;
    sigaltstack(&stack, nullptr);
    return memory;
}

bool refuse(int reason)
{
    errno = reason;
    return false;
}

/// Sets \a found to the absolute path of the program \a path, which a later chdir(2) does not
/// change.
bool findProgram(const char *path, Text &found)
{
    struct stat status;
    if (realpath(path, found.data()) == nullptr || stat(found.data(), &status) == -1)
        return false;
    // As execve(2), which refuses folders and devices by this error.
    if (!S_ISREG(status.st_mode))
        return refuse(EACCES);
    return faccessat(AT_FDCWD, found.data(), X_OK, AT_EACCESS) == 0;
}

} // namespace

AlternateSignalStack::AlternateSignalStack()
    : memory(setSignalStack())
{
}

AlternateSignalStack::~AlternateSignalStack()
{
    if (memory == nullptr)
        return;
    stack_t stack = {};
    stack.ss_flags = SS_DISABLE;
    sigaltstack(&stack, nullptr);
    munmap(memory, signalStackSize);
}

bool install(const Settings &settings)
{
    if (settings.appName == nullptr)
        return refuse(EINVAL);
    const std::size_t appNameSize = std::strlen(settings.appName) + 1;
    if (appNameSize > appName.size())
        return refuse(ENAMETOOLONG);
    Text path;
    if (!findProgram(settings.handlerPath == nullptr ? CRASH_HANDLER_PATH : settings.handlerPath,
                     path))
        return false;

    void *const memory = mapMemory(sizeof(Process));
    if (memory == nullptr)
        return false;
    std::array<int, 2> newPipe;
    if (pipe2(newPipe.data(), O_CLOEXEC) == -1) {
        const int reason = errno;
        munmap(memory, sizeof(Process));
        return refuse(reason);
    }

    // Nothing fails from here on. Kernels before 4.14 refuse this; there, the IDs alone tell a
    // forked child.
    madvise(memory, sizeof(Process), MADV_WIPEONFORK);
    installedProcess = new (memory) Process{getpid(), false};
    handlerPath = path;
    std::memcpy(appName.data(), settings.appName, appNameSize);
    minimumUptime = settings.minimumUptime;
    clock_gettime(CLOCK_MONOTONIC, &installTime);
    permissionPipe = newPipe;

    // Kept until the process ends: the main thread can crash at any moment up to then.
    setSignalStack();

    struct sigaction action = {};
    action.sa_handler = onCrash;
    action.sa_flags = SA_ONSTACK;
    // Nothing else of the application is to run on the crashed thread any more.
    sigfillset(&action.sa_mask);
    for (const CrashSignal &signal : crashSignals)
        sigaction(signal.number, &action, nullptr);
    return true;
}

} // namespace crashreporting
