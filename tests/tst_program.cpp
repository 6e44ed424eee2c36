// The whole program, started by an application that crashes: tests/application.sh, with a stand-in
// for gdb. Begin with tests/ordinary.log and tests/ordinary.dump, which an ordinary run leaves
// behind. A row says what is different from that run, and the log and the dump file that must come
// out.

#include "tests/support.h"

namespace {

/// What a run leaves behind, or a part of that. An empty log stands for any.
struct Report
{
    QByteArray log;
    QByteArray dump = {};
    bool isBack = false; // the application
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

/// What is different from an ordinary run.
struct Setup
{
    /// The stand-in for gdb, a shell script that can use tests/debugger.sh. Null for none.
    QByteArray debugger = R"(printf 'kept\n[Current thread is 1 (x)]\n' >&2)";
    QByteArray start = R"(exec "$0" ü)"; // how the shell starts the application
    QByteArray startHandler = R"("$@")"; // how the application starts the crash handler
    QByteArrayList variables = {};
    QByteArray plant = {}; // what the shell plants in /tmp
    int crashes = 1;
    Channel channel = {};
    int exitCode = 0;
    /// The first such text of the application, and what it is when the application is back.
    std::pair<QByteArray, QByteArray> change = {};
};

/// Replaces what varies in what a run has left by the name of what it is, in capitals.
void normalise(Report &report, const QByteArray &pid, const QByteArray &appName)
{
    const auto latin1 = [](const QString &path) { return QString::fromLatin1(contentOf(path)); };
    const QStringList variables = latin1(u"environ-0"_s).chopped(1).split(u'\0');
    const QString lsbRelease = u"\"/etc/lsb-release\"\n"_s; // many distributions have none
    const std::pair<QString, QString> names[] = {
        {u" Qt %1 (%2 bit)\n\n"_s.arg(u"" QT_VERSION_STR ""_s).arg(QSysInfo::WordSize)
             + latin1(u"/etc/lsb-release"_s) + u'\n' + latin1(u"/proc/version"_s) + u'\n',
         u" Qt VERSION (BITS bit)\n\nDISTRIBUTION\nKERNEL\n"_s},
        {QDebug::toString(variables), u"ENVIRONMENT"_s},
        {u"org.vastel.mail.crashhandler"_s, u"crashhandler"_s},
        {QString::fromUtf8(appName), u"mail"_s},
        {QDir::currentPath(), u"FOLDER"_s},
        {u"/proc/"_s + QString::fromUtf8(pid), u"/proc/PID"_s},
        {u"ID: "_s + QString::fromUtf8(pid), u"ID: PID"_s},
        {u"critical Failed to open file for reading: "_s + lsbRelease
             + u"crashhandler warning Warning: Could not open  "_s + lsbRelease,
         u"debug Successfully read file: "_s + lsbRelease},
    };
    for (const auto &[text, name] : names) {
        report.dump.replace(text.toUtf8(), name.toUtf8());
        report.log.replace(text.toUtf8(), name.toUtf8());
    }
    report.log = QString::fromUtf8(report.log)
                     .replace(QRegularExpression(u"\\b\\d{8}_\\d{9}\\b"_s), u"STAMP"_s)
                     .replace(QRegularExpression(u"(headers(.*\n){3}.*Wrote )\\d+"_s), u"\\1SIZE"_s)
                     .toUtf8();
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
        row("An ordinary run", {});
        const QByteArray usage
            = "This crash handler will be called by main program. Do not call this manually.";
        row("With an argument too many the usage is shown and nothing is reported",
            {.startHandler = R"("$@" more)", .exitCode = 1},
            begun() + logged(R"(debug Positional arguments: QList("SIGSEGV", "mail", "more"))")
                + logged("critical Invalid number of arguments: 3")
                + logged("critical \"" + usage + "\\n\"") + logged(usage));
        row("With an unknown option nothing is reported",
            {.startHandler = R"("$@" --nonsense)", .exitCode = 1},
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
                + logged("critical Debugger error occurred: \"Process crashed\"")
                + failed("QProcess: Process crashed"));
        QProcess missing;
        missing.setEnvironment({u"A=b"_s}); // without one, its error names another system call
        missing.start(u"missing"_s);
        missing.waitForStarted();
        row("A missing debugger is reported",
            {.debugger = {}, .startHandler = R"(PATH=$FOLDER; "$@")"},
            toDebugger() + logged("critical Debugger process error: QProcess::FailedToStart")
                + failed("QProcess: " + missing.errorString().toUtf8()));
        row("A debugger without its commands is not waited for",
            {.debugger = "exec sleep 1000", .variables = {"TMPDIR=/proc"}},
            toDebugger() + logged("critical Failed to create temporary command file")
                + failed("Error: Could not create temporary command file.")
                + logged("warning QProcess: Destroyed while process (\"gdb\") is still running."));
        row("An application that is killed meanwhile comes back",
            {.debugger = "kill -KILL $application; echo kept", .exitCode = 137},
            backtrace("kept\n"));
        row("The report is kept when the crash handler is killed",
            {.debugger = "echo kept; await kept; kill -KILL $PPID", .exitCode = 137},
            unseen(toDebugger() + chunk("kept\n")));

        // Its surroundings.
        row("The debugger starts in the folder of the application",
            {.debugger = "pwd -P", .start = R"(cd /proc; exec "$0" ü)"}, backtrace("/proc\n"));
        row("When that folder is gone, only the debugger starts in another one",
            {.debugger = "pwd -P",
             .start = R"(mkdir gone; cd gone; exec "$0" ü)",
             .startHandler = R"(rmdir "$PWD"; "$@")",
             .change = {"/gone\n", "/gone (deleted)\n"}},
            unseen(backtrace("/\n")));
        row("Variables that would stop the debugger reach the application only",
            {.debugger = "env | grep -E 'PYTHON|LD_|DEBUGINFOD|LANGUAGE|LC_' | sort",
             .variables = {"PYTHONHOME=/nowhere", "LD_LIBRARY_PATH=/nowhere", "LD_BIND_NOW=1",
                           "DEBUGINFOD_URLS=x", "LANGUAGE=de", "LC_ALL=C", "MY_PYTHON_LD_=kept"}},
            unseen(backtrace("LC_ALL=C.UTF-8\nMY_PYTHON_LD_=kept\n")));
        const QByteArray descriptors = "0\n1\n2\n3\n"; // the last one is that of ls(1)
        const QByteArray noSignals = "SigBlk:\t0000000000000000\n";
        row("Blocked signals and open descriptors do not reach the debugger",
            {.debugger = "show_state",
             .startHandler = R"(env --block-signal "$@" 3>&2 4>&2 5>&2 6>&2 7>&2 8>&2 9>&2)"},
            backtrace(noSignals + noSignals + "0\n" + descriptors));
        row("Signals that are ignored for the user (384007 is their mask) stay so, others do not",
            {.debugger = "show_state",
             .start = R"(exec env --ignore-signal=HUP,INT,QUIT,TERM,TSTP,TTIN,TTOU "$0" ü)",
             .startHandler = R"(env --ignore-signal "$@")"},
            backtrace(noSignals + noSignals + "384007\n" + descriptors));
        row("An application under nohup(1) comes back, though its terminal hangs up",
            {.debugger = "kill -HUP $PPID; echo kept", .start = R"(exec nohup "$0" ü)"},
            backtrace("kept\n"));

        // The dump file.
        row("The name of the dump file is the local time",
            {.debugger = R"sh(printf '%s\n' "$began" "$(basename "$(dump)" .dump)" "$(date $now)" |
                sort -c && echo kept)sh",
             .start = R"sh(export now=+%Y%m%d_%H%M%S%3N; began=$(date $now) exec "$0" ü)sh"},
            backtrace("kept\n"));
        row("A file in place of the folder loses the report only, even with QT_FATAL_CRITICALS",
            {.variables = {"QT_FATAL_CRITICALS=1"}, .plant = ": > /tmp/vastel-mail"},
            {{}, {}, true});
        row("A folder that cannot be created is replaced by the temporary folder",
            {.plant = "ln -s nowhere/dumps /tmp/vastel-mail"},
            changed(changed(ordinary(), "/tmp/vastel-mail/", "FOLDER/"),
                    "crashhandler debug Generating",
                    "crashhandler critical Failed to create dump directory: \"/tmp/vastel-mail\"\n"
                    "crashhandler warning \"mkpath [/tmp/vastel-mail] failed\"\n"
                    "crashhandler debug Generating"));
        row("A FIFO in place of the dump file is refused, even with QT_FATAL_WARNINGS",
            {.debugger = R"sh(fifo=$(dump); rm "$fifo"; mkfifo "$fifo"; echo lost)sh",
             .variables = {"QT_FATAL_WARNINGS=1"}},
            {{}, {}, true});
        row("A header that cannot be written is lost, and only the header",
            {.debugger = "prlimit --fsize=unlimited: --pid $PPID; echo kept",
             .startHandler = R"((ulimit -S -f 0; exec "$@"))"},
            {backtrace("kept\n").log, "kept\n", true});
        row("A umask without the owner's rights does not lose the report",
            {.debugger = R"sh(stat -c %a "$5")sh", .start = R"(umask 0377; exec "$0" ü)"},
            backtrace("600\n"));
        row("A large report is kept, and it is UTF-8 in another locale",
            {.debugger = R"(head -c 5000000 /dev/zero | tr '\000' 0; echo é)",
             .variables = {"LC_ALL=C"}},
            unseen(backtrace(QByteArray(5'000'000, '0') + "é\n")));

