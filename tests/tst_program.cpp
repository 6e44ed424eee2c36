// The whole program, started by an application that crashes: tests/application.sh, with a stand-in
// for gdb. A row says what is different from an ordinary run, and what the report, the log and the
// application that is back must be. In all texts, the words with a $ are filled in.

#include "tests/support.h"

namespace {

const QByteArray header = "Pöst%2b%1-$NAME has closed unexpectedly (Signal \"SIGSEGV\")\n"
                          "please file a bug report with the debug information provided below.\n"
                          "Pöst%2b%1-$NAME, based on Qt " QT_VERSION_STR " ("
    + QByteArray::number(QSysInfo::WordSize) + " bit)\n\n"
    + QString::fromLatin1(contentOf(u"/etc/lsb-release"_s)).toUtf8() + '\n'
    + contentOf(u"/proc/version"_s) + '\n';
const QByteArray ordinaryDebugger = R"(printf 'kept\n[Current thread is 1 (x)]\n' >&2)";
const QByteArray ordinaryText = "kept\n[Current thread is 1 (x)]\ntext to select is [Thread 1]";

/// What is different from an ordinary run, and what it leaves behind. In raw strings, the quotes must
/// balance: moc(1) takes them for ordinary ones.
struct Row
{
    QByteArray needs = {}; // skipped where this script fails or prints something
    // The stand-in for gdb, a shell script. $5 is the file of commands, $7 the process ID.
    QByteArray debugger = ordinaryDebugger; // null for none
    QByteArray start = R"(exec "$FOLDER/mail" ü)"; // how the shell starts the application
    QByteArray startHandler = R"("$@")"; // how the application starts the crash handler
    QStringList variables = {};
    int crashes = 1;
    QByteArray report = header + ordinaryText; // of each crash
    bool isBack = true; // after each crash, as it was at its first start
    QByteArray log = {}; // what the log has, among other lines
};

void row(const QByteArray &name, const Row &row)
{
    QTest::newRow(name.constData()) << row;
}

/// A collection that fails, logs \a line and reports \a error.
Row failing(Row row, const QByteArray &line, const QByteArray &error)
{
    row.report = header
        + "A problem occurred providing the backtrace. "
          "Please make sure to have the debugger \"gdb\" installed.\n"
        + error;
    row.isBack = false;
    row.log = line + "\ncritical Backtrace collection error: \"" + error + "\"\n" + error
        + "org.vastel.mail.crashhandler info Writing error message to dump file\n";
    return row;
}

} // namespace

class ProgramTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void anOrdinaryRunIsLogged()
    {
        const QString format = u"yyyyMMdd_hhmmsszzz"_s;
        const QString began = QDateTime::currentDateTime().toString(format);
        runRow({});
        const QString ended = QDateTime::currentDateTime().toString(format);
        const QString stamp
            = QString::fromUtf8(contentOf(u"log"_s)).section(u"stamp: \""_s, 1, 1).left(18);
        QVERIFY2(began <= stamp && stamp <= ended, qPrintable(stamp));

        QByteArray expected = contentOf(qEnvironmentVariable("SOURCE") + u"/tests/ordinary.log"_s);
        expected = filledIn(expected.replace("$STAMP", stamp.toUtf8()));
        expected.replace("$SIZE", QByteArray::number(filledIn(header).size()));
        // The order of the variables, of which none is empty, is the shell's. Many distributions
        // have no lsb-release.
        shell(R"(sed -E -i 's/(environment: QList).*[^\x22]\x22[)]$/\1/' log)"); // \x22: a quote
        shell("sed -E -i '/(Success|Fail|Could).*lsb-release/d' log");
        compare(contentOf(u"log"_s), expected);
    }

    void run_data()
    {
        QTest::addColumn<Row>("row");

        row("With an argument too many the usage is shown and nothing is reported",
            {.startHandler = R"("$@" more)", .report = {}, .isBack = false, .log = R"(
debug Positional arguments: QList("SIGSEGV", "Pöst%2b%1-$NAME", "more")
critical Invalid number of arguments: 3
critical "This crash handler will be called by main program. Do not call this manually.\n"
This crash handler will be called by main program. Do not call this manually.
exit status 1
)"});

        // The debugger.
        row("The debugger gets the file of commands and the process ID, in the application's "
            "folder",
            {.debugger = R"(echo "$@" | sed 's/[.]......//'; cat "$5"; stat -c %a "$5"; pwd -P)",
             .start = R"(cd /proc; exec "$FOLDER/mail" ü)",
             .report = header
                 + "--nw --nx --batch --command $FOLDER/Crash Handler --pid $PID\nset height 0\n"
                   "set width 0\nthread\nthread apply all backtrace full\n600\n/proc\n"});
        row("A debugger that fails is reported with its exit code",
            failing({.debugger = "exit 3"}, "critical Debugger exited with error code: 3",
                    "Debugger exited with code 3."));
        row("A debugger that is killed is reported",
            failing({.debugger = "kill -KILL $$"},
                    "critical Debugger process error: QProcess::Crashed\n"
                    "critical Debugger error occurred: \"Process crashed\"",
                    "QProcess: Process crashed"));
        QProcess missing;
        missing.setEnvironment({u"A=b"_s}); // without one, its error names another system call
        missing.start(u"missing"_s);
        missing.waitForStarted();
        row("A missing debugger is reported",
            failing({.debugger = {}, .startHandler = R"(PATH=$FOLDER "$@")"},
                    "critical Debugger process error: QProcess::FailedToStart",
                    "QProcess: " + missing.errorString().toUtf8()));
        row("A debugger without its commands is not waited for",
            failing({.debugger = "exec sleep 1000",
                     .variables = {u"TMPDIR=/proc"_s, u"QT_FATAL_CRITICALS=1"_s}}, // it logs some
                    "critical Failed to create temporary command file",
                    "Error: Could not create temporary command file."));
        row("The report is kept when the crash handler is killed",
            {.debugger = R"(echo "kept $NAME"
                timeout 60 sh -c 'until grep -qs "kept $NAME" /tmp/vastel-mail/*; do :; done'
                kill -KILL $PPID)",
             .report = header + "kept $NAME\n",
             .isBack = false});
        row("A large report is kept, as UTF-8, and the first current thread is marked",
            {.debugger = R"(head -c 5000000 /dev/zero | tr '\000' 0
                printf 'a\000b\377\r\n[Current thread is 12 (é)] [Current thread is 3')",
             .report = header + QByteArray(5'000'000, '0')
                 + "a\0b�\r\n[Current thread is 12 (é)] [Current thread is 3"_ba
                   "text to select is [Thread 12]"});

        // Its surroundings.
        row("When the working directory is gone, only the debugger starts in another one",
            {.debugger = "pwd -P",
             .start = R"(mkdir gone; cd gone; rmdir ../gone; exec "$FOLDER/mail" ü)",
             .report = header + "/\n"});
        row("Variables that would stop the debugger reach the application only",
            {.debugger = "env | grep -E 'PYTHON|LD_|DEBUGINFOD|LANGUAGE|LC_|GDBHIST' | sort",
             .variables
             = {u"PYTHONHOME=/nowhere"_s, u"LD_LIBRARY_PATH=/nowhere"_s, u"DEBUGINFOD_URLS=x"_s,
                u"LANGUAGE=de"_s, u"LC_ALL=C"_s, u"MY_PYTHON_LD_=kept"_s},
             .report = header + "GDBHISTFILE=/dev/null\nLC_ALL=C.UTF-8\nMY_PYTHON_LD_=kept\n"});
        // The last descriptor is that of ls(1).
        row("Of signals and descriptors, only what is ignored for the user is inherited",
            {.debugger = "env --list-signal-handling true 2>&1 | tr -d ' 0-9'; ls /proc/self/fd",
             .start = R"(trap '' HUP INT QUIT TERM TSTP TTIN TTOU; exec "$FOLDER/mail" ü)",
             .startHandler = R"(env --ignore-signal --block-signal "$@" 3>&2 4>&2 5>&2 9>&2)",
             .report = header
                 + "HUP():IGNORE\nINT():IGNORE\nQUIT():IGNORE\nTERM():IGNORE\nTSTP():IGNORE\n"
                   "TTIN():IGNORE\nTTOU():IGNORE\n0\n1\n2\n3\n"});
        // The crash handler's parent, a shell, is process 1 of the inner namespace. Its /proc is
        // that of the outer one, whose process 1 is the application. The shell waits for all that
        // is in its namespace.
        row("Where /proc is that of another namespace of processes, nothing is started",
            {.needs = "$UNSHARE --pid --fork --mount-proc true",
             .start = R"(exec $UNSHARE --pid --fork --mount-proc "$FOLDER/mail" ü)",
             .startHandler
             = R"($UNSHARE --pid --fork bash -c '"$@"; while kill -0 -1; do :; done' sh "$@")",
             .variables = {u"LSAN_OPTIONS=detect_leaks=0"_s}, // it needs its own /proc
             .isBack = false,
             .log = "\norg.vastel.mail.crashhandler warning Unable to restart\n"});
        row("A header that cannot be written is lost, and only the header",
            {.debugger = "prlimit --fsize=unlimited: --pid $PPID; echo $NAME", // to be found
             .startHandler = R"((ulimit -S -f 0; exec "$@"))",
             .report = "$NAME\n"});

        // The restart.
        row("A disabled restart does not take place",
            {.startHandler = R"("$@" --disable-restart)",
             .variables = {u"QT_FATAL_WARNINGS=1"_s}, // it logs one
             .isBack = false,
             .log = "\ninfo Application restart disabled\n"});
        row("Arguments and variables are the same after a chain of crashes",
            {.start = R"sh(umask 027; ulimit -n 512; cd /; export LARGE="$(printf '%0100000d' 0)"
                for number in $(seq 5000); do export V$number=x; done
                exec "$FOLDER/mail" "" "$(printf 'a\r\nb')" '"two"' \
                    "$(printf '\357\273\277')é😀" $(seq 2000))sh",
             .startHandler = R"(EMPTY=no "$@")", // its first value counts
             .variables = {u"EMPTY="_s, u"NÄME=ä\r\nb=c\n"_s},
             .crashes = 7});

        // The log.
        row("Closed standard streams are replaced", {.startHandler = R"("$@" <&- >&- 2>&-)"});
        row("A log without a reader ends nothing",
            {.startHandler = R"(mkfifo pipe; exec 3<> pipe 4> pipe 3<&-; "$@" 2>&4)"});
        // Nothing more fits into the pipe.
        row("A log that nobody reads delays the restart only",
            {.startHandler = R"(mkfifo pipe; exec 3<> pipe
                dd if=/dev/zero of=pipe oflag=nonblock status=none; "$@" 2>&3)"});
        // The first dd(1) makes the pipe refuse what does not fit in, the second one reads slowly.
        row("A log to a pipe that does not block loses nothing",
            {.start = R"sh(exec "$FOLDER/mail" $(yes "$(printf '%0100000d' 0)" | head -n 12))sh",
             .startHandler = "{ dd oflag=nonblock count=0 status=none; \"$@\" 2>&1; } |"
                             " dd bs=512 status=none >&2",
             .log = "arguments: QList(\"$FOLDER/mail\""
                 + QByteArray(", \"" + QByteArray(100'000, '0') + '"').repeated(12) + ")\n"});
    }
    void run()
    {
        QFETCH(const Row, row);
        if (const QByteArray refusal = shell(row.needs); !refusal.isEmpty())
            QSKIP(refusal);
        runRow(row);
        const QByteArray text = filledIn(row.log);
        const QByteArray log = contentOf(u"log"_s);
        QVERIFY2(log.contains(text), text + "is not in\n" + log.left(20'000));
    }

private:
    static void runRow(const Row &row)
    {
        if (!row.debugger.isNull())
            writeProgram(u"gdb"_s, row.debugger);
        QFile::copy(qEnvironmentVariable("SOURCE") + u"/tests/application.sh"_s, u"mail"_s);
        const QStringList variables{
            u"LC_ALL=C.UTF-8"_s,
            u"QT_MESSAGE_PATTERN=%{if-category}%{category} %{endif}%{type} %{message}"_s,
            u"CRASHES=%1"_s.arg(row.crashes),
            u"START_HANDLER="_s + QString::fromUtf8(row.startHandler),
        };
        runToEnd(row.start, variables + row.variables);

        compare(dumps(), filledIn(row.report).repeated(row.crashes));
        const QByteArray first = contentOf(u"run-0"_s);
        for (const QString &variable : row.variables)
            QVERIFY2(first.contains('\n' + variable.toUtf8() + '\n'), qPrintable(variable));
        compare(shell("find . -name 'run-[1-9]' | sort | xargs -r cat"),
                row.isBack ? first.repeated(row.crashes) : "");
    }

    static QByteArray filledIn(QByteArray text)
    {
        text.replace("$NAME", qgetenv("NAME")).replace("$FOLDER", qgetenv("FOLDER"));
        return text.replace("$PID", contentOf(u"pid-0"_s).trimmed());
    }
};

QTEST_GUILESS_MAIN(ProgramTest)
#include "tst_program.moc"
