#include "app/standarderror.h"

#include <cerrno>
#include <csignal>
#include <cstdio>

#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t isPatienceOver = 0;

void endPatience(int /*signal*/)
{
    isPatienceOver = 1;
}

void waitUntilWritable()
{
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    ::poll(&standardError, 1, -1);
}

/// Writes to standard error. O_NONBLOCK would be the usual way not to wait. But it belongs to the
/// open file description, which other processes share. So a timer interrupts a write that waits.
ssize_t writePatiently(void * /*cookie*/, const char *text, std::size_t size)
{
    // What is left of the second. At its end the timer fires every millisecond: a single signal
    // could arrive just before the write that it is to end.
    static itimerval patience{{0, 1000}, {1, 0}};
    constexpr itimerval stopped{};

    ::setitimer(ITIMER_REAL, &patience, nullptr);
    std::size_t written = 0;
    while (written < size && isPatienceOver == 0) {
        const ssize_t count = ::write(STDERR_FILENO, text + written, size - written);
        if (count >= 0)
            written += static_cast<std::size_t>(count);
        else if (errno == EAGAIN)
            waitUntilWritable(); // was inherited with O_NONBLOCK
        else if (errno != EINTR)
            break;
    }
    ::setitimer(ITIMER_REAL, &stopped, &patience);
    // Less than a microsecond is left as 0, by which the timer would never start again.
    if (!timerisset(&patience.it_value))
        isPatienceOver = 1;
    // To the stream, the end of the log is no error.
    return static_cast<ssize_t>(size);
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
    // Line-buffered: what a library says before it aborts must not stay in a buffer, and to an
    // unbuffered stream, newer versions of glibc write each text in many pieces.
    std::setvbuf(stream, nullptr, _IOLBF, BUFSIZ);
    // Without SA_RESTART, so that the signal ends a write that waits.
    struct sigaction action = {};
    action.sa_handler = endPatience;
    ::sigaction(SIGALRM, &action, nullptr);
    stderr = stream;
}
