// Stands in for a crashed application: crashedapplication threads|overflow COMMAND [ARGUMENT...]
// runs the command as its child: while 200 threads wait, each 20 frames deep, or after the stack has
// overflowed with some 20,000 frames. Prints elapsed seconds, the command's seconds of processor
// time, its children included, and its own peak memory in KiB.

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <latch>
#include <string>
#include <thread>

#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

static char **command;

static double seconds(const timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// Without the process's children, which are part of ru_maxrss. Returns \a earlier when the process
/// has ended.
static long peakMemory(pid_t process, long earlier)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string word; status >> word;) {
        if (word == "VmHWM:")
            status >> earlier;
    }
    return earlier;
}

[[noreturn]] static void runCommand()
{
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    int status = posix_spawnp(&child, command[0], nullptr, nullptr, command, environ);
    rusage usage = {};
    long peak = 0;
    while (status == 0 && wait4(child, &status, WNOHANG, &usage) == 0) {
        peak = peakMemory(child, peak);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    std::printf("%f %f %ld\n", elapsed.count(), seconds(usage.ru_utime) + seconds(usage.ru_stime),
                peak);
    std::fflush(stdout);
    _exit(status == 0 ? EXIT_SUCCESS : EXIT_FAILURE); // exit() would destroy what the threads use
}

static void waitDeep(int depth, std::latch &threadsReady) // NOLINT(misc-no-recursion): a frame each
{
    if (depth < 20)
        return waitDeep(depth + 1, threadsReady);
    threadsReady.count_down();
    pause(); // until the process ends
}

static int overflow(int depth) // NOLINT(misc-no-recursion)
{
    std::array<int, 92> local{}; // 20,000 frames fill a stack of 8 MiB
    local[0] = depth;
    return depth < 0 ? 0 : overflow(depth + 1) + local[0];
}

int main(int argc, char *argv[])
{
    if (argc < 3)
        return EXIT_FAILURE;
    command = argv + 2;
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0); // Yama asks for the permission to trace
    // An interrupted benchmark cleans up after this process, so the command ends first.
    for (const int signalNumber : {SIGHUP, SIGINT, SIGTERM})
        std::signal(signalNumber, [](int) {});

    if (std::strcmp(argv[1], "overflow") == 0) {
        static std::array<char, 65536> memory;
        const stack_t stack{memory.data(), 0, memory.size()};
        sigaltstack(&stack, nullptr);
        struct sigaction action = {};
        action.sa_handler = [](int) { runCommand(); };
        action.sa_flags = SA_ONSTACK;
        sigaction(SIGSEGV, &action, nullptr);
        return overflow(0);
    }
    std::latch threadsReady(200);
    for (int i = 0; i < 200; ++i)
        std::thread([&] { waitDeep(1, threadsReady); }).detach();
    threadsReady.wait();
    runCommand();
}
