// A small application of several named threads that crashes in the way it is told to, is reported and
// restarted by the crash handler, and ends normally when it has come back.
//
// Usage: sample-application HANDLER RECORD WAY [ARGUMENT...]
//   HANDLER  path of the crash handler; if install() refuses it, the crash is not reported
//   RECORD   path of a file that does not exist yet. The first run writes its arguments and environment
//            there. The second run compares them with its own, which it writes to RECORD.back
//   WAY      null-pointer, abort, stack-overflow, second-thread, two-threads, or forked-child: a forked
//            child crashes first, unreported, then the main thread. The crash comes after the minimum
//            uptime. With "early-" before the way it comes at once, so there is no restart

#include <vastel-mail/crashreporting.h>

#include <algorithm>
#include <array>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::chrono::seconds minimumUptime{1};
constexpr std::string_view earlyPrefix = "early-";
constexpr std::array<std::string_view, 6> ways{"null-pointer",  "abort",       "stack-overflow",
                                               "second-thread", "two-threads", "forked-child"};

struct Message
{
    int size;
};

int readMessageSize(const Message *message)
{
    return message->size;
}

int openMessage(const char *folder)
{
    // Volatile, so that the compiler neither sees nor warns of what it points to.
    const Message *volatile message = nullptr;
    std::printf("opening a message in %s\n", folder);
    std::fflush(stdout);
    return readMessageSize(message);
}

int countNestedReplies(int depth) // NOLINT(misc-no-recursion): overflowing the stack is its purpose
{
    // Large, so that the backtrace has hundreds of frames and not hundreds of thousands.
    volatile int repliesAt[8 * 1024];
    repliesAt[0] = depth;
    return depth < 0 ? 0 : countNestedReplies(depth + 1) + repliesAt[0];
}

void runWorker(const char *name, const std::function<void()> &work)
{
    const crashreporting::AlternateSignalStack signalStack;
    pthread_setname_np(pthread_self(), name);
    work();
    for (;;)
        pause();
}

void crashForkedChild()
{
    const pid_t child = fork();
    if (child == 0)
        openMessage("outbox");
    int status = 0;
    if (waitpid(child, &status, 0) == child && WIFSIGNALED(status))
        std::printf("the forked child was ended by signal %d\n", WTERMSIG(status));
}

/// Crashes in the given way on the main thread or on a worker; the other workers wait. Does not return.
[[noreturn]] void crash(std::string_view way)
{
    // All threads are there before anything crashes.
    std::barrier threadsReady{4};
    const auto idle = [&] { threadsReady.arrive_and_wait(); };
    const auto crashing = [&] {
        threadsReady.arrive_and_wait();
        openMessage("inbox");
    };
    const bool secondThreadCrashes = way == "second-thread" || way == "two-threads";

    std::thread indexer(runWorker, "mail-index", idle);
    std::thread fetcher(runWorker, "mail-fetch",
                        secondThreadCrashes ? std::function<void()>(crashing) : idle);
    std::thread sender(runWorker, "mail-send",
                       way == "two-threads" ? std::function<void()>(crashing) : idle);
    threadsReady.arrive_and_wait();

    if (way == "forked-child")
        crashForkedChild();
    if (way == "null-pointer" || way == "forked-child")
        openMessage("inbox");
    else if (way == "abort")
        std::abort();
    else if (way == "stack-overflow")
        countNestedReplies(0);
    for (;;)
        pause();
}

std::string contentOf(const char *path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// What this process was started with: its arguments in their order and its environment, in which order has
/// no meaning; each entry ended by NUL.
std::string startState()
{
    std::istringstream environment(contentOf("/proc/self/environ"));
    std::set<std::string> variables;
    for (std::string variable; std::getline(environment, variable, '\0');)
        variables.insert(variable + '\0');

    std::string state = contentOf("/proc/self/cmdline");
    for (const std::string &variable : variables)
        state += variable;
    return state;
}

} // namespace

int main(int argc, char *argv[])
{
    std::string_view way = argc < 4 ? "" : argv[3];
    const bool early = way.starts_with(earlyPrefix);
    if (early)
        way.remove_prefix(earlyPrefix.size());
    if (std::find(ways.begin(), ways.end(), way) == ways.end()) {
        std::cerr << "usage: sample-application HANDLER RECORD WAY [ARGUMENT...]\n"
                     "with one of these as WAY, or early- and one of these:\n";
        for (const std::string_view name : ways)
            std::cerr << "  " << name << '\n';
        return EXIT_FAILURE;
    }

    if (!crashreporting::install({.appName = "sample-application",
                                  .handlerPath = argv[1],
                                  .minimumUptime = minimumUptime}))
        std::perror("sample-application: crashes will not be reported");

    const char *recordPath = argv[2];
    if (access(recordPath, F_OK) == 0) {
        std::ofstream(std::string(recordPath) + ".back", std::ios::binary) << startState();
        const bool same = contentOf(recordPath) == startState();
        std::cout << (same ? "back again, with the same arguments and environment\n"
                           : "back again, but with other arguments or another environment\n")
                  << std::flush;
        return same ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    std::ofstream(recordPath, std::ios::binary) << startState();

    if (!early)
        std::this_thread::sleep_for(minimumUptime);
    crash(way);
}
