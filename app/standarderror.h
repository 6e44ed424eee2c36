#pragma once

/// Lets the stream `stderr`, to which Qt's message handler and this program write, wait for the
/// reader of standard error for at most one second in all. After that, text that standard error
/// does not take at once is lost. It makes no difference whether standard error is a pipe, a
/// socket, a terminal or anything else. A pipe gets room for 1 MiB, where the system allows that,
/// so that a large log fits in before anybody reads it.
///
/// Standard error itself stays as it was inherited, with all flags: the debugger and the restarted
/// application share it. SIGALRM calls a signal handler from here on; execve(2) resets that.
///
/// Call it once, before the first text, and after all signals have got their actions. It logs
/// nothing. When it fails, for want of memory, the stream stays as it is.
void boundWaitsOfStandardError();
