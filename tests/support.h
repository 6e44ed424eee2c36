#pragma once

#include <QtTest> // with all of Qt Core

using namespace Qt::StringLiterals;

inline constexpr int patience = 60'000; // ms; reached only when something is broken

/// Returns nothing for what is no regular file: a FIFO would wait for its writer.
[[nodiscard]] QByteArray contentOf(const QString &path);

/// Runs \a script, which can use tests/functions.sh. Returns what it prints, and then its exit
/// status, unless that is 0.
QByteArray shell(const QByteArray &script);

/// Makes the shell script \a name, in place of an earlier one that may still run.
void writeProgram(const QByteArray &name, const QByteArray &script);

struct Outcome
{
    qint64 pid = 0;
    int exitCode = 0; // as a shell counts: 128 + signal
    QByteArray output = {}; // standard output and standard error
};

/// Runs \a command, which begins with variables (env(1)) besides those that the tests set, until it
/// and all that it has started have ended. Fails the row if they do not.
Outcome runToEnd(const QByteArrayList &command);

/// Each row has a folder of its own, which is the current one, the first on the search path, and
/// the one for temporary files. Its path is in the variable FOLDER, its last component in NAME: the
/// name of each application ends with that. So its dump files are found, and removed after the row.
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
    /// Skips the row where the script \a need fails or prints something. Then the row must return.
    [[nodiscard]] bool lacks(const QByteArray &need);

private:
    int rows = 0; // that have run
    std::unique_ptr<QTemporaryDir> folder;
};

/// Run by itself, a test program starts again inside tests/own-tmp.sh.
#define TEST_MAIN(Test)                                                                            \
    int main(int argc, char *argv[])                                                               \
    {                                                                                              \
        return Test().runRows(argc, argv);                                                         \
    }
