// The whole program, started by a process that crashes. Each scenario in tests/scenarios is a row: the
// complete log, the complete dump file and what comes back are compared with what it expects.

#include "tests/support.h"

#include <csignal>

#include <unistd.h>

namespace {

/// The name and the lines of a scenario, or of a step in tests/steps.txt.
using Block = std::pair<QByteArray, QByteArrayList>;
using Settings = QHash<QByteArray, QByteArray>;

/// Reads names with indented lines below them. A deeper line goes on with the line above it.
QList<Block> blocksOf(const QString &path)
{
    QList<Block> blocks;
    const QByteArrayList lines = contentOf(path).split('\n');
    for (const QByteArray &line : lines) {
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        if (!line.startsWith(' '))
            blocks.append({line, {}});
        else if (line.startsWith("    "))
            blocks.last().second.last() += '\n' + line.sliced(4);
        else
            blocks.last().second.append(line.sliced(2));
    }
    return blocks;
}

/// A line's first word, and the text behind it.
std::pair<QByteArray, QByteArray> split(const QByteArray &line)
{
    const QByteArray keyword = line.split(' ').constFirst();
    return {keyword, line.mid(keyword.size() + 1)};
}

/// Shows the texts of a file of proc(5), each of which ends in a NUL byte, as a log shows a list.
QByteArray listed(const QByteArray &texts)
{
    QStringList list = QString::fromLatin1(texts).split(u'\0');
    list.removeLast();
    return QDebug::toString(list).toUtf8();
}

/// What QProcess says when the debugger in the current folder fails.
QByteArray errorOfDebugger()
{
    const QByteArray searchPath = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(QDir::currentPath()));
    QProcess debugger;
    debugger.setEnvironment({u"A=B"_s});
    debugger.start(u"gdb"_s, QStringList());
    debugger.waitForFinished(patience);
    qputenv("PATH", searchPath);
    return debugger.errorString().toUtf8();
}

/// Runs \a command and all that it starts to their end. Returns their output and its exit code.
std::pair<QByteArray, int> outputOf(const QStringList &command, const QStringList &environment)
{
    QProcess process;
    process.setEnvironment(environment);
    // The command must have no more descriptors than a program that is restarted.
    process.setChildProcessModifier(
        [] { ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC); });
    // Not every distribution has /etc/lsb-release: sed(1) drops what a log says about opening it. It
    // ends when no process has the pipe any more.
    const QString script
        = u"set -o pipefail; { echo $BASHPID > pid; exec \"$@\"; } 2>&1 < /dev/null"
          " | timeout 300 sed '/[dt] .*open.*lsb-rel/d; /Succ.*lsb-rel/d'"_s;
    process.start(u"/bin/bash"_s, QStringList{u"-c"_s, script, u"bash"_s} + command);
    process.waitForFinished(6 * patience);
    return {process.readAllStandardOutput(), process.exitCode()};
}

