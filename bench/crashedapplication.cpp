// Stands in for a crashed application: runs a command as its child and prints what that cost.
//
// Usage: crashed-application THREADS COMMAND [ARGUMENT...]
//   THREADS  how many threads wait, each 20 frames deep, while the command runs
//
// Prints one line: elapsed seconds, seconds of processor time of the command and its children, and the
// largest resident set of any of them in KiB.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <thread>

#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Seconds = std::chrono::duration<double>;

constexpr int framesOfThread = 20;

int waitDeep(int depth, std::latch &threadsReady) // NOLINT(misc-no-recursion): each call is a frame
{
    const double ratio = depth / 3.0;
    const char *const folder = "inbox";
    if (depth < framesOfThread)
        return waitDeep(depth + 1, threadsReady) + static_cast<int>(ratio) + folder[0];
    threadsReady.count_down();
    return pause(); // until the process ends
}

Seconds duration(const timeval &time)
{
    return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc < 3)
        return EXIT_FAILURE;
    const int threads = std::atoi(argv[1]);
    std::latch threadsReady(threads);
    for (int i = 0; i < threads; ++i)
        std::thread([&] { waitDeep(1, threadsReady); }).detach();
    threadsReady.wait();

    // Where the Yama security module is active, a descendant needs permission to trace this process.
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);

    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (posix_spawnp(&child, argv[2], nullptr, nullptr, argv + 2, environ) != 0)
        return EXIT_FAILURE;
    int status = 0;
    rusage usage = {};
    if (wait4(child, &status, 0, &usage) == -1)
        return EXIT_FAILURE;
    const Seconds elapsed = std::chrono::steady_clock::now() - start;

    std::printf("%.6f %.6f %ld\n", elapsed.count(),
                (duration(usage.ru_utime) + duration(usage.ru_stime)).count(), usage.ru_maxrss);
    std::fflush(stdout);
    // exit() would destroy objects that the waiting threads still use.
    _exit(status == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
}
