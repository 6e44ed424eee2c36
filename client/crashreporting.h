#pragma once

// The interface for C++17, a layer in this header over crashreporting_c.h, which documents
// the operations. integration.md is the guide.

#include <vastel-mail/crashreporting_c.h>

#include <chrono>

/// Starts the crash handler when the application crashes.
namespace crashreporting {

/// See vastel_mail_crash_settings.
struct Settings
{
    const char *appName = nullptr;
    const char *handlerPath = VASTEL_MAIL_CRASH_HANDLER_PATH;
    std::chrono::seconds minimumUptime{VASTEL_MAIL_CRASH_MINIMUM_UPTIME};
};

/// Calls vastel_mail_install_crash_reporting(). Returns false, with errno set, when that fails.
[[nodiscard]] inline bool install(const Settings &settings)
{
    const vastel_mail_crash_settings plain{settings.appName, settings.handlerPath,
                                           settings.minimumUptime.count()};
    return vastel_mail_install_crash_reporting(&plain) == 0;
}

/// Calls vastel_mail_disable_restart().
inline void disableRestart()
{
    vastel_mail_disable_restart();
}

/// While it exists, its thread has a signal stack. Let every thread but the main one hold one from
/// its first statement to its last.
class AlternateSignalStack
{
public:
    AlternateSignalStack()
        : stack(vastel_mail_begin_signal_stack())
    {
    }
    ~AlternateSignalStack() { vastel_mail_end_signal_stack(stack); }
    AlternateSignalStack(const AlternateSignalStack &) = delete;
    AlternateSignalStack &operator=(const AlternateSignalStack &) = delete;

private:
    vastel_mail_signal_stack *const stack;
};

} // namespace crashreporting
