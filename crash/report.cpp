// What the handler writes into the dump file. A write that fails is logged by the dump file and changes
// nothing else: the rest of the report, and the application, must still come through.

#include "crash/crashhandler.h"

#include "crash/crashhandler_p.h"
#include "util/logging.h"

#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace {

/// The debugger's answer to its "thread" command, which stands before the backtraces.
const QString currentThreadPattern = uR"(\[Current thread is (\d+))"_s;

} // namespace

void CrashHandler::onBacktraceChunk(const QString &chunk)
{
    qCDebug(logCrashHandler) << "Writing backtrace chunk to dump file";
    d->dumpFile.writeMessage(chunk);
}

void CrashHandler::reportError(const QString &errorMessage)
{
    qCInfo(logCrashHandler) << "Writing error message to dump file";
    d->dumpFile.writeMessage(
        u"A problem occurred providing the backtrace. Please make sure to have the debugger \"gdb\" installed.\n"_s);
    d->dumpFile.writeMessage(errorMessage);
}

void CrashHandler::markCurrentThread(const QString &backtrace)
{
    const QRegularExpressionMatch match = QRegularExpression(currentThreadPattern).match(backtrace);
    if (!match.hasMatch())
        return;
    const QString thread = u"Thread %1"_s.arg(match.captured(1));
    d->dumpFile.writeMessage(u"text to select is [%1]"_s.arg(thread));
}
