// The library that applications link: tests/crashingapplication.cpp uses it and really crashes, mostly
// under the real debugger.

#include "tests/support.h"

#include <vastel-mail/crashreporting.h>

#include <cerrno>
#include <climits>
#include <csignal>

namespace {

/// Lets tests/crashingapplication.cpp crash.
Outcome crash(const QByteArrayList &arguments, const QByteArrayList &variables = {},
              const QByteArray &handler = BUILD_FOLDER "/crash-handler")
{
    // An application can have blocked the signals of its crash.
    const QByteArrayList command{"/usr/bin/env", "--block-signal",
                                 BUILD_FOLDER "/tests/crashing-application", handler};
    return run(command + arguments,
               QByteArrayList{"PATH=" + qgetenv("PATH"), "TMPDIR=" + qgetenv("TMPDIR")}
                   + variables);
}

} // namespace

class ClientTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void theRealDebuggerShowsTheCrash_data()
    {
        QTest::addColumn<QByteArray>("way");
        QTest::addColumn<QByteArrayList>("shown"); // in this order
        QTest::addColumn<QByteArray>("variable");
        const auto row = [](const char *name, const QByteArray &way, const QByteArrayList &shown,
                            const QByteArray &variable = "A=b") {
            QTest::newRow(name) << way << shown << variable;
        };
        const QByteArrayList nullPointer{"readMessageSize", "openMessage"};
        row("a null pointer", "null-pointer", nullPointer);
        row("PYTHONHOME is set", "null-pointer", nullPointer, "PYTHONHOME=/nowhere");
        row("LD_LIBRARY_PATH is set", "null-pointer", nullPointer, "LD_LIBRARY_PATH=.");
        row("a raised signal", "6", {"raise", "crash", "main"});
        row("an overflow of the stack", "stack-overflow",
            QByteArrayList(200, "countNestedReplies"));
        row("two threads at once", "two-threads", nullPointer + nullPointer);
    }
    void theRealDebuggerShowsTheCrash()
    {
        QFETCH(const QByteArray, way);
        QFETCH(const QByteArrayList, shown);
        QFETCH(const QByteArray, variable);
        QCOMPARE(shell(": > libexpat.so.1"), 0); // gdb would load it, and it is no library
        const Outcome outcome = crash({"3600", "0", way}, {variable});
        const QByteArray dump = dumps(outcome.output, "crashing");
        qsizetype position = 0;
        for (const QByteArray &text : shown) {
            position = dump.indexOf(text, position);
            if (position++ == -1)
                QFAIL(("no further " + text + " in\n" + dump).constData());
        }
        QVERIFY(dump.contains("\"mail-index\"") && dump.contains("\"mail-send\""));
        QVERIFY(dump.endsWith("text to select is [Thread 1]"));
        QCOMPARE(outcome.exitCode, 128 + (way == "6" ? SIGABRT : SIGSEGV));
    }

    void anApplicationComesBackOnlyAfterItsMinimumUptime()
    {
        writeProgram("gdb", "echo kept");
        const Outcome early = crash({"2", "1", "null-pointer"});
        const Outcome late = (QFile::remove(u"crashed"_s), crash({"1", "1", "null-pointer"}));
        QCOMPARE(dumps(early.output + late.output, "crashing").count("\nkept\n"), 2);
        QVERIFY(!early.output.contains("back again") && late.output.contains("back again"));
    }

    void eachSignalOfACrashIsReported_data()
    {
        QTest::addColumn<QByteArray>("number");
        for (const char *signal : {"SIGILL 4", "SIGTRAP 5", "SIGABRT 6", "SIGBUS 7", "SIGFPE 8",
                                   "SIGSEGV 11", "SIGSYS 31"})
            QTest::newRow(signal) << QByteArray(signal).split(' ').constLast();
    }
    void eachSignalOfACrashIsReported()
    {
        QFETCH(const QByteArray, number);
        writeProgram("gdb", "echo kept");
        const Outcome outcome = crash({"3600", "0", number});
        const QByteArray header = dumps(outcome.output, "crashing").split('\n').constFirst();
        const QByteArray signal = QByteArray(QTest::currentDataTag()).split(' ').constFirst();
        QCOMPARE(header, "crashing has closed unexpectedly (Signal \"" + signal + "\")");
        QCOMPARE(outcome.exitCode, 128 + number.toInt());
    }

    void aCrashIsReportedWhenTheApplicationIsKilledMeanwhile()
    {
        writeProgram("gdb", "kill -KILL $7; echo kept");
        const Outcome outcome = crash({"3600", "0", "6"});
        QVERIFY(dumps(outcome.output, "crashing").endsWith("\nkept\n"));
        QCOMPARE(outcome.exitCode, 128 + SIGKILL);
    }

    void aForkedChildIsNotReported()
    {
        writeProgram("gdb", "echo kept");
        const Outcome outcome = crash({"3600", "0", "forked-child"});
        QCOMPARE(dumps(outcome.output, "crashing").count("kept"), 1);
        QVERIFY(outcome.output.contains("the forked child was ended by signal 11\n"));
    }

    void settingsThatCannotReportACrashAreRefused_data()
    {
        QTest::addColumn<QByteArray>("appName");
        QTest::addColumn<QByteArray>("handlerPath");
        QTest::addColumn<int>("error");
        QTest::newRow("no name") << QByteArray() << "/bin/sh"_ba << EINVAL;
        QTest::newRow("a name like an option") << "-x"_ba
                                               << "/bin/sh"_ba << EINVAL;
        QTest::newRow("a long name") << QByteArray(PATH_MAX, 'x') << "/bin/sh"_ba << ENAMETOOLONG;
        QTest::newRow("a folder") << "x"_ba
                                  << "/"_ba << EACCES;
        QTest::newRow("no program") << "x"_ba
                                    << "/proc/version"_ba << EACCES;
        QTest::newRow("no path") << "x"_ba << QByteArray() << EINVAL;
        QTest::newRow("nothing there") << "x"_ba
                                       << "/nowhere"_ba << ENOENT;
    }
    void settingsThatCannotReportACrashAreRefused()
    {
        QFETCH(const QByteArray, appName);
        QFETCH(const QByteArray, handlerPath);
        const auto text
            = [](const QByteArray &bytes) { return bytes.isNull() ? nullptr : bytes.constData(); };
        QVERIFY(
            !crashreporting::install({.appName = text(appName), .handlerPath = text(handlerPath)}));
        QTEST(errno, "error");
    }

    void anApplicationThatIsRefusedCrashesWithoutAReport()
    {
        const Outcome outcome = crash({"0", "0", "null-pointer"}, {}, "/nowhere");
        QCOMPARE(outcome.output, "crashes will not be reported: No such file or directory\n");
        QCOMPARE(outcome.exitCode, 128 + SIGSEGV);
    }
};

TEST_MAIN(ClientTest)
#include "tst_client.moc"