        // The restart.
        row("A disabled restart does not take place",
            {.debugger = "echo kept", .startHandler = R"("$@" --disable-restart)"},
            accepted() + logged("info Application restart disabled") + opened()
                + logged("crashhandler warning Unable to restart")
                + part("info Starting crash handling", "debug Received") + chunk("kept\n")
                + completed() + logged("crashhandler info command line: QList()")
                + logged("crashhandler info environment: QList()")
                + logged("crashhandler info Preparing to restart application") + ended());
        // The shell runs the file that BASH_ENV names, although it has no argument.
        row("An application without arguments comes back",
            {.start = R"(exec env BASH_ENV="$0" /bin/bash)",
             .startHandler = R"(env -u _ -u SHLVL "$@")"},
            unseen(ordinary()));
        row("The crash handler's own variables stay, unless the application has them too",
            {.startHandler = R"(EXTRA=1 HOME=/nowhere "$@")",
             .change = {"FOLDER=", "EXTRA=1\0FOLDER="_ba}});
        row("Bytes that are no UTF-8 come back as those of their Latin-1 characters",
            {.start = R"sh(exec "$0" "$(printf 'j\374rgen')")sh",
             .change = {"j\xfcrgen", "jürgen"}},
            changed(ordinary(), "Ã¼", "jürgen"));
        row("Arguments and variables are the same after a chain of crashes",
            {.start = R"sh(umask 027; ulimit -n 512; cd /; export LARGE="$(printf '%0100000d' 0)"
                for number in $(seq 5000); do export V$number=x; done
                exec "$0" "" "$(printf 'a\r\nb')" '"two"' "$(printf '\357\273\277')é😀" $(seq 2000))sh",
             .crashes = 7},
            unseen(ordinary()));
        row("A program that is named without a folder comes back by its path",
            {.start = R"(exec sh "$0")", .change = {"sh", "/bin/sh"}}, unseen(ordinary()));

