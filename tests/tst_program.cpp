// The whole program, started by an application that crashes. A row says what the debugger does, how the
// application starts and how it starts the crash handler, and the log and the dump file that must come
// out. The application is tests/application.sh; every row that states nothing else is an ordinary run.

#include "tests/support.h"

namespace {

// What varies is replaced in what a row gets: the folder of the row (FOLDER), the ID of the crashed process
// (PID), the time (STAMP), the list of variables, the last lines of the header, the name of the log's
// category. The log shows the bytes of arguments as Latin-1 characters.
constexpr char ordinaryLog[] = R"(info Starting crash handler
debug Setting application name
info Processing command line arguments
debug Positional arguments: QList("SIGSEGV", "mail")
info Parent process ID: PID
info Processing crash for app: "mail" signal: "SIGSEGV"
info Creating crash handler instance
debug BacktraceCollector constructor called
crashhandler debug Generating current timestamp
crashhandler debug Generated timestamp: "STAMP"
crashhandler info Dump file path set to: "/tmp/vastel-mail/STAMP.dump"
crashhandler debug Creating dump file for app: "mail" signal: "SIGSEGV"
crashhandler info Setting application info for dump file
crashhandler debug Getting Linux distribution info
crashhandler debug Reading file contents: "/etc/lsb-release"
crashhandler debug Successfully read file: "/etc/lsb-release"
crashhandler debug Getting kernel version info
crashhandler debug Reading file contents: "/proc/version"
crashhandler debug Successfully read file: "/proc/version"
crashhandler info Writing headers to dump file
crashhandler debug Writing message to dump file: "/tmp/vastel-mail/STAMP.dump"
crashhandler debug Writing to file: "/tmp/vastel-mail/STAMP.dump"
crashhandler debug Wrote 174 bytes to file: "/tmp/vastel-mail/STAMP.dump"
crashhandler debug CrashHandler initialized for PID: PID App: "mail" Signal: "SIGSEGV"
crashhandler info Collecting restart command line from: "/proc/PID"
crashhandler debug Reading file contents: "/proc/PID/cmdline"
crashhandler debug Successfully read file: "/proc/PID/cmdline"
crashhandler info Collecting environment variables from: "/proc/PID"
crashhandler debug Reading file contents: "/proc/PID/environ"
crashhandler debug Successfully read file: "/proc/PID/environ"
info Starting crash handling process
crashhandler info Starting backtrace collection for PID: PID
info Starting gdb process for backtrace collection
debug Received new debugger output chunk
crashhandler debug Writing backtrace chunk to dump file
crashhandler debug Writing message to dump file: "/tmp/vastel-mail/STAMP.dump"
crashhandler debug Writing to file: "/tmp/vastel-mail/STAMP.dump"
crashhandler debug Wrote 31 bytes to file: "/tmp/vastel-mail/STAMP.dump"
info Backtrace collection completed successfully
crashhandler info Backtrace collection completed
crashhandler debug Writing message to dump file: "/tmp/vastel-mail/STAMP.dump"
crashhandler debug Writing to file: "/tmp/vastel-mail/STAMP.dump"
crashhandler debug Wrote 28 bytes to file: "/tmp/vastel-mail/STAMP.dump"
crashhandler info command line: QList("/bin/sh", "FOLDER/mail", "Ã¼")
crashhandler info environment: ENVIRONMENT
crashhandler info Preparing to restart application
crashhandler info Starting detached process: "/bin/sh" with arguments: QList("FOLDER/mail", "Ã¼")
crashhandler debug CrashHandler destroyed
crashhandler debug Destroying dump file handler
debug BacktraceCollector destructor called
)";

constexpr char ordinaryDump[] = R"(mail has closed unexpectedly (Signal "SIGSEGV")
please file a bug report with the debug information provided below.
mail, based on Qt VERSION (BITS bit)

DISTRIBUTION
KERNEL
kept
[Current thread is 1 (x)]
text to select is [Thread 1])";

/// What a run leaves behind: a complete log, a complete dump file, and whether the application is back. Or
/// a part of that.
struct Report
{
    QByteArray log;
    QByteArray dump = {};
    bool isBack = false;
};

Report operator+(const Report &first, const Report &second)
{
    return {first.log + second.log, first.dump + second.dump, first.isBack || second.isBack};
}

