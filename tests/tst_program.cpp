// The whole program, started by an application that crashes: tests/application.sh, with a stand-in for gdb.
// Begin with tests/ordinary.log and tests/ordinary.dump, which an ordinary run leaves behind. A row says
// what is different from that run, and the log and the dump file that must come out.

#include "tests/support.h"

namespace {

/// What a run leaves behind, or a part of that: the log, the dump file, the application that is back.
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

Report ordinary()
{
    return {contentOf(u"" SOURCE_FOLDER "/tests/ordinary.log"_s),
            contentOf(u"" SOURCE_FOLDER "/tests/ordinary.dump"_s), true};
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

/// What is different from an ordinary run.
struct Setup
{
    /// The stand-in for gdb, a shell script that can use tests/debugger.sh. Null for none.
    QByteArray debugger = R"(printf 'kept\n[Current thread is 1 (x)]\n')";
    QByteArray start = R"(exec "$0" ü)"; // how the shell starts the application
    QByteArray crash = R"("$@")"; // how the application starts the crash handler
    QByteArrayList variables = {};
    QByteArray plant = {}; // what the shell plants in /tmp
    int crashes = 1;
    Channel channel = {};
    int exitCode = 0;
    bool logGoesOn = false; // only the beginning of the log is compared
    /// A text that is another one when the application is back.
    QByteArray before = "no change";
    QByteArray after = {};
};

/// Replaces what varies in what a run has left by the name of what it is, in capitals.
void normalise(Report &report, qint64 pid, const QByteArray &appName)
{
    const auto latin1 = [](const QString &path) { return QString::fromLatin1(contentOf(path)); };
    const QString system = u" Qt %1 (%2 bit)\n\n%3\n%4\n"_s.arg(u"" QT_VERSION_STR ""_s)
                               .arg(8 * sizeof(void *))
                               .arg(latin1(u"/etc/lsb-release"_s), latin1(u"/proc/version"_s));
    report.dump.replace(system.toUtf8(), " Qt VERSION (BITS bit)\n\nDISTRIBUTION\nKERNEL\n")
        .replace(appName, "mail");
    const QStringList variables = latin1(u"environ-0"_s).chopped(1).split(u'\0');
    QString log = QString::fromUtf8(report.log)
                      .replace(QDebug::toString(variables), u"ENVIRONMENT"_s)
                      .replace(u"org.vastel.mail.crashhandler"_s, u"crashhandler"_s)
                      .replace(QString::fromUtf8(appName), u"mail"_s)
                      .replace(QDir::currentPath(), u"FOLDER"_s);
    if (!QFile::exists(u"/etc/lsb-release"_s)) // as on many distributions
        log.replace(u"critical Failed to open file for reading: \"/etc/lsb-release\"\n"
                    "crashhandler warning Warning: Could not open  \"/etc/lsb-release\"\n"_s,
                    u"debug Successfully read file: \"/etc/lsb-release\"\n"_s);
    static const QRegularExpression stamp(u"timestamp: \"(\\d{8}_\\d{9})\""_s);
    static const QRegularExpression header(u"(headers(.*\n){3}.*Wrote )\\d+"_s);
    const QRegularExpressionMatch match = stamp.match(log);
    if (match.hasMatch())
        log.replace(match.captured(1), u"STAMP"_s);
    log.replace(header, u"\\1SIZE"_s)
        .replace(QRegularExpression(u"(/proc/|ID: )%1\\b"_s.arg(pid)), u"\\1PID"_s);
    report.log = log.toUtf8();
}

void row(const QByteArray &name, const Setup &setup, const Report &expected = ordinary())
{
    QTest::newRow(name.constData()) << setup << expected;
}

} // namespace

class ProgramTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void run_data()
    {
        QTest::addColumn<Setup>("setup");
        QTest::addColumn<Report>("expected");

        // The command line.
        row("An ordinary run", {}, ordinary());
        const QByteArray usage
            = "This crash handler will be called by main program. Do not call this manually.";
        row("With an argument too many the usage is shown and nothing is reported",
            {.crash = R"("$@" more)", .exitCode = 1},
            begun() + logged(R"(debug Positional arguments: QList("SIGSEGV", "mail", "more"))")
                + logged("critical Invalid number of arguments: 3")
                + logged("critical \"" + usage + "\\n\"") + logged(usage));
        row("With an unknown option nothing is reported",
            {.crash = R"("$@" --nonsense)", .exitCode = 1},
            begun() + logged("Crash Handler: Unknown option 'nonsense'."));

