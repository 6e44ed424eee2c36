#pragma once

// Starts the crash handler when the application crashes. This is the interface for C (C11) and for
// every language that can call C; crashreporting.h wraps it for C++. integration.md is the guide.
//
// The structure of the settings does not change within a major version: languages that cannot read
// this header repeat it.

#include <vastel-mail/handlerpath.h>

#ifdef __cplusplus
extern "C" {
#endif

struct vastel_mail_crash_settings
{
    /// The application's name as the report is to show it, in UTF-8.
    const char *app_name;
    /// The path of the crash handler.
    const char *handler_path;
    /// Seconds since vastel_mail_install_crash_reporting(); 10 by default. After an earlier crash the
    /// application is not started again, after a later one it is, as often as it crashes.
    long long minimum_uptime;
};

// The defaults of the settings; only the name has none. VASTEL_MAIL_CRASH_HANDLER_PATH is the crash
// handler that is installed with this header.
#define VASTEL_MAIL_CRASH_MINIMUM_UPTIME 10
#define VASTEL_MAIL_CRASH_SETTINGS_INIT                                                            \
    {                                                                                              \
        0, VASTEL_MAIL_CRASH_HANDLER_PATH, VASTEL_MAIL_CRASH_MINIMUM_UPTIME                        \
    }

/// From here on SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP and SIGSYS start the crash
/// handler; the process then ends by that signal. Call it once in a process, on the main thread,
/// first thing in main().
///
/// A forked child is not reported and ends by its signal alone, unless it calls this itself.
///
/// Returns 0. Returns -1, with errno set, when crashes cannot be reported; nothing is changed then.
/// EINVAL: the name or the path is null, or the name begins with a hyphen. ENAMETOOLONG: a text has
/// PATH_MAX bytes or more. EACCES: the crash handler is not a file that this process may execute.
/// All others are those of realpath(3). The settings are copied.
int vastel_mail_install_crash_reporting(const struct vastel_mail_crash_settings *settings);

/// From here on the application is not started again after a crash, which is still reported. Call
/// it when the user quits: a crash on the way out must not bring the application back.
///
/// Nothing undoes it. Any thread can call it, at any time, also in a signal handler and before
/// vastel_mail_install_crash_reporting(). A forked child inherits it.
void vastel_mail_disable_restart(void);

struct vastel_mail_signal_stack;

/// Gives the calling thread a stack on which its stack overflow can be handled.
/// vastel_mail_install_crash_reporting() does so for the main thread. Call it in every further
/// thread, first thing in its function.
///
/// Returns null, with errno set by mmap(2), when there is no memory: only a stack overflow of this
/// thread goes unreported then.
struct vastel_mail_signal_stack *vastel_mail_begin_signal_stack(void);

/// Gives the calling thread the signal stack back that it had before \a stack, and frees \a stack.
/// Call it in the same thread, last thing in its function. Null is ignored.
void vastel_mail_end_signal_stack(struct vastel_mail_signal_stack *stack);

#ifdef __cplusplus
}
#endif
