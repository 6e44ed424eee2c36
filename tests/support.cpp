#include "tests/support.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    const bool isOpen = QFileInfo(path).isFile() && file.open(QIODevice::ReadOnly);
    return isOpen ? file.readAll() : QByteArray();
}

QByteArray shell(const QByteArray &script)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    const QByteArray text = ". \"$SOURCE/tests/functions.sh\"\n" + script;
    process.start(u"/bin/sh"_s, {u"-c"_s, QString::fromUtf8(text)});
    process.waitForFinished(patience);
    const int exitCode = process.exitCode();
    return process.readAll() + (exitCode == 0 ? "" : "exit status " + QByteArray::number(exitCode));
}

void writeProgram(const QByteArray &name, const QByteArray &script)
{
    const QByteArray write = "cat > new << 'END'\n#!/bin/sh\n" + script + "\nEND\n";
    QCOMPARE(shell(write + "chmod +x new && mv new " + name), "");
}

Outcome runToEnd(const QByteArrayList &command)
{
    QProcess process;
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(u"output"_s);
    process.setProcessChannelMode(QProcess::MergedChannels);
    // The program must have no more descriptors than one that is restarted.
    process.setChildProcessModifier(
        [] { ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC); });
    // What the program leaves running becomes a child of this process, which sees its end as well.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    QByteArrayList arguments{"-i"};
    for (const char *name :
         {"PATH", "TMPDIR", "FOLDER", "NAME", "SOURCE", "BUILD", "PREFIX", "APP", "HANDLER"})
        arguments.append(name + ("=" + qgetenv(name)));
    arguments += command;
    process.start(u"/usr/bin/env"_s, QString::fromUtf8(arguments.join('\0')).split(u'\0'));
    const qint64 pid = process.processId();
    const auto hasEnded = [&process] {
        return process.state() == QProcess::NotRunning && ::waitpid(-1, nullptr, WNOHANG) == -1;
    };
    if (!QTest::qWaitFor(hasEnded, 2 * patience))
        QTest::qFail("The program, or one that it has started, does not end.", __FILE__, __LINE__);
    const int signalBase = process.exitStatus() == QProcess::CrashExit ? 128 : 0;
    return {pid, signalBase + process.exitCode(), contentOf(u"output"_s)};
}

int TestInFolder::runRows(int argc, char *argv[])
{
    if (!qEnvironmentVariableIsSet("OWN_TMP")) {
        qputenv("SOURCE", SOURCE_FOLDER);
        qputenv("BUILD", BUILD_FOLDER);
        qputenv("TEST", QFile::encodeName(QFile::symLinkTarget(u"/proc/self/exe"_s)));
        ::execv(SOURCE_FOLDER "/tests/own-tmp.sh", argv);
        return EXIT_FAILURE;
    }
    // Qt Test would run the stand-in for gdb when it crashes itself.
    qputenv("QTEST_DISABLE_STACK_DUMP", "1");
    const QCoreApplication application(argc, argv);
    const int failures = QTest::qExec(this, argc, argv);
    return rows > 0 ? failures : EXIT_FAILURE;
}

void TestInFolder::init()
{
    ++rows;
    folder = std::make_unique<QTemporaryDir>(u"/tmp/vastel-test-XXXXXX"_s);
    QDir::setCurrent(folder->path());
    qputenv("NAME", QDir::current().dirName().toUtf8());
    const QByteArray path = QFile::encodeName(folder->path());
    qputenv("FOLDER", path);
    qputenv("TMPDIR", path);
    qputenv("PATH", path + ":/bin:/usr/bin");
}

void TestInFolder::cleanup()
{
    // A failed row can have left programs running.
    while (::waitpid(-1, nullptr, WNOHANG) != -1)
        shell("kill -KILL $(cat /proc/$PPID/task/*/children)");
    shell("dump_files | xargs -r rm; $CLEAN_UP");
    QDir::setCurrent(u"/"_s);
    folder.reset();
}

bool TestInFolder::lacks(const QByteArray &need)
{
    const QByteArray refusal = shell(need);
    if (refusal.isEmpty())
        return false;
    --rows;
    QTest::qSkip(("needs " + need + ", but: " + refusal).constData(), __FILE__, __LINE__);
    return true;
}
