#include "tests/support.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const QString dumpFolder = u"/tmp/vastel-mail"_s;
// Runs the command that follows with the row's dump files.
const QByteArray withDumps = "grep -ls $NAME /tmp/vastel-mail/*.dump | xargs -r ";

void save(const QString &name, const QByteArray &text)
{
    QFile file(name);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(text) == text.size());
}

} // namespace

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray shell(const QByteArray &script)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(u"/bin/sh"_s, {u"-c"_s, QString::fromUtf8(script)});
    process.waitForFinished(timeLimit);
    const int exitCode = process.exitCode();
    return process.readAll() + (exitCode == 0 ? "" : "exit status " + QByteArray::number(exitCode));
}

void writeProgram(const QString &name, const QByteArray &script)
{
    save(name, "#!/bin/sh\n" + script);
    QFile::setPermissions(name, QFile::ReadOwner | QFile::ExeOwner);
}

int runToEnd(const QByteArray &script, const QStringList &variables)
{
    QProcess process;
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(u"output"_s);
    process.setStandardErrorFile(u"log"_s);
    process.setEnvironment(QProcess::systemEnvironment() + variables);
    // dash(1) would drop variables with names that are no identifiers.
    process.start(u"setsid"_s, {u"bash"_s, u"-c"_s, QString::fromUtf8(script)});
    const auto hasEnded = [&process] {
        return process.state() == QProcess::NotRunning && ::waitpid(-1, nullptr, WNOHANG) == -1;
    };
    if (!QTest::qWaitFor(hasEnded, timeLimit))
        QTest::qFail("The script, or something that it has started, does not end.", __FILE__,
                     __LINE__);
    return process.exitCode() + (process.exitStatus() == QProcess::CrashExit ? 128 : 0);
}

QByteArray dumps()
{
    return shell(withDumps + "cat");
}

void compare(const QByteArray &got, const QByteArray &expected)
{
    save(u"got"_s, got + '\n');
    save(u"expected"_s, expected + '\n');
    const QByteArray diff = "diff -a -u --label expected --label got expected got";
    QVERIFY2(got == expected, shell(diff + R"( | tr '\000' 0 | cut -c -300)"));
}

void TestInFolder::init()
{
    QVERIFY2(qEnvironmentVariableIsSet("SOURCE"), "Start the program by tests/own-tmp.sh.");
    static const QByteArray searchPath = qgetenv("PATH");
    folder = std::make_unique<QTemporaryDir>(u"/tmp/vastel-test-XXXXXX"_s);
    QDir::setCurrent(folder->path());
    const QByteArray path = QFile::encodeName(folder->path());
    qputenv("FOLDER", path);
    qputenv("NAME", path.sliced(5));
    qputenv("TMPDIR", path);
    qputenv("PATH", path + ':' + searchPath);
    qputenv("UNSHARE", ::geteuid() == 0 ? "unshare" : "unshare --user --map-current-user");
    hadDumpFolder = QFile::exists(dumpFolder);
    // What a row leaves running becomes a child of this process, which sees its end as well.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
}

void TestInFolder::cleanup()
{
    // A failed row can have left programs running.
    while (::waitpid(-1, nullptr, WNOHANG) != -1)
        shell("kill -KILL $(cat /proc/$PPID/task/*/children)");
    shell(withDumps + "rm");
    if (!hadDumpFolder)
        QDir().rmdir(dumpFolder);
    QDir::setCurrent(u"/"_s);
    folder.reset();
}
