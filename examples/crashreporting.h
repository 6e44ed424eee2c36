#pragma once

#include <chrono>

// How an application starts the crash handler: the reference for integrators, free of any library but the
// system's own. Copy this pair of files and adapt it.

namespace crashreporting {

struct Settings
{
    /// Path of the crash handler program. This and the next text must outlive the process.
    const char *handlerPath;
    /// The application's name as the report is to show it.
    const char *appName;
    /// An application that crashes earlier than this after install() is not started again: a crash at
    /// every start must not become an endless loop of crashes.
    std::chrono::seconds minimumUptime;
};

/// From here on SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP and SIGSYS start the crash handler; the
/// process then ends by that signal. Call it once, on the main thread, first thing in main().
/// Returns false, with errno set, when the system refuses a step; the application then runs unreported.
[[nodiscard]] bool install(const Settings &settings);

/// Gives the calling thread a stack on which its stack overflow can be handled; install() does so for the
/// main thread. Let every further thread hold one from its first statement to its last.
class AlternateSignalStack
{
public:
    AlternateSignalStack();
    ~AlternateSignalStack();
    AlternateSignalStack(const AlternateSignalStack &) = delete;
    AlternateSignalStack &operator=(const AlternateSignalStack &) = delete;

private:
    void *memory;
};

} // namespace crashreporting
