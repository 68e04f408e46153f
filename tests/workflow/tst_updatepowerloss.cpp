// SPDX-License-Identifier: MIT
#include "diskrecord.h"
#include "faultrun.h"
#include "literals.h"
#include "logcapture.h"
#include "recordscenario.h"
#include "testtree.h"
#include "toldspy.h"
#include "updaterestart.h"

#include <Pellox/IntegrityController>

#include <QFileInfo>
#include <QMap>
#include <QtTest>

#include <optional>
#include <random>

using Result = Pellox::UpdateController::UpdateResult;

namespace {

constexpr int FirstResult = 10; ///< status of updatecall

/// Of what is not synced.
struct Loss
{
    const char *name;
    DiskRecord::Chance chance;
};

/// Each with some probability, and of writes a part.
DiskRecord::Chance randomly(unsigned seed)
{
    return [random = std::mt19937(seed)](DiskRecord::Kind kind) mutable {
        std::uniform_real_distribution<double> share(0, 1);
        const double kept = share(random);
        const double part = share(random);
        return DiskRecord::Fate{
            kept < 0.5, kind == DiskRecord::Kind::Data && part < 0.5 ? part : 1};
    };
}

std::vector<Loss> losses(unsigned seeds, unsigned firstSeed)
{
    using Kind = DiskRecord::Kind;
    std::vector<Loss> all{
        {"all is lost", [](Kind) { return DiskRecord::Fate{false}; }},
        {"nothing is lost", [](Kind) { return DiskRecord::Fate{true}; }},
        {"data is lost", [](Kind kind) { return DiskRecord::Fate{kind == Kind::Name}; }},
        {"names are lost", [](Kind kind) { return DiskRecord::Fate{kind == Kind::Data}; }},
    };
    for (unsigned seed = firstSeed; seed < firstSeed + seeds; ++seed)
        all.push_back({"some is lost", randomly(seed)});
    return all;
}

} // namespace

/**
 * The power fails at any instant of a run: what was not synced is lost, kept, or kept in part. The
 * next run must find every file old or new, and finish. PELLOX_ALL_CRASH_POINTS takes all instants
 * and more ways to lose something.
 */
class tst_UpdatePowerLoss : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init() { m_log.emplace(); }
    void cleanup();

    void modelKnowsWhatIsLost();
    void nothingIsLost_data();
    void nothingIsLost();
    void nothingIsLostOfARepair();
    void nothingIsLostByDiscarding();
    void nothingIsLostByRecording_data();
    void nothingIsLostByRecording();
    void withoutSyncingMuchIsLost();

private:
    void prepare(const QString &command);
    DiskRecord record(const QString &command) const;
    void damage();
    QString brokenPromiseOfARepair(const QMap<QString, QByteArray> &damaged) const;
    QString problemOfSecondRepair() const;
    QStringList problemsAt(
        const DiskRecord &record, int at, const QString &command, const std::vector<Loss> &losses);

    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
    int m_powerCuts = 0;
};

void tst_UpdatePowerLoss::initTestCase()
{
    useMemoryForFiles();
    m_scenario.emplace();
}

void tst_UpdatePowerLoss::cleanupTestCase()
{
    qInfo("%d power cuts", m_powerCuts);
    m_scenario.reset();
}

void tst_UpdatePowerLoss::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

/// Lays the build that @p command starts from.
void tst_UpdatePowerLoss::prepare(const QString &command)
{
    if (command == "recover"_s)
        return layInterrupted(*m_scenario, "update"_s);
    m_scenario->lay();
    if (command == "rollback"_s)
        QCOMPARE(m_scenario->update(true).result, Result::Updated);
}

DiskRecord tst_UpdatePowerLoss::record(const QString &command) const
{
    QStringList arguments{"1"_s, command, m_scenario->build()};
    if (command.startsWith("update"_s))
        arguments << m_scenario->patch() << m_scenario->fallback();
    if (command == "repair"_s)
        arguments << m_scenario->signatures() << m_scenario->newBuild();
    return DiskRecord(m_scenario->build(), QStringLiteral(UPDATECALL_PROGRAM), arguments);
}

QStringList tst_UpdatePowerLoss::problemsAt(
    const DiskRecord &record, int at, const QString &command, const std::vector<Loss> &losses)
{
    QStringList problems;
    for (const Loss &loss : losses) {
        record.lay(at, loss.chance);
        m_scenario->noteTraces();
        ++m_powerCuts;
        const QString where
            = "%1 (%2), %3: "_s.arg(record.name(at)).arg(at).arg(QLatin1String(loss.name));
        for (const QString &problem :
            {m_scenario->brokenPromise(), problemOfRestart(*m_scenario, command, at % 2 == 0)}) {
            if (!problem.isEmpty())
                problems.append(where + problem);
        }
    }
    return problems;
}

