// The library that applications link: tests/crashingapplication.cpp uses it and really crashes, mostly
// under the real debugger.

#include "tests/support.h"

#include <vastel-mail/crashreporting.h>

#include <cerrno>
#include <climits>
#include <csignal>

namespace {

struct Row
{
    const char *name;
    const char *way; // see tests/crashingapplication.cpp
    const char *minimumUptime = "3600";
    const char *uptime = "0";
    QByteArrayList variables = {};
    /// What the report shows, in this order.
    QByteArrayList shown = {"readMessageSize", "openMessage"};
    QByteArray said = {};
    bool isBack = false;
    int signal = SIGSEGV;
};

/// Lets the application crash; \a runner can start it.
Outcome crash(const QByteArrayList &arguments, const QByteArrayList &variables,
              const QByteArrayList &runner = {})
{
    const QByteArrayList command{BUILD_FOLDER "/tests/crashing-application",
                                 BUILD_FOLDER "/crash-handler"};
    const QByteArrayList ownVariables{"PATH=" + qgetenv("PATH"), "TMPDIR=" + qgetenv("TMPDIR")};
    return run(runner + command + arguments, ownVariables + variables);
}

} // namespace

class ClientTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void aCrashIsReported_data()
    {
        QTest::addColumn<Row>("row");
        for (const Row &row : std::initializer_list<Row>{
                 {.name = "A null pointer is shown, and the application comes back",
           .way = "null-pointer",
           .minimumUptime = "1",
           .uptime = "1",
           .isBack = true},
                 {.name = "An overflow of the stack is shown",
                 .way = "stack-overflow",
                 .shown = QByteArrayList(200, "countNestedReplies")},
                 {.name = "Two threads that crash at once are both shown, and nothing comes back",
                 .way = "two-threads",
                 .shown = {"readMessageSize", "openMessage", "readMessageSize", "openMessage"}},
                 {.name = "A forked child is not reported",
                 .way = "forked-child",
                 .said = "the forked child was ended by signal 11\n"},
                 {.name = "PYTHONHOME does not reach the debugger, which embeds Python",
                 .way = "null-pointer",
                 .variables = {"PYTHONHOME=/nowhere"}},
                 {.name = "LD_LIBRARY_PATH does not reach the debugger, which uses this library",
                 .way = "null-pointer",
                 .variables = {"LD_LIBRARY_PATH=."}},
                 {.name = "A signal that the application raises is shown",
                 .way = "6",
                 .shown = {"raise", "crash", "main"},
                 .signal = SIGABRT},
             })
            QTest::newRow(row.name) << row;
    }
    void aCrashIsReported()
    {
        QFETCH(const Row, row);
        QCOMPARE(shell(": > libexpat.so.1"), 0); // no library
        const Outcome outcome = crash({row.minimumUptime, row.uptime, row.way}, row.variables);
        const QStringList dumps = dumpFiles(outcome.output, "crashing");
        QCOMPARE(dumps.size(), 1);
        const QByteArray dump = contentOf(dumps.constFirst());
        QVERIFY(dump.contains("\"mail-index\"") && dump.contains("\"mail-send\""));
        qsizetype position = 0;
        for (const QByteArray &text : row.shown) {
            position = dump.indexOf(text, position);
            if (position++ == -1)
                QFAIL(("no further " + text + " in\n" + dump).constData());
        }
        QVERIFY(dump.endsWith("text to select is [Thread 1]"));
        QCOMPARE(outcome.exitCode, 128 + row.signal);
        QVERIFY(outcome.output.contains(row.said));
        QCOMPARE(outcome.output.contains("back again"), row.isBack);
        QCOMPARE(outcome.output.contains("Application restart disabled"), !row.isBack);
    }

    void eachSignalOfACrashIsReportedEvenIfItWasBlocked_data()
    {
        QTest::addColumn<QByteArray>("number");
        for (const char *signal : {"SIGILL 4", "SIGTRAP 5", "SIGABRT 6", "SIGBUS 7", "SIGFPE 8",
                                   "SIGSEGV 11", "SIGSYS 31"})
            QTest::newRow(signal) << QByteArray(signal).split(' ').constLast();
    }
    void eachSignalOfACrashIsReportedEvenIfItWasBlocked()
    {
        QFETCH(const QByteArray, number);
        const QByteArray signal = QByteArray(QTest::currentDataTag()).split(' ').constFirst();
        writeProgram("gdb", "echo kept");
        const Outcome outcome
            = crash({"3600", "0", number}, {}, {"/usr/bin/env", "--block-signal"});
        const QByteArray dump = contentOf(dumpFiles(outcome.output, "crashing").value(0));
        QVERIFY2(dump.startsWith("crashing has closed unexpectedly (Signal \"" + signal + "\")\n"),
                 outcome.output.constData());
        QVERIFY(dump.endsWith("\nkept\n"));
        QCOMPARE(outcome.exitCode, 128 + number.toInt());
    }

    void aCrashIsReportedWhenTheApplicationIsKilledMeanwhile()
    {
        writeProgram("gdb", "kill -KILL $7; echo kept");
        const Outcome outcome = crash({"3600", "0", "6"}, {});
        QVERIFY(contentOf(dumpFiles(outcome.output, "crashing").value(0)).endsWith("\nkept\n"));
        QCOMPARE(outcome.exitCode, 128 + SIGKILL);
    }

    void settingsThatCannotReportACrashAreRefused_data()
    {
        QTest::addColumn<QByteArray>("appName");
        QTest::addColumn<QByteArray>("handlerPath");
        QTest::addColumn<int>("error");
        QTest::newRow("no name") << QByteArray() << QByteArray("/bin/sh") << EINVAL;
        QTest::newRow("a name like an option")
            << QByteArray("-x") << QByteArray("/bin/sh") << EINVAL;
        QTest::newRow("a long name")
            << QByteArray(PATH_MAX, 'x') << QByteArray("/bin/sh") << ENAMETOOLONG;
        QTest::newRow("a folder") << QByteArray("x") << QByteArray("/") << EACCES;
        QTest::newRow("no program") << QByteArray("x") << QByteArray("/proc/version") << EACCES;
        QTest::newRow("no path") << QByteArray("x") << QByteArray() << EINVAL;
        QTest::newRow("nothing") << QByteArray("x") << QByteArray("/nowhere") << ENOENT;
    }
    void settingsThatCannotReportACrashAreRefused()
    {
        QFETCH(const QByteArray, appName);
        QFETCH(const QByteArray, handlerPath);
        QFETCH(const int, error);
        const char *const name = appName.isNull() ? nullptr : appName.constData();
        const char *const handler = handlerPath.isNull() ? nullptr : handlerPath.constData();
        errno = 0;
        QVERIFY(!crashreporting::install({.appName = name, .handlerPath = handler}));
        QCOMPARE(errno, error);
    }

    void anApplicationThatIsRefusedCrashesWithoutAReport()
    {
        const QByteArray application = BUILD_FOLDER "/tests/crashing-application";
        const Outcome outcome = run({application, "/nowhere", "0", "0", "null-pointer"}, {});
        QCOMPARE(outcome.output, "crashes will not be reported: No such file or directory\n");
        QCOMPARE(outcome.exitCode, 128 + SIGSEGV);
    }
};

int main(int argc, char *argv[])
{
    return testMain<ClientTest>(argc, argv);
}

#include "tst_client.moc"
