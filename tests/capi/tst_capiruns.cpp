// SPDX-License-Identifier: MIT
#include "foldercompare.h"
#include "literals.h"
#include "logcapture.h"
#include "recordedjob.h"
#include "updatescenario.h"

#include <Pellox/PatchSeal>
#include <Pellox/PublishController>
#include <Pellox/UpdateController>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtTest>

#include <algorithm>
#include <optional>

namespace {

/// The names of @p files, as the interface tells them.
QVector<QByteArray> toldPaths(const QStringList &files)
{
    QVector<QByteArray> paths;
    for (const QString &file : files)
        paths.append('/' + file.toUtf8());
    std::sort(paths.begin(), paths.end());
    return paths;
}

bool neverFalls(const QVector<QPair<qint64, qint64>> &progress)
{
    return std::is_sorted(progress.begin(), progress.end(),
        [](const auto &one, const auto &other) { return one.first < other.first; });
}

} // namespace

/// What each run does, and each of its results.
class tst_CapiRuns : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { m_scenario.reset(); }
    void init();
    void cleanup();

    void update();
    void updateOfANewBuild();
    void updateThatIsRefused();
    void updateThatFails();
    void updateWithFallback();
    void updateThatIsInterrupted();
    void updateThatIsCancelled_data();
    void updateThatIsCancelled();
    void cancelThatComesTooLate();
    void pathsAreUtf8();

    void plan();
    void planOfARefusedUpdate();
    void planOfANewBuild();

    void recover();
    void rollback();
    void discardPrevious();

    void check();
    void checkOfADamagedBuild();
    void checkThatIsRefused();
    void checkThatIsCancelled();
    void repair();
    void repairThatFails();

    void createSignatures();
    void createPatch();
    void publish();
    void publishFromTheOldBuild();
    void publishThatFails();
    void publishThatIsCancelled();

    void sealedUpdates();
    void sealThatFails();
    void olderReleases();
    void slimPatch();
    void recordRelease();

private:
    QByteArray build() const { return utf8(m_scenario->build()); }
    QByteArray patch() const { return utf8(m_scenario->fullPatch()); }
    QByteArray signatures() const { return utf8(m_scenario->signatures()); }
    QByteArray at(const char *relative) const
    {
        return utf8(m_scenario->tree().path(QString::fromUtf8(relative)));
    }
    bool makeKey() const;

    std::optional<UpdateScenario> m_scenario;
    std::optional<LogCapture> m_log;
};

void tst_CapiRuns::initTestCase()
{
    useMemoryForFiles();
    m_scenario.emplace();
}

void tst_CapiRuns::init()
{
    m_log.emplace();
    m_scenario->lay();
}

void tst_CapiRuns::cleanup()
{
    for (const char *made :
        {"out", "next", "slim patch", "patch/patchSeal.json", "release.key", "release.key.pub"}) {
        if (m_scenario->tree().exists(QString::fromUtf8(made)))
            m_scenario->tree().remove(QString::fromUtf8(made));
    }
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_CapiRuns::update()
{
    RecordedJob job;
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_DONE));
    QCOMPARE(m_scenario->differenceToNew(), QString());
    QCOMPARE(job.phases,
        QVector<int>({PELLOX_PHASE_CHECKING, PELLOX_PHASE_STAGING, PELLOX_PHASE_COMMITTING}));
    QVERIFY(job.problems.isEmpty());

    QStringList changed;
    qint64 size = 0;
    const RandomBuild &newFiles = m_scenario->newFiles();
    for (auto file = newFiles.cbegin(); file != newFiles.cend(); ++file) {
        if (file->content != m_scenario->oldFiles().value(file.key()).content
            || !m_scenario->oldFiles().contains(file.key())) {
            changed.append(file.key());
            size += file->content.size();
        }
    }
    QCOMPARE(job.paths(PELLOX_FILE_STAGED), toldPaths(changed));
    QCOMPARE(job.files.size(), changed.size());
    QVERIFY(neverFalls(job.progress));
    QVERIFY(!job.progress.isEmpty());
    QCOMPARE(job.progress.last(), qMakePair(size, size));
    QCOMPARE(job.threads, std::set<std::thread::id>{std::this_thread::get_id()});
}

void tst_CapiRuns::updateOfANewBuild()
{
    m_scenario->layNew();
    RecordedJob job;
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_NOTHING_TO_DO));
    QCOMPARE(job.phases, QVector<int>{PELLOX_PHASE_CHECKING});
    QVERIFY(job.files.isEmpty());
}

