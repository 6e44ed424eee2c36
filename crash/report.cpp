// What CrashHandler writes into the dump file. The results of the writes are ignored: DumpFile logs
// a failure, and the rest of the report and the application's restart must still take place.

#include "crash/crashhandler.h"

#include "crash/crashhandler_p.h"
#include "util/logging.h"

#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace {

/// The debugger's answer to its "thread" command, which it prints before the backtraces.
const QString currentThreadPattern = uR"(\[Current thread is (\d+))"_s;

/// What every match of the pattern begins with.
constexpr QStringView currentThreadStart = u"[Current thread is ";

/// Returns the number that the first match of the pattern in \a backtrace captures, or an empty
/// string.
///
/// A match starts with a validation of its whole subject, which can have hundreds of MiB here. So
/// the pattern is matched only against the rest of a line that holds its start.
QString firstCurrentThread(const QString &backtrace)
{
    const QRegularExpression expression(currentThreadPattern);
    qsizetype start = backtrace.indexOf(currentThreadStart);
    while (start != -1) {
        qsizetype end = backtrace.indexOf(u'\n', start);
        if (end == -1)
            end = backtrace.size();
        const QRegularExpressionMatch match
            = expression.match(backtrace.sliced(start, end - start));
        if (match.hasMatch())
            return match.captured(1);
        start = backtrace.indexOf(currentThreadStart, end);
    }
    return {};
}

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
    const QString number = firstCurrentThread(backtrace);
    if (number.isEmpty())
        return;
    const QString thread = u"Thread %1"_s.arg(number);
    d->dumpFile.writeMessage(u"text to select is [%1]"_s.arg(thread));
}
