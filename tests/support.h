#pragma once

#include <QtTest> // with all of Qt Core

using namespace Qt::StringLiterals;

inline constexpr int patience = 60'000; // ms; reached only when something is broken

/// True when planted files and folders in /tmp are seen by this process and its children only.
[[nodiscard]] bool hasOwnTmp();

[[nodiscard]] QByteArray contentOf(const QString &path);

/// Returns the exit code of \a script.
int shell(const QByteArray &script);

/// Makes the shell script \a name, in place of an earlier one that may still run.
void writeProgram(const QByteArray &name, const QByteArray &script);

/// Keeps what this process logs from here to the end of the row, as "level text", and shows none of it.
QStringList &keepLog();

/// Returns an empty text when both texts are the same, or else how they differ, as diff(1) shows it.
[[nodiscard]] QByteArray difference(const QByteArray &what, const QByteArray &expected,
                                    const QByteArray &got);

/// Standard output and standard error of a program, and who reads them.
struct Channel
{
    enum class Kind { Pipe, ForeignPipe, StreamSocket, DatagramSocket, Terminal };
    enum class Reader { AtOnce, WhenFull, AtTheEnd };

    Kind kind = Kind::Pipe;
    Reader reader = Reader::AtOnce;
    bool fullFromTheStart = false;
};

struct Outcome
{
    qint64 pid = 0;
    int exitCode = 0; // as the shell counts: 128 and the number of a signal that has ended it
    QByteArray output;
    bool keptFlags = true; // those of the channel, which it shares with others
};

/// Runs \a command, whose first word is a path, until it and all that it has started have ended.
Outcome run(const QByteArrayList &command, const QByteArrayList &environment,
            const Channel &channel = {});

/// Each row has a folder of its own, which is the current one and the first on the search path.
class TestInFolder : public QObject
{
    Q_OBJECT

public:
    [[nodiscard]] int rowsRun() const { return rows; }

protected Q_SLOTS:
    void init();
    void cleanup();

protected:
    [[nodiscard]] QByteArray path() const { return QFile::encodeName(folder->path()); }
    /// The paths of the dump files that the crash handler says in \a log it writes, or of those whose
    /// first words are \a appName. They are removed after the row.
    QStringList dumpFiles(const QByteArray &log, const QByteArray &appName);
    void countAsSkipped() { --rows; }

private:
    int rows = 0;
    bool hadDumpFolder = false;
    QStringList ownDumpFiles;
    std::unique_ptr<QTemporaryDir> folder;
    const QString earlierFolder = QDir::currentPath();
    const QProcessEnvironment earlierEnvironment = QProcessEnvironment::systemEnvironment();
};

/// Makes what this process has inherited the same everywhere, and gives it a /tmp of its own if the system
/// permits that.
void prepareProcess(char *argv[]);

/// What main() of a test does: runs the rows that the command line names, or all. A test that has run no
/// row has failed.
template<typename Test>
int testMain(int argc, char *argv[])
{
    prepareProcess(argv);
    const QCoreApplication application(argc, argv);
    Test test;
    const int failures = QTest::qExec(&test, argc, argv);
    return failures == 0 && test.rowsRun() == 0 ? EXIT_FAILURE : failures;
}
