#pragma once

#include <QLoggingCategory>

/// The logging category of the report, the files and the restart, "org.vastel.mail.crashhandler".
/// The command line and the debugger are logged in "default". Every level is enabled unless Qt's
/// logging rules switch it off, for example
/// QT_LOGGING_RULES="org.vastel.mail.crashhandler.debug=false".
Q_DECLARE_LOGGING_CATEGORY(logCrashHandler)
