// An application of several named threads that crashes in the way it is told to. When it is back, it says so.
//
// Usage: crashing-application HANDLER MINIMUM-UPTIME UPTIME WAY
//   WAY  null-pointer, stack-overflow, two-threads, forked-child (that crashes first, then the main thread),
//        or the number of the signal that it raises

#include <vastel-mail/crashreporting.h>

#include <barrier>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

static int readMessageSize(const int *message)
{
    return *message;
}

static int openMessage()
{
    const int *volatile message = nullptr; // volatile hides that from the compiler
    return readMessageSize(message);
}

static int countNestedReplies(int depth) // NOLINT(misc-no-recursion): to overflow the stack
{
    volatile int
        repliesAt[8 * 1024]; // so that there are hundreds of frames, not hundreds of thousands
    repliesAt[0] = depth;
    return depth < 0 ? 0 : countNestedReplies(depth + 1) + repliesAt[0];
}

static void crash(std::string_view way)
{
    if (way == "forked-child" && fork() != 0) {
        int status = 0;
        wait(&status);
        std::fprintf(stderr, "the forked child was ended by signal %d\n", WTERMSIG(status));
    }
    if (way == "stack-overflow") {
        {
            // When it ends, the thread has its earlier stack again.
            const crashreporting::AlternateSignalStack nestedStack;
        }
        countNestedReplies(0);
    }
    const int number = std::atoi(way.data());
    number > 0 ? std::raise(number) : openMessage();
}

int main(int argc, char *argv[])
{
    if (argc != 5)
        return EXIT_FAILURE;
    const std::chrono::seconds minimumUptime(std::atoi(argv[2]));
    if (!crashreporting::install(
            {.appName = "crashing", .handlerPath = argv[1], .minimumUptime = minimumUptime}))
        std::perror("crashes will not be reported");
    if (open("crashed", O_CREAT | O_EXCL, S_IRUSR) == -1) {
        std::fputs("back again\n", stderr);
        return EXIT_SUCCESS;
    }
    const std::string_view way = argv[4];
    std::barrier threadsReady{3};
    const auto work = [&](const char *name) {
        const crashreporting::AlternateSignalStack signalStack;
        pthread_setname_np(pthread_self(), name);
        threadsReady.arrive_and_wait();
        if (way == "two-threads")
            openMessage();
        pause();
    };
    const std::thread indexer(work, "mail-index");
    const std::thread sender(work, "mail-send");
    threadsReady.arrive_and_wait();
    std::this_thread::sleep_for(std::chrono::seconds(std::atoi(argv[3])));
    if (way == "two-threads")
        pause();
    crash(way);
}
