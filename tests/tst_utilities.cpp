#include "tests/support.h"
#include "util/files.h"

#include <QFileInfo>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class UtilitiesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void wholeFilesAreRead()
    {
        const TestFolder folder;
        const QString path = folder.path(u"file"_s);
        writeFile(path, {});
        QCOMPARE(readFile(path), QByteArray());
        const QByteArray content("a\r\n\0\xfc\r\n", 7);
        writeFile(path, content);
        QCOMPARE(readBinaryFile(path), content);
        const LogCapture log;
        QCOMPARE(readFile(path), QByteArray("a\n\0\xfc\n", 5));
        QCOMPARE(LogCapture::lines(),
                 logLines({u"debug Reading file contents: \"%1\""_s.arg(path),
                           u"debug Successfully read file: \"%1\""_s.arg(path)}));
    }

    void dataIsAppendedForItsOwnerAlone()
    {
        const TestFolder folder;
        const QString path = folder.path(u"file"_s);
        const mode_t umaskThatTakesEveryRight = 0777;
        const mode_t earlierMask = ::umask(umaskThatTakesEveryRight);
        const LogCapture log;
        const bool written = writeToFile(path, "a\r\n") && writeToFile(path, {})
            && writeToFile(path, QByteArray("b\0c", 3));
        QCOMPARE(::umask(earlierMask), umaskThatTakesEveryRight);
        QVERIFY(written);
        QCOMPARE(contentOf(path), QByteArray("a\r\nb\0c", 6));
        QCOMPARE(LogCapture::lines().sliced(2, 2),
                 logLines({u"debug Writing to file: \"%1\""_s.arg(path),
                           u"debug Wrote 0 bytes to file: \"%1\""_s.arg(path)}));
        QCOMPARE(QFile::permissions(path),
                 QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser);
    }

    void whatMayNotBeWrittenToCannotBeOpened_data()
    {
        QTest::addColumn<QString>("preparation"); // by the shell
        QTest::addColumn<QString>("path"); // below the test's folder
        QTest::newRow("no folder") << u":"_s << u"x/file"_s;
        QTest::newRow("a folder") << u"mkdir file"_s << u"file"_s;
        QTest::newRow("a symbolic link") << u"ln -s target file"_s << u"file"_s;
        QTest::newRow("a symbolic link to nothing") << u"ln -s nothing file"_s << u"file"_s;
        QTest::newRow("a second name") << u"ln target file"_s << u"file"_s;
        QTest::newRow("a FIFO") << u"mkfifo file"_s << u"file"_s;
        if (::geteuid() == 0) // nobody else can make such a file
            QTest::newRow("somebody else's") << u"touch file; chown nobody file"_s << u"file"_s;
    }
    void whatMayNotBeWrittenToCannotBeOpened()
    {
        QFETCH(const QString, preparation);
        const TestFolder folder;
        writeFile(folder.path(u"target"_s), "mine");
        const QString script = u"cd '%1'; "_s.arg(folder.path()) + preparation;
        QCOMPARE(QProcess::execute(u"/bin/sh"_s, {u"-c"_s, script}), 0);
        QFETCH(QString, path);
        path = folder.path(path);
        const LogCapture log;
        QVERIFY(!writeToFile(path, "secret"));
        QCOMPARE(LogCapture::lines(),
                 logLines({u"debug Writing to file: \"%1\""_s.arg(path),
                           u"critical Failed to open file for writing: \"%1\""_s.arg(path),
                           u"warning Warning: Could not open  \"%1\""_s.arg(path)}));
        QCOMPARE(contentOf(folder.path(u"target"_s)), QByteArray("mine"));
        QVERIFY(!QFileInfo::exists(folder.path(u"nothing"_s)));
    }

    void aDeviceIsWrittenTo()
    {
        const LogCapture log;
        QVERIFY(writeToFile(u"/dev/full"_s, "lost when the file is closed"));
        QVERIFY(!writeToFile(u"/dev/full"_s, QByteArray(1'000'000, 'x')));
        QCOMPARE(LogCapture::lines().last(1),
                 logLines({u"debug Wrote -1 bytes to file: \"/dev/full\""_s}));
    }
};

QTEST_GUILESS_MAIN(UtilitiesTest)
#include "tst_utilities.moc"
