// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "literals.h"
#include "logcapture.h"
#include "recordscenario.h"
#include "testtree.h"
#include "updaterestart.h"

#include <QtTest>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <optional>
#include <utility>

using Start = RecordScenario::Start;

namespace {

/// The kinds of calls that change something on the disk.
const QByteArray Changes("create,write,sync,rename,link,remove,mkdir,mode,truncate,copy");

/// What a campaign does at each point.
struct Campaign
{
    QString build;
    QStringList arguments; ///< of updatecall
    std::function<void()> lay;
    /// What is wrong after a run; @p at: the point, from which on different things are tried next.
    std::function<QString(const FaultRun &run, int at)> problem;
};

/// A row takes all points, or each so-and-so-many-th of them where there is no time.
int stepOf(int everyday)
{
    return qEnvironmentVariableIsSet("PELLOX_ALL_CRASH_POINTS") ? 1 : everyday;
}

void addErrors()
{
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<int>("error");
    const QByteArray all = Changes + ",close";
    for (const auto &[name, error] :
        {std::pair("ENOSPC", ENOSPC), {"EIO", EIO}, {"EACCES", EACCES}, {"EPERM", EPERM}})
        QTest::newRow(name) << all << error;
    QTest::newRow("reading, EIO") << QByteArray("open,read,list") << EIO;
}

/// Whether the run has ended with a result, and told what went wrong if it was none.
QString problemOfEnd(const FaultRun &run, const QString &folder)
{
    const QString errors = QString::fromLocal8Bit(run.output + run.errors);
    if (run.crashed || run.status > 1)
        return "ends with status %1: %2"_s.arg(run.status).arg(errors);
    if ((run.status == 0) != errors.isEmpty())
        return "ends with status %1: %2"_s.arg(run.status).arg(errors);
    if (!errors.isEmpty() && !errors.startsWith(folder))
        return "names no file: "_s + errors;
    return QString();
}

QString firstOf(const QStringList &problems)
{
    const auto isProblem = [](const QString &text) { return !text.isEmpty(); };
    const auto first = std::find_if(problems.cbegin(), problems.cend(), isProblem);
    return first == problems.cend() ? QString() : *first;
}

} // namespace

/// Discarding what is kept and recording a release change nothing but what stands beside a build.
/// They are killed at each call that changes something on the disk, and each such call fails.
class tst_RecordCrash : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { useMemoryForFiles(); }
    void cleanupTestCase() { qInfo("%d runs with a fault", m_points); }
    void init() { m_log.emplace(); }
    void cleanup();

    void discardingKilledAtAnyCall_data();
    void discardingKilledAtAnyCall();
    void anyCallOfADiscardingMayFail_data();
    void anyCallOfADiscardingMayFail();
    void recordingKilledAtAnyCall_data();
    void recordingKilledAtAnyCall();
    void anyCallOfARecordingMayFail_data();
    void anyCallOfARecordingMayFail();

private:
    void killAtAnyCall(const Campaign &campaign, int everyday);
    void failAtAnyCall(const Campaign &campaign, const QByteArray &calls, int error, int everyday);
    void carryOut(const Campaign &campaign, Faults faults, int step);

    std::optional<LogCapture> m_log;
    int m_points = 0; ///< at which a run was killed or a call has failed
};

void tst_RecordCrash::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

/// Up to and with a run that gets by without a fault.
void tst_RecordCrash::carryOut(const Campaign &campaign, Faults faults, int step)
{
    constexpr int Enough = 25;
    faults.path = campaign.build;
    faults.unsynced = true;
    QStringList problems;
    const int before = m_points;
    for (bool met = true; met; faults.at += step) {
        campaign.lay();
        const FaultRun run
            = runWithFaults(QStringLiteral(UPDATECALL_PROGRAM), campaign.arguments, faults);
        met = run.calls.size() >= faults.at;
        m_points += met ? 1 : 0;
        QString problem = campaign.problem(run, faults.at);
        if (!met && run.status != 0)
            problem = "ends with status %1"_s.arg(run.status);
        if (!problem.isEmpty() && problems.size() < Enough)
            problems.append(
                "%1 (%2): "_s.arg(run.calls.value(faults.at - 1)).arg(faults.at) + problem);
    }
    QVERIFY2(m_points > before, "no points");
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join("\n    "_s)));
}

void tst_RecordCrash::killAtAnyCall(const Campaign &campaign, int everyday)
{
    carryOut(campaign, {QString(), Changes, 1, "kill"}, stepOf(everyday));
}

void tst_RecordCrash::failAtAnyCall(
    const Campaign &campaign, const QByteArray &calls, int error, int everyday)
{
    const int step = stepOf(everyday);
    carryOut(campaign, {QString(), calls, 1 + error % step, QByteArray::number(error)}, step);
}

