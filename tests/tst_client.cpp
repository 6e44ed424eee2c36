// The library that applications link, as it is installed: applications of somebody else are built
// against it and really crash, with the installed crash handler.

#include "tests/support.h"

#include <vastel-mail/crashreporting.h>

#include <cerrno>
#include <climits>
#include <csignal>

class ClientTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        prefix = std::make_unique<QTemporaryDir>(u"/tmp/vastel-test-XXXXXX"_s);
        qputenv("PREFIX", QFile::encodeName(prefix->path()));
        build("env -u DESTDIR cmake --install '" BUILD_FOLDER "' --prefix \"$PREFIX\"");
        // With debug information and not optimized: the reports have the frames of the source.
        build("cc -std=c11 -Wall -Wextra -Wpedantic -Werror -g -O0 -pthread"
              " -o \"$PREFIX/crashing-application\" '" SOURCE_FOLDER
              "/tests/crashingapplication.c' $flags");
    }

    void theLibraryNeedsTheLibraryOfCOnly()
    {
        build("! nm -u $(find \"$PREFIX\" -name '*.a') | grep -E ' (_Z|__cxa|__gxx|_Unwind)'");
    }

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
        const QByteArrayList overflow(200, "countNestedReplies");
        row("a null pointer", "null-pointer", nullPointer);
        row("PYTHONHOME is set", "null-pointer", nullPointer, "PYTHONHOME=/nowhere");
        row("LD_LIBRARY_PATH is set", "null-pointer", nullPointer, "LD_LIBRARY_PATH=.");
        row("a raised signal", "6", {"raise", "crash", "main"});
        row("an overflow of the stack", "stack-overflow", overflow);
        row("an overflow of a thread's stack", "thread-stack-overflow", overflow);
        row("two threads at once", "two-threads", nullPointer + nullPointer);
    }
    void theRealDebuggerShowsTheCrash()
    {
        QFETCH(const QByteArray, way);
        QFETCH(const QByteArrayList, shown);
        QFETCH(const QByteArray, variable);
        QCOMPARE(shell(": > libexpat.so.1"), ""); // gdb would load it, and it is no library
        const Outcome outcome = crash({"-", "3600", "0", way}, {variable});
        const QByteArray dump = shell("dumps");
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
        const Outcome early = crash({"-", "3600", "1", "null-pointer"});
        const Outcome late = (QFile::remove(u"crashed"_s), crash({"-", "1", "1", "null-pointer"}));
        QCOMPARE(shell("dumps").count("\nkept\n"), 2);
        QVERIFY(!early.output.contains("back again") && late.output.contains("back again"));
    }

    void eachSignalOfACrashIsReported_data()
    {
        QTest::addColumn<int>("number");
        QTest::newRow("SIGILL") << SIGILL;
        QTest::newRow("SIGTRAP") << SIGTRAP;
        QTest::newRow("SIGABRT") << SIGABRT;
        QTest::newRow("SIGBUS") << SIGBUS;
        QTest::newRow("SIGFPE") << SIGFPE;
        QTest::newRow("SIGSEGV") << SIGSEGV;
        QTest::newRow("SIGSYS") << SIGSYS;
    }
    void eachSignalOfACrashIsReported()
    {
        QFETCH(const int, number);
        writeProgram("gdb", "echo kept");
        const Outcome outcome = crash({"-", "3600", "0", QByteArray::number(number)});
        const QByteArray header = shell("dumps").split('\n').constFirst();
        const QByteArray signal = QTest::currentDataTag();
        QCOMPARE(header, qgetenv("NAME") + " has closed unexpectedly (Signal \"" + signal + "\")");
        QCOMPARE(outcome.exitCode, 128 + number);
    }

    void aCrashIsReportedWhenTheApplicationIsKilledMeanwhile()
    {
        writeProgram("gdb", "kill -KILL $7; echo kept");
        const Outcome outcome = crash({"-", "3600", "0", "6"});
        QVERIFY(shell("dumps").endsWith("\nkept\n"));
        QCOMPARE(outcome.exitCode, 128 + SIGKILL);
    }

    void aForkedChildIsNotReported()
    {
        writeProgram("gdb", "echo kept");
        const Outcome outcome = crash({"-", "3600", "0", "forked-child"});
        QCOMPARE(shell("dumps").count("kept"), 1);
        QVERIFY(outcome.output.contains("the forked child was ended by signal 11\n"));
    }

    void settingsThatCannotReportACrashAreRefused_data()
    {
        QTest::addColumn<QByteArray>("appName");
        QTest::addColumn<QByteArray>("handlerPath");
        QTest::addColumn<int>("error");
        const auto row
            = [](const char *name, const QByteArray &appName, const QByteArray &handlerPath,
                 int error) { QTest::newRow(name) << appName << handlerPath << error; };
        row("no name", {}, "/bin/sh", EINVAL);
        row("a name like an option", "-x", "/bin/sh", EINVAL);
        row("a long name", QByteArray(PATH_MAX, 'x'), "/bin/sh", ENAMETOOLONG);
        row("no path", "x", {}, EINVAL);
        row("a folder", "x", "/", EACCES);
        row("no program", "x", "/proc/version", EACCES);
        row("nothing there", "x", "/nowhere", ENOENT);
    }
    void settingsThatCannotReportACrashAreRefused()
    {
        QFETCH(const QByteArray, appName);
        QFETCH(const QByteArray, handlerPath);
        crashreporting::Settings settings;
        settings.appName = appName.isNull() ? nullptr : appName.constData();
        settings.handlerPath = handlerPath.isNull() ? nullptr : handlerPath.constData();
        QVERIFY(!crashreporting::install(settings));
        QTEST(errno, "error");
    }

    void anApplicationThatIsRefusedCrashesWithoutAReport()
    {
        const Outcome outcome = crash({"/nowhere", "0", "0", "null-pointer"});
        QCOMPARE(outcome.output, "crashes will not be reported: No such file or directory\n");
        QCOMPARE(outcome.exitCode, 128 + SIGSEGV);
    }

    void theExampleIsBuiltAndComesBack_data()
    {
        QTest::addColumn<QByteArray>("command");
        QTest::newRow("by CMake") << QByteArray(
            "cmake -G '" CMAKE_GENERATOR "' -D CMAKE_CXX_COMPILER='" CMAKE_CXX_COMPILER
            "' -D CMAKE_PREFIX_PATH=\"$PREFIX\" -B . -S examples && cmake --build .");
        QTest::newRow("by pkg-config") << QByteArray(
            "'" CMAKE_CXX_COMPILER "' -std=c++17 -pthread -o example-mail examples/examplemail.cpp"
            " $flags");
    }
    void theExampleIsBuiltAndComesBack()
    {
        QFETCH(const QByteArray, command);
        build("cp -r \"$SOURCE/examples\" . &&"
              " sed -i \"s/Example Mail/& $NAME/\" examples/examplemail.cpp && "
              + command);
        writeProgram("gdb", "echo kept");
        const Outcome outcome
            = runToEnd(environment() + QByteArrayList{"./example-mail", ".", "--crash"});
        QVERIFY(shell("dumps").startsWith("Example Mail " + qgetenv("NAME") + " has closed"));
        QVERIFY2(outcome.output.contains("back after a crash"), outcome.output);
        QCOMPARE(outcome.exitCode, 128 + SIGSEGV);
    }

    void cleanupTestCase() { prefix.reset(); }