void tst_CapiRuns::updateThatIsRefused()
{
    m_scenario->tree().remove("build/game.exe"_s);
    RecordedJob job;
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_REFUSED));
    QCOMPARE(job.problems.size(), 1);
    const RecordedJob::Problem &problem = job.problems.first();
    QCOMPARE(problem.code, int(PELLOX_PROBLEM_DAMAGED_INSTALL));
    QCOMPARE(problem.codeName, QByteArray("damaged-install"));
    QCOMPARE(problem.file, at("build/game.exe"));
    QVERIFY(!problem.reason.isEmpty());
    QCOMPARE(problem.message, problem.file + ": " + problem.reason);
    QVERIFY2(problem.advice.endsWith('.'), problem.advice.constData());
}

/// What a delta makes is only known once it is made.
void tst_CapiRuns::updateThatFails()
{
    const QString delta = "patch/data/large.pak"_s;
    const QByteArray good = m_scenario->tree().read(delta);
    QByteArray damaged = good;
    damaged[damaged.size() - 2] = static_cast<char>(~damaged.at(damaged.size() - 2));
    m_scenario->tree().write(delta, damaged);
    RecordedJob job;
    const int result = pellox_update(job, build(), patch());
    m_scenario->tree().write(delta, good);
    QCOMPARE(result, int(PELLOX_FAILED));
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(job.problems.size(), 1);
}

void tst_CapiRuns::updateWithFallback()
{
    m_scenario->tree().write("build/data/changed"_s, "damaged");
    RecordedJob job;
    const QByteArray fallback = utf8(m_scenario->newBuild());
    QCOMPARE(pellox_set_fallback(job, fallback), int(PELLOX_DONE));
    QCOMPARE(pellox_set_threads(job, 2), int(PELLOX_DONE));
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_DONE));
    QCOMPARE(m_scenario->differenceToNew(), QString());

    m_scenario->lay();
    m_scenario->tree().write("build/data/changed"_s, "damaged");
    QCOMPARE(pellox_set_fallback(job, nullptr), int(PELLOX_DONE));
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_FAILED));
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_DAMAGED_INSTALL});
}

void tst_CapiRuns::updateThatIsInterrupted()
{
    m_scenario->tree().write("build/.pellox/journal"_s, "torn");
    RecordedJob job;
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_INTERRUPTED));
    QCOMPARE(job.phases, QVector<int>{PELLOX_PHASE_FINISHING});
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_DAMAGED_JOURNAL});
    QCOMPARE(job.problems.first().codeName, QByteArray("damaged-journal"));
}

void tst_CapiRuns::updateThatIsCancelled_data()
{
    QTest::addColumn<int>("phase");
    QTest::newRow("when it begins") << int(PELLOX_PHASE_CHECKING);
    QTest::newRow("before anything is written") << int(PELLOX_PHASE_STAGING);
}

/// The run waits for its callbacks, so it is not too late in any of them.
void tst_CapiRuns::updateThatIsCancelled()
{
    QFETCH(const int, phase);
    RecordedJob job;
    job.onPhase = [&](int now) {
        if (now == phase)
            pellox_cancel(job);
    };
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_CANCELLED));
    QCOMPARE(job.phases.last(), phase);
    QVERIFY(job.problems.isEmpty());
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());

    // It stays so; another job does the work.
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_CANCELLED));
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(pellox_update(RecordedJob(), build(), patch()), int(PELLOX_DONE));
}

void tst_CapiRuns::cancelThatComesTooLate()
{
    RecordedJob job;
    job.onPhase = [&](int phase) {
        if (phase == PELLOX_PHASE_COMMITTING)
            pellox_cancel(job);
    };
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_DONE));
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_CapiRuns::pathsAreUtf8()
{
    const TestTree tree;
    const QString name = "Spiele für 文 🎮"_s;
    QVERIFY(QFile::rename(m_scenario->build(), tree.path(name)));
    RecordedJob job;
    QCOMPARE(pellox_update(job, utf8(tree.path(name)), patch()), int(PELLOX_DONE));

    QVERIFY(QFile::remove(tree.path(name + "/game.exe"_s)));
    QVERIFY(QFile::rename(tree.path(name + "/data/changed"_s), tree.path(name + "/Ä"_s)));
    QCOMPARE(pellox_check(job, utf8(tree.path(name)), signatures()), int(PELLOX_NOT_INTACT));
    QCOMPARE(job.paths(PELLOX_FILE_MISSING), toldPaths({"data/changed"_s, "game.exe"_s}));
    QVERIFY(job.paths(PELLOX_FILE_EXTRA).contains("/\xc3\x84"));
    QVERIFY(QDir(tree.path(name)).removeRecursively());

    QCOMPARE(pellox_update(job, utf8(tree.path(name)), patch()), int(PELLOX_REFUSED));
    QCOMPARE(job.problems.last().file, utf8(tree.path(name)));
}