        // The debugger.
        row("The debugger gets its commands in a file and attaches to the crashed process",
            {.debugger = R"sh(file=${5#"$FOLDER"/}; crashed=$(cut -d ' ' -f 4 /proc/$PPID/stat)
                [ "$7" = "$crashed" ] && printf '%s\n' "$1 $2 $3 $4 ${file%.*} $6" "$(cat "$5")")sh"},
            backtrace("--nw --nx --batch --command Crash Handler --pid\nset height 0\nset width 0\n"
                      "thread\nthread apply all backtrace full\n"));
        row("Bytes that are no text, or a character split in two chunks, are replaced",
            {.debugger = R"(printf 'a\000b\377\r\nkept\303'; await kept; printf '\251')"},
            toDebugger() + chunk("a\0b�\r\nkept�"_ba) + chunk("�") + completed() + restarted());
        row("Only the first current thread that has a number is marked, with all digits",
            {.debugger = R"(printf '[Current thread is ?] [Current thread is\n9]\n'; await 9
                printf '[Current thread is 123456789012345678901 (x)] [Current thread is 4')"},
            toDebugger() + chunk("[Current thread is ?] [Current thread is\n9]\n")
                + chunk("[Current thread is 123456789012345678901 (x)] [Current thread is 4")
                + completed() + wrote("text to select is [Thread 123456789012345678901]")
                + restarted());
        row("A debugger that fails is reported with its exit code",
            {.debugger = "echo kept; exit 3"},
            toDebugger() + chunk("kept\n") + logged("critical Debugger exited with error code: 3")
                + failed("Debugger exited with code 3."));
        row("A debugger that is killed is reported", {.debugger = "echo kept; kill -KILL $$"},
            toDebugger() + chunk("kept\n")
                + logged("critical Debugger process error: QProcess::Crashed")
                + logged("critical Debugger error occurred: \"" + errorOf("kill -KILL $$") + '"')
                + failed("QProcess: " + errorOf("kill -KILL $$")));
        row("A missing debugger is reported", {.debugger = {}, .crash = R"(PATH=$FOLDER; "$@")"},
            toDebugger() + logged("critical Debugger process error: QProcess::FailedToStart")
                + failed("QProcess: " + errorOf({})));
        row("A debugger without its commands is not waited for",
            {.debugger = "exec sleep 1000", .variables = {"TMPDIR=/proc"}, .logGoesOn = true},
            toDebugger() + logged("critical Failed to create temporary command file")
                + failed("Error: Could not create temporary command file."));
        row("An application that is killed meanwhile comes back",
            {.debugger = "kill -KILL $application; echo kept", .exitCode = 137},
            backtrace("kept\n"));
        row("The report is kept when the crash handler is killed",
            {.debugger = "echo kept; await kept; kill -KILL $PPID",
             .exitCode = 137,
             .logGoesOn = true},
            toDebugger() + chunk("kept\n"));

        // Its surroundings.
        row("The debugger starts in the folder of the application",
            {.debugger = "pwd -P", .start = R"(cd /proc; exec "$0" ü)"}, backtrace("/proc\n"));
        row("When that folder is gone, only the debugger starts in another one",
            {.debugger = "pwd -P",
             .start = R"(mkdir gone; cd gone; exec "$0" ü)",
             .crash = R"(rmdir "$PWD"; "$@" 2> /dev/null)",
             .before = "/gone\n",
             .after = "/gone (deleted)\n"},
            unseen(backtrace("/\n")));
        row("Variables that would stop the debugger reach the application only",
            {.debugger = "env | grep -E 'PYTHON|LD_|DEBUGINFOD|LANGUAGE|LC_' | sort",
             .crash = R"("$@" 2> /dev/null)",
             .variables = {"PYTHONHOME=/nowhere", "LD_LIBRARY_PATH=/nowhere", "LD_BIND_NOW=1",
                           "DEBUGINFOD_URLS=x", "LANGUAGE=de", "LC_ALL=C", "MY_PYTHON_LD_=kept"}},
            unseen(backtrace("LC_ALL=C.UTF-8\nMY_PYTHON_LD_=kept\n")));
        const QByteArray noSignals = "SigBlk:\t0000000000000000\n";
        row("Blocked signals and open descriptors do not reach the debugger",
            {.debugger = "show_state",
             .crash = R"(env --block-signal "$@" 3>&2 4>&2 5>&2 6>&2 7>&2 8>&2 9>&2)"},
            backtrace(noSignals + noSignals + "0\n0\n1\n2\n3\n"));
        row("Signals that are ignored for the user (384007 is their mask) stay so, others do not",
            {.debugger = "show_state",
             .start = R"(exec env --ignore-signal=HUP,INT,QUIT,TERM,TSTP,TTIN,TTOU "$0" ü)",
             .crash = R"(env --ignore-signal "$@")"},
            backtrace(noSignals + noSignals + "384007\n0\n1\n2\n3\n"));
        row("An application under nohup(1) comes back, though its terminal hangs up",
            {.debugger = "kill -HUP $PPID; echo kept", .start = R"(exec nohup "$0" ü)"},
            backtrace("kept\n"));

