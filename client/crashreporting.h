#pragma once

#include <vastel-mail/handlerpath.h>

#include <chrono>
#include <csignal>

/// Starts the crash handler when the application crashes. docs/integration.md is the guide.
namespace crashreporting {

struct Settings
{
    /// The application's name as the report is to show it.
    const char *appName = nullptr;
    /// The path of the crash handler; by default that of the one that is installed with this header.
    const char *handlerPath = VASTEL_MAIL_CRASH_HANDLER_PATH;
    /// An application that crashes earlier than this after install() is not started again: a crash
    /// at every start must not become an endless loop of crashes.
    std::chrono::seconds minimumUptime{10};
};

/// From here on SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP and SIGSYS start the crash
/// handler; the process then ends by that signal. Call it once, on the main thread, first thing in
/// main().
///
/// A forked child is not reported and ends by its signal alone, unless it calls install() itself.
///
/// Returns false, with errno set, when crashes cannot be reported; nothing is changed then. EINVAL:
/// the name or the path is null, or the name begins with a hyphen. ENAMETOOLONG: a text has
/// PATH_MAX bytes or more. EACCES: the crash handler is not a file that this process may execute.
/// All others are those of realpath(3) and mmap(2). The settings are copied.
[[nodiscard]] bool install(const Settings &settings);

/// Gives the calling thread a stack on which its stack overflow can be handled; install() does so
/// for the main thread. Let every further thread hold one from its first statement to its last.
class AlternateSignalStack
{
public:
    AlternateSignalStack();
    ~AlternateSignalStack();
    AlternateSignalStack(const AlternateSignalStack &) = delete;
    AlternateSignalStack &operator=(const AlternateSignalStack &) = delete;

private:
    void *memory;
    stack_t earlierStack;
};

} // namespace crashreporting
