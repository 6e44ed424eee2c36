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

/// What each match of the pattern begins with, and the most that can follow: the digits of a 64-bit number.
constexpr QStringView currentThreadStart = u"[Current thread is ";
constexpr qsizetype longestNumber = 20;

/// Returns the number that the pattern's first match in \a backtrace captures, or nothing. The pattern is tried
/// where it can match only: a match first validates all of its text, here up to hundreds of MiB.
QString firstCurrentThread(const QString &backtrace)
{
    const QRegularExpression expression(currentThreadPattern);
    qsizetype start = backtrace.indexOf(currentThreadStart);
    while (start != -1) {
        const QRegularExpressionMatch match
            = expression.match(backtrace.mid(start, currentThreadStart.size() + longestNumber));
        if (match.hasMatch())
            return match.captured(1);
        start = backtrace.indexOf(currentThreadStart, start + 1);
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