        // The dump file.
        row("The name of the dump file is the local time",
            {.debugger = R"sh(printf '%s\n' "$began" "$(basename "$(dump)" .dump)" "$(date $now)" |
                sort -c && echo kept)sh",
             .start = R"sh(export now=+%Y%m%d_%H%M%S%3N; began=$(date $now) exec "$0" ü)sh"},
            backtrace("kept\n"));
        row("A file in the place of the folder loses the report only, if Qt aborts or not",
            {.variables = {"QT_FATAL_CRITICALS=1"}, .plant = ": > /tmp/vastel-mail"},
            refused(ordinary()));
        const QByteArray stamped = "crashhandler debug Generating";
        row("A folder that cannot be created is replaced by the temporary folder",
            {.plant = "ln -s nowhere/dumps /tmp/vastel-mail"},
            changed(changed(ordinary(), "/tmp/vastel-mail/", "FOLDER/"), stamped,
                    "crashhandler critical Failed to create dump directory: \"/tmp/vastel-mail\"\n"
                    "crashhandler warning \"mkpath [/tmp/vastel-mail] failed\"\n"
                        + stamped));
        row("A FIFO in the place of the dump file is refused, if Qt aborts or not",
            {.debugger = R"sh(fifo=$(dump); rm "$fifo"; mkfifo "$fifo"; echo lost)sh",
             .variables = {"QT_FATAL_WARNINGS=1"}},
            Report{toDebugger().log} + refused(chunk("lost\n")) + completed() + restarted());
        row("A header that cannot be written is lost, and only the header",
            {.debugger = "prlimit --fsize=unlimited: --pid $PPID; echo kept",
             .crash = R"((ulimit -S -f 0; exec "$@"))"},
            {backtrace("kept\n").log, "kept\n", true});
        row("The limit of a file's size cuts the report only",
            {.debugger = R"sh(prlimit --fsize=$(($(stat -c %s "$(dump)") + 5)): --pid $PPID
                echo kept cut; await kept; prlimit --fsize=unlimited: --pid $PPID)sh"},
            {backtrace("kept cut\n").log, opened().dump + "kept ", true});
        row("A umask without the owner's rights does not lose the report",
            {.debugger = R"sh(stat -c %a "$5")sh", .start = R"(umask 0377; exec "$0" ü)"},
            backtrace("600\n"));
        row("A large report is kept, and it is UTF-8 in another locale",
            {.debugger = R"(head -c 5000000 /dev/zero | tr '\000' 0; echo é)",
             .crash = R"("$@" 2> /dev/null)",
             .variables = {"LC_ALL=C"}},
            unseen(backtrace(QByteArray(5'000'000, '0') + "é\n")));

