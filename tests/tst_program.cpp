// The whole program, started by an application that crashes: tests/application.sh, with a stand-in
// for gdb. Begin with tests/ordinary.log and tests/ordinary.dump, which an ordinary run leaves
// behind: the words with a $ are filled in. A row says what is different from that run, and what
// the report, the log and the application that is back must be.

#include "tests/support.h"

namespace {

const QByteArray ordinaryReport = contentOf(u"" SOURCE_FOLDER "/tests/ordinary.dump"_s);
const QByteArray header = ordinaryReport.first(ordinaryReport.indexOf("kept"));
const QByteArray ordinaryDebugger = R"(printf 'kept\n[Current thread is 1 (x)]\n' >&2)";
const QByteArray nothing = "d"; // sed(1) deletes all lines

/// What is different from an ordinary run, and what it leaves behind.
struct Row
{
    QByteArray needs = {}; // skipped where this script fails or prints something
    QByteArray debugger = ordinaryDebugger; // the stand-in for gdb, a shell script; null for none
    QByteArray start = R"(exec "$0" ü)"; // how the shell starts the application
    QByteArray startHandler = R"("$@")"; // how the application starts the crash handler
    QByteArrayList variables = {};
    int crashes = 1;
    QByteArray report = ordinaryReport; // of each crash
    // Scripts for sed(1). Without one, nothing is compared.
    std::optional<QByteArray> log = {}; // makes the log from the ordinary one
    std::optional<QByteArray> back = {}; // makes each application that is back from the first one
};

void row(const QByteArray &name, const Row &row)
{
    QTest::newRow(name.constData()) << row;
}

/// A collection that fails, logs \a line and reports \a error. The application does not come back.
Row failing(Row row, const QByteArray &line, const QByteArray &error)
{
    row.report = contentOf(u"" SOURCE_FOLDER "/tests/failure.dump"_s).replace("$ERROR", error);
    QByteArray lines = line + '\n' + contentOf(u"" SOURCE_FOLDER "/tests/failure.log"_s).chopped(1);
    lines.replace("$ERROR", error).replace("$LENGTH", QByteArray::number(error.size()));
    row.log = "/^debug Received/,/Starting detached/c\\\n" + lines.replace('\n', "\\\n");
    row.back = nothing;
    return row;
}

} // namespace

class ProgramTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void run_data()
    {
        QTest::addColumn<Row>("row");
        row("An ordinary run", {.log = "", .back = ""});

        // The command line.
        row("With an argument too many the usage is shown and nothing is reported",
            {.startHandler = R"("$@" more)", .report = {}, .log = R"(4s/)$/, "more")/
/^info Parent/,/destructor/c\
critical Invalid number of arguments: 3\
critical "This crash handler will be called by main program. Do not call this manually.\\n"\
This crash handler will be called by main program. Do not call this manually.
s/status 0/status 1/)"});

        // The debugger.
        row("The debugger gets its commands in a file, and the crashed process, in its folder",
            {.debugger = R"(show_task "$@")",
             .start = R"(umask 0377; cd /proc; exec "$0" ü)",
             .report = header
                 + "--nw --nx --batch --command Crash Handler --pid\nset height 0\nset width 0\n"
                   "thread\nthread apply all backtrace full\n600\n/proc\n"});
        row("Bytes that are no text, or a character split in two chunks, are replaced",
            {.debugger = R"(printf 'a\000b\377\r\nkept\303'; await kept; printf '\251')",
             .report = header + "a\0b�\r\nkept��"_ba});
        row("Only the first current thread that has a number is marked, with all digits",
            {.debugger = R"(printf '[Current thread is ?] [Current thread is\n9]\n'; await 9
                printf '[Current thread is 123456789012345678901 (x)] [Current thread is 4')",
             .report = header
                 + "[Current thread is ?] [Current thread is\n9]\n"
                   "[Current thread is 123456789012345678901 (x)] [Current thread is 4"
                   "text to select is [Thread 123456789012345678901]"});
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
            failing({.debugger = {}, .startHandler = R"(PATH=$FOLDER; "$@")"},
                    "critical Debugger process error: QProcess::FailedToStart",
                    "QProcess: " + missing.errorString().toUtf8()));
        row("A debugger without its commands is not waited for",
            failing({.debugger = "exec sleep 1000", .variables = {"TMPDIR=/proc"}},
                    "critical Failed to create temporary command file",
                    "Error: Could not create temporary command file."));
        row("The report is kept when the crash handler is killed",
            {.debugger = "echo kept; await kept; kill -KILL $PPID",
             .report = header + "kept\n",
             .back = nothing});

        // Its surroundings.
        row("When the folder is gone, only the debugger starts in another one",
            {.debugger = "pwd -P",
             .start = R"(mkdir gone; cd gone; exec "$0" ü)",
             .startHandler = R"(rmdir "$PWD"; "$@")",
             .report = header + "/\n",
             .back = "s/gone$/gone (deleted)/"});
        row("Variables that would stop the debugger reach the application only",
            {.debugger = "env | grep -E 'PYTHON|LD_|DEBUGINFOD|LANGUAGE|LC_|GDBHIST' | sort",
             .variables = {"PYTHONHOME=/nowhere", "LD_LIBRARY_PATH=/nowhere", "LD_BIND_NOW=1",
                           "DEBUGINFOD_URLS=x", "LANGUAGE=de", "LC_ALL=C", "MY_PYTHON_LD_=kept",
                           "GDBHISTFILE=history"},
             .report = header + "GDBHISTFILE=/dev/null\nLC_ALL=C.UTF-8\nMY_PYTHON_LD_=kept\n",
             .back = ""});
        // The last descriptor is that of ls(1).
        row("Of signals and descriptors, only what is ignored for the user (384007) is inherited",
            {.debugger = "show_state",
             .start = R"(exec env --ignore-signal=HUP,INT,QUIT,TERM,TSTP,TTIN,TTOU "$0" ü)",
             .startHandler = "env --ignore-signal --block-signal \"$@\" 2>&1"
                             " 3>&2 4>&2 5>&2 6>&2 7>&2 8>&2 9>&2 | cat",
             .report = header + "SigBlk:\t0000000000000000\n" + "SigBlk:\t0000000000000000\n"
                 + "384007\n0\n1\n2\n3\n",
             .back = ""});
        const QByteArray notRestarted = "s/command line: .*/command line: QList()/\n"
                                        "s/$ENVIRONMENT/QList()/\n/Starting detached/d\n"
                                        "/Collecting restart/,/read.*environ\"$/c\\\n"
                                        "org.vastel.mail.crashhandler warning Unable to restart";
        row("In a namespace of processes without a /proc of its own nothing is started",
            {.needs = "in_pid_namespace --mount-proc true",
             .start = R"(. "$SOURCE/tests/functions.sh"; in_pid_namespace --mount-proc "$0" ü)",
             .startHandler = R"(in_pid_namespace sh -c '"$@"; exit $?' sh "$@")",
             .variables = {"LSAN_OPTIONS=detect_leaks=0"}, // it needs /proc
             .log = "s/$PID/1/\n" + notRestarted,
             .back = nothing});

        // The dump file.
        row("The name of the dump file is the local time",
            {.debugger = R"sh(printf '%s\n' "$began" "$(basename "$(dump_files)" .dump)" \
                "$(date $now)" | sort -c && echo kept)sh",
             .start = R"sh(export now=+%Y%m%d_%H%M%S%3N; began=$(date $now) exec "$0" ü)sh",
             .report = header + "kept\n"});
        row("A file in place of the folder loses the report only, whatever QT_FATAL_... asks for",
            {.needs = "$OWN_TMP",
             .start = R"(: > /tmp/vastel-mail; exec "$0" ü)",
             .variables = {"QT_FATAL_WARNINGS=1", "QT_FATAL_CRITICALS=1"},
             .report = {},
             .back = ""});
        row("A folder that cannot be created is replaced by the temporary folder",
            {.needs = "$OWN_TMP",
             .start = R"(ln -s nowhere/dumps /tmp/vastel-mail; exec "$0" ü)",
             .log = "s,/tmp/vastel-mail/,$FOLDER/,\n/Generating/i\\\n"
                    "org.vastel.mail.crashhandler critical "
                    "Failed to create dump directory: \"/tmp/vastel-mail\"\\\n"
                    "org.vastel.mail.crashhandler warning \"mkpath [/tmp/vastel-mail] failed\""});
        row("A header that cannot be written is lost, and only the header",
            {.debugger = R"(prlimit --fsize=unlimited: --pid $PPID; echo "$NAME has closed")",
             .startHandler = R"((ulimit -S -f 0; exec "$@"))",
             .report = "$NAME has closed\n"});
        row("A large report is kept, it is UTF-8, and its current thread is marked",
            {.debugger = R"(head -c 5000000 /dev/zero | tr '\000' 0
                printf 'é\n[Current thread is 2 (x)]')",
             .report = header + QByteArray(5'000'000, '0')
                 + "é\n[Current thread is 2 (x)]text to select is [Thread 2]"});

        // The restart.
        row("A disabled restart does not take place",
            {.startHandler = R"("$@" --disable-restart)",
             .log = "/^info Creating/i\\\ninfo Application restart disabled\n" + notRestarted,
             .back = nothing});
        // The shell runs the file that BASH_ENV names, although it has no argument.
        row("An application without arguments comes back",
            {.start = R"(exec env BASH_ENV="$0" /bin/bash)",
             .startHandler = R"(env -u _ -u SHLVL "$@")",
             .back = ""});
        row("The crash handler's own variables stay, unless the application has them too",
            {.startHandler = R"(EXTRA=1 EMPTY=/nowhere "$@")",
             .back = "/^FOLDER=/i\\\nEXTRA=1\\\\0"});
        row("Bytes that are no UTF-8 come back as those of their Latin-1 characters",
            {.start = R"sh(exec "$0" "$(printf 'j\374rgen')")sh",
             .log = "s/Ã¼/jürgen/",
             .back = R"(s/j\xfcrgen/jürgen/)"});
        row("Arguments and variables are the same after a chain of crashes",
            {.start = R"sh(umask 027; ulimit -n 512; cd /; export LARGE="$(printf '%0100000d' 0)"
                for number in $(seq 5000); do export V$number=x; done
                exec "$0" "" "$(printf 'a\r\nb')" '"two"' "$(printf '\357\273\277')é😀" $(seq 2000))sh",
             .crashes = 7,
             .back = ""});
        // The log.
        row("Closed standard streams are replaced",
            {.startHandler = R"("$@" <&- >&- 2>&-)", .back = ""});
        row("A log without a reader ends nothing",
            {.startHandler = R"(mkfifo log; exec 3<> log 4> log 3<&-; "$@" 2>&4)"});
        row("A background process writes to its terminal, although that would stop others",
            {.needs = "script -q -c true /dev/null",
             .start = R"(. "$SOURCE/tests/functions.sh"; in_background "$0" ü)",
             .startHandler = R"("$@" 2> /dev/tty)"});
        for (const QByteArray flag : {"sync", "nonblock"})
            row("A slow reader loses nothing, and the flags stay: " + flag,
                {.start = R"sh(exec "$0" $(yes "$(printf '%0100000d' 0)" | head -n 12))sh",
                 .startHandler = "with_slow_reader " + flag + " \"$@\"",
                 .log = "s/, \"Ã¼\"/" + QByteArray(", \"$TEXT\"").repeated(12) + '/'});
        // Three texts of 150 and 100 kB, each of which alone takes less than a second.
        row("A reader that is always late is waited for during one second in all",
            {.needs = "mkfifo pipe; set_room 1 <> pipe",
             .start = R"sh(export LARGE="$(printf '%0100000d' 0)"
                exec "$0" $(printf '%0100000d %050000d' 0 0))sh",
             .startHandler = R"(with_late_reader "$@")",
             .log = "$!d"});
        row("A log that nobody reads ends after one second, and for good",
            {.needs = "mkfifo pipe; set_room 1 <> pipe",
             .debugger = "read_pipe log > first;" + ordinaryDebugger,
             .startHandler = R"(with_full_log "$@")",
             .log = "$!d"});
        row("A pipe has room for a large log before it is read",
            {.start = R"sh(exec "$0" $(printf '%0100000d %0100000d' 0 0))sh",
             .startHandler = R"(mkfifo log; exec 3<> log; "$@" 2>&3; read_pipe log | tail -n 1)",
             .log = "/BacktraceCollector destr/,$!d"});
        row("A pipe that has more room keeps it",
            {.needs = "mkfifo pipe; set_room 2 <> pipe",
             .startHandler = R"(mkfifo log; exec 3<> log; set_room 2 <&3; "$@" 2>&3; room <&3)",
             .log = "$!d; i\\\n2097152"});
        row("What a library says before it aborts is in the log",
            {.debugger = "prlimit --as=1: --pid $PPID; head -c 50000000 /dev/zero",
             .startHandler = R"sh(listen_to "$@"; rm "$(dump_files)")sh",
             .report = {},
             .log = "$!d"});
    }
    void run()
    {
        QFETCH(const Row, row);
        if (lacks(row.needs))
            return;
        if (!row.debugger.isNull())
            writeProgram("gdb", ". \"$SOURCE/tests/functions.sh\"\n" + row.debugger);
        QCOMPARE(shell("cp \"$SOURCE/tests/application.sh\" mail"), "");
        QByteArrayList command{
            "LC_ALL=C.UTF-8",
            "TZ=XXX-05:45",
            "EMPTY=",
            "NÄME=a\r\nb=c\n",
            "QT_MESSAGE_PATTERN=%{if-category}%{category} %{endif}%{type} %{message}",
            "CRASHES=" + QByteArray::number(row.crashes),
            "START_HANDLER=" + row.startHandler};
        command += row.variables;
        command += {"/bin/sh", "-c", row.start, qgetenv("FOLDER") + "/mail"};
        const Outcome outcome = runToEnd(command);

        QByteArray expected = "=== report\n" + row.report.repeated(row.crashes);
        QByteArray got = "=== report\n" + shell("dumps");
        if (row.log) {
            expected += "\n=== log\n" + edited("$SOURCE/tests/ordinary.log", *row.log);
            got += "\n=== log\n" + outcome.output;
        }
        if (row.back) {
            expected += "\n=== back\n" + edited("run-0", *row.back).repeated(row.crashes);
            got += "\n=== back\n" + shell("find . -name 'run-[1-9]' | sort | xargs -r cat");
        }
        expected = filledIn(expected, outcome.pid);
        expected.replace("$SIZE", QByteArray::number(filledIn(header, outcome.pid).size()));
        const auto save = [](const QString &name, const QByteArray &text) {
            QFile file(name);
            return file.open(QIODevice::WriteOnly) && file.write(text + '\n') > text.size();
        };
        QVERIFY(save(u"expected"_s, expected) && save(u"got"_s, got));
        // Many distributions have no /etc/lsb-release. Qt says that it kills the debugger.
        const QByteArray ignored
            = "/(Successfully|Failed|Could not).*lsb-release/d; /^warning QProcess: Destroyed/d";
        const QByteArray differences = shell("sed -E -i '" + ignored + R"(' expected got
            diff -a -u -F '^===' expected got | tr '\000' 0 | cut -c -300)");
        if (!differences.isEmpty())
            QFAIL(differences.constData());
    }

