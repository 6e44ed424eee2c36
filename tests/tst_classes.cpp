// What single classes and functions do beyond what an ordinary run shows.

#include "crash/crashhandler.h"
#include "dump/dumpfile.h"
#include "tests/support.h"
#include "util/files.h"

#include <sys/stat.h>

constexpr int tryLimit = timeLimit / 3; // after that, QTRY_ tries twice as long once more

class ClassesTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void whatIsAppendedMeanwhileIsKept()
    {
        const auto handler = qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext &, const QString &text) {
                if (text.startsWith(u"Wrote")) // into a buffer: the file is still open
                    QCOMPARE(shell("echo second >> file"), "");
            });
        QVERIFY(writeToFile(u"file"_s, "first\0\xfc\r\n"_ba));
        qInstallMessageHandler(handler);
        QCOMPARE(readBinaryFile(u"file"_s), "second\nfirst\0\xfc\r\n"_ba);
        QCOMPARE(readFile(u"file"_s), "second\nfirst\0\xfc\n"_ba);
    }

    void whatAnotherUserCanHavePlantedIsRefused_data()
    {
        QTest::addColumn<QByteArray>("planted");
        for (const QByteArray command :
             {"mkdir file", "mkfifo file", "ln mine file", "ln -s mine file", "ln -s nothing file",
              // Only root can make these, and not in every container. The last is no file at all.
              "touch file && chown $(($(id -u) + 1)) file", "mknod file c 1 3"})
            QTest::newRow(command.constData()) << command;
    }
    void whatAnotherUserCanHavePlantedIsRefused()
    {
        QFETCH(const QByteArray, planted);
        if (const QByteArray refusal = shell("echo 1 > mine; " + planted); !refusal.isEmpty())
            QSKIP(refusal);
        QTest::ignoreMessage(QtCriticalMsg, "Failed to open file for writing: \"file\"");
        QTest::ignoreMessage(QtWarningMsg, "Warning: Could not open  \"file\"");
        QVERIFY(!writeToFile(u"file"_s, "secret"));
        QCOMPARE(contentOf(u"mine"_s), "1\n");
        QVERIFY(!QFile::exists(u"nothing"_s));
    }

    void onlyTheOwnerCanWriteWhateverTheUmask()
    {
        for (const auto &[mask, modes] :
             {std::pair(077U, "700\n700\n600\n"), {0U, "755\n755\n600\n"}}) {
            const mode_t earlierMask = ::umask(mask);
            const DumpFile dump(u"x"_s, u"11"_s, u"./a/dumps/"_s);
            QCOMPARE(::umask(earlierMask), mask);
            QVERIFY(dump.dumpFilePath().startsWith(u"./a/dumps//2")); // as given, then the year
            QCOMPARE(shell("stat -c %a a a/dumps a/dumps/*; rm -r a"), modes);
        }
    }

    void aFolderThatCannotBeCreatedIsReplacedByTheTemporaryFolder()
    {
        QTest::ignoreMessage(QtCriticalMsg, "Failed to create dump directory: \"/proc/nowhere\"");
        QTest::ignoreMessage(QtWarningMsg, "\"mkpath [/proc/nowhere] failed\"");
        const DumpFile dump(u"x"_s, u"11"_s, u"/proc/nowhere"_s);
        QCOMPARE(QFileInfo(dump.dumpFilePath()).path(), QDir::currentPath());
        QVERIFY(QFile::exists(dump.dumpFilePath()));
    }

    void withoutACommandLineNothingIsStarted()
    {
        const QByteArray path = "\"/proc/5000000/cmdline\""; // above any pid_max, proc(5)
        QTest::ignoreMessage(QtCriticalMsg, "Failed to open file for reading: " + path);
        QTest::ignoreMessage(QtWarningMsg, "Warning: Could not open  " + path);
        QTest::ignoreMessage(QtWarningMsg, "Unexpected format in file:  " + path);
        QTest::ignoreMessage(QtWarningMsg, "Unable to restart");
        CrashHandler handler(5'000'000, appName(), u"11"_s, false);
        QTest::ignoreMessage(QtInfoMsg, "command line: QList()");
        QVERIFY(QMetaObject::invokeMethod(&handler, "restartApplication"));
    }

    // The application has the variable A, which is no UTF-8. NAME is one of the crash handler.
    void debuggingKillsTheDebuggerAndStartsTheApplication()
    {
        writeProgram(u"gdb"_s, "trap '' TERM; echo $$; exec sleep 1000");
        writeProgram(u"jürgen"_s, "echo \"$@ $A $NAME\" > new; mv new started");
        QProcess application;
        application.setEnvironment({u"B=b"_s});
        application.start(u"bash"_s, {u"-c"_s, uR"(A=$'\374' exec -a ./jürgen /bin/cat)"_s});
        const qint64 pid = application.processId();
        const QString commandLine = u"/proc/%1/cmdline"_s.arg(pid);
        QTRY_COMPARE_WITH_TIMEOUT(contentOf(commandLine), "./jürgen\0"_ba, tryLimit);
        CrashHandler handler(pid, appName(), u"11"_s, false);
        handler.run();
        const QString path = QString::fromUtf8(shell("grep -l $NAME /tmp/vastel-mail/*")).trimmed();
        const QByteArray header = contentOf(path);
        QTRY_VERIFY_WITH_TIMEOUT(contentOf(path) != header, tryLimit);
        const QByteArray debugger = contentOf(path).sliced(header.size()).trimmed();
        QTest::ignoreMessage(QtInfoMsg, "Debugging application requested");
        QTest::ignoreMessage(QtInfoMsg, "Killing debugger process");
        QVERIFY(QMetaObject::invokeMethod(&handler, "debugApplication"));
        const QByteArray started = "-debug " + QByteArray::number(pid) + " ü " + qgetenv("NAME");
        QTRY_COMPARE_WITH_TIMEOUT(contentOf(u"started"_s), started + '\n', tryLimit);
        QTRY_VERIFY2(!QFile::exists(u"/proc/"_s + QString::fromUtf8(debugger)),
                     "the debugger lives on");
        compare(contentOf(path), header + debugger + "\n\n\nCollecting backtrace aborted by user.");
    }

private:
    static QString appName() { return qEnvironmentVariable("NAME"); }
};

QTEST_GUILESS_MAIN(ClassesTest)
#include "tst_classes.moc"