/// The log and the dump file that the steps of a scenario add up to.
struct Expectation
{
    Expectation(const QList<Block> &steps, Settings &settings, const QByteArray &stamp)
        : steps(steps)
        , settings(settings)
    {
        const auto systemText
            = [](const QString &path) { return QString::fromLatin1(contentOf(path)).toUtf8(); };
        const QByteArray commandLine = contentOf(u"cmdline-0"_s);
        const QByteArray program = commandLine.split('\0').constFirst();
        values = {{"$pid", contentOf(u"pid"_s).trimmed()},
                  {"$folder", QFile::encodeName(QDir::currentPath())},
                  {"$dump", settings["folder"] + '/' + stamp + ".dump"},
                  {"$stamp", stamp},
                  {"$qt", QT_VERSION_STR},
                  {"$bits", QByteArray::number(8 * sizeof(void *))},
                  {"$distribution", systemText(u"/etc/lsb-release"_s)},
                  {"$kernel", systemText(u"/proc/version"_s)},
                  {"$command-line", listed(commandLine)},
                  {"$program", program},
                  {"$arguments", listed(commandLine.mid(program.size() + 1))},
                  {"$environment", listed(contentOf(u"environ-0"_s))},
                  {"$many", QByteArray(5'000'000, '0')},
                  {"$page", QByteArray(4'000, '0')}};
    }

    // NOLINTBEGIN(misc-no-recursion): steps consist of steps
    /// Adds steps, with | between them.
    void add(QByteArray line)
    {
        for (const QByteArray &step : line.replace("\n| ", "\f").replace(" | ", "\f").split('\f'))
            addStep(step);
    }

    /// Adds a step of tests/steps.txt, one that is known here, a setting, or a line of the log.
    void addStep(const QByteArray &line)
    {
        auto [step, text] = split(line);
        for (const auto &[name, parts] : steps) {
            if (name == step) {
                for (QByteArray part : parts)
                    add(part.replace("$text", text));
                return;
            }
        }
        if (text.contains("$error"))
            text.replace("$error", errorOfDebugger());
        for (auto value = values.cbegin(); value != values.cend(); ++value)
            text.replace(value.key(), value.value());
        if (step == "text" || step == "write")
            text.replace("\\n", "\n").replace("\\r", "\r").replace("\\0", QByteArray(1, '\0'));
        if (step == "write" && settings["writes"].isEmpty())
            dump += text;

        if (step == "own")
            log += "org.vastel.mail.crashhandler " + text + '\n';
        else if (step == "text")
            log += text;
        else if (step == "write")
            add((settings["writes"] == "refused" ? "refused-write " : "made-write ")
                + QByteArray::number(text.size()));
        else if (step == "cut")
            dump.truncate(text.toInt());
        else if (outcomes.contains(step))
            settings[step] = text;
        else
            log += "default " + step + ' ' + text + '\n';
    }
    // NOLINTEND(misc-no-recursion)

    inline static const QByteArrayList outcomes{"exit", "log", "restarted", "writes"};
    const QList<Block> &steps;
    Settings &settings;
    QHash<QByteArray, QByteArray> values;
    QByteArray log;
    QByteArray dump;
};

} // namespace

class ProgramTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void aRunIsWhatItsScenarioExpects_data()
    {
        QTest::addColumn<QByteArrayList>("scenario");
        const QDir topics(u"" TEST_FOLDER "/scenarios"_s);
        for (const QString &topic : topics.entryList(QDir::Files)) {
            for (const auto &[name, lines] : blocksOf(topics.filePath(topic)))
                QTest::newRow(name.constData()) << lines;
        }
    }
    void aRunIsWhatItsScenarioExpects()
    {
        QFETCH(const QByteArrayList, scenario);
        const QList<Block> steps = blocksOf(u"" TEST_FOLDER "/steps.txt"_s);
        Settings settings;
        for (const QByteArray &line : steps.constFirst().second + scenario)
            settings[split(line).first] = split(line).second.replace("$folder", path());
        if (settings.contains("prepare") && !hasOwnTmp)
            QSKIP("needs a /tmp of its own");
        QCOMPARE(shell(settings["prepare"]), 0);
        if (settings["gdb"] != "none")
            writeProgram("gdb", settings["gdb-begin"] + '\n' + settings["gdb"]);

        const QByteArray variables = settings["variables"] + '\n' + settings["variable"]
            + "\nPROBE_RUNS=" + settings["runs"] + "\nPROBE_CRASH=" + settings["crash"]
            + "\nPROBE_HANDLER=" BUILD_FOLDER "/crash-handler";
        const auto [log, exitCode] = outputOf(
            {u"sh"_s, u"-c"_s, QString::fromUtf8(settings["start"]), u"" TEST_FOLDER "/probe.sh"_s},
            QString::fromUtf8(variables).split(u'\n') << u"NÄME=a\r\nb=c\n"_s);
        const QFileInfoList dumps = dumpsIn(QString::fromUtf8(settings["folder"]));
        QByteArray stamp = dumps.value(0).completeBaseName().toUtf8();
        if (stamp.isEmpty())
            stamp = log.mid(log.indexOf("timestamp: \"") + 12, 18);
        Expectation expected(steps, settings, stamp);
        expected.add(settings["expect"]);

        QCOMPARE(exitCode, settings["exit"].toInt());
        const qsizetype compared = settings["log"] == "goes-on" ? expected.log.size() : log.size();
        if (settings["log"] != "unseen")
            QCOMPARE(log.left(compared).split('\n'), expected.log.split('\n'));
        const int crashes = settings["runs"].toInt() - 1;
        QCOMPARE(dumps.size(), expected.dump.isEmpty() ? 0 : crashes);
        for (const QFileInfo &dump : dumps) {
            QCOMPARE(contentOf(dump.filePath()).split('\n'), expected.dump.split('\n'));
            QCOMPARE(shell("test $(stat -c %a " + QFile::encodeName(dump.filePath()) + ") = 600"),
                     0);
        }
        const int lastRun = settings["restarted"] == "yes" ? crashes : 0;
        const QString record = u"run-%1"_s.arg(lastRun);
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(record), patience);
        QVERIFY(!QFile::exists(u"run-%1"_s.arg(lastRun + 1)));
        shell("LC_ALL=C sed '" + (lastRun > 0 ? settings["changes"] : "") + "' run-0 > expected");
        QCOMPARE(contentOf(record).split('\n'), contentOf(u"expected"_s).split('\n'));
    }

