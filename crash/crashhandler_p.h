#pragma once

#include "backtrace/backtracecollector.h"
#include "dump/dumpfile.h"

#include <QString>
#include <QStringList>

/// The state of a CrashHandler. The order of the fields is the order of construction: the collector exists
/// before the dump file is written, and outlives it.
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
    /// The program and its arguments, one Latin-1 character for each byte; empty when there is nothing to start.
    QStringList restartCommandLine;
    /// Whole entries, normally NAME=VALUE, one Latin-1 character for each byte.
    QStringList restartEnvironment;
};
