// What single classes and functions do beyond what an ordinary run shows.

#include "backtrace/backtracecollector.h"
#include "crash/crashhandler.h"
#include "dump/dumpfile.h"
#include "tests/support.h"
#include "util/files.h"

#include <sys/stat.h>

class ClassesTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        qSetMessagePattern(u"%{type} %{message}"_s);
        qInstallMessageHandler(record);
    }

    void whatIsAppendedIsReadAgain()
    {
        QVERIFY(writeToFile(u"file"_s, "a\r\n") && writeToFile(u"file"_s, {}));
        QVERIFY(writeToFile(u"file"_s, "b\0\xfc"_ba));
        QCOMPARE(readBinaryFile(u"file"_s), "a\r\nb\0\xfc"_ba);
        QCOMPARE(readFile(u"file"_s), "a\nb\0\xfc"_ba);
    }

    void anotherProcessCanAppendMeanwhile()
    {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &text) {
            if (text.startsWith(u"Wrote")) // and the file is still open
                QCOMPARE(shell("echo second >> file"), "");
        });
        QVERIFY(writeToFile(u"file"_s, "first\n"));
        qInstallMessageHandler(record);
        QCOMPARE(contentOf(u"file"_s), "second\nfirst\n");
    }

    void whatAnotherUserCanHavePlantedIsRefused_data()
    {
        QTest::addColumn<QByteArray>("planted");
        for (const QByteArray command :
             {"mkdir file", "mkfifo file", "ln mine file", "ln -s mine file", "ln -s nothing file",
              // Only root can make these, and not in every container.
              "touch file && chown $(($(id -u) + 1)) file", "mknod file b 7 200"})
            QTest::newRow(command.constData()) << command;
    }
    void whatAnotherUserCanHavePlantedIsRefused()
    {
        QFETCH(const QByteArray, planted);
        if (lacks("echo 1 > mine; " + planted))
            return;
        log.clear();
        QVERIFY(!writeToFile(u"file"_s, "secret"));
        QCOMPARE(log,
                 "debug Writing to file: \"file\"\n"
                 "critical Failed to open file for writing: \"file\"\n"
                 "warning Warning: Could not open  \"file\"\n");
        QCOMPARE(contentOf(u"mine"_s), "1\n");
        QVERIFY(!QFile::exists(u"nothing"_s));
    }

    void onlyTheOwnerCanWriteWhateverTheUmask()
    {
        for (const auto &[mask, modes] :
             {std::pair(0777U, "700\n700\n600\n"), {0U, "755\n755\n600\n"}}) {
            const mode_t earlierMask = ::umask(mask);
            const DumpFile dump(u"x"_s, u"11"_s, u"./a/dumps/"_s);
            QCOMPARE(::umask(earlierMask), mask);
            QVERIFY(dump.dumpFilePath().startsWith(u"./a/dumps//2"));
            QCOMPARE(shell("stat -c %a a a/dumps a/dumps/*; rm -r a"), modes);
        }
    }

    void aDebuggerWithoutCommandsIsNotHeard()
    {
        writeProgram("gdb", "echo lost; : > spoken; exec sleep 1000");
        qputenv("TMPDIR", "/proc"); // no place for the commands
        BacktraceCollector collector;
        const QSignalSpy chunks(&collector, &BacktraceCollector::backtraceChunk);
        const QSignalSpy errors(&collector, &BacktraceCollector::error);
        QVERIFY(!collector.isRunning());
        collector.start(1);
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(u"spoken"_s) && collector.isRunning(), patience);
        collector.kill();
        QTRY_VERIFY_WITH_TIMEOUT(!collector.isRunning(), patience);
        QCOMPARE(chunks.size(), 0);
        QCOMPARE(errors.size(), 1);
    }

    void withoutACommandLineNothingIsStarted()
    {
        log.clear();
        CrashHandler handler(5'000'000, appName(), u"11"_s, false); // above any pid_max, proc(5)
        QVERIFY(QMetaObject::invokeMethod(&handler, "restartApplication"));
        const QByteArray path = "\"/proc/5000000/cmdline\"\n";
        const QByteArray expected = "critical Failed to open file for reading: " + path
            + "warning Warning: Could not open  " + path
            + "warning Unexpected format in file:  " + path + "warning Unable to restart\n";
        QVERIFY2(log.contains(expected) && !log.contains("Starting detached"), log);
    }

    void debuggingStartsTheApplicationAndAbortsARunningCollection()
    {
        writeProgram("gdb", "echo $$; exec sleep 1000");
        shell("cp /bin/cat application");
        QProcess application;
        application.start(u"./application"_s); // waits for its input
        QVERIFY(application.waitForStarted());
        const QByteArray pid = QByteArray::number(application.processId());
        CrashHandler handler(application.processId(), appName(), u"11"_s, false);
        writeProgram("application", "echo \"$@\" > new; mv new arguments");

        const QByteArray header = shell("dumps");
        const auto debug = [&] {
            QVERIFY(QMetaObject::invokeMethod(&handler, "debugApplication"));
            QTRY_COMPARE_WITH_TIMEOUT(contentOf(u"arguments"_s), "-debug " + pid + '\n', patience);
            QVERIFY(QFile::remove(u"arguments"_s));
        };
        debug();
        QCOMPARE(shell("dumps"), header);

        handler.run();
        QTRY_VERIFY_WITH_TIMEOUT(shell("dumps") != header, patience);
        const QByteArray report = shell("dumps");
        debug();
        QVERIFY(
            log.contains("info Debugging application requested\ninfo Killing debugger process\n"));
        QCOMPARE(shell("dumps"), report + "\n\nCollecting backtrace aborted by user.");
        const QByteArray debugger = report.sliced(header.size()).trimmed();
        QTRY_VERIFY_WITH_TIMEOUT(shell("kill -0 " + debugger) != "", patience);
        application.closeWriteChannel();
        QVERIFY(application.waitForFinished(patience));
    }

private:
    static QString appName() { return qEnvironmentVariable("NAME"); }

    static inline QByteArray log; // of all rows
    static void record(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        log += qFormatLogMessage(type, context, text).toUtf8() + '\n';
    }
};

TEST_MAIN(ClassesTest)
#include "tst_classes.moc"