        // The restart.
        row("A disabled restart does not take place",
            {.debugger = "echo kept", .crash = R"("$@" --disable-restart)"},
            accepted() + logged("info Application restart disabled") + opened()
                + logged("crashhandler warning Unable to restart") + launched() + chunk("kept\n")
                + completed() + logged("crashhandler info command line: QList()")
                + logged("crashhandler info environment: QList()")
                + logged("crashhandler info Preparing to restart application") + ended());
        row("An application without arguments comes back",
            {.start = R"(exec env BASH_ENV="$0" /bin/bash)", .crash = R"(env -u _ -u SHLVL "$@")"},
            changed(changed(changed(ordinary(), R"(, "FOLDER/mail", "Ã¼")", {}), "/bin/sh",
                            "/bin/bash"),
                    R"("FOLDER/mail", "Ã¼")", {}));
        row("The crash handler's own variables stay, unless the application has them too",
            {.crash = R"(EXTRA=1 HOME=/nowhere "$@")",
             .before = "FOLDER=",
             .after = "EXTRA=1\0FOLDER="_ba},
            ordinary());
        row("Bytes that are no UTF-8 come back as those of their Latin-1 characters",
            {.start = R"sh(exec "$0" "$(printf 'j\374rgen')")sh",
             .before = "j\xfcrgen",
             .after = "jürgen"},
            changed(ordinary(), "Ã¼", "jürgen"));
        row("Arguments and variables are the same after a chain of crashes",
            {.start = R"sh(umask 027; ulimit -n 512; cd /; export LARGE="$(printf '%0100000d' 0)"
                for number in $(seq 5000); do export V$number=x; done
                exec "$0" "" "$(printf 'a\r\nb')" '"two"' "$(printf '\357\273\277')é😀" $(seq 2000))sh",
             .crash = R"("$@" 2> /dev/null)",
             .crashes = 7},
            unseen(ordinary()));
        row("A program that is named without a folder comes back by its path",
            {.start = R"(exec sh "$0")",
             .crash = R"("$@" 2> /dev/null)",
             .before = "sh",
             .after = "/bin/sh"},
            unseen(ordinary()));

        // The log.
        row("Closed standard streams are replaced", {.crash = R"("$@" <&- >&- 2>&-)"},
            unseen(ordinary()));
        row("A log without a reader ends nothing",
            {.crash = R"(mkfifo log; exec 3<> log 4> log 3<&-; "$@" 2>&4)"}, unseen(ordinary()));
        row("A terminal that is full from the start loses the log only",
            {.channel = {Channel::Terminal, Channel::AtTheEnd, true}, .logGoesOn = true},
            unseen(ordinary()));
        struct Log
        {
            QByteArray name;
            Channel::Kind kind;
            int texts; // each adds 200 kB to the log; they are enough to fill the channel
        };
        for (const auto &[name, kind, texts] :
             {Log{"A pipe", Channel::Pipe, 6},
              Log{"A pipe of somebody else", Channel::ForeignPipe, 6},
              Log{"A stream socket", Channel::StreamSocket, 2},
              Log{"A datagram socket", Channel::DatagramSocket, 1},
              Log{"A terminal", Channel::Terminal, 1}}) {
            const QByteArray start = R"sh(text=$(printf '%0100000d' 0); exec "$0")sh"
                + QByteArray(R"( "$text")").repeated(texts);
            const QByteArray text = ", \"" + QByteArray(100'000, '0') + '"';
            row(name + " with a slow reader loses nothing",
                {.start = start, .channel = {kind, Channel::WhenFull}},
                changed(ordinary(), ", \"Ã¼\"", text.repeated(texts)));
            row(name + " without a reader loses the log only",
                {.start = start, .channel = {kind, Channel::AtTheEnd}, .logGoesOn = true},
                unseen(ordinary()));
        }
    }
    void run()
    {
        QFETCH(const Setup, setup);
        QFETCH(const Report, expected);
        if (!setup.plant.isEmpty() && !hasOwnTmp()) {
            countAsSkipped();
            QSKIP("needs a /tmp of its own");
        }
        QCOMPARE(shell(setup.plant), 0);
        if (!setup.debugger.isNull())
            writeProgram("gdb", ". '" SOURCE_FOLDER "/tests/debugger.sh'\n" + setup.debugger);
        QVERIFY(QFile::copy(u"" SOURCE_FOLDER "/tests/application.sh"_s, u"mail"_s));
        // Unique, so that the dump file is found even where nobody sees the log.
        const QByteArray appName = "mail" + QFileInfo(QDir::currentPath()).fileName().toUtf8();
        const QByteArrayList variables
            = ("PATH=" + qgetenv("PATH") + "|TMPDIR=" + path() + "|FOLDER=" + path()
               + "|NAME=" + appName + "|RUNS=" + QByteArray::number(setup.crashes + 1)
               + "|SOURCE=" SOURCE_FOLDER
               + "|HANDLER=" BUILD_FOLDER
                 "/crash-handler|QT_MESSAGE_PATTERN=%{if-category}%{category} "
                 "%{endif}%{type} %{message}|LC_ALL=C.UTF-8|TZ=XXX-05:45|HOME=/home/jürgen|EMPTY="
                 "|NÄME=a\r\nb=c\n")
                  .split('|');
        const Outcome outcome = ::run(
            {"/bin/sh", "-c", setup.start, path() + "/mail"},
            variables + setup.variables + QByteArrayList{"CRASH=" + setup.crash}, setup.channel);
        Report got{outcome.output, dumps(outcome.output, appName)};
        normalise(got, outcome.pid, appName);
        if (setup.logGoesOn)
            got.log.truncate(expected.log.size());
        const int lastRun = expected.isBack ? setup.crashes : 0;
        QByteArray application = contentOf(u"run-0"_s);
        if (application.contains(setup.before))
            application.replace(application.indexOf(setup.before), setup.before.size(),
                                setup.after);
        const auto number = [](auto value) { return QByteArray::number(value) + '\n'; };
        const QByteArray differences = difference("log", expected.log, got.log)
            + difference("dump file", expected.dump.repeated(setup.crashes), got.dump)
            + difference("application that is back", application,
                         contentOf(u"run-%1"_s.arg(lastRun)))
            + difference("number of runs", number(lastRun + 1),
                         number(QDir().entryList({u"run-*"_s}).size()))
            + difference("exit code", number(setup.exitCode), number(outcome.exitCode))
            + difference("flags of standard error", "as before\n",
                         outcome.keptFlags ? "as before\n" : "changed\n");
        if (!differences.isEmpty())
            QFAIL(differences.constData());
    }

