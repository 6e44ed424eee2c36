// How files are written and read, and what every report begins with.

#include "dump/dumpfile.h"
#include "tests/support.h"
#include "util/files.h"

#include <sys/stat.h>

class FilesTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void appendedFilesArePrivateWhateverTheUmask_data()
    {
        QTest::addColumn<int>("mask");
        QTest::newRow("that takes all rights") << 0777;
        QTest::newRow("that takes no rights") << 0;
    }
    void appendedFilesArePrivateWhateverTheUmask()
    {
        QFETCH(const int, mask);
        const mode_t earlierMask = ::umask(mode_t(mask));
        const bool isWritten = writeToFile(u"file"_s, "a\r\n") && writeToFile(u"file"_s, {})
            && writeToFile(u"file"_s, "b\0\xfc"_ba);
        QCOMPARE(::umask(earlierMask), mode_t(mask));
        QVERIFY(isWritten);
        QCOMPARE(shell("test $(stat -c %a file) = 600"), 0);
        QCOMPARE(readBinaryFile(u"file"_s), "a\r\nb\0\xfc"_ba);
        QCOMPARE(readFile(u"file"_s), "a\nb\0\xfc"_ba);
    }

    void aFailedWriteIsReported()
    {
        const QStringList &log = keepLog();
        QVERIFY(writeToFile(u"/dev/full"_s, "lost when the file is closed"));
        QVERIFY(!writeToFile(u"/dev/full"_s, QByteArray(1'000'000, 'x')));
        QCOMPARE(log.constLast(), u"debug Wrote -1 bytes to file: \"/dev/full\""_s);
    }

    void anotherProcessCanAppendMeanwhileAndDoesNotInheritTheFile()
    {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &text) {
            if (text.startsWith(u"Wrote")) // and the file is still open
                QCOMPARE(shell("echo second >> file; ! ls -l /proc/self/fd | grep -q /file"), 0);
        });
        QVERIFY(writeToFile(u"file"_s, "first\n"));
        QCOMPARE(contentOf(u"file"_s), QByteArray("second\nfirst\n"));
    }

    void whatAnotherUserCanHavePlantedIsRefused_data()
    {
        QTest::addColumn<QByteArray>("planted");
        QByteArrayList commands{"mkdir file", "mkfifo file", "ln mine file", "ln -s mine file",
                                "ln -s nothing file"};
        // Only root can make these, and not in every container.
        for (const char *command : {"touch file && chown 12345 file", "mknod file b 7 200"}) {
            const QTemporaryDir trial;
            if (shell("cd " + QFile::encodeName(trial.path()) + " && " + command + " 2> trial")
                == 0)
                commands.append(command);
        }
        for (const QByteArray &command : std::as_const(commands))
            QTest::newRow(command.constData()) << command;
    }
    void whatAnotherUserCanHavePlantedIsRefused()
    {
        QFETCH(const QByteArray, planted);
        QCOMPARE(shell("echo 1 > mine; " + planted), 0);
        QVERIFY(!writeToFile(u"file"_s, "secret"));
        QCOMPARE(contentOf(u"mine"_s), QByteArray("1\n"));
        QVERIFY(!QFile::exists(u"nothing"_s));
    }

    void aReportBeginsWithTheNamesAsTheyAre()
    {
        DumpFile dump(u"Pöst%2b%1"_s, u"%1%3"_s, u"./a/dumps/"_s);
        QVERIFY(dump.dumpFilePath().startsWith(u"./a/dumps//2"));
        const QByteArray header = contentOf(dump.dumpFilePath());
        QVERIFY(header.startsWith("Pöst%2b%1 has closed unexpectedly (Signal \"%1%3\")\nplease"));
        QVERIFY(header.contains(".\nPöst%2b%1, based on Qt "));
        QVERIFY(dump.writeMessage(u"é"_s) && dump.writeMessage({}) && dump.writeMessage(u"\n"_s));
        QCOMPARE(contentOf(dump.dumpFilePath()), header + "é\n");
    }
};

int main(int argc, char *argv[])
{
    return testMain<FilesTest>(argc, argv);
}

#include "tst_files.moc"
