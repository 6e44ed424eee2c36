#include "tests/support.h"

#include <QDir>
#include <QFile>
#include <QtTest>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr char dumpFolder[] = "/tmp/vastel-mail";
bool privateTmp = false;
QStringList capturedLines;
QtMessageHandler earlierHandler = nullptr;

void capture(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    static const QHash<QtMsgType, QString> levels{{QtDebugMsg, u"debug"_s},
                                                  {QtInfoMsg, u"info"_s},
                                                  {QtWarningMsg, u"warning"_s},
                                                  {QtCriticalMsg, u"critical"_s}};
    capturedLines.append(
        QStringList{QString::fromLatin1(context.category), levels.value(type), message}.join(u' '));
}

bool unshareMounts()
{
    if (::geteuid() == 0)
        return ::unshare(CLONE_NEWNS) == 0;
    // Everybody stays who he is: the tests are to show what an ordinary user meets.
    const QByteArray user = QByteArray::number(::geteuid());
    const QByteArray group = QByteArray::number(::getegid());
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
        return false;
    writeFile(u"/proc/self/setgroups"_s, "deny");
    writeFile(u"/proc/self/uid_map"_s, user + ' ' + user + " 1");
    writeFile(u"/proc/self/gid_map"_s, group + ' ' + group + " 1");
    return true;
}

/// The build may lie in /tmp itself; then it must stay reachable under its path.
bool mountEmptyTmp()
{
    const int build = ::open(BUILD_FOLDER, O_PATH | O_CLOEXEC);
    const QByteArray source = "/proc/self/fd/" + QByteArray::number(build);
    const bool mounted = ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
        && ::mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") == 0
        && (std::strncmp(BUILD_FOLDER, "/tmp/", 5) != 0
            || (QDir().mkpath(QStringLiteral(BUILD_FOLDER))
                && ::mount(source.constData(), BUILD_FOLDER, nullptr, MS_BIND, nullptr) == 0));
    ::close(build);
    return mounted;
}

} // namespace

void enterPrivateTmp()
{
    ::closefrom(STDERR_FILENO + 1);
    privateTmp = unshareMounts() && mountEmptyTmp();
    if (!privateTmp)
        qWarning("Using the machine's own /tmp: %s", std::strerror(errno));
}

bool hasPrivateTmp()
{
    return privateTmp;
}

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
    : earlierDumps(dumps())
{
    qputenv("PATH", QFile::encodeName(folder.path()) + ":/usr/bin:/bin");
    qunsetenv("TMPDIR");
}

TestFolder::~TestFolder()
{
    qputenv("PATH", searchPath);
    qunsetenv("TMPDIR");
    // A test may have mounted something on the folder of the dumps, or put a file in its place.
    if (privateTmp && ::umount2(dumpFolder, MNT_DETACH) != 0)
        QFile::remove(QLatin1StringView(dumpFolder));
    for (const QString &dump : dumps()) {
        if (!earlierDumps.contains(dump))
            QFile::remove(dump);
    }
    QDir().rmdir(QLatin1StringView(dumpFolder)); // refused while somebody's dumps are in it
}

QString TestFolder::path(const QString &name) const
{
    return name.isEmpty() ? folder.path() : folder.filePath(name);
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

QStringList dumps()
{
    const QString folder = QString::fromLatin1(dumpFolder);
    return QDir(folder)
        .entryList({u"*.dump"_s}, QDir::Files)
        .replaceInStrings(QRegularExpression(u"^"_s), folder + u'/');
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
