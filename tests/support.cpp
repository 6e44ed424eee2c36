#include "tests/support.h"

#include <QDir>
#include <QFile>
#include <QtTest>

using namespace Qt::StringLiterals;

namespace {

constexpr char dumpFolder[] = "/tmp/vastel-mail";
QStringList capturedLines;
QtMessageHandler earlierHandler = nullptr;

void capture(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    // In the order of the enumeration.
    static const QStringList levels{u"debug"_s, u"warning"_s, u"critical"_s, u"fatal"_s, u"info"_s};
    capturedLines.append(
        QStringList{QString::fromLatin1(context.category), levels.value(type), message}.join(u' '));
}

QStringList allDumps()
{
    const QString folder = QString::fromLatin1(dumpFolder);
    return QDir(folder)
        .entryList({u"*.dump"_s}, QDir::Files)
        .replaceInStrings(QRegularExpression(u"^"_s), folder + u'/');
}

} // namespace

LogCapture::LogCapture()
{
    capturedLines.clear();
    earlierHandler = qInstallMessageHandler(capture);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(earlierHandler);
}

QStringList LogCapture::lines()
{
    return capturedLines;
}

TestFolder::TestFolder()
    : earlierDumps(allDumps())
{
    qputenv("PATH", QFile::encodeName(folder.path()) + ":/usr/bin:/bin");
    qunsetenv("TMPDIR");
}

TestFolder::~TestFolder()
{
    qputenv("PATH", searchPath);
    qunsetenv("TMPDIR");
    for (const QString &dump : dumps())
        QFile::remove(dump);
    // A test may have put something else in its place; a folder is kept while somebody's dumps are in it.
    if (!QFile::remove(QLatin1StringView(dumpFolder)))
        QDir().rmdir(QLatin1StringView(dumpFolder));
}

QString TestFolder::path(const QString &name) const
{
    return name.isEmpty() ? folder.path() : folder.filePath(name);
}

QStringList TestFolder::dumps() const
{
    QStringList paths = allDumps();
    paths.removeIf([this](const QString &path) { return earlierDumps.contains(path); });
    return paths;
}

void TestFolder::writeDebugger(const QByteArray &body) const
{
    writeFile(path(u"gdb"_s), (body.startsWith("#!") ? body : "#!/bin/sh\n" + body) + '\n');
    QFile::setPermissions(path(u"gdb"_s), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

QString program(const QString &name)
{
    return QStringLiteral(BUILD_FOLDER "/") + name;
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered)
        || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(path));
}

QByteArray dumpHeader(const QByteArray &appName, const QByteArray &signalName)
{
    const auto systemText
        = [](const QString &path) { return QString::fromLatin1(contentOf(path)).toUtf8(); };
    return appName + " has closed unexpectedly (Signal \"" + signalName + "\")\n"
        + "please file a bug report with the debug information provided below.\n" + appName
        + ", based on Qt " QT_VERSION_STR " (" + QByteArray::number(8 * sizeof(void *))
        + " bit)\n\n" + systemText(u"/etc/lsb-release"_s) + '\n' + systemText(u"/proc/version"_s)
        + '\n';
}

QStringList logLines(const QStringList &levelsAndTexts)
{
    return QStringList(levelsAndTexts)
        .replaceInStrings(QRegularExpression(u"^"_s), u"org.vastel.mail.crashhandler "_s);
}
