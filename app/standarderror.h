#pragma once

/// Lets the stream `stderr`, to which Qt's message handler and this program write, wait for the
/// reader of standard error for at most one second in all. The time that each write takes is
/// charged to that second. When it is used up, the log ends: nothing more is written, whether the
/// reader comes back or not. The application waits meanwhile, so a longer wait would keep the user
/// from it.
///
/// This is so for a pipe, a socket and a terminal. A file has no reader; on a file system that no
/// longer answers, a write waits without a bound, because no signal ends it.
///
/// Standard error itself stays as it was inherited, with all flags: the debugger and the restarted
/// application share it. The stream is line-buffered. From here on, the timer ITIMER_REAL and
/// SIGALRM are in use; the programs that are executed from here inherit neither.
///
/// Call it once, before the first text, and after all signals have got their actions. It logs
/// nothing. When it fails, for want of memory, the stream stays as it is.
void boundWaitsOfStandardError();
