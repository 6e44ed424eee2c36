// The whole program, started by a process that crashes: what it logs, what it leaves on disk, and what comes
// back, in every world that it may meet.

#include "tests/support.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <utility>

#include <linux/close_range.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

const QByteArray current = "[Current thread is 1 (x)]\n";
const QByteArray marker = "text to select is [Thread 1]";
const QByteArray good = "echo '[Current thread is 1 (x)]'; "; // what a debugger does
// The words are those of Qt, which changed them.
const QByteArray noSuchProgram
    = QByteArray(qstrcmp(qVersion(), "6.7") < 0 ? "execvp" : "Child process set up failed: execve")
    + ": No such file or directory";
const QByteArray hint = "A problem occurred providing the backtrace. "
                        "Please make sure to have the debugger \"gdb\" installed.\n";

/// A crash of the probe that tests/probe.sh is, or a chain of them.
class Crash
{
public:
    explicit Crash(const QString &folder)
        : folder(folder)
    {
        for (const auto &[name, value] :
             {std::pair{u"PATH"_s, qEnvironmentVariable("PATH")},
              {u"LC_ALL"_s, u"C.UTF-8"_s},
              {u"PWD"_s, QDir::currentPath()},
              {u"PROBE_FOLDER"_s, folder},
              {u"PROBE_RUNS"_s, u"2"_s},
              {u"PROBE_HANDLER"_s, program(u"crash-handler"_s)},
              {u"QT_MESSAGE_PATTERN"_s, u"%{category} %{type} %{message}"_s}})
            environment.insert(name, value);
        process.setProgram(QFINDTESTDATA("probe.sh"));
        // The first run must have no more descriptors than a restarted one, whatever this test has.
        process.setChildProcessModifier(
            [] { ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC); });
    }

    /// Waits for the end of the first run and its handler; returns that one's exit status.
    int run()
    {
        process.setProcessEnvironment(environment);
        process.start();
        if (!process.waitForFinished(patience))
            return -1;
        log = process.readAllStandardError();
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    [[nodiscard]] QString record(int run) const { return folder + u"/run-%1"_s.arg(run); }
    [[nodiscard]] QByteArrayList recorded(int run) const
    {
        return contentOf(record(run)).split('\n');
    }

    QProcessEnvironment environment;
    QProcess process;
    QByteArray log;

    const QString folder;
};

/// One world that the program may meet, and what must hold in it.
struct World
{
    QByteArray debugger = good;
    QByteArray report = current + marker; // behind the header; null when all is lost
    QString inherited = {}; // what the handler inherits
    std::pair<QString, QString> variable = {u"TMPDIR"_s, u"/tmp"_s};
    QString preparation = {}; // by the shell, in the /tmp that tests/private-tmp.sh makes
    QByteArray logged = {}; // a part of the log
    int exitStatus = 0;
    bool restarts = true;
    bool keepsHeader = true;
};

} // namespace

class ProgramTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aWrongCommandLineIsRefused_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("message");
        const QByteArray usage
            = "This crash handler will be called by main program. Do not call this manually.";
        const QByteArray usageTwice = '"' + usage + "\\n\"\n" + usage + '\n';
        QTest::newRow("none") << QStringList() << "Invalid number of arguments: 0\n" + usageTwice;
        QTest::newRow("three") << QStringList{u"11"_s, u"mail"_s, u"x"_s}
                               << "Invalid number of arguments: 3\n" + usageTwice;
        QTest::newRow("a flag with a value")
            << QStringList{u"--disable-restart=1"_s, u"11"_s, u"mail"_s}
            << QByteArray("Unexpected value after '--disable-restart'.\n");
    }
    void aWrongCommandLineIsRefused()
    {
        QFETCH(const QStringList, arguments);
        QFETCH(const QByteArray, message);
        const TestFolder folder;
        QProcess process;
        process.start(program(u"crash-handler"_s), arguments);
        QVERIFY(process.waitForFinished(patience));
        QCOMPARE(process.exitCode(), 1);
        const QByteArray log = process.readAllStandardError();
        QVERIFY2(log.endsWith(message), log);
        QCOMPARE(folder.dumps(), QStringList());
    }

    void theWholeLogAndDumpOfARun()
    {
        const TestFolder folder;
        folder.writeDebugger(good);
        Crash crash(folder.path());
        crash.process.setArguments({u"ü"_s});
        QCOMPARE(crash.run(), 0);
        QCOMPARE(folder.dumps().size(), 1);
        const QByteArray header = dumpHeader("mail", "SIGSEGV");
        QCOMPARE(contentOf(folder.dumps().constFirst()), header + current + marker);

        // What differs from run to run and from machine to machine.
        const QString log = QString::fromUtf8(crash.log).remove(
            QRegularExpression(u".*(Fail|Succ|Warn).*lsb-release.*\n"_s));
        const QString pid = QRegularExpression(u"ID: (\\d+)"_s).match(log).captured(1);
        const QString variables = crash.environment.toStringList().join(u"\", \""_s);
        const QString expected
            = QString::fromUtf8(contentOf(QFINDTESTDATA("ordinary-run.log")))
                  .replace(u"@PID@"_s, pid)
                  .replace(u"@STAMP@"_s, QFileInfo(folder.dumps().constFirst()).completeBaseName())
                  .replace(u"@PROBE@"_s, crash.process.program())
                  .replace(u"@HEADER_SIZE@"_s, QString::number(header.size()))
                  .replace(u"@ENVIRONMENT@"_s, variables);
        QCOMPARE(log.split(u'\n'), expected.split(u'\n'));
    }

    // A table is read by its lines: one for what goes in, one for what must come out.
    // clang-format off
    void whatCanBeKeptIsKept_data()
    {
        const QByteArray showState = "grep -E 'Sig(Blk|Ign)' /proc/self/status; ls /proc/self/fd; ";
        const QByteArray cleanState = "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0\n1\n2\n3\n";
        const QByteArray waitForDump = "; until grep -q kept /tmp/vastel-mail/*.dump; do sleep 0.01; done; ";

        QTest::addColumn<World>("world");
        // What nohup(1) and shells ignore stays ignored: SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP, SIGTTIN and SIGTTOU.
        QTest::newRow("signals ignored") << World{.debugger = showState + good, .report = QByteArray(cleanState)
            .replace("SigIgn:\t0000000000000000", "SigIgn:\t0000000000384007") + current + marker, .inherited = u"signals ignored"_s};
        for (const char *state : {"nothing", "signals blocked", "descriptors open",
                                  "no standard streams", "no standard error", "log without reader", "log that nobody reads",
                                  "log on a full device", "umask without the owner's rights"})
            QTest::newRow(state) << World{.debugger = showState + good, .report = cleanState + current + marker,
                                          .inherited = QString::fromLatin1(state)};
        QTest::newRow("fatal warnings") << World{.variable = {u"QT_FATAL_WARNINGS"_s, u"1"_s}};
        for (const char *locale : {"C", "de_DE.ISO-8859-1", "not_INSTALLED"})
            QTest::newRow(locale) << World{.variable = {u"LC_ALL"_s, QString::fromLatin1(locale)}};

        QTest::newRow("gdb fails") << World{.debugger = "echo kept; exit 3",
            .report = "kept\n" + hint + "Debugger exited with code 3.", .logged = "error code: 3\n", .restarts = false};
        QTest::newRow("gdb is killed") << World{.debugger = "echo kept; kill -KILL $$",
            .report = "kept\n" + hint + "QProcess: Process crashed", .logged = "occurred: \"Process crashed\"\n", .restarts = false};
        for (const char *debugger : {"", "#!/nowhere"}) // gdb is missing, or its interpreter is
            QTest::addRow("gdb cannot be started: '%s'", debugger) << World{.debugger = debugger,
                .report = hint + "QProcess: " + noSuchProgram, .inherited = u"no other debugger"_s,
                .logged = "Debugger process error: QProcess::FailedToStart\n", .restarts = false};
        for (const char *debugger : {"#!/nowhere", "echo unheard; exit 3", "echo unheard; exec sleep 1000"})
            QTest::addRow("no temporary files, and gdb does this: %s", debugger) << World{.debugger = debugger,
                .report = hint + "Error: Could not create temporary command file.", .variable = {u"TMPDIR"_s, u"/proc"_s},
                .logged = "critical Failed to create temporary command file\n", .restarts = false};
        QTest::newRow("several current threads") << World{
            .debugger = "echo '[Current thread is ?]'; echo '[Current thread is 12 (x)]'; " + good,
            .report = "[Current thread is ?]\n[Current thread is 12 (x)]\n" + current + "text to select is [Thread 12]"};
        QTest::newRow("no current thread") << World{.debugger = "echo '[Current thread is unknown]'",
            .report = "[Current thread is unknown]\n"};
        QTest::newRow("the restart is disabled") << World{.inherited = u"restart disabled"_s,
            .logged = "default info Application restart disabled\n", .restarts = false};
        QTest::newRow("the crashed process is killed") << World{.debugger = "kill -KILL $7; " + good, .exitStatus = -1};
        QTest::newRow("the handler is killed") << World{.debugger = "echo kept" + waitForDump + "kill -KILL $PPID",
            .report = "kept\n", .exitStatus = 128 + SIGKILL, .restarts = false};
        QTest::newRow("bytes that are no text") << World{.debugger = good + R"(printf 'a\000b\377')",
            .report = current + QByteArray("a\0b\xef\xbf\xbd", 6) + marker};
        QTest::newRow("a character cut in two") << World{.debugger = good + R"(printf 'kept\303')" + waitForDump + R"(printf '\251')",
            .report = current + "kept\xef\xbf\xbd\xef\xbf\xbd" + marker};
        QTest::newRow("one line of 50 MB") << World{.debugger = good + "head -c 50000000 /dev/zero | tr '\\0' x",
            .report = current + QByteArray(50'000'000, 'x') + marker};

        QTest::newRow("the folder is a file") << World{.report = {},
            .preparation = u": > /tmp/vastel-mail"_s};
        QTest::newRow("the folder is read-only") << World{.report = {},
            .preparation = u"ln -s read-only /tmp/vastel-mail"_s};
        QTest::newRow("the folder is removed meanwhile") << World{.debugger = "rm -r /tmp/vastel-mail; " + good,
            .report = {}, .preparation = u"mkdir /tmp/vastel-mail"_s};
        // Its one page is taken by another file.
        QTest::newRow("the disk is full at first") << World{.debugger = "rm /tmp/vastel-mail/fill; " + good,
            .preparation = u"ln -s full /tmp/vastel-mail; echo > /tmp/full/fill"_s, .keepsHeader = false};
    }
    // clang-format on
    void whatCanBeKeptIsKept()
    {
        QFETCH(const World, world);
        const TestFolder folder;
        if (!world.preparation.isEmpty() && !QFileInfo::exists(u"/tmp/full"_s))
            QSKIP("needs a /tmp of its own");
        QCOMPARE(QProcess::execute(u"/bin/sh"_s, {u"-c"_s, world.preparation}), 0);
        if (!world.debugger.isEmpty())
            folder.writeDebugger(world.debugger);
        Crash crash(folder.path());
        crash.environment.insert(u"PROBE_STATE"_s, world.inherited);
        crash.environment.insert(world.variable.first, world.variable.second);
        if (world.inherited == u"log that nobody reads"_s) // more log than a pipe can hold
            crash.process.setArguments({QString(60'000, u'\x80'), QString(60'000, u'\x80')});
        QCOMPARE(crash.run(), world.exitStatus);
        QVERIFY2(crash.log.contains(world.logged), crash.log);

        if (world.restarts) {
            QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(crash.record(1)), patience);
            QByteArray expected = contentOf(crash.record(0));
            if (world.inherited == u"signals ignored"_s)
                expected.replace("SigIgn:\t0000000000000000", "SigIgn:\t0000000000384007");
            QCOMPARE(contentOf(crash.record(1)), expected);
        } else {
            QVERIFY2(!crash.log.contains("Starting detached process"), crash.log);
        }
        QCOMPARE(folder.dumps().size(), world.report.isNull() ? 0 : 1);
        if (world.report.isNull())
            return;
        const QByteArray header = world.keepsHeader ? dumpHeader("mail", "SIGSEGV") : QByteArray();
        QVERIFY(contentOf(folder.dumps().constFirst()) == header + world.report);
        QCOMPARE(QFile::permissions(folder.dumps().constFirst())
                     & ~(QFile::ReadUser | QFile::WriteUser),
                 QFile::ReadOwner | QFile::WriteOwner);
    }

    void aChainOfCrashesNeverDrifts_data()
    {
        QTest::addColumn<QString>("command");
        QTest::newRow("by its path") << QFINDTESTDATA("probe.sh");
        QTest::newRow("by its name, which becomes the path where it is found") << u"sh"_s;
    }
    void aChainOfCrashesNeverDrifts()
    {
        QFETCH(const QString, command);
        const TestFolder folder;
        folder.writeDebugger("exit 0");
        Crash crash(folder.path());
        for (const auto &[name, value] : {std::pair{u"PROBE_RUNS"_s, u"8"_s},
                                          {u"HOME"_s, u"/home/jürgen"_s},
                                          {u"EMPTY"_s, u""_s},
                                          {u"NÄME"_s, u"a\r\nb=c\n"_s},
                                          {u"LARGE"_s, QString(45'000, u'ß')}})
            crash.environment.insert(name, value);
        for (int number = 0; number < 5'000; ++number)
            crash.environment.insert(u"V%1"_s.arg(number), u"x"_s);
        const QString script = u"umask 027; ulimit -n 512; cd /; exec \"$0\" \"$@\""_s;
        QStringList arguments{u"-c"_s, script, command};
        if (command == u"sh"_s)
            arguments.append(QFINDTESTDATA("probe.sh"));
        arguments += {u""_s, u"a\r\nb"_s, u"\"quoted\" 'text'"_s, u"\ufeffü😀"_s};
        for (int number = 0; number < 2'000; ++number)
            arguments.append(QString::number(number));
        crash.process.setProgram(u"/bin/sh"_s);
        crash.process.setArguments(arguments);
        QCOMPARE(crash.run(), 0);
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(crash.record(7)), patience);
        QByteArray expected = contentOf(crash.record(0));
        if (command == u"sh"_s)
            expected.replace(0, 2, QFile::encodeName(QStandardPaths::findExecutable(command)));
        QVERIFY(contentOf(crash.record(7)) == expected);
        QVERIFY(contentOf(crash.record(0)).contains(QByteArray("\0\0a\r\nb\0\"quoted\"", 15)));
    }

    void bytesThatAreNoTextBecomeLatin1()
    {
        const TestFolder folder;
        folder.writeDebugger("exit 0");
        Crash crash(folder.path());
        crash.process.setProgram(u"/bin/sh"_s);
        crash.process.setArguments(
            {u"-c"_s, u"exec \"$0\" \"$(printf 'j\\374rgen')\""_s, QFINDTESTDATA("probe.sh")});
        QCOMPARE(crash.run(), 0);
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(crash.record(1)), patience);
        QVERIFY(contentOf(crash.record(0)).contains(QByteArray("\0j\374rgen\0", 8)));
        QVERIFY(contentOf(crash.record(1)).contains(QByteArray("\0j\303\274rgen\0", 9)));
    }

    void tenCrashesInOneInstantKeepTenReports()
    {
        const TestFolder folder;
        folder.writeDebugger(good);
        Crash crash(folder.path());
        const QString crashes = u"for i in 0 1 2 3 4 5 6 7 8 9; do mkdir $PROBE_FOLDER/$i; "
                                "PROBE_FOLDER=$PROBE_FOLDER/$i \"$0\" & done; wait"_s;
        crash.process.setProgram(u"/bin/sh"_s);
        crash.process.setArguments({u"-c"_s, crashes, QFINDTESTDATA("probe.sh")});
        QCOMPARE(crash.run(), 0);
        QByteArray reports;
        for (const QString &dump : folder.dumps())
            reports += contentOf(dump);
        for (const QByteArray &part : {dumpHeader("mail", "SIGSEGV"), current, marker})
            QCOMPARE(reports.count(part), 10);
        for (int number = 0; number < 10; ++number)
            QTRY_VERIFY(QFileInfo::exists(folder.path(u"%1/run-1"_s.arg(number))));
    }

    void theRealDebuggerShowsTheCrash_data()
    {
        QTest::addColumn<int>("signal");
        QTest::addColumn<QByteArray>("frames"); // in their order, with | between them
        const QByteArray nullPointer = "readMessageSize|openMessage";
        QTest::newRow("early-null-pointer") << SIGSEGV << nullPointer;
        QTest::newRow("early-abort") << SIGABRT << QByteArray("abort|crash|in main");
        QTest::newRow("early-stack-overflow")
            << SIGSEGV << QByteArray("countNestedReplies|").repeated(200);
        QTest::newRow("early-second-thread") << SIGSEGV << "\"mail-fetch\"|" + nullPointer;
        QTest::newRow("early-two-threads") << SIGSEGV << nullPointer + "|readMessageSize";
        QTest::newRow("null-pointer") << SIGSEGV << nullPointer;
    }
    void theRealDebuggerShowsTheCrash()
    {
        QFETCH(const int, signal);
        QFETCH(const QByteArray, frames);
        const TestFolder folder;
        const QString way = QString::fromLatin1(QTest::currentDataTag());
        const QString output = folder.path(u"output"_s);
        QProcess sample;
        sample.setStandardOutputFile(output);
        sample.start(program(u"examples/sample-application"_s),
                     {program(u"crash-handler"_s), folder.path(u"record"_s), way, u"ü"_s});
        QVERIFY(sample.waitForFinished(patience));
        QCOMPARE(sample.exitStatus(), QProcess::CrashExit);
        QCOMPARE(sample.exitCode(), signal);

        QCOMPARE(folder.dumps().size(), 1);
        const QByteArray dump = contentOf(folder.dumps().constFirst());
        if (dump.contains("ptrace: Operation not permitted"))
            QSKIP("the system does not let gdb trace");
        for (const char *thread : {"sample-applicat", "mail-index", "mail-fetch", "mail-send"})
            QVERIFY2(dump.contains('"' + QByteArray(thread) + '"'), dump);
        qsizetype position = 0;
        for (const QByteArray &frame : frames.split('|')) {
            position = dump.indexOf(frame, position);
            QVERIFY2(position++ != -1, dump);
        }
        QVERIFY(dump.endsWith(marker));
        if (!way.startsWith(u"early-"_s))
            QTRY_VERIFY_WITH_TIMEOUT(contentOf(output).contains("back again, with the same"),
                                     patience);
    }
};

QTEST_GUILESS_MAIN(ProgramTest)
#include "tst_program.moc"