/// The ordinary log from the line \a first up to the line before \a next, or up to its end.
Report part(const QByteArray &first, const QByteArray &next = {})
{
    const QByteArray log = ordinaryLog;
    const qsizetype begin = log.indexOf(first);
    const qsizetype end = next.isEmpty() ? log.size() : log.indexOf(next, begin);
    return {log.sliced(begin, end - begin)};
}

Report logged(const QByteArray &line)
{
    return {line + '\n'};
}

Report wrote(const QByteArray &text)
{
    Report report = part("crashhandler debug Writing message", "crashhandler debug CrashHandler");
    report.log.replace("174", QByteArray::number(text.size()));
    report.dump = text;
    return report;
}

// What an ordinary run is made of, and what can come in its place.

Report begun()
{
    return part("info Starting crash handler", "debug Positional arguments");
}

Report accepted()
{
    return part("info Starting crash handler", "info Creating crash handler instance");
}

Report opened()
{
    const QByteArray dump = ordinaryDump;
    Report report = part("info Creating crash handler", "crashhandler info Collecting restart");
    report.dump = dump.left(dump.indexOf("kept"));
    return report;
}

Report copied()
{
    return part("crashhandler info Collecting restart", "info Starting crash handling process");
}

Report launched()
{
    return part("info Starting crash handling process", "debug Received");
}

Report toDebugger()
{
    return accepted() + opened() + copied() + launched();
}

Report chunk(const QByteArray &text)
{
    return part("debug Received", "crashhandler debug Writing message") + wrote(text);
}

Report completed()
{
    return part("info Backtrace collection", "crashhandler debug Writing message");
}

Report marked(const QByteArray &thread)
{
    return wrote("text to select is [Thread " + thread + ']');
}

Report ended()
{
    return part("crashhandler debug CrashHandler destroyed");
}

Report restarted(const QByteArray &program = "\"/bin/sh\"",
                 const QByteArray &arguments = R"("FOLDER/mail", "Ã¼")")
{
    Report report = part("crashhandler info command line", "crashhandler debug CrashHandler destr");
    report.log.replace("\"/bin/sh\", ", arguments.isEmpty() ? program : program + ", ")
        .replace("\"/bin/sh\"", program)
        .replace(R"("FOLDER/mail", "Ã¼")", arguments);
    report.isBack = true;
    return report + ended();
}

Report failed(const QByteArray &error)
{
    return logged("critical Backtrace collection error: \"" + error + '"') + Report{error}
    + logged("crashhandler info Writing error message to dump file")
        + wrote("A problem occurred providing the backtrace. Please make sure to have the debugger "
                "\"gdb\" installed.\n")
        + wrote(error) + ended();
}

Report ordinary()
{
    return {ordinaryLog, ordinaryDump, true};
}

/// A run whose backtrace is \a text.
Report backtrace(const QByteArray &text)
{
    return toDebugger() + chunk(text) + completed() + restarted();
}

Report unseen(Report report)
{
    report.log.clear();
    return report;
}

/// A run whose writes to the dump file are refused.
Report refused(Report report)
{
    const QByteArray begin = "crashhandler debug Wrote ";
    for (qsizetype at = report.log.indexOf(begin); at != -1; at = report.log.indexOf(begin)) {
        const qsizetype end = report.log.indexOf('\n', at);
        report.log.replace(at, end - at,
                           "crashhandler critical Failed to open file for writing: DUMP\n"
                           "crashhandler warning Warning: Could not open  DUMP");
    }
    report.log.replace("DUMP", "\"/tmp/vastel-mail/STAMP.dump\"");
    report.dump.clear();
    return report;
}

/// What QProcess says about the shell script \a script, or about a missing program when it is null.
QByteArray errorOf(const QByteArray &script)
{
    QProcess process;
    process.setEnvironment({u"A=b"_s}); // the debugger has one of its own as well
    process.start(script.isNull() ? u"missing"_s : u"/bin/sh"_s,
                  {u"-c"_s, QString::fromUtf8(script)});
    process.waitForFinished(patience);
    return process.errorString().toUtf8();
}

