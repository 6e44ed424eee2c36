#include "app/standarderror.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

/// Once it has fired, the timer does so again and again: a single signal could arrive just before
/// the write that it is to end.
constexpr timeval repetition{0, 1000}; // 1 ms

volatile std::sig_atomic_t isPatienceOver = 0;

void endPatience(int /*signal*/)
{
    isPatienceOver = 1;
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

/// How often this process has slept until something happened. A process that merely lets others
/// have the processor is not counted (getrusage(2)).
long countSleeps()
{
    rusage usage = {};
    ::getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

void waitUntilWritable()
{
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    ::poll(&standardError, 1, -1);
}

/// Writes to standard error. O_NONBLOCK would be the usual way not to wait. But it belongs to the
/// open file description, which other processes share, and not everything can be opened anew. So a
/// timer interrupts a write that waits.
ssize_t writePatiently(void * /*cookie*/, const char *text, std::size_t size)
{
    static timeval patience{1, 0}; // what is left of the second
    const itimerval running{repetition, patience};
    const itimerval stopped{};
    itimerval rest{};

    const long earlierSleeps = countSleeps();
    setTerminalStop(SIG_BLOCK);
    ::setitimer(ITIMER_REAL, &running, nullptr);
    std::size_t written = 0;
    while (written < size && isPatienceOver == 0) {
        // A datagram socket takes no large text at once.
        const std::size_t piece = std::min<std::size_t>(size - written, BUFSIZ);
        const ssize_t count = ::write(STDERR_FILENO, text + written, piece);
        if (count >= 0)
            written += static_cast<std::size_t>(count);
        else if (errno == EAGAIN)
            waitUntilWritable(); // was inherited with O_NONBLOCK
        else if (errno != EINTR)
            break;
    }
    ::setitimer(ITIMER_REAL, &stopped, &rest);
    setTerminalStop(SIG_UNBLOCK);
    // On a busy machine any call can take long. Only a write that has slept waited for the reader.
    if (countSleeps() != earlierSleeps)
        patience = rest.it_value;
    // To the stream, the end of the log is no error.
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
    // A file and /dev/null have no reader. Unlike a pipe, a socket and a terminal, they have a
    // position (lseek(2)).
    if (::lseek(STDERR_FILENO, 0, SEEK_CUR) != -1)
        return;
    std::FILE *stream = ::fopencookie(nullptr, "w", {nullptr, writePatiently, nullptr, nullptr});
    if (stream == nullptr)
        return;
    // Line-buffered: what a library says before it aborts must not stay in a buffer, and to a
    // stream without one, newer versions of glibc write each text in many pieces.
    std::setvbuf(stream, nullptr, _IOLBF, BUFSIZ);
    // Without SA_RESTART, so that the signal ends a write that waits.
    struct sigaction action = {};
    action.sa_handler = endPatience;
    ::sigaction(SIGALRM, &action, nullptr);
    enlargePipe();
    stderr = stream;
}
