#pragma once

/// Puts right what a process that has just crashed leaves to its child. Afterwards
///
/// - no signal is blocked, and none is ignored by the programs that are executed from here: the debugger and
///   the restarted application. This program itself is not ended by a hang-up, a termination or a terminal's
///   signal that was ignored, nor by SIGPIPE and SIGXFSZ, and it learns the exit codes of its children;
/// - no inherited descriptor from 3 up is open, and the descriptors 0, 1 and 2 are, on /dev/null if they were closed;
/// - no log line ends this program or makes it wait: not Qt's QT_FATAL_WARNINGS and QT_FATAL_CRITICALS, not a pipe
///   as standard error that nobody reads.
///
/// Everything else stays for the restarted application: umask, working directory, resource limits.
///
/// To be called once, first thing in the entry function: before the first log line, which a dead reader of
/// standard error would make fatal, and before any descriptor is opened. What the system refuses of it is left as
/// it is. Logs nothing.
void resetInheritedState();
