// What the owner of a collector sees; tst_program shows what the debugger sees.

#include "backtrace/backtracecollector.h"
#include "tests/support.h"

#include <csignal>

class BacktraceCollectorTest : public TestInFolder
{
    Q_OBJECT

private Q_SLOTS:
    void aDebuggerThatRunsIsKilledWithoutASignalWhenItsCollectorIsDestroyed()
    {
        writeProgram("gdb", "echo $$ $5 $7; exec sleep 1000\n");
        auto collector = std::make_unique<BacktraceCollector>();
        const QSignalSpy chunks(collector.get(), &BacktraceCollector::backtraceChunk);
        const QSignalSpy backtraces(collector.get(), &BacktraceCollector::backtrace);
        const QSignalSpy errors(collector.get(), &BacktraceCollector::error);
        collector->start(4'294'967'296);
        QVERIFY(!collector->isRunning());
        QTRY_COMPARE_WITH_TIMEOUT(chunks.size(), 1, patience);
        QVERIFY(collector->isRunning());
        const QStringList answer = chunks.at(0).at(0).toString().simplified().split(u' ');
        QVERIFY(QFile::exists(answer.at(1)));
        QCOMPARE(answer.at(2), u"4294967296"_s);

        collector.reset();
        QCOMPARE(chunks.size() + backtraces.size() + errors.size(), 1);
        QCOMPARE(::kill(answer.at(0).toInt(), 0), -1);
        QVERIFY(!QFile::exists(answer.at(1)));
    }

    void aDebuggerWithoutCommandsIsNotHeardButTheNextOneIs()
    {
        qputenv("TMPDIR", "/proc");
        writeProgram("gdb", "echo unheard; exec sleep 1000");
        BacktraceCollector collector;
        const QSignalSpy chunks(&collector, &BacktraceCollector::backtraceChunk);
        const QSignalSpy errors(&collector, &BacktraceCollector::error);
        collector.start(1);
        QTRY_VERIFY_WITH_TIMEOUT(collector.isRunning(), patience);
        collector.kill();
        QTRY_VERIFY_WITH_TIMEOUT(!collector.isRunning(), patience);
        QCOMPARE(chunks.size() + errors.size(), 1);
        qputenv("TMPDIR", path());
        writeProgram("gdb", "echo heard");
        collector.start(1);
        QTRY_COMPARE_WITH_TIMEOUT(chunks.size(), 1, patience);
    }
};

int main(int argc, char *argv[])
{
    return testMain<BacktraceCollectorTest>(argc, argv);
}

#include "tst_backtracecollector.moc"
