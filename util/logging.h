#pragma once

#include <QLoggingCategory>

/// The program's logging category, "org.vastel.mail.crashhandler". Every level is enabled unless
/// Qt's logging rules switch it off, for example
/// QT_LOGGING_RULES="org.vastel.mail.crashhandler.debug=false".
Q_DECLARE_LOGGING_CATEGORY(logCrashHandler)
