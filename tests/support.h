#pragma once

#include <QtTest> // with all of Qt Core

using namespace Qt::StringLiterals;

inline constexpr int timeLimit = 60'000; // ms; reached only when something is broken

/// Returns nothing for what cannot be read.
[[nodiscard]] QByteArray contentOf(const QString &path);

/// Runs \a script. Returns what it prints, and then its exit status, unless that is 0.
QByteArray shell(const QByteArray &script);

/// Makes the shell script \a name.
void writeProgram(const QString &name, const QByteArray &script);

/// Runs \a script, for bash, in a session of its own, with \a variables besides those that the
/// tests set, until it and all that it has started have ended. Fails the row if they do not. Their
/// standard output goes into the file "output", their standard error into "log". Returns the exit
/// status as a shell counts: 128 + signal.
int runToEnd(const QByteArray &script, const QStringList &variables = {});

/// The contents of the row's dump files, in the order of their names.
QByteArray dumps();

/// Fails the row with the differences of the two texts, if there are any.
void compare(const QByteArray &got, const QByteArray &expected);

/// Each row has a folder of its own, which is the current one, the first on the search path, and
/// the one for temporary files. Its path is in the variable FOLDER, its last component in NAME. A
/// dump file that has this name in it is the row's, and is removed after it.
class TestInFolder : public QObject
{
    Q_OBJECT

protected Q_SLOTS:
    void init();
    void cleanup();

private:
    std::unique_ptr<QTemporaryDir> folder;
    bool hadDumpFolder = false;
};
