#include "app/standarderror.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

/// The timer fires again and again: a single signal could arrive just before the write that it is
/// to end.
constexpr timeval repetition{0, 1000}; // 1 ms

volatile std::sig_atomic_t isPatienceOver = 0;

void endPatience(int /*signal*/)
{
    isPatienceOver = 1;
}

bool isWritable(int timeout)
{
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    return ::poll(&standardError, 1, timeout) == 1;
}

/// Under "stty tostop", SIGTTOU would stop a background process that writes to its terminal, and
/// the application with it. A process that blocks the signal may write. It is blocked during the
/// write only, because the debugger and the restarted application inherit the signal mask.
void setTerminalStop(int how)
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGTTOU);
    ::sigprocmask(how, &signals, nullptr);
}

/// Writes to standard error. O_NONBLOCK would be the usual way not to wait. But it belongs to the
/// open file description, which other processes share, and not everything can be opened anew. So a
/// timer interrupts a write that waits.
ssize_t writePatiently(void * /*cookie*/, const char *text, std::size_t size)
{
    static timeval patience{1, 0}; // what is left of the second; passes only while a text waits
    const itimerval running{repetition, isPatienceOver != 0 ? repetition : patience};
    setTerminalStop(SIG_BLOCK);
    ::setitimer(ITIMER_REAL, &running, nullptr);

    std::size_t written = 0;
    bool hasWaited = false;
    while (written < size) {
        const bool mustWait = !isWritable(0);
        if (mustWait && isPatienceOver != 0)
            break;
        hasWaited = hasWaited || mustWait;
        // A pipe that is writable takes this much without a wait (pipe(7)).
        const std::size_t piece = std::min<std::size_t>(size - written, PIPE_BUF);
        const ssize_t count = ::write(STDERR_FILENO, text + written, piece);
        if (count > 0)
            written += static_cast<std::size_t>(count);
        else if (count == -1 && errno == EAGAIN && isPatienceOver == 0)
            isWritable(-1); // was inherited with O_NONBLOCK
        else if (count == 0 || errno != EINTR || isPatienceOver != 0)
            break;
    }

    const itimerval stopped{};
    itimerval rest{};
    ::setitimer(ITIMER_REAL, &stopped, &rest);
    // Another writer can take the room between the poll and the write: then only the time tells.
    timeval passed{};
    timersub(&patience, &rest.it_value, &passed);
    if (hasWaited || timercmp(&passed, &repetition, >))
        patience = rest.it_value;
    setTerminalStop(SIG_UNBLOCK);
    // What is lost is no error of the stream: the next text may fit.
    return static_cast<ssize_t>(size);
}

/// A pipe is made larger only: one that has been made larger before would lose that.
void enlargePipe()
{
    constexpr int pipeSize = 1024 * 1024; // bytes; the default limit for an ordinary user (pipe(7))
    if (::fcntl(STDERR_FILENO, F_GETPIPE_SZ) < pipeSize)
        ::fcntl(STDERR_FILENO, F_SETPIPE_SZ, pipeSize); // fails, without harm, for all else
}

} // namespace

void boundWaitsOfStandardError()
{
    std::FILE *stream = ::fopencookie(nullptr, "w", {nullptr, writePatiently, nullptr, nullptr});
    if (stream == nullptr)
        return;
    // Without SA_RESTART, so that the signal ends a write that waits.
    struct sigaction action = {};
    action.sa_handler = endPatience;
    ::sigaction(SIGALRM, &action, nullptr);
    enlargePipe();
    stderr = stream;
}
