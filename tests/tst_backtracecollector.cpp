#include "backtrace/backtracecollector.h"
#include "tests/support.h"

#include <QFileInfo>
#include <QSignalSpy>
#include <QtTest>

#include <csignal>
#include <optional>

using namespace Qt::StringLiterals;

class BacktraceCollectorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theDebuggerIsToldWhatToDoAndHeardInFull()
    {
        const TestFolder folder;
        folder.writeDebugger(R"(printf '<%s>' "$@" >&2; cat "$5")");
        BacktraceCollector collector;
        QString chunks;
        connect(&collector, &BacktraceCollector::backtraceChunk, this,
                [&](const QString &chunk) { chunks += chunk; });
        const QSignalSpy backtraces(&collector, &BacktraceCollector::backtrace);
        collector.start(4'294'967'296);
        QTRY_COMPARE(backtraces.size(), 1);
        const QString output = backtraces.at(0).at(0).toString();
        QCOMPARE(chunks, output);
        const QString commandFile = output.section(u'<', 5, 5).section(u'>', 0, 0);
        QVERIFY(QFileInfo(commandFile).isAbsolute());
        QCOMPARE(output,
                 u"<--nw><--nx><--batch><--command><%1><--pid><4294967296>"_s.arg(commandFile)
                     + u"set height 0\nset width 0\nthread\nthread apply all backtrace full\n"_s);
    }

    void aDebuggerThatRunsEndsInSilenceWithItsCollector()
    {
        const TestFolder folder;
        folder.writeDebugger("echo $$ $5; exec sleep 1000");
        std::optional<BacktraceCollector> collector(std::in_place);
        const QSignalSpy chunks(&*collector, &BacktraceCollector::backtraceChunk);
        const QSignalSpy backtraces(&*collector, &BacktraceCollector::backtrace);
        const QSignalSpy errors(&*collector, &BacktraceCollector::error);
        collector->start(1);
        QVERIFY(!collector->isRunning());
        QTRY_COMPARE(chunks.size(), 1);
        QVERIFY(collector->isRunning());
        const QStringList answer = chunks.at(0).at(0).toString().simplified().split(u' ');
        QVERIFY(QFileInfo::exists(answer.at(1)));

        collector.reset();
        QCOMPARE(chunks.size() + backtraces.size() + errors.size(), 1);
        QCOMPARE(::kill(answer.at(0).toInt(), 0), -1);
        QVERIFY(!QFileInfo::exists(answer.at(1)));
    }
};

QTEST_GUILESS_MAIN(BacktraceCollectorTest)
#include "tst_backtracecollector.moc"
