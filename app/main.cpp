#include "app/inheritedstate.h"
#include "app/standarderror.h"
#include "crash/crashhandler.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDebug>
#include <QTextStream>

#include <cstdlib>

#include <malloc.h>
#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/// Each chunk of the debugger's output passes through a few large buffers. By default the allocator
/// returns them to the system after each chunk, and the system clears their pages again for the
/// next one. With a large backtrace, that takes up to half of this program's own time.
void keepFreedBuffers()
{
    constexpr int largestBuffer = 1024 * 1024; // bytes; more than a chunk needs
    constexpr int keptMemory = 4 * largestBuffer;
    mallopt(M_MMAP_THRESHOLD, largestBuffer);
    mallopt(M_TRIM_THRESHOLD, keptMemory);
}

[[noreturn]] void exitWithUsage()
{
    const QString usage
        = u"This crash handler will be called by main program. Do not call this manually.\n"_s;
    qCritical() << usage;
    QTextStream(stderr) << usage;
    std::exit(EXIT_FAILURE);
}

} // namespace

int main(int argc, char *argv[])
{
    resetInheritedState();
    boundWaitsOfStandardError();
    keepFreedBuffers();
    qInfo() << "Starting crash handler";
    const QCoreApplication application(argc, argv);
    qDebug() << "Setting application name";
    // The name of the debugger's command file begins with it.
    QCoreApplication::setApplicationName(u"Crash Handler"_s);

    QCommandLineParser parser;
    parser.addPositionalArgument(u"signal-name"_s, QString());
    parser.addPositionalArgument(u"app-name"_s, QString());
    const QCommandLineOption restartOption(u"disable-restart"_s);
    parser.addOption(restartOption);
    qInfo() << "Processing command line arguments";
    parser.process(application);

    const QStringList positionalArguments = parser.positionalArguments();
    qDebug() << "Positional arguments:" << positionalArguments;
    if (positionalArguments.size() != 2) {
        qCritical() << "Invalid number of arguments:" << positionalArguments.size();
        exitWithUsage();
    }

    // The application starts this program as its child, so the crashed process is the parent.
    const qint64 pid = ::getppid();
    // Until here this program ends with its parent, by the death signal that the library sets: the
    // next parent of an orphan would be taken for the crashed process. From here on it goes on with
    // the report (prctl(2)).
    ::prctl(PR_SET_PDEATHSIG, 0);
    qInfo() << "Parent process ID:" << pid;
    const QString &signalName = positionalArguments.at(0);
    const QString &appName = positionalArguments.at(1);
    qInfo() << "Processing crash for app:" << appName << "signal:" << signalName;

    const bool restartDisabled = parser.isSet(restartOption);
    if (restartDisabled)
        qInfo() << "Application restart disabled";

    qInfo() << "Creating crash handler instance";
    CrashHandler handler(pid, appName, signalName, restartDisabled);
    qInfo() << "Starting crash handling process";
    handler.run();
    return QCoreApplication::exec();
}