void tst_CapiRuns::plan()
{
    const Pellox::UpdatePlan expected
        = Pellox::UpdateController().plan(m_scenario->build(), m_scenario->fullPatch());
    RecordedJob job;
    QCOMPARE(pellox_plan(job, build(), patch()), int(PELLOX_DONE));
    const auto sorted = [](const QStringList &paths) {
        QVector<QByteArray> told;
        for (const QString &path : paths)
            told.append(path.toUtf8());
        std::sort(told.begin(), told.end());
        return told;
    };
    QCOMPARE(job.paths(PELLOX_FILE_TO_PATCH), sorted(expected.patches));
    QCOMPARE(job.paths(PELLOX_FILE_TO_COPY), sorted(expected.copies));
    QCOMPARE(job.paths(PELLOX_FILE_TO_DELETE), sorted(expected.deletions));
    QVERIFY(job.paths(PELLOX_FILE_TO_DELETE).contains("/gone"));
    QVERIFY(pellox_figure(job, PELLOX_FIGURE_BYTES_TO_WRITE) > 0);
    QCOMPARE(qint64(pellox_figure(job, PELLOX_FIGURE_BYTES_TO_WRITE)), expected.bytesToWrite);
    QCOMPARE(qint64(pellox_figure(job, PELLOX_FIGURE_BYTES_TO_READ)), expected.bytesToRead);
    QCOMPARE(qint64(pellox_figure(job, PELLOX_FIGURE_PEAK_EXTRA_DISK)), expected.peakExtraDisk);
    QCOMPARE(int(pellox_figure(job, PELLOX_FIGURE_INTACT_FILES)), -1);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_CapiRuns::planOfARefusedUpdate()
{
    m_scenario->tree().remove("build/game.exe"_s);
    RecordedJob job;
    QCOMPARE(pellox_plan(job, build(), patch()), int(PELLOX_REFUSED));
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_DAMAGED_INSTALL});
    QCOMPARE(int(pellox_figure(job, PELLOX_FIGURE_BYTES_TO_WRITE)), -1);
}

void tst_CapiRuns::planOfANewBuild()
{
    m_scenario->layNew();
    RecordedJob job;
    QCOMPARE(pellox_plan(job, build(), patch()), int(PELLOX_NOTHING_TO_DO));
    QVERIFY(job.files.isEmpty());
    QCOMPARE(int(pellox_figure(job, PELLOX_FIGURE_BYTES_TO_WRITE)), 0);
}

void tst_CapiRuns::recover()
{
    RecordedJob job;
    QCOMPARE(pellox_recover(job, build()), int(PELLOX_NOTHING_TO_DO));
    m_scenario->tree().write("build/.pellox/journal"_s, "torn");
    QCOMPARE(pellox_recover(job, build()), int(PELLOX_INTERRUPTED));
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_DAMAGED_JOURNAL});
}

void tst_CapiRuns::rollback()
{
    RecordedJob job;
    QCOMPARE(pellox_rollback(job, build()), int(PELLOX_REFUSED));
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_NOTHING_KEPT});

    QCOMPARE(pellox_set_keep_previous(job, 1), int(PELLOX_DONE));
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_DONE));
    QCOMPARE(pellox_rollback(job, build()), int(PELLOX_DONE));
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_CapiRuns::discardPrevious()
{
    RecordedJob job;
    QCOMPARE(pellox_set_keep_previous(job, 1), int(PELLOX_DONE));
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_DONE));
    QCOMPARE(pellox_discard_previous(job, build()), int(PELLOX_DONE));
    QCOMPARE(m_scenario->differenceToNew(), QString());
    QCOMPARE(pellox_discard_previous(job, at("not there")), int(PELLOX_FAILED));
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_BAD_FOLDER});
}

