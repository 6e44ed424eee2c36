#pragma once

#include <QtTest> // with all of Qt Core

using namespace Qt::StringLiterals;

inline constexpr int patience = 60'000; // ms; reached only when something is broken

[[nodiscard]] QByteArray contentOf(const QString &path);

/// Returns the exit code of \a script.
int shell(const QByteArray &script);

/// Makes the shell script \a name, in place of an earlier one that may still run.
void writeProgram(const QByteArray &name, const QByteArray &script);

/// What standard output and standard error of a program are.
struct Channel
{
    enum Kind { Pipe, Socket, Terminal };
    Kind kind = Pipe;
    bool isRead = true; // as soon as it is full, otherwise only after the end
};

struct Outcome
{
    qint64 pid = 0;
    int exitCode = 0; // as a shell counts: 128 + signal; -1 when something did not end
    QByteArray output = {};
    bool keptFlags = true; // those of the channel, which other programs share
};

/// Runs \a command until it and all that it has started have ended. Fails the row if they do not.
Outcome run(const QByteArrayList &command, const QByteArrayList &environment,
            const Channel &channel = {});

/// Each row has a folder of its own, which is the current one and the first on the search path.
class TestInFolder : public QObject
{
    Q_OBJECT

public:
    /// The rest of main(): in a /tmp of its own, if the system permits that, runs the rows that the
    /// command line names, or all. Fails if that is none.
    int runRows(int argc, char *argv[]);

protected Q_SLOTS:
    void init();
    void cleanup();

protected:
    [[nodiscard]] QByteArray path() const { return QFile::encodeName(folder->path()); }
    /// Returns the contents of the dump files of which \a log speaks, or else of those that begin with
    /// \a appName, and removes them after the row.
    QByteArray dumps(const QByteArray &log, const QByteArray &appName);

    /// What the row plants in /tmp is seen by its own programs only.
    [[nodiscard]] static bool hasOwnTmp() { return qEnvironmentVariableIsSet("TEST_HAS_OWN_TMP"); }
    /// Call it before QSKIP(): a test whose rows are all skipped fails.
    void countAsSkipped() { --rows; }

private:
    int rows = 0;
    bool hadDumpFolder = false;
    QStringList dumpFiles;
    std::unique_ptr<QTemporaryDir> folder;
};

/// Run by itself, a test program starts again inside tests/own-tmp.sh.
#define TEST_MAIN(Test)                                                                            \
    int main(int argc, char *argv[])                                                               \
    {                                                                                              \
        return Test().runRows(argc, argv);                                                         \
    }