        // The log.
        row("Closed standard streams are replaced", {.startHandler = R"("$@" <&- >&- 2>&-)"},
            unseen(ordinary()));
        row("A log without a reader ends nothing",
            {.startHandler = R"(mkfifo log; exec 3<> log 4> log 3<&-; "$@" 2>&4)"},
            unseen(ordinary()));
        // Each text adds 200 kB to the log; they are enough to fill the channel.
        for (const auto &[name, kind, texts] :
             {std::tuple("A pipe", Channel::Pipe, 6), std::tuple("A socket", Channel::Socket, 2),
              std::tuple("A terminal", Channel::Terminal, 1)}) {
            const QByteArray start = R"sh(text=$(printf '%0100000d' 0); exec "$0")sh"
                + QByteArray(R"( "$text")").repeated(texts);
            const QByteArray text = ", \"" + QByteArray(100'000, '0') + '"';
            row(name + " with a slow reader loses nothing"_ba, {.start = start, .channel = {kind}},
                changed(ordinary(), ", \"Ã¼\"", text.repeated(texts)));
            row(name + " without a reader loses the log only"_ba,
                {.start = start, .channel = {kind, false}}, unseen(ordinary()));
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
        const QByteArray appName = "mail" + QDir::current().dirName().toUtf8();
        const QByteArrayList settings{
            "LC_ALL=C.UTF-8",
            "TZ=XXX-05:45",
            "HOME=/home/jürgen",
            "EMPTY=",
            "NÄME=a\r\nb=c\n",
            "QT_MESSAGE_PATTERN=%{if-category}%{category} %{endif}%{type} %{message}"};
        const QByteArrayList variables{"PATH=" + qgetenv("PATH"),
                                       "TMPDIR=" + path(),
                                       "FOLDER=" + path(),
                                       "SOURCE=" + QByteArray(SOURCE_FOLDER),
                                       "HANDLER=" + QByteArray(BUILD_FOLDER "/crash-handler"),
                                       "NAME=" + appName,
                                       "RUNS=" + QByteArray::number(setup.crashes + 1),
                                       "START_HANDLER=" + setup.startHandler};
        const Outcome outcome = ::run({"/bin/sh", "-c", setup.start, path() + "/mail"},
                                      settings + variables + setup.variables, setup.channel);
        Report got{outcome.output, dumps(outcome.output, appName)};
        normalise(got, QByteArray::number(outcome.pid), appName);
        if (expected.log.isEmpty())
            got.log.clear();
        const int lastRun = expected.isBack ? setup.crashes : 0;
        QByteArray application = contentOf(u"run-0"_s);
        const auto &[before, after] = setup.change;
        QVERIFY(application.contains(before));
        application.replace(application.indexOf(before), before.size(), after);
        const auto save = [](const QString &name, const Report &report, const QByteArray &back,
                             qsizetype runs, int exitCode) {
            QFile file(name);
            QVERIFY(file.open(QIODevice::WriteOnly));
            const QByteArray text = "=== log\n" + report.log + "\n=== dump file\n" + report.dump
                + "\n=== application that is back\n" + back + "\n=== number of runs and exit code\n"
                + QByteArray::number(runs) + ' ' + QByteArray::number(exitCode) + '\n';
            file.write(QByteArray(text).replace('\0', "\\0\n"));
        };
        save(u"expected"_s, {expected.log, expected.dump.repeated(setup.crashes)}, application,
             lastRun + 1, setup.exitCode);
        save(u"got"_s, got, contentOf(u"run-%1"_s.arg(lastRun)),
             QDir().entryList({u"run-*"_s}).size(), outcome.exitCode);
        shell("diff -a -u -F '^===' expected got | cut -c -300 > differences");
        const QByteArray differences = contentOf(u"differences"_s);
        if (!differences.isEmpty())
            QFAIL(differences.constData());
        QVERIFY(outcome.keptFlags); // those of standard error
    }

private:
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
        const Report lines = part("crashhandler debug Writing message", "crashhandler debug Crash");
        return {changed(lines, "SIZE", QByteArray::number(text.size())).log, text};
    }
    static Report begun() { return part("info Starting", "debug Positional"); }
    static Report accepted() { return part("info Starting", "info Creating"); }
    static Report opened()
    {
        const QByteArray dump = ordinary().dump;
        return part("info Creating crash", "crashhandler info Collecting")
            + Report{{}, dump.left(dump.indexOf("kept"))};
    }
    static Report toDebugger()
    {
        return {part("info Starting", "debug Received").log, opened().dump};
    }
    static Report chunk(const QByteArray &text)
    {
        return part("debug Received", "crashhandler debug Writing message") + wrote(text);
    }
    static Report completed() { return part("info Backtrace", "crashhandler debug"); }
    static Report restarted() { return part("crashhandler info command") + Report{{}, {}, true}; }
    static Report ended() { return part("crashhandler debug CrashHandler destroyed"); }
    static Report failed(const QByteArray &error)
    {
        return logged("critical Backtrace collection error: \"" + error + '"') + Report{error}
        + logged("crashhandler info Writing error message to dump file")
            + wrote("A problem occurred providing the backtrace. "
                    "Please make sure to have the debugger \"gdb\" installed.\n")
            + wrote(error) + ended();
    }
    static Report backtrace(const QByteArray &text)
    {
        return toDebugger() + chunk(text) + completed() + restarted();
    }
    static Report unseen(const Report &report) { return {{}, report.dump, report.isBack}; }
    static Report changed(const Report &report, const QByteArray &before, const QByteArray &after)
    {
        return {QByteArray(report.log).replace(before, after), report.dump, report.isBack};
    }
};

TEST_MAIN(ProgramTest)
#include "tst_program.moc"
