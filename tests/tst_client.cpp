// The library that applications link, as it is installed: applications of somebody else are built
// against it and really crash, with the installed crash handler. A row says how a shell starts the
// application, and what is different from a crash with one report, after which it stays away.

#include "tests/support.h"

#include <vastel-mail/crashreporting.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include <sys/mman.h>

namespace {

const QByteArray standIn = "echo '[Current thread is 1 (x)]'"; // for gdb

struct Row
{
    QByteArray needs = {}; // skipped where this script fails or prints something
    QByteArray debugger = standIn; // null for gdb itself
    QByteArrayList shown = {}; // in report or log at least as often as here
    int reports = 1; // complete ones
    QByteArray output = {}; // on standard output; the log is on standard error
    int exitCode = 128 + SIGSEGV;
};

void row(const QByteArray &name, const QByteArray &start, const Row &row = {})
{
    QTest::newRow(name.constData()) << start << row;
}

const QByteArray besideChild = "tail --pid=$$ --follow /dev/null & exec $APP ";
const QByteArray inNamespace = "in_pid_namespace --keep-caps --kill-child ";
const QByteArray awaitChild = "until grep -q State:.S /proc/$child/status; do :; done;";

} // namespace

class ClientTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        prefix = std::make_unique<QTemporaryDir>(u"/tmp/vastel-test-XXXXXX"_s);
        qputenv("PREFIX", QFile::encodeName(prefix->path()));
        qputenv("APP", qgetenv("PREFIX") + "/crashing-application");
        QCOMPARE(shell("install_and_build"), "");
        qputenv("HANDLER", shell("pkg-config --variable=handler $(package)").trimmed());
    }

    void aCrash_data()
    {
        QTest::addColumn<QByteArray>("start");
        QTest::addColumn<Row>("row");

        const QByteArrayList overflow(200, "countNestedReplies");
        row("gdb shows a null pointer", "$APP 0", {.debugger = {}, .shown = {"openMessage"}});
        row("gdb shows a stack overflow", "$APP overflow", {.debugger = {}, .shown = overflow});
        row("gdb shows the overflow of a thread's stack", "$APP overflow thread",
            {.debugger = {}, .shown = overflow});
        row("gdb shows two threads that have crashed, of which the second waits",
            "WHILE_IT_WAITS='while grep -q State:.[RD] /proc/$PPID/task/*/status; do :; done'"
            " $APP 0 thread thread",
            {.debugger = {},
             .shown = {"openMessage", "openMessage", "awaitCrashHandler", "waitForever"}});

        for (int number : {SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS}) {
            const QByteArray name = "SIG"_ba + sigabbrev_np(number);
            row(name + " is reported", "$APP " + QByteArray::number(number),
                {.shown = {"(Signal \"" + name + "\")"}, .exitCode = 128 + number});
        }
        row("Standard error stays open", "$APP 0", {.shown = {"Starting crash handler"}});
        row("Signals are blocked at the start", "env --block-signal $APP 0");
        row("No signal handler of the application runs after the crash", "$APP 0",
            {.debugger = "kill -USR1 $7;" + standIn});
        row("Children are ignored, and one lives on", "trap '' CHLD;" + besideChild + "0");

        row("The minimum uptime is over", "UPTIME=10000 $APP 0", {.output = "back\n"});
        row("The minimum uptime is not over", "UPTIME=9999 $APP 0");

        row("The thread has been cancelled", "$APP cancelled thread");
        row("The C library's memory of the thread is overwritten", "$APP endless-write thread");
        row("A handler of fork(2) must not run", "$APP fork-handler");
        row("All descriptors are used up", "ulimit -n 64; $APP no-descriptor");
        row("The variables are lost", "$APP no-variables", {.shown = {"openMessage"}});
        row("The link to the crash handler is gone",
            "ln -s $HANDLER handler; WHILE_IT_WAITS='rm handler' HANDLER=./handler $APP 0");
        row("The crash handler is gone",
            "cp $HANDLER handler; WHILE_IT_WAITS='rm handler' HANDLER=./handler $APP 0",
            {.reports = 0});
        row("There has been no crash handler", "HANDLER=/nowhere $APP 0", {.reports = 0});

        row("No process can be started",
            inNamespace + "sh -c 'trap \"\" USR1;" + besideChild + "no-process'",
            {.needs = inNamespace + "true", .reports = 0});
        row("Process 1 aborts", inNamespace + "$APP abort", {.needs = inNamespace + "true"});
        row("A child crashes", "$APP child");
        row("A child of vfork(2) crashes", "$APP child-of-vfork");
        row("A child with the ID of its parent crashes", inNamespace + "$APP child-of-same-id",
            {.needs = inNamespace + "true"});
        row("A child that installs is reported", "$APP child-that-installs", {.reports = 2});

        row("Another process cannot permit the child to go on",
            "WHILE_IT_WAITS='kill -USR1 $child;" + awaitChild
                + "basename $(readlink /proc/$child/exe)' $APP 0",
            {.output = "crashing-application\n"});
        row("The application is killed before the child waits",
            "BEFORE_IT_WAITS='kill -KILL $parent;"
            " while grep -q PPid:.$parent$ /proc/$PPID/status; do :; done' $APP 0",
            {.reports = 0, .exitCode = 128 + SIGKILL});
        row("The application is killed while the child waits",
            "WHILE_IT_WAITS='" + awaitChild + "kill -KILL $PPID' $APP 0",
            {.reports = 0, .exitCode = 128 + SIGKILL});
        row("The application is killed while it is reported", "$APP 0",
            {.debugger = "kill -KILL $7;" + standIn, .exitCode = 128 + SIGKILL});

        row("The example is built by CMake and comes back",
            "build_example '" CMAKE_GENERATOR "' '" CMAKE_CXX_COMPILER
            "'; ./example-mail . --crash",
            {.output = "started: ., no account\nback after a crash: ., no account\n"});
    }
    void aCrash()
    {
        QFETCH(const QByteArray, start);
        QFETCH(const Row, row);
        if (lacks(row.needs))
            return;
        if (!row.debugger.isEmpty())
            writeProgram("gdb", row.debugger);
        const auto showFailure = qScopeGuard([] {
            if (QTest::currentTestFailed())
                qInfo().noquote() << shell("dumps; cat log");
        });
        // A session of its own: a fault of the library can send signals to the process group.
        const Outcome outcome = runToEnd(
            {"setsid", "sh", "-c", ". $SOURCE/tests/functions.sh; exec 2> log;" + start});
        const QByteArray written = shell("dumps; cat log");
        for (const QByteArray &text : row.shown)
            QVERIFY2(written.count(text) >= row.shown.count(text), ("no " + text).constData());
        QCOMPARE(written.count("text to select is [Thread 1]"), row.reports);
        QCOMPARE(outcome.output, row.output);
        QCOMPARE(outcome.exitCode, row.exitCode);
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

    void theInstalledFilesAreListedWithoutDestdir() { QCOMPARE(shell("compare_manifest"), ""); }

private:
    std::unique_ptr<QTemporaryDir> prefix;
};

TEST_MAIN(ClientTest)
#include "tst_client.moc"
