#pragma once

#include <QString>

// The moment and the machine of a crash, as text. The functions keep no state and log through
// logCrashHandler. A system file is read with readFile(), which logs a failure, and returned
// untrimmed, each byte as the Latin-1 character of its code. When it cannot be opened, an empty
// string is returned.

/// Returns the current local date and time as "yyyyMMdd_hhmmsszzz", 18 characters down to the
/// millisecond, for example "20261116_174154123".
[[nodiscard]] QString currentTimestamp();

/// Returns the text of "/etc/lsb-release", which names the distribution.
[[nodiscard]] QString linuxDistributionInfo();

/// Returns the text of "/proc/version" (proc(5)), the line that names the kernel.
[[nodiscard]] QString kernelVersionInfo();
