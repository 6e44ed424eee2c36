#include "util/logging.h"

Q_LOGGING_CATEGORY(logCrashHandler, "org.vastel.mail.crashhandler", QtDebugMsg)
