#include "client/crashreporting_c.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

/// Lies at the beginning of the memory of a signal stack.
struct vastel_mail_signal_stack
{
    stack_t earlier;
};

namespace {

struct CrashSignal
{
    int number;
    const char *name;
};

/// The signals of signal(7) whose default action is to dump core and that a fault of the program
/// raises. The header and the guide name them, too.
constexpr std::array crashSignals{
    CrashSignal{SIGSEGV, "SIGSEGV"}, CrashSignal{SIGBUS, "SIGBUS"},
    CrashSignal{SIGFPE, "SIGFPE"},   CrashSignal{SIGILL, "SIGILL"},
    CrashSignal{SIGABRT, "SIGABRT"}, CrashSignal{SIGTRAP, "SIGTRAP"},
    CrashSignal{SIGSYS, "SIGSYS"},
};

/// A copied setting. Not on the heap, which a crashing application may have damaged.
using Text = std::array<char, PATH_MAX>;

/// Tells the child that its parent has permitted it to trace, which Yama may require. Any signal
/// serves: the child has all of them blocked.
constexpr int permissionSignal = SIGUSR1;

/// The size of a set of signals in the kernel, in bytes: _NSIG is 65, and 128 on MIPS. In sigset_t,
/// the rest is unused.
constexpr std::size_t signalSetSize = _NSIG / CHAR_BIT;

// Everything that the signal handler reads is set before it is installed.
pid_t installedProcess;
Text handlerPath;
Text appName;
long long minimumUptime; // seconds
timespec installTime;

pid_t crashedThread; // the first one; 0 before a crash
bool isRestartDisabled;

const char *signalName(int number)
{
    for (const CrashSignal &signal : crashSignals) {
        if (signal.number == number)
            return signal.name;
    }
    return "unknown signal";
}

bool isRestartWanted()
{
    if (__atomic_load_n(&isRestartDisabled, __ATOMIC_SEQ_CST))
        return false;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // In whole seconds: in a smaller unit, a large minimum would overflow.
    const time_t borrowed = now.tv_nsec < installTime.tv_nsec ? 1 : 0;
    return now.tv_sec - installTime.tv_sec - borrowed >= minimumUptime;
}

void setDefaultAction(int number)
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigaction(number, &action, nullptr);
}

/// Runs in the child: waits until it may trace its parent.
void waitForPermission(pid_t parent)
{
    // Without its parent, getppid(2) names another process, which must not be traced and started
    // again. So the child ends with its parent. This stays so across execve(2), until the crash
    // handler has read its parent's ID.
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    if (getppid() != parent)
        _exit(EXIT_FAILURE);
    sigset_t permissionSignals;
    sigemptyset(&permissionSignals);
    sigaddset(&permissionSignals, permissionSignal);
    // SIGCONT can interrupt the wait.
    while (syscall(SYS_rt_sigtimedwait, &permissionSignals, nullptr, nullptr, signalSetSize) == -1)
        continue;
}

/// Runs in the child.
[[noreturn]] void becomeCrashHandler(pid_t parent, int signalNumber)
{
    waitForPermission(parent);
    // The crash handler needs descriptors to load its libraries, and the application may have used
    // up all of them.
    closefrom(STDERR_FILENO + 1);
    const char *restart = isRestartWanted() ? nullptr : "--disable-restart";
    const char *const arguments[]
        = {handlerPath.data(), signalName(signalNumber), appName.data(), restart, nullptr};
    // execv(3) takes pointers to non-const, but does not write through them.
    char *const *const argv = const_cast<char *const *>(arguments);
    execv(handlerPath.data(), argv);
    // The crash may have damaged the environment, which the restart does not need: it is read from
    // /proc/PID/environ.
    char *const noVariables[] = {nullptr};
    execve(handlerPath.data(), argv, noVariables);
    _exit(EXIT_FAILURE);
}

/// The ID of the calling thread. gettid() may read it from the thread's memory.
pid_t threadId()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

/// Forks. fork() would run the handlers of pthread_atfork(3) and take the allocator's lock; _Fork()
/// writes to the thread's memory.
pid_t forkProcess()
{
#ifdef __s390__ // takes the first two arguments in the other order (clone(2))
    return static_cast<pid_t>(syscall(SYS_clone, 0, SIGCHLD, 0, 0, 0));
#else
    return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
#endif
}

/// Where the first thread that has crashed stands in the report.
[[gnu::noinline]] void awaitCrashHandler(pid_t child)
{
    syscall(SYS_wait4, child, nullptr, 0, nullptr);
}

/// Where every later thread that has crashed stands in the report.
[[noreturn, gnu::noinline]] void waitForever()
{
    while (true)
        syscall(SYS_ppoll, nullptr, 0, nullptr, nullptr, 0);
}