void tst_CapiRuns::check()
{
    m_scenario->layNew();
    RecordedJob job;
    QCOMPARE(pellox_check(job, build(), signatures()), int(PELLOX_DONE));
    QCOMPARE(
        int(pellox_figure(job, PELLOX_FIGURE_INTACT_FILES)), int(m_scenario->newFiles().size()));
    QCOMPARE(job.phases, QVector<int>{PELLOX_PHASE_CHECKING});
    QVERIFY(neverFalls(job.progress));
    QVERIFY(!job.progress.isEmpty());
    QCOMPARE(job.progress.last().first, job.progress.last().second);
    QCOMPARE(job.files.size(), job.paths(PELLOX_FILE_EXTRA).size());
    QVERIFY(job.paths(PELLOX_FILE_EXTRA).contains("/saves/player.sav"));
    QCOMPARE(job.threads, std::set<std::thread::id>{std::this_thread::get_id()});
}

void tst_CapiRuns::checkOfADamagedBuild()
{
    m_scenario->layNew();
    m_scenario->tree().write("build/data/changed"_s, "damaged");
    m_scenario->tree().remove("build/game.exe"_s);
    m_scenario->tree().remove("build/data/filled"_s);
    m_scenario->tree().makeFolder("build/data/filled"_s);
    RecordedJob job;
    QCOMPARE(pellox_check(job, build(), signatures()), int(PELLOX_NOT_INTACT));
    QCOMPARE(job.paths(PELLOX_FILE_CHANGED), toldPaths({"data/changed"_s}));
    QCOMPARE(job.paths(PELLOX_FILE_MISSING), toldPaths({"game.exe"_s}));
    QCOMPARE(job.paths(PELLOX_FILE_UNREADABLE), toldPaths({"data/filled"_s}));
    QCOMPARE(int(pellox_figure(job, PELLOX_FIGURE_INTACT_FILES)),
        int(m_scenario->newFiles().size()) - 3);
    QVERIFY(job.problems.isEmpty());
}

void tst_CapiRuns::checkThatIsRefused()
{
    RecordedJob job;
    QCOMPARE(pellox_check(job, build(), patch()), int(PELLOX_REFUSED));
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_BAD_MANIFEST});
    QCOMPARE(int(pellox_figure(job, PELLOX_FIGURE_INTACT_FILES)), -1);
}

void tst_CapiRuns::checkThatIsCancelled()
{
    RecordedJob job;
    job.onPhase = [&](int) { pellox_cancel(job); };
    QCOMPARE(pellox_check(job, build(), signatures()), int(PELLOX_CANCELLED));
    QVERIFY(job.problems.isEmpty());
    QVERIFY(job.files.isEmpty());
}

void tst_CapiRuns::repair()
{
    m_scenario->layNew();
    m_scenario->tree().write("build/data/changed"_s, "damaged");
    m_scenario->tree().remove("build/game.exe"_s);
    RecordedJob job;
    const QByteArray source = utf8(m_scenario->newBuild());
    QCOMPARE(pellox_repair(job, build(), signatures(), source), int(PELLOX_DONE));
    QCOMPARE(job.paths(PELLOX_FILE_CHANGED), toldPaths({"data/changed"_s}));
    QCOMPARE(job.paths(PELLOX_FILE_MISSING), toldPaths({"game.exe"_s}));
    QCOMPARE(m_scenario->differenceToNew(), QString());

    QCOMPARE(pellox_repair(job, build(), signatures(), source), int(PELLOX_NOTHING_TO_DO));
}

void tst_CapiRuns::repairThatFails()
{
    m_scenario->layNew();
    m_scenario->tree().remove("build/game.exe"_s);
    m_scenario->tree().makeFolder("out"_s);
    RecordedJob job;
    QCOMPARE(pellox_repair(job, build(), signatures(), at("out")), int(PELLOX_REFUSED));
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_BAD_FALLBACK});
    QVERIFY(!m_scenario->tree().exists("build/game.exe"_s));
}

void tst_CapiRuns::createSignatures()
{
    RecordedJob job;
    QCOMPARE(pellox_create_signatures(job, at("new"), at("out")), int(PELLOX_DONE));
    QCOMPARE(
        differenceBetween(m_scenario->signatures(), m_scenario->tree().path("out"_s)), QString());
    QVERIFY(neverFalls(job.progress));
    QCOMPARE(job.progress.last(), qMakePair(qint64(10000), qint64(10000)));
    QVERIFY(job.phases.isEmpty());
    QCOMPARE(job.threads, std::set<std::thread::id>{std::this_thread::get_id()});
}

