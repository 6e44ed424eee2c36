#pragma once

#include <QString>

// The moment and the machine of a crash, as text. The functions hold no state and log through
// logCrashHandler.

/// Returns the current local date and time as "yyyyMMdd_hhmmsszzz", 18 characters down to the
/// millisecond, for example "20261116_174154123".
[[nodiscard]] QString currentTimestamp();

/// Returns the whole text of "/etc/lsb-release", untrimmed, one character for each byte (Latin-1).
/// Returns an empty string when the file cannot be opened, which readFile() logs.
[[nodiscard]] QString linuxDistributionInfo();

/// Returns the whole text of "/proc/version" (proc(5)), untrimmed, one character for each byte (Latin-1).
/// Returns an empty string when the file cannot be opened, which readFile() logs.
[[nodiscard]] QString kernelVersionInfo();
