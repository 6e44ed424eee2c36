#pragma once

#include <QtTest> // with all of Qt Core

using namespace Qt::StringLiterals;

inline constexpr int patience = 60'000; // ms; reached only when something is broken
inline const QString dumpFolder = u"/tmp/vastel-mail"_s;
inline const bool hasOwnTmp = qEnvironmentVariableIsSet("OWN_TMP"); // by private-tmp.sh

inline QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Returns the exit code of \a script.
inline int shell(const QByteArray &script)
{
    return QProcess::execute(u"/bin/sh"_s, {u"-c"_s, QString::fromUtf8(script)});
}

/// Makes the program \a name, in place of an earlier one that may still run.
inline void writeProgram(const QByteArray &name, const QByteArray &script)
{
    QCOMPARE(shell("cat > new << 'END'\n" + script + "\nEND\nchmod +x new; mv new " + name), 0);
}

/// Each function of a test has a folder of its own, the current one and first on the search path.
class TestInFolder : public QObject
{
    Q_OBJECT

protected Q_SLOTS:
    void init()
    {
        if (QFile::exists(dumpFolder))
            QSKIP("needs a /tmp of its own, or one without /tmp/vastel-mail");
        qunsetenv("TMPDIR");
        folder = std::make_unique<QTemporaryDir>();
        QDir::setCurrent(folder->path());
        qputenv("TMPDIR", path());
        qputenv("PATH", path() + ":/bin:/usr/bin");
    }
    void cleanup()
    {
        qInstallMessageHandler(nullptr);
        if (folder) // init() has found no folder of dump files
            shell(hasOwnTmp ? "rm -rf /tmp/vastel-mail /tmp/full/*" : "rm -rf /tmp/vastel-mail");
        folder.reset();
    }

protected:
    [[nodiscard]] QByteArray path() const { return QFile::encodeName(folder->path()); }

private:
    std::unique_ptr<QTemporaryDir> folder;
};