void tst_CapiRuns::createPatch()
{
    RecordedJob job;
    QCOMPARE(pellox_add_ignored_file(job, "game.exe"), int(PELLOX_DONE));
    QCOMPARE(pellox_set_threads(job, 1), int(PELLOX_DONE));
    QCOMPARE(
        pellox_create_patch(job, at("new"), at("old signatures"), at("out")), int(PELLOX_DONE));
    QVERIFY(m_scenario->tree().exists("out/data/changed"_s));
    QVERIFY(!m_scenario->tree().exists("out/game.exe"_s));
}

void tst_CapiRuns::publish()
{
    RecordedJob job;
    QCOMPARE(pellox_publish(job, at("new"), at("old signatures"), at("out"), at("next")),
        int(PELLOX_DONE));
    QCOMPARE(
        differenceBetween(m_scenario->signatures(), m_scenario->tree().path("next"_s)), QString());
    QCOMPARE(pellox_update(job, build(), at("out")), int(PELLOX_DONE));
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_CapiRuns::publishFromTheOldBuild()
{
    RecordedJob job;
    QCOMPARE(
        pellox_create_patch(job, at("new"), at("old signatures"), at("next")), int(PELLOX_DONE));
    QCOMPARE(pellox_set_old_build(job, at("old")), int(PELLOX_DONE));
    QCOMPARE(pellox_set_delta_memory(job, 64 << 20), int(PELLOX_DONE));
    const auto sizeIn = [this](const char *patch) {
        return QFileInfo(QString::fromUtf8(at(patch)) + "/data/changed"_s).size();
    };
    for (const int effort : {PELLOX_EFFORT_BALANCED, PELLOX_EFFORT_SMALLEST}) {
        QCOMPARE(pellox_set_delta_effort(job, effort), int(PELLOX_DONE));
        QCOMPARE(
            pellox_create_patch(job, at("new"), at("old signatures"), at("out")), int(PELLOX_DONE));
        QVERIFY2(sizeIn("out") < sizeIn("next"), QByteArray::number(sizeIn("out")).constData());
    }
    QCOMPARE(pellox_update(job, build(), at("out")), int(PELLOX_DONE));
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_CapiRuns::publishThatFails()
{
    RecordedJob job;
    QCOMPARE(pellox_create_signatures(job, at("not there"), at("out")), int(PELLOX_FAILED));
    QCOMPARE(job.problems.size(), 1);
    const RecordedJob::Problem &problem = job.problems.first();
    QCOMPARE(problem.code, int(PELLOX_PROBLEM_OTHER));
    QCOMPARE(problem.codeName, QByteArray("other"));
    QCOMPARE(problem.file, QByteArray());
    QVERIFY2(problem.message.startsWith(at("not there") + ": "), problem.message.constData());
    QCOMPARE(problem.reason, problem.message);
    QCOMPARE(problem.advice, QByteArray());
}

void tst_CapiRuns::publishThatIsCancelled()
{
    RecordedJob job;
    job.onProgress = [&] { pellox_cancel(job); };
    QCOMPARE(pellox_publish(job, at("new"), at("old signatures"), at("out"), at("next")),
        int(PELLOX_CANCELLED));
    QVERIFY(job.problems.isEmpty());
    QVERIFY(!m_scenario->tree().exists("out/patchRules.json"_s));
}

/// False where the library is built without libcrypto.
bool tst_CapiRuns::makeKey() const
{
    RecordedJob job;
    const int result = pellox_generate_key(job, at("release.key"), at("release.key.pub"));
    if (result != PELLOX_DONE && !job.problems.at(0).message.contains("libcrypto"))
        qFatal("no key can be made");
    return result == PELLOX_DONE;
}

void tst_CapiRuns::sealedUpdates()
{
    if (!makeKey())
        QSKIP("built without libcrypto");
    RecordedJob updater;
    QCOMPARE(pellox_add_trusted_key(updater, at("release.key.pub")), int(PELLOX_DONE));
    QCOMPARE(pellox_update(updater, build(), patch()), int(PELLOX_REFUSED));
    QCOMPARE(updater.codes(), QVector<int>{PELLOX_PROBLEM_NOT_TRUSTED});

    RecordedJob sealer;
    QCOMPARE(pellox_add_private_key(sealer, at("release.key")), int(PELLOX_DONE));
    QCOMPARE(pellox_seal(sealer, patch(), at("old signatures"), 7), int(PELLOX_DONE));
    QCOMPARE(sealer.progress.last(), qMakePair(qint64(10000), qint64(10000)));
    QCOMPARE(pellox_update(updater, build(), patch()), int(PELLOX_DONE));
    QVERIFY(m_scenario->tree().exists("build/.pellox/release"_s));
}

void tst_CapiRuns::sealThatFails()
{
    RecordedJob job;
    QCOMPARE(pellox_seal(job, patch(), at("old signatures"), 7), int(PELLOX_FAILED));
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_OTHER});
    QVERIFY(!job.problems.first().message.isEmpty());

    m_scenario->tree().write("release.key"_s, "there already");
    QCOMPARE(
        pellox_generate_key(job, at("release.key"), at("release.key.pub")), int(PELLOX_FAILED));
    QCOMPARE(job.codes(), QVector<int>({PELLOX_PROBLEM_OTHER, PELLOX_PROBLEM_OTHER}));
    QCOMPARE(m_scenario->tree().read("release.key"_s), QByteArray("there already"));
}

