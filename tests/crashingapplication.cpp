// An application of several named threads that crashes in the way it is told to. When it has been started
// again, it says so and ends normally.
//
// Usage: crashing-application HANDLER MINIMUM UPTIME WAY
//   HANDLER  path of the crash handler
//   MINIMUM  the uptime in seconds below which the application is not started again
//   UPTIME   the seconds that it waits before it crashes
//   WAY      null-pointer, stack-overflow, two-threads, forked-child (a forked child crashes first,
//            unreported, then the main thread), or the number of the signal that it raises

#include <vastel-mail/crashreporting.h>

#include <array>
#include <barrier>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Message
{
    int size;
};

int readMessageSize(const Message *message)
{
    return message->size;
}

int openMessage()
{
    // Volatile hides from the compiler that it is null.
    const Message *volatile message = nullptr;
    return readMessageSize(message);
}

int countNestedReplies(int depth) // NOLINT(misc-no-recursion): overflowing the stack is its purpose
{
    // Large, so that the backtrace has hundreds of frames and not hundreds of thousands.
    volatile int repliesAt[8 * 1024];
    repliesAt[0] = depth;
    return depth < 0 ? 0 : countNestedReplies(depth + 1) + repliesAt[0];
}

void crashForkedChild()
{
    const pid_t child = fork();
    if (child == 0)
        openMessage();
    int status = 0;
    if (waitpid(child, &status, 0) == child && WIFSIGNALED(status))
        std::fprintf(stderr, "the forked child was ended by signal %d\n", WTERMSIG(status));
}

/// Does not return.
void crash(std::string_view way)
{
    // All threads are there before anything crashes.
    std::barrier threadsReady{3};
    const auto work = [&](const char *name, bool crashes) {
        const crashreporting::AlternateSignalStack signalStack;
        pthread_setname_np(pthread_self(), name);
        threadsReady.arrive_and_wait();
        if (crashes)
            openMessage();
        for (;;)
            pause();
    };
    const std::thread indexer(work, "mail-index", way == "two-threads");
    const std::thread sender(work, "mail-send", way == "two-threads");
    threadsReady.arrive_and_wait();

    if (way == "forked-child")
        crashForkedChild();
    if (way == "null-pointer" || way == "forked-child")
        openMessage();
    else if (way == "stack-overflow")
        countNestedReplies(0);
    else if (way != "two-threads")
        std::raise(std::atoi(way.data()));
    for (;;)
        pause();
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc != 5)
        return EXIT_FAILURE;
    const std::chrono::seconds minimum{std::atoi(argv[2])};
    const std::chrono::seconds uptime{std::atoi(argv[3])};
    if (!crashreporting::install(
            {.appName = "crashing", .handlerPath = argv[1], .minimumUptime = minimum}))
        std::perror("crashes will not be reported");
    if (open("crashed", O_CREAT | O_EXCL, S_IRUSR) == -1) {
        std::fputs("back again\n", stderr);
        return EXIT_SUCCESS;
    }
    {
        // The stack of install() is back after it.
        const crashreporting::AlternateSignalStack nestedStack;
    }
    std::this_thread::sleep_for(uptime);
    crash(argv[4]);
}