void tst_RecordCrash::discardingKilledAtAnyCall_data()
{
    QTest::addColumn<bool>("isUnfinished");
    QTest::addColumn<QString>("next");
    for (const char *next : {"discard", "rollback", "update"}) {
        QTest::addRow("then %s", next) << false << QString::fromLatin1(next);
        QTest::addRow("of an interrupted update, then %s", next)
            << true << QString::fromLatin1(next);
    }
}

namespace {

/// The new build, with the old one kept; or on the way there.
void layKept(UpdateScenario &scenario, bool isUnfinished)
{
    if (isUnfinished)
        return layInterrupted(scenario, "update-keeping"_s);
    scenario.lay();
    QVERIFY(isGood(scenario.update(true).result));
}

/// What is there although @p run has said that it is discarded.
QString problemOfSuccess(const UpdateScenario &scenario, const FaultRun &run)
{
    const bool isDone = !run.crashed && run.status == 0;
    const bool isLeft = scenario.hasJournal() || scenario.tree().exists("build/.pellox/previous"_s)
        || scenario.tree().exists("build/.pellox/previous.json"_s);
    return isDone && isLeft ? "says that it has discarded"_s : QString();
}

} // namespace

/// The old build can be brought back as a whole or not at all.
void tst_RecordCrash::discardingKilledAtAnyCall()
{
    QFETCH(bool, isUnfinished);
    QFETCH(QString, next);
    UpdateScenario scenario;
    const Campaign campaign{scenario.build(), {"1"_s, "discard"_s, scenario.build()},
        [&] { layKept(scenario, isUnfinished); },
        [&](const FaultRun &run, int) {
            return firstOf({problemOfSuccess(scenario, run), scenario.brokenPromise(),
                problemAfterDiscarding(scenario, next)});
        }};
    killAtAnyCall(campaign, isUnfinished ? 13 : 5);
}

void tst_RecordCrash::anyCallOfADiscardingMayFail_data()
{
    addErrors();
}

void tst_RecordCrash::anyCallOfADiscardingMayFail()
{
    QFETCH(QByteArray, calls);
    QFETCH(int, error);
    UpdateScenario scenario;
    const QStringList next{"discard"_s, "rollback"_s, "update"_s};
    const Campaign campaign{scenario.build(), {"1"_s, "discard"_s, scenario.build()},
        [&] { layKept(scenario, false); },
        [&](const FaultRun &run, int at) {
            return firstOf({problemOfEnd(run, scenario.build()), problemOfSuccess(scenario, run),
                scenario.brokenPromise(),
                problemAfterDiscarding(scenario, next.at(at % next.size()))});
        }};
    failAtAnyCall(campaign, calls, error, 9);
}

void tst_RecordCrash::recordingKilledAtAnyCall_data()
{
    QTest::addColumn<Start>("start");
    QTest::addColumn<bool>("thenUpdate");
    QTest::newRow("no record, then again") << Start::NoRecord << false;
    QTest::newRow("no record, then update") << Start::NoRecord << true;
    QTest::newRow("older record, then again") << Start::OlderRecord << false;
    QTest::newRow("older record, then update") << Start::OlderRecord << true;
    QTest::newRow("torn record, then again") << Start::TornRecord << false;
    QTest::newRow("interrupted update, then again") << Start::Unfinished << false;
    QTest::newRow("interrupted update, then update") << Start::Unfinished << true;
}

/// The record is the one before or the right one, and tells of no build that is not there.
void tst_RecordCrash::recordingKilledAtAnyCall()
{
    QFETCH(Start, start);
    QFETCH(bool, thenUpdate);
    RecordScenario scenario;
    if (!scenario.isSealed())
        QSKIP("built without libcrypto");
    const Campaign campaign{scenario.scenario().build(), scenario.arguments(),
        [&] { scenario.lay(start); },
        [&](const FaultRun &, int) {
            return firstOf({scenario.brokenPromise(), scenario.problemOfNext(thenUpdate)});
        }};
    killAtAnyCall(campaign, start == Start::Unfinished ? 3 : 2);
}

void tst_RecordCrash::anyCallOfARecordingMayFail_data()
{
    addErrors();
}

void tst_RecordCrash::anyCallOfARecordingMayFail()
{
    QFETCH(QByteArray, calls);
    QFETCH(int, error);
    RecordScenario scenario;
    if (!scenario.isSealed())
        QSKIP("built without libcrypto");
    const Campaign campaign{scenario.scenario().build(), scenario.arguments(),
        [&] { scenario.lay(Start::OlderRecord); },
        [&](const FaultRun &run, int at) {
            const bool isWrong = run.status == 0 && !scenario.isRecorded();
            return firstOf({problemOfEnd(run, scenario.scenario().tree().path()),
                isWrong ? "says that it has recorded"_s : QString(), scenario.brokenPromise(),
                scenario.problemOfNext(at % 2 == 0)});
        }};
    failAtAnyCall(campaign, calls, error, 3);
}

QTEST_GUILESS_MAIN(tst_RecordCrash)

#include "tst_recordcrash.moc"