private:
    // What the log and the dump file consist of.
    /// The ordinary log from the line \a first up to the line before \a next, or up to its end.
    static Report part(const QByteArray &first, const QByteArray &next = {})
    {
        const QByteArray log = ordinary().log;
        const qsizetype begin = log.indexOf(first);
        return {log.mid(begin, next.isEmpty() ? -1 : log.indexOf(next, begin) - begin)};
    }
    static Report logged(const QByteArray &line) { return {line + '\n'}; }
    static Report wrote(const QByteArray &text)
    {
        const Report lines
            = part("crashhandler debug Writing message", "crashhandler debug CrashHandler");
        return {QByteArray(lines.log).replace("SIZE", QByteArray::number(text.size())), text};
    }
    static Report begun() { return part("info Starting crash", "debug Positional"); }
    static Report accepted() { return part("info Starting crash", "info Creating crash"); }
    static Report opened()
    {
        const QByteArray dump = ordinary().dump;
        return part("info Creating crash", "crashhandler info Collecting")
            + Report{{}, dump.left(dump.indexOf("kept"))};
    }
    static Report copied()
    {
        return part("crashhandler info Collecting", "info Starting crash handl");
    }
    static Report launched() { return part("info Starting crash handling", "debug Received"); }
    static Report toDebugger() { return accepted() + opened() + copied() + launched(); }
    static Report chunk(const QByteArray &text)
    {
        return part("debug Received", "crashhandler debug Writing message") + wrote(text);
    }
    static Report completed()
    {
        return part("info Backtrace", "crashhandler debug Writing message");
    }
    static Report restarted() { return part("crashhandler info command") + Report{{}, {}, true}; }
    static Report ended() { return part("crashhandler debug CrashHandler destroyed"); }
    static Report failed(const QByteArray &error)
    {
        return logged("critical Backtrace collection error: \"" + error + '"') + Report{error}
        + logged("crashhandler info Writing error message to dump file")
            + wrote("A problem occurred providing the backtrace. Please make sure to have the "
                    "debugger "
                    "\"gdb\" installed.\n")
            + wrote(error) + ended();
    }
    static Report backtrace(const QByteArray &text)
    {
        return toDebugger() + chunk(text) + completed() + restarted();
    }
    static Report unseen(const Report &report) { return {{}, report.dump, report.isBack}; }
    static Report changed(Report report, const QByteArray &before, const QByteArray &after)
    {
        report.log.replace(before, after);
        return report;
    }
    /// With writes to the dump file that are refused.
    static Report refused(const Report &report)
    {
        static const QRegularExpression write(u"debug Wrote \\w+ bytes to file: (.*)"_s);
        const QString lines = u"critical Failed to open file for writing: \\1\n"
                              "crashhandler warning Warning: Could not open  \\1"_s;
        return {QString::fromUtf8(report.log).replace(write, lines).toUtf8(), {}, report.isBack};
    }
};

TEST_MAIN(ProgramTest)
#include "tst_program.moc"
