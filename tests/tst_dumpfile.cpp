#include "dump/dumpfile.h"
#include "tests/support.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QtTest>

using namespace Qt::StringLiterals;

class DumpFileTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theFolderIsChosen_data()
    {
        QTest::addColumn<QString>("given"); // below the test's folder
        QTest::addColumn<bool>("usesTemporaryFolder");
        QTest::newRow("a folder that exists") << u""_s << false;
        QTest::newRow("a closing slash is doubled") << u"/"_s << false;
        QTest::newRow("missing parents are created") << u"/a/b"_s << false;
        QTest::newRow("below a file nothing can be created") << u"/file/%1"_s << true;
        QTest::newRow("a file counts as a folder that exists") << u"/file"_s << false;
    }
    void theFolderIsChosen()
    {
        QFETCH(const QString, given);
        QFETCH(const bool, usesTemporaryFolder);
        const TestFolder folder;
        writeFile(folder.path(u"file"_s), "mine");
        qputenv("TMPDIR", QFile::encodeName(folder.path()));
        const QString directory = folder.path() + given;

        const LogCapture log;
        const DumpFile dump(u"mail"_s, u"SIGSEGV"_s, directory);
        static const QRegularExpression name(u"/\\d{8}_\\d{9}\\.dump$"_s);
        const QString used = QString(dump.dumpFilePath()).remove(name);
        QCOMPARE(used, usesTemporaryFolder ? folder.path() : directory);
        const QStringList complaints
            = logLines({u"critical Failed to create dump directory: \"%1\""_s.arg(directory),
                        u"warning \"mkpath [%1] failed\""_s.arg(directory)})
                  .first(usesTemporaryFolder ? 2 : 0);
        QCOMPARE(LogCapture::lines().first(complaints.size()), complaints);
        QCOMPARE(QFileInfo::exists(dump.dumpFilePath()), given != u"/file"_s);
        QCOMPARE(contentOf(folder.path(u"file"_s)), QByteArray("mine"));
    }

    void textsAreAppendedThoughOneIsLost()
    {
        const TestFolder folder;
        DumpFile dump(u"Pöst%2b%1"_s, u"%1%3"_s, folder.path(u"dumps"_s));
        const QString path = dump.dumpFilePath();
        QVERIFY(dump.writeMessage(u"é"_s) && dump.writeMessage({}) && dump.writeMessage(u"\n"_s));
        QCOMPARE(contentOf(path), dumpHeader("Pöst%2b%1", "%1%3") + "é\n");

        QVERIFY(QDir(folder.path(u"dumps"_s)).removeRecursively());
        QVERIFY(!dump.writeMessage(u"lost"_s));
        QVERIFY(!QFileInfo::exists(folder.path(u"dumps"_s)));
        QDir().mkdir(folder.path(u"dumps"_s));
        QVERIFY(dump.writeMessage(u"kept"_s));
        QCOMPARE(contentOf(path), QByteArray("kept"));
        QCOMPARE(dump.dumpFilePath(), path);
    }
};

QTEST_GUILESS_MAIN(DumpFileTest)
#include "tst_dumpfile.moc"
