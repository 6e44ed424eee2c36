#pragma once

/// Puts right what a process that has just crashed leaves to its child: no signal is blocked afterwards and
/// none ignored, no inherited descriptor from 3 up is open, and the descriptors 0, 1 and 2 are. What a user
/// has chosen for the application stays: umask, working directory, resource limits, environment.
///
/// The debugger and the restarted application inherit the result through execve(2). The one thing that is
/// not theirs: SIGPIPE and SIGXFSZ are caught here, and so back at their default there.
///
/// To be called once, first thing in the entry function: before the first log line, which a dead reader of
/// standard error would make fatal, and before any descriptor is opened. Cannot fail and logs nothing.
void resetInheritedState();