/// The model itself: of a run that has ended all is there, and of one that was never synced
/// nothing is for certain.
void tst_UpdatePowerLoss::modelKnowsWhatIsLost()
{
    prepare("update"_s);
    const DiskRecord update = record("update"_s);
    QCOMPARE(update.status(), FirstResult + static_cast<int>(Result::Updated));
    const auto all = losses(0, 0);
    update.lay(0, all[1].chance);
    QCOMPARE(m_scenario->differenceToOld(), QString());
    update.lay(update.size(), all[1].chance);
    QCOMPARE(m_scenario->differenceToNew(), QString());
    update.lay(update.size(), all[0].chance);
    QCOMPARE(m_scenario->differenceToNew(), QString());
    update.lay(update.size() - 1, all[0].chance); // before the last sync
    QVERIFY(m_scenario->hasJournal());
}

void tst_UpdatePowerLoss::nothingIsLost_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<bool>("isDamaged");
    for (const char *command : {"update", "update-keeping", "rollback", "recover"})
        QTest::newRow(command) << QString::fromLatin1(command) << false;
    QTest::newRow("update of a damaged build") << "update"_s << true;
    QTest::newRow("update of a damaged build that keeps") << "update-keeping"_s << true;
}

void tst_UpdatePowerLoss::nothingIsLost()
{
    QFETCH(QString, command);
    QFETCH(bool, isDamaged);
    const bool all = qEnvironmentVariableIsSet("PELLOX_ALL_CRASH_POINTS");
    prepare(command);
    if (isDamaged)
        m_scenario->layDamaged();
    const DiskRecord record = this->record(command);
    QCOMPARE(record.status(), FirstResult + static_cast<int>(Result::Updated));
    QVERIFY2(record.size() > 15, "too few points");
    const QString restarted = command == "recover"_s ? "update"_s : command;
    QStringList problems;
    for (int at = 0; at <= record.size(); at += all ? 1 : 7)
        problems += problemsAt(
            record, at, restarted, losses(all ? 16 : 2, static_cast<unsigned>(at) * 16));
    QVERIFY2(problems.isEmpty(), qPrintable(problems.mid(0, 25).join("\n    "_s)));
}

/// Files of the new build are changed and gone, and the record of the release is another's.
void tst_UpdatePowerLoss::damage()
{
    m_scenario->layNew();
    const TestTree &tree = m_scenario->tree();
    tree.write("build/game.exe"_s, "damaged");
    tree.write("build/data/filled"_s, QByteArray());
    tree.remove("build/moved to here"_s);
    tree.remove("build/added"_s); // a folder
    tree.write("build/.pellox/release"_s, "torn");
}

/// Each file is as it was, @p damaged or not, or right; and where nothing is to be finished, all
/// are one or the other.
QString tst_UpdatePowerLoss::brokenPromiseOfARepair(const QMap<QString, QByteArray> &damaged) const
{
    int changed = 0;
    int repaired = 0;
    for (auto file = m_scenario->newFiles().cbegin(); file != m_scenario->newFiles().cend();
         ++file) {
        const QString path = "build/"_s + file.key();
        const bool isThere = m_scenario->tree().exists(path);
        const bool isRight = isThere && m_scenario->tree().read(path) == file->content;
        const auto before = damaged.constFind(file.key());
        const bool wasThere = before != damaged.cend();
        const bool isAsBefore
            = isThere ? wasThere && m_scenario->tree().read(path) == *before : !wasThere;
        if (!isRight && !isAsBefore)
            return file.key() + ": is neither as before nor right"_s;
        changed += isAsBefore && !isRight ? 1 : 0;
        repaired += isRight && !isAsBefore ? 1 : 0;
    }
    if (changed > 0 && repaired > 0 && !m_scenario->hasJournal())
        return "nothing to finish, and repaired in part"_s;
    return m_scenario->touchedFile();
}

QString tst_UpdatePowerLoss::problemOfSecondRepair() const
{
    Pellox::IntegrityController controller;
    QStringList errors;
    ToldSpy finished(&controller, &Pellox::IntegrityController::finished);
    QObject::connect(&controller, &Pellox::IntegrityController::integrityError, &controller,
        [&](const QString &error) { errors.append(error); });
    if (!controller.repair(m_scenario->build(), m_scenario->signatures(), m_scenario->newBuild())
        || !finished.comes())
        return "does not end"_s;
    if (!finished.at(0).at(0).toBool())
        return errors.join("; "_s);
    m_scenario->removeEmptyWorkFolder();
    return m_scenario->differenceToNew();
}