private:
    static QByteArray edited(const QByteArray &path, const QByteArray &script)
    {
        qputenv("SCRIPT", script);
        return shell("sed \"$SCRIPT\" " + path);
    }

    static QByteArray filledIn(QByteArray text, qint64 pid)
    {
        const QString environment = QString::fromLatin1(contentOf(u"environ-0"_s)).chopped(1);
        const std::pair<QByteArray, QByteArray> values[] = {
            {"$NAME", qgetenv("NAME")},
            {"$TEXT", QByteArray(100'000, '0')},
            {"$QT", QT_VERSION_STR " (" + QByteArray::number(QSysInfo::WordSize) + " bit)"},
            {"$DISTRIBUTION", shell("iconv -f L1 -t UTF-8 /etc/lsb-release 2> no; :")},
            {"$KERNEL", contentOf(u"/proc/version"_s)},
            {"$PID", QByteArray::number(pid)},
            {"$FOLDER", qgetenv("FOLDER")},
            {"$STAMP", shell("dump_files | sed 's,.*/,,; s/[.]dump$//'").trimmed()},
            {"$ENVIRONMENT", QDebug::toString(environment.split(u'\0')).toUtf8()},
        };
        for (const auto &[name, value] : values)
            text.replace(name, value);
        return text;
    }
};

TEST_MAIN(ProgramTest)
#include "tst_program.moc"
