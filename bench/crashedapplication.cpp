// Stands in for a crashed application: crashedapplication THREADS COMMAND [ARGUMENT...]
// runs the command as its child while that many threads wait, each 20 frames deep. Prints elapsed
// seconds, seconds of processor time, and the peak memory of the largest process in KiB.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <thread>

#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

static void waitDeep(int depth, std::latch &threadsReady) // NOLINT(misc-no-recursion): a frame each
{
    if (depth < 20)
        return waitDeep(depth + 1, threadsReady);
    threadsReady.count_down();
    pause(); // until the process ends
}

static double seconds(const timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

int main(int argc, char *argv[])
{
    const int threads = argc > 2 ? std::atoi(argv[1]) : 0;
    std::latch threadsReady(threads);
    for (int i = 0; i < threads; ++i)
        std::thread([&] { waitDeep(1, threadsReady); }).detach();
    threadsReady.wait();
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0); // Yama asks for the permission to trace
    // An interrupted benchmark cleans up after this process, so the command ends first.
    for (const int signalNumber : {SIGHUP, SIGINT, SIGTERM})
        std::signal(signalNumber, [](int) {});

    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    int status = posix_spawnp(&child, argv[2], nullptr, nullptr, argv + 2, environ);
    rusage usage = {};
    if (status == 0)
        wait4(child, &status, 0, &usage);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    std::printf("%f %f %ld\n", elapsed.count(), seconds(usage.ru_utime) + seconds(usage.ru_stime),
                usage.ru_maxrss);
    std::fflush(stdout);
    _exit(status == 0 ? EXIT_SUCCESS : EXIT_FAILURE); // exit() would destroy what the threads use
}
