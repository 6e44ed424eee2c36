#pragma once

#include "backtrace/backtracecollector.h"
#include "dump/dumpfile.h"

#include <QString>
#include <QStringList>

/// The state of a CrashHandler.
///
/// The order of the fields is the order of the log lines of their constructors and, reversed, of
/// their destructors.
class CrashHandlerPrivate
{
public:
    CrashHandlerPrivate(qint64 pid, const QString &appName, const QString &signalName)
        : pid(pid)
        , dumpFile(appName, signalName, QString())
    {
    }

    const qint64 pid;
    BacktraceCollector collector;
    DumpFile dumpFile;
    /// The program and its arguments, each byte as a Latin-1 character. Empty when there is nothing
    /// to start.
    QStringList restartCommandLine;
    /// Whole entries, normally NAME=VALUE, each byte as a Latin-1 character.
    QStringList restartEnvironment;
};
