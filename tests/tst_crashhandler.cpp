// The slots of the crash handler that an ordinary run does not call.

#include "crash/crashhandler.h"
#include "tests/support.h"

#include <csignal>

#include <unistd.h>

namespace {

/// Starts a process that waits: cat(1) with "-". QProcess cannot pass its variable without "=", so the
/// child executes the program itself; /bin/false runs only if that fails.
void startApplication(QProcess &process)
{
    shell("cp /bin/cat application");
    process.setChildProcessModifier([] {
        char texts[][16] = {"./application", "-", "VALUELESS", "NÄME=a\r\nb=c\n"};
        char *const arguments[] = {texts[0], texts[1], nullptr};
        char *const variables[] = {texts[2], texts[3], nullptr};
        ::execve(arguments[0], arguments, variables);
    });
    process.start(u"/bin/false"_s);
    // A process that has just become another program has no variables yet.
    const QString environment = u"/proc/%1/environ"_s.arg(process.processId());
    QTRY_VERIFY_WITH_TIMEOUT(contentOf(environment).startsWith("VALUELESS"), patience);
}

} // namespace

class CrashHandlerTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void withoutACommandLineNothingIsStarted()
    {
        const QStringList &log = keepLog();
        CrashHandler handler(5'000'000, u"mail"_s, u"11"_s, false); // above any pid_max, proc(5)
        QVERIFY(QMetaObject::invokeMethod(&handler, "restartApplication"));
        dumpFiles(log.join(u'\n').toUtf8(), "mail");
        const QString expected
            = u"critical Failed to open file for reading: $\n"
              "warning Warning: Could not open  $\n"
              "warning Unexpected format in file:  $\nwarning Unable to restart\n"
              "info command line: QList()\ninfo environment: QList()\n"
              "info Preparing to restart application"_s;
        QCOMPARE(log.last(7).join(u'\n'),
                 QString(expected).replace(u'$', u"\"/proc/5000000/cmdline\""_s));
    }

    void debuggingAbortsARunningCollectionAndStartsTheApplication_data()
    {
        QTest::addColumn<bool>("isRunning");
        QTest::newRow("a running collection is aborted") << true;
        QTest::newRow("without one, the report stays as it is") << false;
    }
    void debuggingAbortsARunningCollectionAndStartsTheApplication()
    {
        QFETCH(const bool, isRunning);
        writeProgram("gdb", "echo $$; exec sleep 1000\n");
        QProcess application;
        startApplication(application);
        QStringList &log = keepLog();
        CrashHandler handler(application.processId(), u"mail"_s, u"11"_s, false);
        writeProgram("application",
                     "cat /proc/$$/environ > variables\necho \"$@\" > new\nmv new arguments\n");
        const QString dump = dumpFiles(log.join(u'\n').toUtf8(), "mail").value(0);
        const QByteArray header = contentOf(dump);
        if (isRunning) {
            handler.run();
            QTRY_VERIFY_WITH_TIMEOUT(contentOf(dump) != header, patience);
        }
        const QByteArray report = contentOf(dump);
        const int debugger = report.sliced(header.size()).trimmed().toInt();
        log.clear();
        QVERIFY(QMetaObject::invokeMethod(&handler, "debugApplication"));
        QCOMPARE(log.constFirst(), u"info Debugging application requested"_s);
        QCOMPARE(log.contains(u"info Killing debugger process"_s), isRunning);
        if (isRunning)
            QTRY_COMPARE_WITH_TIMEOUT(::kill(debugger, 0), -1, patience);
        QTRY_COMPARE_WITH_TIMEOUT(contentOf(u"arguments"_s),
                                  "-debug " + QByteArray::number(application.processId()) + '\n',
                                  patience);
        QCOMPARE(contentOf(dump),
                 report + (isRunning ? "\n\nCollecting backtrace aborted by user." : ""));
        const QByteArray variables = '\0' + contentOf(u"variables"_s);
        QVERIFY(variables.contains(QByteArray("\0NÄME=a\r\nb=c\n\0", 15)));
        QVERIFY(!variables.contains("VALUELESS"));
        application.closeWriteChannel();
        QVERIFY(application.waitForFinished(patience));
    }
};

int main(int argc, char *argv[])
{
    return testMain<CrashHandlerTest>(argc, argv);
}

#include "tst_crashhandler.moc"
