// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "updatescenario.h"

#include <QFile>
#include <QtTest>

#include <atomic>
#include <cerrno>
#include <functional>
#include <optional>

#include <unistd.h>

using Pellox::UpdateController;
using Phase = UpdateController::UpdatePhase;
using Result = UpdateController::UpdateResult;

namespace {

std::atomic<int> s_syncs{0};
std::function<int(int)> s_onSync; ///< the errno of a sync, which it gets counted from 1; 0: done

} // namespace

// The library calls this instead of the system's, and waits for no disk.
extern "C" __attribute__((visibility("default"))) int syncfs(int) noexcept
{
    const int number = ++s_syncs;
    errno = s_onSync ? s_onSync(number) : 0;
    return errno == 0 ? 0 : -1;
}

/// When an update waits for the disk.
class tst_UpdateSyncs : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_scenario.emplace(); }
    void cleanupTestCase() { m_scenario.reset(); }
    void init();
    void cleanup();

    void canBeCancelledUntilAllIsOnTheDisk_data();
    void canBeCancelledUntilAllIsOnTheDisk();
    void largeFilesComeToTheDiskEarly_data();
    void largeFilesComeToTheDiskEarly();
    void earlySyncThatFailsIsTold();

private:
    UpdateOutcome updateByLargePatch(bool synced = true) const;

    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
};

void tst_UpdateSyncs::init()
{
    m_log.emplace();
    m_scenario->lay();
    s_onSync = nullptr;
    s_syncs = 0;
}

void tst_UpdateSyncs::cleanup()
{
    s_onSync = nullptr;
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_UpdateSyncs::canBeCancelledUntilAllIsOnTheDisk_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("sync"); // during which it is cancelled
    QTest::addColumn<bool>("cancelled");
    QTest::newRow("update") << "update"_s << 2
                            << true; // the first is for the record of what is staged
    QTest::newRow("update, its journal") << "update"_s << 3 << false;
    QTest::newRow("update that keeps") << "update-keeping"_s << 2 << true;
    QTest::newRow("rollback") << "rollback"_s << 1 << true;
    QTest::newRow("rollback, its journal") << "rollback"_s << 2 << false;
}

/// That may take minutes, and nothing is changed by then.
void tst_UpdateSyncs::canBeCancelledUntilAllIsOnTheDisk()
{
    QFETCH(QString, command);
    QFETCH(int, sync);
    QFETCH(bool, cancelled);
    const bool isRollback = command == "rollback"_s;
    if (isRollback)
        QCOMPARE(m_scenario->update(true).result, Result::Updated);
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        s_syncs = 0;
        s_onSync = [&updater, sync](int number) {
            if (number == sync)
                updater.cancel();
            return 0;
        };
        updater.setKeepPrevious(command == "update-keeping"_s);
        return isRollback ? updater.rollback(m_scenario->build())
                          : updater.update(m_scenario->build(), m_scenario->patch());
    });
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, cancelled ? Result::Cancelled : Result::Updated);
    QCOMPARE(outcome.phases.contains(Phase::Committing), !cancelled);
    if (cancelled)
        QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
    else
        QCOMPARE(
            isRollback ? m_scenario->differenceToOld() : m_scenario->differenceToNew(), QString());
}

/// It adds a file of more than one batch.
UpdateOutcome tst_UpdateSyncs::updateByLargePatch(bool synced) const
{
    constexpr qint64 Size = 80LL << 20;
    const TestTree &tree = m_scenario->tree();
    tree.write("large/patchRules.json"_s, "[{\"rule\": \"copy\", \"relative_path\": \"/large\"}]");
    tree.write("large/large"_s, QByteArray());
    if (!QFile::resize(tree.path("large/large"_s), Size))
        qFatal("cannot make a large file");
    return outcomeOf([&](UpdateController &updater) {
        updater.setSynced(synced);
        return updater.update(m_scenario->build(), tree.path("large"_s));
    });
}

void tst_UpdateSyncs::largeFilesComeToTheDiskEarly_data()
{
    QTest::addColumn<bool>("synced");
    QTest::newRow("synced") << true;
    QTest::newRow("not synced") << false;
}

void tst_UpdateSyncs::largeFilesComeToTheDiskEarly()
{
    QFETCH(bool, synced);
    QCOMPARE(outcomeOf([&](UpdateController &updater) {
        return updater.update(m_scenario->build(), m_scenario->patch());
    }).result,
        Result::Updated);
    const int syncsOfSmallFiles = s_syncs;
    QVERIFY(syncsOfSmallFiles > 2);
    s_syncs = 0;
    const UpdateOutcome outcome = updateByLargePatch(synced);
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    if (synced)
        QVERIFY2(s_syncs > syncsOfSmallFiles, qPrintable(QString::number(s_syncs)));
    else
        QCOMPARE(s_syncs, 0);
}

/// The system tells of it once alone.
void tst_UpdateSyncs::earlySyncThatFailsIsTold()
{
    constexpr int Early = 2;
    const auto before = TestTree::snapshot(m_scenario->build());
    s_onSync = [](int number) { return number == Early ? EIO : 0; };
    const UpdateOutcome outcome = updateByLargePatch();
    QCOMPARE(outcome.result, Result::Failed);
    QCOMPARE(outcome.errors.size(), 1);
    QVERIFY2(outcome.errors.first().startsWith(m_scenario->build() + ": cannot be synced: "_s),
        qPrintable(outcome.errors.first()));
    QVERIFY(!outcome.phases.contains(Phase::Committing));
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

QTEST_GUILESS_MAIN(tst_UpdateSyncs)

#include "tst_updatesyncs.moc"
