#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

inline constexpr int patience = 60'000; // ms; reached only when something is broken

/// Collects the log of this process while it lives: "category level text" a line.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    static QStringList lines();
};

/// A folder for one test, in front on the search path. At its end it is removed with what has come into the
/// folder of the dumps, and the environment is as before.
class TestFolder
{
public:
    TestFolder();
    ~TestFolder();

    [[nodiscard]] QString path(const QString &name = {}) const;
    /// The paths of the dumps that have come since, the oldest first.
    [[nodiscard]] QStringList dumps() const;
    /// Writes an executable stand-in for the debugger: a shell script, unless \a body begins with "#!".
    void writeDebugger(const QByteArray &body) const;

private:
    QTemporaryDir folder;
    QByteArray searchPath = qgetenv("PATH");
    QStringList earlierDumps;
};

/// The path of a program of this build, such as "crash-handler".
QString program(const QString &name);

QByteArray contentOf(const QString &path);
void writeFile(const QString &path, const QByteArray &content);

/// What every dump of this build and machine begins with.
QByteArray dumpHeader(const QByteArray &appName, const QByteArray &signalName);

/// Lines as LogCapture has them, all of the program's own category.
QStringList logLines(const QStringList &levelsAndTexts);
