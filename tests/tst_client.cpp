// The library that applications link: tests/crashingapplication.c, which really crashes. A row says
// what is different from a crash at a null pointer: early, so with one report and no restart.

#include "tests/support.h"

#include <vastel-mail/crashreporting.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include <sys/mman.h>

namespace {

// For gdb, whose argument $7 is the process ID. A report is found by the row's name.
const QByteArray standIn = "echo \"[Current thread is 1 (x)] $NAME\"";

/// How a shell starts the application, and what that leaves behind.
struct Row
{
    QByteArray start = "crash";
    QByteArray needs = {}; // skipped where this script fails or prints something
    QByteArray debugger = standIn; // null for none, so that gdb itself is found
    QByteArrayList shown = {}; // in report or log at least as often as here
    int reports = 1; // complete ones
    QByteArray output = {}; // on standard output; the log is on standard error
    int exitCode = 128 + SIGSEGV;
};

void row(const QByteArray &name, const Row &row)
{
    QTest::newRow(name.constData()) << row;
}

} // namespace

class ClientTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void aCrash_data()
    {
        QTest::addColumn<Row>("row");

        const QByteArrayList overflow(200, "countNestedReplies");
        row("gdb shows a null pointer", {.debugger = {}, .shown = {"openMessage"}});
        row("gdb shows a stack overflow",
            {.start = "crash overflow", .debugger = {}, .shown = overflow});
        row("gdb shows the overflow of a thread's stack",
            {.start = "crash overflow thread", .debugger = {}, .shown = overflow});
        row("gdb shows two threads that have crashed, of which the second waits",
            {.start = "crash 0 thread thread",
             .debugger = R"(threads=/proc/$7/task; export threads
                timeout 60 sh -c 'while grep -q State:.[RD] $threads/*/status; do :; done'
                PATH=${PATH#*:}; exec gdb "$@")",
             .shown = {"openMessage", "openMessage", "awaitCrashHandler", "waitForever"}});

        for (int number : {SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS}) {
            const QByteArray name = "SIG"_ba + sigabbrev_np(number);
            row(name + " is reported",
                {.start = "crash " + QByteArray::number(number),
                 .shown = {"(Signal \"" + name + "\")"},
                 .exitCode = 128 + number});
        }
        row("After the minimum uptime, the application comes back",
            {.start = "UPTIME=0 crash", .output = "back\n"});
        row("When the user has quit, the application does not come back",
            {.start = "UPTIME=0 crash quits"});

        row("Signals that are blocked at the start do not keep a crash from being reported",
            {.start = "env --block-signal crash"});
        row("While its crash is reported, another signal does not end the application",
            {.debugger = "kill -TERM $7;" + standIn});
        // tail(1) is a second child, which outlives the wait.
        row("The end of the crash handler is noticed where children are ignored",
            {.start = "trap '' CHLD; tail --pid=$$ -f /dev/null & exec crash"});
        row("A crash that has overwritten the C library's memory of the thread is reported",
            {.start = "crash endless-zeros thread",
             .needs = QSysInfo::buildCpuArchitecture() == u"i386"
                 ? "echo on this processor, each system call reads that memory"
                 : ""});
        row("No handler of fork(2) runs after the crash", {.start = "crash fork-handler"});
        row("A crash with all descriptors used up is reported",
            {.start = "ulimit -n 64; crash no-descriptor"});
        row("A crash that has lost the variables is reported", {.start = "crash no-variables"});
        row("When the crash handler cannot be executed, the application ends all the same",
            {.start = "echo '#!/nowhere' > x; chmod +x x; HANDLER=./x crash", .reports = 0});
        row("The crash of a forked child is not reported", {.start = "crash child"});
        // Process 1 of a namespace outlives SIGABRT (6), and then crashes again.
        row("Process 1 ends after its crash is reported",
            {.start = "$UNSHARE --pid --fork crash 6", .needs = "$UNSHARE --pid --fork true"});

        row("When the application ends while its crash handler starts, no other one is traced",
            {.start = R"(echo '#!/bin/sh
                    kill -KILL $PPID; while grep -q PPid:.$PPID$ /proc/$$/status; do :; done
                    exec "$BUILD/crash-handler" "$@"' > x; chmod +x x; HANDLER=./x crash)",
             .debugger = "exit 1", // what is traced by mistake must not be started
             .reports = 0,
             .exitCode = 128 + SIGKILL});
        row("When the application is killed while it is reported, the crash handler goes on",
            {.debugger
             = "kill -KILL $7; while grep -q PPid:.$7$ /proc/$PPID/status; do :; done;" + standIn,
             .exitCode = 128 + SIGKILL});

        const QByteArray install = R"(cmake --install "$BUILD" --prefix "$FOLDER/to" > log2; )";
        row("The example is built by CMake against what is installed, and comes back",
            {.start = install
                 + "cmake -G '" CMAKE_GENERATOR "' -D CMAKE_PREFIX_PATH=$FOLDER/to "
                   R"(-S "$SOURCE/examples" -B . > log3; cmake --build . > log4
                    ./example-mail . --crash)",
             .output = "started: ., no account\nback after a crash: ., no account\n"});
        row("An application in C is built by pkg-config against what is installed",
            {.start = install + R"(cc -o mail -pthread "$SOURCE/tests/crashingapplication.c" \
                        $(pkg-config --cflags --libs $(find to -name '*.pc')); ./mail)"});
    }
    void aCrash()
    {
        QFETCH(const Row, row);
        if (const QByteArray refusal = shell(row.needs); !refusal.isEmpty())
            QSKIP(refusal);
        if (!row.debugger.isEmpty())
            writeProgram(u"gdb"_s, row.debugger);
        qputenv("PATH", qgetenv("PATH") + ':' + qgetenv("BUILD") + "/tests");
        qputenv("HANDLER", qgetenv("BUILD") + "/crash-handler");
        const int exitCode = runToEnd(row.start);
        const QByteArray written = dumps() + contentOf(u"log"_s);
        QCOMPARE(exitCode, row.exitCode);
        QCOMPARE(contentOf(u"output"_s), row.output);
        QCOMPARE(written.count("Starting crash handler"), row.reports);
        const auto reports = written.count("text to select is [Thread 1]");
        QVERIFY2(reports == row.reports, QByteArray::number(reports) + " complete in\n" + written);
        for (const QByteArray &text : row.shown)
            QVERIFY2(written.count(text) >= row.shown.count(text),
                     text + " is missing or too rare in\n" + written);
    }

    void settingsThatCannotReportACrashAreRefused()
    {
        const auto error = [](const char *name, const char *path) {
            const vastel_mail_crash_settings settings{name, path, 0};
            return vastel_mail_install_crash_reporting(&settings) == -1 ? errno : 0;
        };
        QCOMPARE(error(nullptr, "/bin/sh"), EINVAL);
        QCOMPARE(error("-x", "/bin/sh"), EINVAL);
        QCOMPARE(error(QByteArray(PATH_MAX, 'x'), "/bin/sh"), ENAMETOOLONG);
        QCOMPARE(error("x", nullptr), EINVAL);
        QCOMPARE(error("x", "/"), EACCES);
        QCOMPARE(error("x", "/proc/version"), EACCES);
        QCOMPARE(error("x", "/nowhere"), ENOENT);
    }

    void anEndedSignalStackIsFreedAndTheEarlierOneIsBack()
    {
        stack_t before;
        stack_t after;
        sigaltstack(nullptr, &before);
        auto *const stack = vastel_mail_begin_signal_stack();
        vastel_mail_end_signal_stack(stack);
        sigaltstack(nullptr, &after);
        QCOMPARE(after.ss_sp, before.ss_sp);
        QCOMPARE(madvise(stack, 1, MADV_NORMAL), -1); // nothing is mapped there
    }
};

QTEST_GUILESS_MAIN(ClientTest)
#include "tst_client.moc"