void tst_CapiRuns::olderReleases()
{
    if (!makeKey())
        QSKIP("built without libcrypto");
    RecordedJob sealer;
    QCOMPARE(pellox_add_private_key(sealer, at("release.key")), int(PELLOX_DONE));
    QCOMPARE(pellox_seal(sealer, patch(), at("old signatures"), 7), int(PELLOX_DONE));
    QCOMPARE(
        pellox_publish(sealer, at("old"), utf8(m_scenario->signatures()), at("out"), at("next")),
        int(PELLOX_DONE));
    QCOMPARE(pellox_seal(sealer, at("out"), signatures(), 6), int(PELLOX_DONE));

    RecordedJob updater;
    QCOMPARE(pellox_add_trusted_key(updater, at("release.key.pub")), int(PELLOX_DONE));
    QCOMPARE(pellox_update(updater, build(), patch()), int(PELLOX_DONE));
    QCOMPARE(pellox_update(updater, build(), at("out")), int(PELLOX_REFUSED));
    QCOMPARE(updater.codes(), QVector<int>{PELLOX_PROBLEM_OLDER_RELEASE});
    QCOMPARE(pellox_set_older_allowed(updater, 1), int(PELLOX_DONE));
    QCOMPARE(pellox_update(updater, build(), at("out")), int(PELLOX_DONE));
}

void tst_CapiRuns::slimPatch()
{
    if (!makeKey())
        QSKIP("built without libcrypto");
    RecordedJob job;
    QCOMPARE(pellox_add_private_key(job, at("release.key")), int(PELLOX_DONE));
    QCOMPARE(pellox_seal(job, patch(), at("old signatures"), 7), int(PELLOX_DONE));
    QCOMPARE(pellox_write_slim(job, patch(), at("slim patch")), int(PELLOX_DONE));
    QVERIFY(!m_scenario->tree().exists("slim patch/moved to here"_s));
    QCOMPARE(pellox_add_trusted_key(job, at("release.key.pub")), int(PELLOX_DONE));
    QCOMPARE(pellox_update(job, build(), at("slim patch")), int(PELLOX_DONE));
    QVERIFY(m_scenario->tree().exists("build/moved to here"_s));
}

void tst_CapiRuns::recordRelease()
{
    if (!makeKey())
        QSKIP("built without libcrypto");
    m_scenario->layNew();
    RecordedJob job;
    QCOMPARE(pellox_add_private_key(job, at("release.key")), int(PELLOX_DONE));
    QCOMPARE(pellox_seal(job, patch(), at("old signatures"), 7), int(PELLOX_DONE));
    QCOMPARE(pellox_record_release(job, build(), signatures(), patch()), int(PELLOX_REFUSED));
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_NOT_TRUSTED});

    QCOMPARE(pellox_add_trusted_key(job, at("release.key.pub")), int(PELLOX_DONE));
    QCOMPARE(pellox_record_release(job, build(), signatures(), patch()), int(PELLOX_DONE));
    QVERIFY(m_scenario->tree().exists("build/.pellox/release"_s));
    QCOMPARE(pellox_record_release(job, build(), signatures(), patch()), int(PELLOX_NOTHING_TO_DO));
}

QTEST_GUILESS_MAIN(tst_CapiRuns)
#include "tst_capiruns.moc"