void tst_UpdatePowerLoss::nothingIsLostOfARepair()
{
    const bool all = qEnvironmentVariableIsSet("PELLOX_ALL_CRASH_POINTS");
    damage();
    const auto damaged = TestTree::snapshot(m_scenario->build());
    const DiskRecord record = this->record("repair"_s);
    QCOMPARE(record.status(), 0);
    QVERIFY2(record.size() > 15, "too few points");
    QStringList problems;
    for (int at = 0; at <= record.size(); at += all ? 1 : 5) {
        for (const Loss &loss : losses(all ? 16 : 2, static_cast<unsigned>(at) * 16)) {
            record.lay(at, loss.chance);
            m_scenario->noteTraces();
            ++m_powerCuts;
            QString problem = brokenPromiseOfARepair(damaged);
            if (problem.isEmpty() && m_scenario->hasJournal() && at % 2 == 0)
                problem = m_scenario->recover().errors.join("; "_s);
            if (problem.isEmpty())
                problem = problemOfSecondRepair();
            if (!problem.isEmpty())
                problems.append(
                    "%1 (%2), %3: "_s.arg(record.name(at)).arg(at).arg(QLatin1String(loss.name))
                    + problem);
        }
    }
    QVERIFY2(problems.isEmpty(), qPrintable(problems.mid(0, 25).join("\n    "_s)));
}

/// The old build, which was kept, can be brought back as a whole or not at all.
void tst_UpdatePowerLoss::nothingIsLostByDiscarding()
{
    const QStringList next{"discard"_s, "rollback"_s, "update"_s};
    const bool all = qEnvironmentVariableIsSet("PELLOX_ALL_CRASH_POINTS");
    prepare("rollback"_s); // what can be rolled back can be discarded
    const DiskRecord record = this->record("discard"_s);
    QCOMPARE(record.status(), 0);
    QVERIFY2(record.size() > 15, "too few points");
    QStringList problems;
    for (int at = 0; at <= record.size(); at += all ? 1 : 5) {
        int turn = at;
        for (const Loss &loss : losses(all ? 16 : 2, static_cast<unsigned>(at) * 16)) {
            record.lay(at, loss.chance);
            m_scenario->noteTraces();
            ++m_powerCuts;
            const QString where
                = "%1 (%2), %3: "_s.arg(record.name(at)).arg(at).arg(QLatin1String(loss.name));
            const QString broken = m_scenario->brokenPromise();
            const QString problem
                = problemAfterDiscarding(*m_scenario, next.at(turn++ % next.size()), true);
            for (const QString &text : {broken, problem}) {
                if (!text.isEmpty())
                    problems.append(where + text);
            }
        }
    }
    QVERIFY2(problems.isEmpty(), qPrintable(problems.mid(0, 25).join("\n    "_s)));
}

void tst_UpdatePowerLoss::nothingIsLostByRecording_data()
{
    QTest::addColumn<RecordScenario::Start>("start");
    QTest::newRow("no record") << RecordScenario::Start::NoRecord;
    QTest::newRow("older record") << RecordScenario::Start::OlderRecord;
    QTest::newRow("interrupted update") << RecordScenario::Start::Unfinished;
}

/// Nor is there ever a part of the record.
void tst_UpdatePowerLoss::nothingIsLostByRecording()
{
    QFETCH(RecordScenario::Start, start);
    const bool all = qEnvironmentVariableIsSet("PELLOX_ALL_CRASH_POINTS");
    RecordScenario scenario;
    if (!scenario.isSealed())
        QSKIP("built without libcrypto");
    scenario.lay(start);
    const DiskRecord record(
        scenario.scenario().build(), QStringLiteral(UPDATECALL_PROGRAM), scenario.arguments());
    QCOMPARE(record.status(), 0);
    QStringList problems;
    for (int at = 0; at <= record.size(); at += all || record.size() < 15 ? 1 : 3) {
        for (const Loss &loss : losses(all ? 16 : 2, static_cast<unsigned>(at) * 16)) {
            record.lay(at, loss.chance);
            scenario.scenario().noteTraces();
            ++m_powerCuts;
            const QString where
                = "%1 (%2), %3: "_s.arg(record.name(at)).arg(at).arg(QLatin1String(loss.name));
            const QString broken = scenario.brokenPromise();
            const QString problem = scenario.problemOfNext(at % 2 == 0);
            for (const QString &text : {broken, problem}) {
                if (!text.isEmpty())
                    problems.append(where + text);
            }
        }
    }
    QVERIFY2(problems.isEmpty(), qPrintable(problems.mid(0, 25).join("\n    "_s)));
    // What is told as done is on the disk.
    record.lay(record.size(), losses(0, 0)[0].chance);
    QVERIFY(scenario.isRecorded());
}

/// Otherwise the tests above would be of little worth.
void tst_UpdatePowerLoss::withoutSyncingMuchIsLost()
{
    prepare("update"_s);
    const DiskRecord whole = record("update"_s);
    const DiskRecord unsynced = whole.withoutSyncs();
    QStringList problems;
    for (int at = 0; at <= unsynced.size(); ++at)
        problems += problemsAt(unsynced, at, "update"_s, {losses(0, 0)[2]});
    QVERIFY(!problems.isEmpty());
}

QTEST_GUILESS_MAIN(tst_UpdatePowerLoss)

#include "tst_updatepowerloss.moc"