/// Starts the crash handler and waits for its end.
void reportCrash(int signalNumber)
{
    // Only the first crash is reported. Every later thread waits until the first one ends the
    // process. The first thread can come back: SIGABRT does not end process 1 of a container, and
    // abort(3) then raises another signal. It must not wait then.
    const pid_t thread = threadId();
    pid_t firstThread = 0;
    if (!__atomic_compare_exchange_n(&crashedThread, &firstThread, thread, false, __ATOMIC_SEQ_CST,
                                     __ATOMIC_SEQ_CST)) {
        if (firstThread != thread)
            waitForever();
        return;
    }

    const pid_t parent = getpid();
    const pid_t child = forkProcess();
    if (child == 0)
        becomeCrashHandler(parent, signalNumber);
    if (child == -1)
        return;

    // For the Yama security module, which by itself lets only ancestors trace. Elsewhere the call
    // fails.
    prctl(PR_SET_PTRACER, child, 0, 0, 0);
    kill(child, permissionSignal);
    awaitCrashHandler(child);
}

/// The signal handler.
///
/// The crash may have left any lock taken. So everything that is called here is async-signal-safe
/// (signal-safety(7); prctl(2), closefrom(3) and syscall(2) are so in glibc).
///
/// The crash may also have overwritten the C library's descriptor of the thread and the thread's
/// local variables, which lie behind the end of its stack. So errno is not read here, and
/// syscall(2) stands for each function that could read that memory.
void onCrash(int signalNumber)
{
    // In one PID namespace, a forked child has another ID, also after vfork(2), when it shares this
    // memory.
    const pid_t process = getpid();
    if (process == installedProcess)
        reportCrash(signalNumber);

    // The signal is blocked until this function returns, and then ends the process where it
    // crashed.
    setDefaultAction(signalNumber);
    syscall(SYS_tgkill, process, threadId(), signalNumber);
}

/// Enough for the signal frame with all registers of this processor, and for the few calls above.
std::size_t signalStackSize()
{
    return std::size_t{64} * 1024 + static_cast<std::size_t>(sysconf(_SC_MINSIGSTKSZ));
}

int refuse(int reason)
{
    errno = reason;
    return -1;
}

/// Sets \a found to the absolute path of the program \a path, which a later chdir(2) does not
/// change. Returns 0, or -1 with errno.
int findProgram(const char *path, Text &found)
{
    struct stat status;
    if (realpath(path, found.data()) == nullptr || stat(found.data(), &status) == -1)
        return -1;
    // As execve(2), which refuses folders and devices by this error.
    if (!S_ISREG(status.st_mode))
        return refuse(EACCES);
    return faccessat(AT_FDCWD, found.data(), X_OK, AT_EACCESS);
}

} // namespace

struct vastel_mail_signal_stack *vastel_mail_begin_signal_stack()
{
    const std::size_t size = signalStackSize();
    void *const memory
        = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return nullptr;
    auto *const begun = new (memory) vastel_mail_signal_stack{};
    stack_t stack = {};
    stack.ss_sp = begun + 1;
    stack.ss_size = size - sizeof *begun;
    sigaltstack(&stack, &begun->earlier);
    return begun;
}

void vastel_mail_end_signal_stack(struct vastel_mail_signal_stack *stack)
{
    if (stack == nullptr)
        return;
    sigaltstack(&stack->earlier, nullptr);
    munmap(stack, signalStackSize());
}

void vastel_mail_disable_restart()
{
    __atomic_store_n(&isRestartDisabled, true, __ATOMIC_SEQ_CST);
}

int vastel_mail_install_crash_reporting(const struct vastel_mail_crash_settings *settings)
{
    // The crash handler would take a name with a hyphen in front for an option.
    if (settings->app_name == nullptr || settings->app_name[0] == '-'
        || settings->handler_path == nullptr)
        return refuse(EINVAL);
    const std::size_t appNameSize = std::strlen(settings->app_name) + 1;
    if (appNameSize > appName.size())
        return refuse(ENAMETOOLONG);
    Text path;
    if (findProgram(settings->handler_path, path) == -1)
        return -1;

    // Nothing fails from here on.
    installedProcess = getpid();
    crashedThread = 0; // a child can have been forked while its parent was reported
    handlerPath = path;
    std::memcpy(appName.data(), settings->app_name, appNameSize);
    minimumUptime = settings->minimum_uptime;
    clock_gettime(CLOCK_MONOTONIC, &installTime);

    // Never ended: the main thread can crash at any moment until the process ends. Without it, only
    // a stack overflow goes unreported.
    vastel_mail_begin_signal_stack();

    struct sigaction action = {};
    action.sa_handler = onCrash;
    action.sa_flags = SA_ONSTACK;
    // All signals: nothing else of the application is to run on the crashed thread any more, and the
    // child, which inherits the mask, waits for permissionSignal. sigfillset(3) would leave out the
    // signal by which a thread is cancelled: the thread would end, and the process live on.
    std::memset(&action.sa_mask, 0xff, sizeof action.sa_mask);
    // A fault whose signal is blocked would end the process unreported.
    sigset_t unblocked;
    sigemptyset(&unblocked);
    for (const CrashSignal &signal : crashSignals) {
        sigaction(signal.number, &action, nullptr);
        sigaddset(&unblocked, signal.number);
    }
    pthread_sigmask(SIG_UNBLOCK, &unblocked, nullptr);
    return 0;
}
