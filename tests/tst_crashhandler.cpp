#include "crash/crashhandler.h"
#include "tests/support.h"

#include <QProcess>
#include <QtTest>

#include <csignal>

using namespace Qt::StringLiterals;

class CrashHandlerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void withoutACommandLineNothingIsStarted()
    {
        const TestFolder folder;
        const LogCapture log;
        CrashHandler handler(5'000'000, u"mail"_s, u"11"_s, false); // above any pid_max, proc(5)
        QVERIFY(QMetaObject::invokeMethod(&handler, "restartApplication"));
        QCOMPARE(
            LogCapture::lines().last(5),
            logLines({u"warning Unexpected format in file:  \"/proc/5000000/cmdline\""_s,
                      u"warning Unable to restart"_s, u"info command line: QList()"_s,
                      u"info environment: QList()"_s, u"info Preparing to restart application"_s}));
    }

    void debuggingStartsTheProgramWithThePid_data()
    {
        QTest::addColumn<bool>("collects");
        QTest::newRow("during a collection, which is aborted") << true;
        QTest::newRow("without one, which leaves the dump alone") << false;
    }
    void debuggingStartsTheProgramWithThePid()
    {
        QFETCH(const bool, collects);
        const TestFolder folder;
        folder.writeDebugger("echo $$; exec sleep 1000");
        QProcess crashed;
        crashed.start(u"/bin/cat"_s, QStringList(u"-"_s));
        QTRY_VERIFY(!contentOf(u"/proc/%1/cmdline"_s.arg(crashed.processId())).isEmpty());
        const LogCapture log;
        CrashHandler handler(crashed.processId(), u"mail"_s, u"11"_s, false);
        const QString dump = folder.dumps().constLast();
        const QByteArray header = contentOf(dump);
        if (collects) {
            handler.run();
            QTRY_VERIFY(contentOf(dump).size() > header.size());
        }
        const QByteArray before = contentOf(dump);

        QVERIFY(QMetaObject::invokeMethod(&handler, "debugApplication"));
        QCOMPARE(contentOf(dump),
                 before + (collects ? "\n\nCollecting backtrace aborted by user." : ""));
        const QString arguments = u"QList(\"-debug\", \"%1\")"_s.arg(crashed.processId());
        QCOMPARE(LogCapture::lines().last(1),
                 logLines({u"info Starting detached process: \"/bin/cat\" with arguments: "_s
                           + arguments}));
        if (collects)
            QTRY_COMPARE(::kill(before.sliced(header.size()).trimmed().toInt(), 0), -1);
        crashed.closeWriteChannel();
        QVERIFY(crashed.waitForFinished());
    }
};

QTEST_GUILESS_MAIN(CrashHandlerTest)
#include "tst_crashhandler.moc"