private:
    /// Runs a command of the shell, which can use $PREFIX and the compiler's $flags for the library.
    void build(const QByteArray &command) const
    {
        const QByteArray findFlags = "packages=$(find \"$PREFIX\" -name '*.pc');"
                                     "flags=${packages:+$(pkg-config --cflags --libs $packages)};";
        const QByteArray status = shell("{ " + findFlags + command + "; } > \"$PREFIX/log\" 2>&1");
        QVERIFY2(status.isEmpty(), contentOf(prefix->filePath(u"log"_s)));
    }

    static QByteArrayList environment()
    {
        return {"PATH=" + qgetenv("PATH"), "TMPDIR=" + qgetenv("TMPDIR"),
                "NAME=" + qgetenv("NAME")};
    }

    /// Lets the application crash.
    [[nodiscard]] Outcome crash(const QByteArrayList &arguments,
                                const QByteArrayList &variables = {}) const
    {
        // An application can have blocked the signals of its crash.
        const QByteArrayList command{"env", "--block-signal",
                                     QFile::encodeName(prefix->path()) + "/crashing-application"};
        return runToEnd(environment() + variables + command + arguments);
    }

    std::unique_ptr<QTemporaryDir> prefix;
};

TEST_MAIN(ClientTest)
#include "tst_client.moc"
