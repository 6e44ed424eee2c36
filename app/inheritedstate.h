#pragma once

/// Resets the state that this process has inherited from the crashed one. Afterwards:
///
/// - No signal is blocked.
/// - In the programs that are executed from here, the debugger and the restarted application, a
///   signal is ignored only if it was ignored on behalf of the user, for example by nohup(1). Every
///   other signal has its default action. SIGPIPE and SIGXFSZ do not end this program.
/// - The descriptors 0, 1 and 2 are open, on /dev/null where they were closed. All others are
///   closed.
/// - No log line ends this program: QT_FATAL_WARNINGS and QT_FATAL_CRITICALS are unset.
///
/// The restarted application needs everything else as it was: umask, working directory and resource
/// limits.
///
/// Call it once, as the first statement of the entry function: a log line or an opened file before
/// it would meet the inherited state. It does not block and logs nothing. System calls that fail
/// are ignored: a crash is handled all the same.
void resetInheritedState();