struct Row
{
    QByteArray name;
    /// The stand-in for gdb, a shell script that can use what stands in standInBegin. Null for none.
    QByteArray debugger = R"(printf 'kept\n[Current thread is 1 (x)]\n')";
    /// How the shell starts the application "$0".
    QByteArray start = R"(exec "$0" ü)";
    /// How the application starts the crash handler "$@".
    QByteArray crash = R"("$@")";
    QByteArrayList variables = {};
    /// What the shell prepares in /tmp; for that it must be the test's own.
    QByteArray prepare = {};
    /// Each run but the last one crashes.
    int crashes = 1;
    Report expected = ordinary();
    bool logGoesOn = false; // only its beginning is compared
    int exitCode = 0;
    /// The text that comes back as another one.
    std::pair<QByteArray, QByteArray> changed = {};
    Channel channel = {};
};

/// Replaces what varies in what a row has got, see ordinaryLog.
void normalise(Report &report, qint64 pid, const QByteArray &appName)
{
    const auto latin1 = [](const QString &path) { return QString::fromLatin1(contentOf(path)); };
    const QString system = u" Qt %1 (%2 bit)\n\n%3\n%4\n"_s.arg(u"" QT_VERSION_STR ""_s)
                               .arg(8 * sizeof(void *))
                               .arg(latin1(u"/etc/lsb-release"_s), latin1(u"/proc/version"_s));
    const QByteArray anySystem = " Qt VERSION (BITS bit)\n\nDISTRIBUTION\nKERNEL\n";
    const QByteArray anyName = "mail";

    QByteArray &log = report.log;
    QStringList variables = latin1(u"environ-0"_s).split(u'\0');
    variables.removeLast();
    log.replace(QDebug::toString(variables).toUtf8(), "ENVIRONMENT")
        .replace("org.vastel.mail.crashhandler", "crashhandler");
    const QByteArray beforeStamp = "timestamp: \"";
    if (log.contains(beforeStamp))
        log.replace(log.mid(log.indexOf(beforeStamp) + beforeStamp.size(), 18), "STAMP");
    // Not every distribution has this file.
    if (!QFile::exists(u"/etc/lsb-release"_s))
        log.replace("crashhandler critical Failed to open file for reading: \"/etc/lsb-release\"\n"
                    "crashhandler warning Warning: Could not open  \"/etc/lsb-release\"\n",
                    "crashhandler debug Successfully read file: \"/etc/lsb-release\"\n");
    // The first write is that of the header.
    static const QRegularExpression firstWrite(u"Wrote (\\d+)"_s);
    const QRegularExpressionMatch match = firstWrite.match(QString::fromLatin1(log));
    const qsizetype size = match.captured(1).toInt() - system.toUtf8().size() + anySystem.size()
        - 2 * (appName.size() - anyName.size());
    if (match.hasMatch())
        log.replace(match.capturedStart(1), match.capturedLength(1), QByteArray::number(size));

    report.dump.replace(system.toUtf8(), anySystem);
    const QByteArray id = QByteArray::number(pid);
    for (QByteArray *text : {&report.log, &report.dump}) {
        text->replace(appName, anyName).replace(QFile::encodeName(QDir::currentPath()), "FOLDER");
        for (const char *before : {"/proc/", "ID: ", "--pid "}) {
            for (const char after : {'\n', '/', '"', ' '})
                text->replace(before + id + after, before + "PID"_ba + after);
        }
    }
}

