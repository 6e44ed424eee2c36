// What single classes and functions do beyond what an ordinary run shows.

#include "backtrace/backtracecollector.h"
#include "crash/crashhandler.h"
#include "dump/dumpfile.h"
#include "tests/support.h"
#include "util/files.h"

#include <csignal>

#include <sys/stat.h>
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

class ClassesTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void appendedFilesArePrivateWhateverTheUmask()
    {
        for (const mode_t mask : {0777U, 0U}) {
            const mode_t earlierMask = ::umask(mask);
            const bool isWritten = writeToFile(u"file"_s, "a\r\n") && writeToFile(u"file"_s, {})
                && writeToFile(u"file"_s, "b\0\xfc"_ba);
            QCOMPARE(::umask(earlierMask), mask);
            QVERIFY(isWritten);
            QCOMPARE(shell("test $(stat -c %a file) = 600"), 0);
            QCOMPARE(readBinaryFile(u"file"_s), "a\r\nb\0\xfc"_ba);
            QCOMPARE(readFile(u"file"_s), "a\nb\0\xfc"_ba);
            QVERIFY(QFile::remove(u"file"_s));
        }
    }

    void aFailedWriteIsReported()
    {
        const QStringList &log = keepLog();
        QVERIFY(writeToFile(u"/dev/full"_s, "lost when the file is closed"));
        QVERIFY(!writeToFile(u"/dev/full"_s, QByteArray(1'000'000, 'x')));
        QCOMPARE(log.constLast(), u"debug Wrote -1 bytes to file: \"/dev/full\""_s);
    }

    void anotherProcessCanAppendMeanwhileAndDoesNotInheritTheFile()
    {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &text) {
            if (text.startsWith(u"Wrote")) // and the file is still open
                QCOMPARE(shell("echo second >> file; ! ls -l /proc/self/fd | grep -q /file"), 0);
        });
        QVERIFY(writeToFile(u"file"_s, "first\n"));
        QCOMPARE(contentOf(u"file"_s), QByteArray("second\nfirst\n"));
    }

    void whatAnotherUserCanHavePlantedIsRefused_data()
    {
        QTest::addColumn<QByteArray>("planted");
        QByteArrayList commands{"mkdir file", "mkfifo file", "ln mine file", "ln -s mine file",
                                "ln -s nothing file"};
        // Only root can make these, and not in every container.
        for (const char *command :
             {"touch file && chown $(($(id -u) + 1)) file", "mknod file b 7 200"}) {
            const QTemporaryDir trial;
            if (shell("cd " + QFile::encodeName(trial.path()) + " && " + command + " 2> trial")
                == 0)
                commands.append(command);
        }
        for (const QByteArray &command : std::as_const(commands))
            QTest::newRow(command.constData()) << command;
    }
    void whatAnotherUserCanHavePlantedIsRefused()
    {
        QFETCH(const QByteArray, planted);
        QCOMPARE(shell("echo 1 > mine; " + planted), 0);
        QVERIFY(!writeToFile(u"file"_s, "secret"));
        QCOMPARE(contentOf(u"mine"_s), QByteArray("1\n"));
        QVERIFY(!QFile::exists(u"nothing"_s));
    }

    void aReportIsInAFolderOfItsOwnerAndBeginsWithTheNamesAsTheyAre()
    {
        const mode_t earlierMask = ::umask(0777);
        DumpFile dump(u"Pöst%2b%1"_s, u"%1%3"_s, u"./a/dumps/"_s);
        ::umask(earlierMask);
        QCOMPARE(shell("test $(stat -c %a a/dumps) = 700"), 0);
        QVERIFY(dump.dumpFilePath().startsWith(u"./a/dumps//2"));
        const QByteArray header = contentOf(dump.dumpFilePath());
        QVERIFY(header.startsWith("Pöst%2b%1 has closed unexpectedly (Signal \"%1%3\")\nplease"));
        QVERIFY(header.contains(".\nPöst%2b%1, based on Qt "));
        QVERIFY(dump.writeMessage(u"é"_s) && dump.writeMessage({}) && dump.writeMessage(u"\n"_s));
        QCOMPARE(contentOf(dump.dumpFilePath()), header + "é\n");
    }

    void aDebuggerThatRunsIsKilledWithoutASignalWhenItsCollectorIsDestroyed()
    {
        writeProgram("gdb", "echo $$ $5 $7; exec sleep 1000\n");
        auto collector = std::make_unique<BacktraceCollector>();
        const QSignalSpy chunks(collector.get(), &BacktraceCollector::backtraceChunk);
        const QSignalSpy backtraces(collector.get(), &BacktraceCollector::backtrace);
        const QSignalSpy errors(collector.get(), &BacktraceCollector::error);
        collector->start(4'294'967'296);
        QVERIFY(!collector->isRunning());
        QTRY_COMPARE_WITH_TIMEOUT(chunks.size(), 1, patience);
        QVERIFY(collector->isRunning());
        const QStringList answer = chunks.at(0).at(0).toString().simplified().split(u' ');
        QVERIFY(QFile::exists(answer.at(1)));
        QCOMPARE(answer.at(2), u"4294967296"_s);

        collector.reset();
        QCOMPARE(chunks.size() + backtraces.size() + errors.size(), 1);
        QCOMPARE(::kill(answer.at(0).toInt(), 0), -1);
        QVERIFY(!QFile::exists(answer.at(1)));
    }

    void aDebuggerWithoutCommandsIsNotHeardButTheNextOneIs()
    {
        qputenv("TMPDIR", "/proc");
        writeProgram("gdb", "echo unheard; exec sleep 1000");
        BacktraceCollector collector;
        const QSignalSpy chunks(&collector, &BacktraceCollector::backtraceChunk);
        const QSignalSpy errors(&collector, &BacktraceCollector::error);
        collector.start(1);
        QTRY_VERIFY_WITH_TIMEOUT(collector.isRunning(), patience);
        collector.kill();
        QTRY_VERIFY_WITH_TIMEOUT(!collector.isRunning(), patience);
        QCOMPARE(chunks.size() + errors.size(), 1);
        qputenv("TMPDIR", path());
        writeProgram("gdb", "echo heard");
        collector.start(1);
        QTRY_COMPARE_WITH_TIMEOUT(chunks.size(), 1, patience);
    }

    void withoutACommandLineNothingIsStarted()
    {
        const QStringList &log = keepLog();
        CrashHandler handler(5'000'000, u"mail"_s, u"11"_s, false); // above any pid_max, proc(5)
        QVERIFY(QMetaObject::invokeMethod(&handler, "restartApplication"));
        dumps(log.join(u'\n').toUtf8(), "mail"); // removes it after the row
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
        const QString dump = log.filter(u"Dump file path set"_s).value(0).section(u'"', 1, 1);
        const QByteArray header = dumps(log.join(u'\n').toUtf8(), "mail");
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

TEST_MAIN(ClassesTest)
#include "tst_classes.moc"
