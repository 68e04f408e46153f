// SPDX-License-Identifier: MIT
#include "logcapture.h"
#include "updatescenario.h"

#include <Pellox/UpdateProblem>

#include <QDir>
#include <QSet>
#include <QtTest>

#include <optional>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using Pellox::UpdateController;
using Pellox::UpdateProblem;
using Phase = UpdateController::UpdatePhase;
using Result = UpdateController::UpdateResult;
using Code = UpdateProblem::Code;
using Prepare = std::function<void(const UpdateScenario &)>;

Q_DECLARE_METATYPE(Prepare)
Q_DECLARE_METATYPE(Pellox::UpdateProblem::Code)

namespace {

QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, static_cast<int>(size));
}

} // namespace

/// What a host's program learns of a run besides its texts.
class tst_UpdateProblems : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_scenario.emplace(); }
    void cleanupTestCase() { m_scenario.reset(); }
    void init();
    void cleanup();

    void eachProblemHasItsCode_data();
    void eachProblemHasItsCode();
    void lockedBuildIsBusy();
    void rollbackWithNothingKept();
    void namesAndAdviceAreThereForAll();
    void phasesInTheirOrder();
    void phasesOfARunThatDoesNothing();
    void phasesAfterACrash();
    void eachStagedFileIsTold();

private:
    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
};

void tst_UpdateProblems::init()
{
    m_log.emplace();
    m_scenario->lay();
}

void tst_UpdateProblems::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_UpdateProblems::eachProblemHasItsCode_data()
{
    QTest::addColumn<Prepare>("prepare");
    QTest::addColumn<Code>("code");
    QTest::addColumn<QString>("file");
    const auto row = [](const char *name, Code code, const QString &file, const Prepare &prepare) {
        QTest::newRow(name) << prepare << code << file;
    };
    row("no build", Code::BadFolder, "build"_s,
        [](const UpdateScenario &scenario) { QDir(scenario.build()).removeRecursively(); });
    row("installed file is missing", Code::DamagedInstall, "build/game.exe"_s,
        [](const UpdateScenario &scenario) { scenario.tree().remove("build/game.exe"_s); });
    row("installed file is another", Code::DamagedInstall, "build/data/changed"_s,
        [](const UpdateScenario &scenario) {
            scenario.tree().write("build/data/changed"_s, QByteArray(20480, 'x'));
        });
    row("link in the place of a file", Code::Obstructed, "build/game.exe"_s,
        [](const UpdateScenario &scenario) {
            scenario.tree().remove("build/game.exe"_s);
            scenario.tree().link("build/game.exe"_s, scenario.newBuild() + "/game.exe"_s);
        });
    row("player's file in a folder that becomes a file", Code::Obstructed, "build/folder to file"_s,
        [](const UpdateScenario &scenario) {
            scenario.tree().write("build/folder to file/mine"_s, "mine");
        });
    row("own folder is a file", Code::Obstructed, "build/.pellox"_s,
        [](const UpdateScenario &scenario) { scenario.tree().write("build/.pellox"_s, "mine"); });
    row("journal is no journal", Code::DamagedJournal, "build/.pellox/journal"_s,
        [](const UpdateScenario &scenario) {
            scenario.tree().write("build/.pellox/journal"_s, "torn");
        });
}

void tst_UpdateProblems::eachProblemHasItsCode()
{
    QFETCH(Prepare, prepare);
    QFETCH(Code, code);
    QFETCH(QString, file);
    prepare(*m_scenario);
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.problems.size(), 1);
    const UpdateProblem &problem = outcome.problems.first();
    QCOMPARE(problem.codeName(), UpdateProblem({code, QString(), QString()}).codeName());
    QCOMPARE(problem.file, m_scenario->tree().path(file));
    QCOMPARE(outcome.errors, QStringList(problem.file + ": "_s + problem.reason));
    QCOMPARE(outcome.errors, QStringList(problem.message()));
}

void tst_UpdateProblems::lockedBuildIsBusy()
{
    const int folder
        = ::open(QFile::encodeName(m_scenario->build()).constData(), O_RDONLY | O_DIRECTORY);
    QVERIFY(folder >= 0 && ::flock(folder, LOCK_EX | LOCK_NB) == 0);
    const UpdateOutcome outcome = m_scenario->update();
    ::close(folder);
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code == Code::Busy);
    QCOMPARE(outcome.problems.first().file, m_scenario->build());
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_UpdateProblems::rollbackWithNothingKept()
{
    const UpdateOutcome outcome = m_scenario->rollback();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code == Code::NothingKept);
}

void tst_UpdateProblems::namesAndAdviceAreThereForAll()
{
    QSet<QString> names;
    for (int code = static_cast<int>(Code::BadFolder); code <= static_cast<int>(Code::ForeignPatch);
         ++code) {
        const UpdateProblem problem{static_cast<Code>(code), QString(), "reason"_s};
        QVERIFY2(QRegularExpression("^[a-z]+(-[a-z]+)*$"_s).match(problem.codeName()).hasMatch(),
            qPrintable(problem.codeName()));
        QVERIFY(problem.advice().endsWith(QLatin1Char('.')));
        QCOMPARE(problem.message(), "reason"_s);
        names.insert(problem.codeName());
    }
    QCOMPARE(names.size(), static_cast<int>(Code::ForeignPatch));
}

void tst_UpdateProblems::phasesInTheirOrder()
{
    const UpdateOutcome outcome = m_scenario->update(true);
    QCOMPARE(outcome.result, Result::Updated);
    QVERIFY(outcome.phases == QVector<Phase>({Phase::Checking, Phase::Staging, Phase::Committing}));
    QVERIFY(m_scenario->rollback().phases == QVector<Phase>({Phase::Committing}));
}

void tst_UpdateProblems::phasesOfARunThatDoesNothing()
{
    m_scenario->layNew();
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.result, Result::AlreadyUpToDate);
    QVERIFY(outcome.phases == QVector<Phase>({Phase::Checking}));
    QVERIFY(m_scenario->recover().phases.isEmpty());
}

void tst_UpdateProblems::phasesAfterACrash()
{
    m_scenario->tree().write("build/.pellox/journal"_s, "torn");
    QVERIFY(m_scenario->update().phases == QVector<Phase>({Phase::Finishing}));
}

void tst_UpdateProblems::eachStagedFileIsTold()
{
    UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.result, Result::Updated);
    QStringList expected;
    for (auto file = m_scenario->newFiles().cbegin(); file != m_scenario->newFiles().cend();
         ++file) {
        if (file.key() != "data/unchanged"_s)
            expected.append(QLatin1Char('/') + file.key());
    }
    outcome.staged.sort();
    expected.sort();
    QCOMPARE(outcome.staged, expected);
}

QTEST_GUILESS_MAIN(tst_UpdateProblems)

#include "tst_updateproblems.moc"