constexpr char standInBegin[] = R"sh(
application=$7
dump() { grep -D skip -ls "^$NAME has closed" /tmp/vastel-mail/*.dump; }
await() { # TEXT: waits until the dump file has it
    i=0; until grep -qs "$1" "$(dump)" || [ $((i += 1)) -gt 6000 ]; do sleep 0.01; done
}
)sh";

/// Shows the signals that the crash handler and the debugger block, those that the debugger ignores (see
/// tests/application.sh for the number), and the debugger's descriptors; the last one is that of ls(1).
constexpr char showState[] = R"sh(
i=0; while grep -q 'SigBlk.*[1-9a-f]' /proc/$PPID/status && [ $((i += 1)) -lt 1000 ]; do sleep 0.01; done
ignored=$((0x$(sed -n 's/^SigIgn:.//p' /proc/self/status) & ~0x180000000))
printf '%s\n' "$(grep -h SigBlk /proc/$PPID/status /proc/self/status)" "$(printf '%x' $ignored)" \
    "$(ls /proc/self/fd)"
)sh";

Report state(const QByteArray &ignoredSignals)
{
    const QByteArray noSignals = "SigBlk:\t0000000000000000\n";
    return backtrace(noSignals + noSignals + ignoredSignals + "\n0\n1\n2\n3\n");
}

} // namespace

class ProgramTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void commandLine_data()
    {
        const QByteArray usage
            = "This crash handler will be called by main program. Do not call this manually.";
        addRows({
            {.name = "An ordinary run"},
            {.name = "With an argument too many the usage is shown and nothing is reported",
             .crash = R"("$@" more)",
             .expected = begun()
                 + logged(R"(debug Positional arguments: QList("SIGSEGV", "mail", "more"))")
                 + logged("critical Invalid number of arguments: 3")
                 + logged("critical \"" + usage + "\\n\"") + logged(usage),
             .exitCode = 1},
            {.name = "With an unknown option nothing is reported",
             .crash = R"("$@" --nonsense)",
             .expected = begun() + logged("Crash Handler: Unknown option 'nonsense'."),
             .exitCode = 1},
        });
    }
    void commandLine() { checkRow(); }

    void debugger_data()
    {
        addRows({
            {.name = "The debugger gets its commands in a file and attaches to the crashed process",
             .debugger = R"sh(file=${5#"$FOLDER"/}; crashed=$(cut -d ' ' -f 4 /proc/$PPID/stat)
                [ "$7" = "$crashed" ] && printf '%s\n' "$1 $2 $3 $4 ${file%.*} $6" "$(cat "$5")")sh",
             .expected = backtrace("--nw --nx --batch --command Crash Handler --pid\n"
                                   "set height 0\nset width 0\nthread\n"
                                   "thread apply all backtrace full\n")},
            {.name = "Bytes that are no text, or a character split in two chunks, are replaced",
             .debugger = R"(printf 'a\000b\377\r\nkept\303'; await kept; printf '\251')",
             .expected
             = toDebugger() + chunk("a\0b�\r\nkept�"_ba) + chunk("�") + completed() + restarted()},
            {.name = "Only the first current thread that has a number is marked, with all digits",
             .debugger = R"(printf '[Current thread is ?] [Current thread is\n9]\n'; await 9
                printf '[Current thread is 123456789012345678901 (x)] [Current thread is 4')",
             .expected = toDebugger() + chunk("[Current thread is ?] [Current thread is\n9]\n")
                 + chunk("[Current thread is 123456789012345678901 (x)] [Current thread is 4")
                 + completed() + marked("123456789012345678901") + restarted()},
            {.name = "A debugger that fails is reported with its exit code",
             .debugger = "echo kept; exit 3",
             .expected = toDebugger() + chunk("kept\n")
                 + logged("critical Debugger exited with error code: 3")
                 + failed("Debugger exited with code 3.")},
            {.name = "A debugger that is killed is reported",
             .debugger = "echo kept; kill -KILL $$",
             .expected = toDebugger() + chunk("kept\n")
                 + logged("critical Debugger process error: QProcess::Crashed")
                 + logged("critical Debugger error occurred: \"" + errorOf("kill -KILL $$") + '"')
                 + failed("QProcess: " + errorOf("kill -KILL $$"))},
            {.name = "A missing debugger is reported",
             .debugger = {},
             .crash = R"(PATH=$FOLDER; "$@")",
             .expected = toDebugger()
                 + logged("critical Debugger process error: QProcess::FailedToStart")
                 + failed("QProcess: " + errorOf({}))},
            {.name = "A debugger without its commands is not waited for",
             .debugger = "exec sleep 1000",
             .variables = {"TMPDIR=/proc"},
             .expected = toDebugger() + logged("critical Failed to create temporary command file")
                 + failed("Error: Could not create temporary command file."),
             .logGoesOn = true},
            {.name = "An application that is killed meanwhile comes back",
             .debugger = "kill -KILL $application; echo kept",
             .expected = backtrace("kept\n"),
             .exitCode = 137},
            {.name = "The report is kept when the crash handler is killed",
             .debugger = "echo kept; await kept; kill -KILL $PPID",
             .expected = toDebugger() + chunk("kept\n"),
             .logGoesOn = true,
             .exitCode = 137},
        });
    }
    void debugger() { checkRow(); }

    void dumpFile_data()
    {
        const QByteArray header = opened().dump;
        Report inTmpdir = toDebugger() + chunk("kept\n") + completed() + restarted();
        inTmpdir.log
            .replace("crashhandler debug Generating",
                     "crashhandler critical Failed to create dump directory: \"/tmp/vastel-mail\"\n"
                     "crashhandler warning \"mkpath [/tmp/vastel-mail] failed\"\n"
                     "crashhandler debug Generating")
            .replace("/tmp/vastel-mail/", "FOLDER/");
        addRows({
            {.name = "The name of the dump file is the local time",
             .debugger = R"sh(printf '%s\n' "$began" "$(basename "$(dump)" .dump)" "$(date $now)" |
                sort -c && echo kept)sh",
             .start = R"sh(export now=+%Y%m%d_%H%M%S%3N; began=$(date $now) exec "$0" ü)sh",
             .expected = backtrace("kept\n")},
            {.name = "A file in the place of the folder loses the report only",
             .variables = {"QT_FATAL_CRITICALS=1"},
             .prepare = ": > /tmp/vastel-mail",
             .expected = refused(ordinary())},
            {.name = "A folder that cannot be created is replaced by the temporary folder",
             .debugger = "echo kept",
             .prepare = "ln -s nowhere/dumps /tmp/vastel-mail",
             .expected = inTmpdir},
            {.name = "A FIFO in the place of the dump file is refused",
             .debugger = R"sh(fifo=$(dump); rm "$fifo"; mkfifo "$fifo"; echo lost)sh",
             .variables = {"QT_FATAL_WARNINGS=1"},
             .expected = {(toDebugger() + refused(chunk("lost\n")) + completed() + restarted()).log,
                          {},
                          true}},
            {.name = "A header that cannot be written is lost, and only the header",
             .debugger = "prlimit --fsize=unlimited: --pid $PPID; echo kept",
             .crash = R"((ulimit -S -f 0; exec "$@"))",
             .expected = {backtrace("kept\n").log, "kept\n", true}},
            {.name = "The limit of a file's size cuts the report only",
             .debugger
             = R"sh(prlimit --fsize=$(($(stat -c %s "$(dump)") + 5)): --pid $PPID; echo kept cut
                await kept; prlimit --fsize=unlimited: --pid $PPID)sh",
             .expected = {backtrace("kept cut\n").log, header + "kept ", true}},
        });
    }
    void dumpFile() { checkRow(); }

    void inheritance_data()
    {
        const QByteArray text(5'000'000, '0');
        addRows({
            {.name = "Blocked signals and open descriptors do not reach the debugger",
             .debugger = showState,
             .crash = R"(env --block-signal "$@" 3>&2 4>&2 5>&2 6>&2 7>&2 8>&2 9>&2)",
             .expected = state("0")},
            {.name = "Signals that are ignored for the user (384007 is their mask) stay so",
             .debugger = showState,
             .start = R"(exec env --ignore-signal=HUP,INT,QUIT,TERM,TSTP,TTIN,TTOU "$0" ü)",
             .crash = R"(env --ignore-signal "$@")",
             .expected = state("384007")},
            {.name = "An application under nohup(1) comes back, though its terminal hangs up",
             .debugger = "kill -HUP $PPID; echo kept",
             .start = R"(exec nohup "$0" ü)",
             .expected = backtrace("kept\n")},
            {.name = "Closed standard streams are replaced",
             .crash = R"("$@" <&- >&- 2>&-)",
             .expected = unseen(ordinary())},
            {.name = "A log without a reader ends nothing",
             .crash = R"(mkfifo log; exec 3<> log 4> log 3<&-; "$@" 2>&4)",
             .expected = unseen(ordinary())},
            {.name = "A umask without the owner's rights does not lose the report",
             .start = R"(umask 0377; exec "$0" ü)"},
            {.name = "A large report is kept, and it is UTF-8 in another locale",
             .debugger = R"(head -c 5000000 /dev/zero | tr '\000' 0; echo é)",
             .crash = R"("$@" 2> /dev/null)",
             .variables = {"LC_ALL=C"},
             .expected = unseen(backtrace(text + "é\n"))},
        });
    }
    void inheritance() { checkRow(); }

    void surroundings_data()
    {
        addRows({
            {.name = "The debugger starts in the folder of the application",
             .debugger = "pwd -P",
             .start = R"(cd /proc; exec "$0" ü)",
             .expected = backtrace("/proc\n")},
            {.name = "When that folder is gone, only the debugger starts in another one",
             .debugger = "pwd -P",
             .start = R"(mkdir gone; cd gone; exec "$0" ü)",
             .crash = R"(rmdir "$PWD"; "$@" 2> /dev/null)",
             .expected = unseen(backtrace("/\n")),
             .changed = {"/gone\n", "/gone (deleted)\n"}},
            {.name = "Variables that would stop the debugger reach the application only",
             .debugger = "env | grep -E 'PYTHON|LD_|DEBUGINFOD|LANGUAGE|LC_' | sort",
             .crash = R"("$@" 2> /dev/null)",
             .variables = {"PYTHONHOME=/nowhere", "PYTHONPATH=/nowhere", "LD_LIBRARY_PATH=/nowhere",
                           "LD_BIND_NOW=1", "DEBUGINFOD_URLS=http://localhost", "LANGUAGE=de",
                           "LC_ALL=C", "MY_PYTHON_LD_=kept"},
             .expected = unseen(backtrace("LC_ALL=C.UTF-8\nMY_PYTHON_LD_=kept\n"))},
        });
    }
    void surroundings() { checkRow(); }

    void log_data()
    {
        using Kind = Channel::Kind;
        using Reader = Channel::Reader;
        struct Log
        {
            QByteArray name;
            Kind kind;
            int texts; // of 100 kB in the log; they are enough to fill what the log is written to
        };
        for (const auto &[name, kind, texts] :
             {Log{"A pipe", Kind::Pipe, 12},
              Log{"A pipe that cannot be opened anew", Kind::ForeignPipe, 12},
              Log{"A stream socket", Kind::StreamSocket, 4},
              Log{"A datagram socket", Kind::DatagramSocket, 2},
              Log{"A terminal", Kind::Terminal, 2}}) {
            const QByteArray text(100'000, '0');
            addRows({
                {.name = name + " with a slow reader loses nothing",
                 .debugger = "echo kept",
                 .start = R"sh(text=$(printf '%0100000d' 0); exec "$0")sh"
                     + QByteArray(R"( "$text")").repeated(texts / 2),
                 .expected = toDebugger() + chunk("kept\n") + completed()
                     + restarted("\"/bin/sh\"",
                                 R"("FOLDER/mail")" + (", \"" + text + '"').repeated(texts / 2)),
                 .channel = {kind, Reader::WhenFull}},
                {.name = name + " without a reader loses the log only",
                 .start = R"sh(text=$(printf '%0100000d' 0); exec "$0")sh"
                     + QByteArray(R"( "$text")").repeated(texts / 2),
                 .expected = unseen(ordinary()),
                 .logGoesOn = true,
                 .channel = {kind, Reader::AtTheEnd}},
            });
        }
        addRows({
            {.name = "A terminal that is full from the start loses the log only",
             .expected = unseen(ordinary()),
             .logGoesOn = true,
             .channel = {Kind::Terminal, Reader::AtTheEnd, true}},
        });
    }
    void log() { checkRow(); }

    void restart_data()
    {
        Report notRestarted = accepted() + logged("info Application restart disabled") + opened()
            + logged("crashhandler warning Unable to restart") + launched() + chunk("kept\n")
            + completed() + logged("crashhandler info command line: QList()")
            + logged("crashhandler info environment: QList()")
            + logged("crashhandler info Preparing to restart application") + ended();
        addRows({
            {.name = "A disabled restart does not take place",
             .debugger = "echo kept",
             .crash = R"("$@" --disable-restart)",
             .expected = notRestarted},
            {.name = "An application without arguments comes back",
             .debugger = "echo kept",
             .start = R"(exec env BASH_ENV="$0" /bin/bash)",
             .crash = R"(env -u _ -u SHLVL "$@")",
             .expected
             = toDebugger() + chunk("kept\n") + completed() + restarted("\"/bin/bash\"", {})},
            {.name = "The crash handler's own variables stay, unless the application has them too",
             .crash = R"(EXTRA=1 HOME=/nowhere "$@")",
             .changed = {"FOLDER=", "EXTRA=1\0FOLDER="_ba}},
            {.name = "Bytes that are no UTF-8 come back as those of their Latin-1 characters",
             .debugger = "echo kept",
             .start = R"sh(exec "$0" "$(printf 'j\374rgen')")sh",
             .expected = toDebugger() + chunk("kept\n") + completed()
                 + restarted("\"/bin/sh\"", R"("FOLDER/mail", "jürgen")"),
             .changed = {"j\xfcrgen", "jürgen"}},
            {.name = "Arguments and variables are the same after a chain of crashes",
             .start = R"sh(umask 027; ulimit -n 512; cd /; export LARGE="$(printf '%0100000d' 0)"
                for number in $(seq 5000); do export V$number=x; done
                exec "$0" "" "$(printf 'a\r\nb')" '"two" words' "$(printf '\357\273\277')é😀" $(seq 2000)
                )sh",
             .crash = R"("$@" 2> /dev/null)",
             .crashes = 7,
             .expected = unseen(ordinary())},
            {.name = "A program that is named without a folder comes back by its path",
             .start = R"(exec sh "$0")",
             .crash = R"("$@" 2> /dev/null)",
             .crashes = 7,
             .expected = unseen(ordinary()),
             .changed = {"sh", "/bin/sh"}},
        });
    }
    void restart() { checkRow(); }

private:
    static void addRows(const QList<Row> &rows)
    {
        QTest::addColumn<Row>("row");
        for (const Row &row : rows)
            QTest::newRow(row.name.constData()) << row;
    }

    void checkRow()
    {
        QFETCH(const Row, row);
        if (!row.prepare.isEmpty() && !hasOwnTmp()) {
            countAsSkipped();
            QSKIP("needs a /tmp of its own");
        }
        QCOMPARE(shell(row.prepare), 0);
        if (!row.debugger.isNull())
            writeProgram("gdb", standInBegin + row.debugger);
        QVERIFY(QFile::copy(u"" SOURCE_FOLDER "/tests/application.sh"_s, u"mail"_s));

        // Unique, so that the dump file is found even where nobody sees the log.
        static int number = 0;
        const QByteArray appName = "mail-" + QByteArray::number(QCoreApplication::applicationPid())
            + '-' + QByteArray::number(++number);
        const QByteArrayList variables{
            "PATH=" + path() + ":/bin:/usr/bin",
            "TMPDIR=" + path(),
            "FOLDER=" + path(),
            "NAME=" + appName,
            "RUNS=" + QByteArray::number(row.crashes + 1),
            "CRASH=" + row.crash,
            "HANDLER=" BUILD_FOLDER "/crash-handler",
            "QT_MESSAGE_PATTERN=%{if-category}%{category} %{endif}%{type} %{message}",
            "LC_ALL=C.UTF-8",
            "TZ=XXX-05:45",
            "HOME=/home/jürgen",
            "EMPTY=",
            "NÄME=a\r\nb=c\n",
        };
        const Outcome outcome = run({"/bin/sh", "-c", row.start, path() + "/mail"},
                                    variables + row.variables, row.channel);
        Report got{outcome.output};
        for (const QString &dump : dumpFiles(outcome.output, appName))
            got.dump += contentOf(dump);
        normalise(got, outcome.pid, appName);
        if (row.logGoesOn)
            got.log.truncate(row.expected.log.size());

        const int lastRun = row.expected.isBack ? row.crashes : 0;
        QByteArray application = contentOf(u"run-0"_s);
        if (lastRun > 0 && !row.changed.first.isEmpty())
            application.replace(application.indexOf(row.changed.first), row.changed.first.size(),
                                row.changed.second);
        const auto number_of_runs = QDir().entryList({u"run-*"_s}).size();
        const QByteArray differences = difference("log", row.expected.log, got.log)
            + difference("dump file", row.expected.dump.repeated(row.crashes), got.dump)
            + difference("application when it is back", application,
                         contentOf(u"run-%1"_s.arg(lastRun)))
            + difference("number of runs", QByteArray::number(lastRun + 1),
                         QByteArray::number(number_of_runs))
            + difference("exit code", QByteArray::number(row.exitCode),
                         QByteArray::number(outcome.exitCode))
            + difference("flags of standard error, which others share", "kept",
                         outcome.keptFlags ? "kept" : "changed");
        if (!differences.isEmpty())
            QFAIL(differences.constData());
    }
};

int main(int argc, char *argv[])
{
    return testMain<ProgramTest>(argc, argv);
}

#include "tst_program.moc"
