// SPDX-License-Identifier: MIT
#include "logcapture.h"
#include "updatescenario.h"

#include <Pellox/UpdateProblem>

#include <QDir>
#include <QSet>
#include <QtTest>

#include <cerrno>
#include <functional>
#include <optional>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
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

// What the file system says of locks. Only one run is at work when they are changed.
QVector<int> s_errors;     ///< of the next calls
bool s_foldersLock = true; ///< whether folders can be locked
std::function<void()> s_beforeLock;

bool isFolder(int handle)
{
    struct stat status = {};
    return ::fstat(handle, &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

// The library calls this instead of the system's.
extern "C" __attribute__((visibility("default"))) int flock(int handle, int operation) noexcept
{
    static auto *const original = reinterpret_cast<int (*)(int, int)>(::dlsym(RTLD_NEXT, "flock"));
    if (s_beforeLock)
        s_beforeLock();
    if (!s_errors.isEmpty())
        errno = s_errors.takeFirst();
    else if (!s_foldersLock && isFolder(handle))
        errno = EBADF;
    else
        return original(handle, operation);
    return -1;
}

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
    void lockIsTriedAgainAfterASignal();
    void buildThatCannotBeLocked();
    void foldersThatLockNothing();
    void lockFileThatCannotBeLocked();
    void lockFileThatGoesMeanwhile();
    void rollbackWithNothingKept();
    void namesAndAdviceAreThereForAll();
    void adviceLeadsOut_data();
    void adviceLeadsOut();
    void folderWithoutRules();
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

void tst_UpdateProblems::lockIsTriedAgainAfterASignal()
{
    s_errors = {EINTR, EINTR, EINTR};
    const UpdateOutcome outcome = m_scenario->update();
    QVERIFY(s_errors.isEmpty());
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
}

/// It is not that somebody else would have it.
void tst_UpdateProblems::buildThatCannotBeLocked()
{
    s_errors = {ENOLCK};
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code != Code::Busy);
    QCOMPARE(outcome.problems.first().file, m_scenario->build());
    QVERIFY(outcome.problems.first().reason.startsWith("cannot be locked: "_s));
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

/// As on NFS, where only what is open for writing can be locked.
void tst_UpdateProblems::foldersThatLockNothing()
{
    s_foldersLock = false;
    const UpdateOutcome outcome = m_scenario->update();
    const UpdateOutcome again = m_scenario->update();
    m_scenario->tree().write("build/.pellox/lock"_s, QByteArray()); // of a run that was killed
    const int lock
        = ::open(QFile::encodeName(m_scenario->build() + "/.pellox/lock"_s).constData(), O_RDWR);
    const UpdateOutcome afterCrash = m_scenario->update();
    const bool isRemoved = !m_scenario->tree().exists("build/.pellox"_s);
    m_scenario->tree().write("build/.pellox/lock"_s, QByteArray());
    const int held
        = ::open(QFile::encodeName(m_scenario->build() + "/.pellox/lock"_s).constData(), O_RDWR);
    const bool isHeld = ::flock(held, LOCK_EX | LOCK_NB) == 0;
    const UpdateOutcome busy = m_scenario->update();
    const auto plan = UpdateController().plan(m_scenario->build(), m_scenario->patch());
    ::close(held);
    ::close(lock);
    s_foldersLock = true;
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(again.result, Result::AlreadyUpToDate);
    QCOMPARE(afterCrash.result, Result::AlreadyUpToDate);
    QVERIFY(isRemoved);
    QVERIFY(isHeld);
    QCOMPARE(busy.result, Result::Refused);
    QVERIFY(busy.problems.first().code == Code::Busy);
    QCOMPARE(busy.problems.first().file, m_scenario->build());
    QCOMPARE(plan.refusals.size(), 1);
    QVERIFY(plan.refusals.first().code == Code::Busy);
    m_scenario->tree().remove("build/.pellox"_s);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateProblems::lockFileThatCannotBeLocked()
{
    s_errors = {EBADF, ENOLCK};
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QCOMPARE(outcome.problems.first().file, m_scenario->build() + "/.pellox/lock"_s);
    QVERIFY(outcome.problems.first().reason.startsWith("cannot be locked: "_s));
}

/// Who has had it removes it, between our opening and our locking it.
void tst_UpdateProblems::lockFileThatGoesMeanwhile()
{
    const QString lock = m_scenario->build() + "/.pellox/lock"_s;
    s_errors = {EBADF};
    s_beforeLock = [&] {
        if (QFile::remove(lock))
            s_beforeLock = nullptr;
    };
    const UpdateOutcome outcome = m_scenario->update();
    const bool wasRemoved = !s_beforeLock;
    s_beforeLock = nullptr;
    QVERIFY(wasRemoved);
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
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
    for (int code = static_cast<int>(Code::BadFolder); code <= static_cast<int>(Code::NoMemory);
         ++code) {
        const UpdateProblem problem{static_cast<Code>(code), QString(), "reason"_s};
        QVERIFY2(QRegularExpression("^[a-z]+(-[a-z]+)*$"_s).match(problem.codeName()).hasMatch(),
            qPrintable(problem.codeName()));
        QVERIFY(problem.advice().endsWith(QLatin1Char('.')));
        QCOMPARE(problem.message(), "reason"_s);
        names.insert(problem.codeName());
    }
    QCOMPARE(names.size(), static_cast<int>(Code::NoMemory));
}

void tst_UpdateProblems::adviceLeadsOut_data()
{
    QTest::addColumn<Code>("code");
    QTest::addColumn<QString>("words");
    QTest::newRow("patch for another release")
        << Code::DamagedInstall << "the patch is for another release"_s;
    QTest::newRow("damaged build") << Code::DamagedInstall << "check and repair the build"_s;
    QTest::newRow("newer patch") << Code::OlderRelease << "a newer patch"_s;
    QTest::newRow("going back") << Code::OlderRelease << "allow older releases"_s;
    QTest::newRow("not a patch's folder") << Code::BadManifest << "the right folder"_s;
    QTest::newRow("wrong key") << Code::BadKey << "public key"_s;
}

void tst_UpdateProblems::adviceLeadsOut()
{
    QFETCH(Code, code);
    QFETCH(QString, words);
    const QString advice = UpdateProblem{code, QString(), QString()}.advice();
    QVERIFY2(advice.contains(words), qPrintable(advice));
}

void tst_UpdateProblems::folderWithoutRules()
{
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        return updater.update(m_scenario->build(), m_scenario->newBuild());
    });
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code == Code::BadManifest);
    QCOMPARE(outcome.problems.first().file, m_scenario->newBuild() + "/patchRules.json"_s);
    QCOMPARE(m_scenario->differenceToOld(), QString());
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