    void theRealDebuggerShowsTheCrash_data()
    {
        QTest::addColumn<QByteArray>("shown"); // texts in their order, with | between them
        const QByteArray nullPointer = "readMessageSize|openMessage";
        QTest::newRow("null-pointer") << nullPointer;
        QTest::newRow("early-abort") << QByteArray("abort|crash|in main");
        QTest::newRow("early-stack-overflow") << QByteArray("countNestedReplies|").repeated(200);
        QTest::newRow("early-two-threads") << nullPointer + '|' + nullPointer;
        QTest::newRow("early-forked-child") << nullPointer;
    }
    void theRealDebuggerShowsTheCrash()
    {
        QFETCH(const QByteArray, shown);
        const QByteArray way = QTest::currentDataTag();
        const QByteArray output = outputOfSample(u"" BUILD_FOLDER "/crash-handler"_s, way);
        QCOMPARE(dumpsIn(dumpFolder).size(), 1);
        const QByteArray dump = contentOf(dumpsIn(dumpFolder).constFirst().filePath());
        if (dump.contains("ptrace: Operation not permitted"))
            QSKIP("the system does not let gdb trace");
        QVERIFY2(dump.contains("\"mail-index\"") && dump.contains("\"mail-send\""), dump);
        qsizetype position = 0;
        for (const QByteArray &text : shown.split('|')) {
            position = dump.indexOf(text, position);
            QVERIFY2(position++ != -1, dump);
        }
        QVERIFY(dump.endsWith("text to select is [Thread 1]"));
        QCOMPARE(output.contains("forked child was ended by signal 11"), way.endsWith("child"));
        QCOMPARE(output.contains("back again, with the same"), way == "null-pointer");
    }
    void aCrashIsNotReportedWhenTheCrashHandlerIsMissing()
    {
        const QByteArray output = outputOfSample(u"/nowhere"_s, "null-pointer");
        QVERIFY2(output.contains("crashes will not be reported: No such file"), output);
        QVERIFY(dumpsIn(dumpFolder).isEmpty());
    }

private:
    /// Has the sample crash, and returns what it has written when it is back.
    static QByteArray outputOfSample(const QString &handler, const QByteArray &way)
    {
        const auto [output, exitCode]
            = outputOf({u"" BUILD_FOLDER "/examples/sample-application"_s, handler, u"record"_s,
                        QString::fromLatin1(way), u"ü"_s},
                       QProcess::systemEnvironment());
        const int expected = 128 + (way == "early-abort" ? SIGABRT : SIGSEGV); // as in the shell
        return exitCode == expected ? output : "ended otherwise";
    }

    static QFileInfoList dumpsIn(const QString &folder)
    {
        return QDir(folder).entryInfoList({u"*.dump"_s}, QDir::Files);
    }
};

QTEST_GUILESS_MAIN(ProgramTest)
#include "tst_program.moc"
