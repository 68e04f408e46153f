// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "memorylimit.h"
#include "toldspy.h"
#include "updatescenario.h"

#include <Pellox/IntegrityController>
#include <Pellox/PatchSeal>
#include <Pellox/PublishController>

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <optional>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using Pellox::PatchSeal;
using Pellox::PublishController;
using Pellox::UpdateController;
using Code = Pellox::UpdateProblem::Code;
using Result = UpdateController::UpdateResult;

namespace {

constexpr qint64 Release = 7;

} // namespace

/// Updates from patches that a trusted key has sealed.
class tst_SealedUpdate : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { m_scenario.reset(); }
    void init();
    void cleanup();

    void sealedPatchUpdates();
    void patchMustBeSealed();
    void sealMustBeByATrustedKey();
    void anyOfTheKeysWillDo();
    void trustedKeyMustBeOne_data();
    void trustedKeyMustBeOne();
    void alteredPatchIsRefused_data();
    void alteredPatchIsRefused();
    void strangeFilesAreRefusedAllAtOnce();
    void recordsInAFolderThatACrashHasLeft();
    void fallbackBringsStrangeFiles();
    void fallbackMustHaveThem();
    void newFilesAreNewWhateverElseIs();
    void copiedFilesAreCompared();
    void hiddenFilesInThePatchDoNotMatter();
    void otherFilesInThePatchAreNamed_data();
    void otherFilesInThePatchAreNamed();
    void checkTellsHowFarItIs();
    void cancelledCheck();
    void olderReleaseIsRefused();
    void installedReleaseIsRecordedInAnyCase();
    void recordThatCannotBeWritten();
    void olderPatchToTheSameBuild();
    void olderReleaseMayBeAllowed();
    void patchOfAnotherBuildIsRefused();
    void updateWithoutASealForgetsTheRelease();
    void rollbackBringsTheReleaseBack();
    void damagedRecordIsTold();
    void repairSettlesTheRecord_data();
    void repairSettlesTheRecord();
    void missingPatchIsNoSealsFault();
    void sealingRunsOutOfMemory();

    void installerRecordsTheRelease();
    void sealAloneIsEnoughToRecord();
    void recordProvesTheBase();
    void recordIsRefused_data();
    void recordIsRefused();
    void recordNeverFalls();
    void recordOfALockedBuild();

private:
    QString key(const char *name) const { return m_scenario->tree().path(QLatin1String(name)); }
    void seal(const QStringList &keys, qint64 release = Release) const;
    UpdateOutcome update(const std::function<void(UpdateController &)> &set = {}) const;
    void verifyRefused(const UpdateOutcome &outcome, Code code, const QString &file) const;
    qint64 installedRelease() const;
    void removeRecord() const;
    bool repair() const;
    struct Recorded
    {
        Result result = Result::Failed;
        QVector<Pellox::UpdateProblem> problems = {};
    };
    Recorded record(const QString &patch = QString(), const QString &signatures = QString(),
        const char *trusted = "key.pub") const;

    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
};

void tst_SealedUpdate::initTestCase()
{
    m_scenario.emplace();
    QString error;
    for (const char *name : {"key", "other", "third"}) {
        const QString file = key(name);
        if (!PatchSeal::generateKey(file, file + ".pub"_s, &error)) {
            QVERIFY2(error.contains("libcrypto"_s), qPrintable(error));
            QSKIP("built without libcrypto");
        }
    }
    seal({key("key")});
}

void tst_SealedUpdate::init()
{
    m_log.emplace();
    m_scenario->lay();
}

void tst_SealedUpdate::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_SealedUpdate::seal(const QStringList &keys, qint64 release) const
{
    PatchSeal sealer;
    const bool sealed
        = sealer.seal(m_scenario->patch(), m_scenario->oldSignatures(), release, keys);
    if (!sealed)
        qFatal("cannot seal: %s", qPrintable(sealer.error()));
}

UpdateOutcome tst_SealedUpdate::update(const std::function<void(UpdateController &)> &set) const
{
    return outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        updater.setTrustedKeys({key("key.pub")});
        if (set)
            set(updater);
        return updater.update(m_scenario->build(), m_scenario->patch());
    });
}

void tst_SealedUpdate::verifyRefused(
    const UpdateOutcome &outcome, Code code, const QString &file) const
{
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY2(outcome.problems.first().code == code, qPrintable(outcome.errors.first()));
    QCOMPARE(outcome.problems.first().file, file);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

/// 0 where none is known.
qint64 tst_SealedUpdate::installedRelease() const
{
    QFile file(m_scenario->build() + "/.pellox/release"_s);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return QJsonDocument::fromJson(file.readAll()).object().value("release"_s).toInt(-1);
}

void tst_SealedUpdate::removeRecord() const
{
    m_scenario->tree().remove("build/.pellox/release"_s);
    m_scenario->removeEmptyWorkFolder();
}

void tst_SealedUpdate::sealedPatchUpdates()
{
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(installedRelease(), Release);
    QCOMPARE(update().result, Result::AlreadyUpToDate);
    removeRecord();
    QCOMPARE(m_scenario->differenceToNew(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
}

void tst_SealedUpdate::patchMustBeSealed()
{
    const QString seal = m_scenario->patch() + "/patchSeal.json"_s;
    QVERIFY(QFile::rename(seal, key("kept seal")));
    const UpdateOutcome outcome = update();
    QVERIFY(QFile::rename(key("kept seal"), seal));
    verifyRefused(outcome, Code::NotTrusted, seal);
}

void tst_SealedUpdate::sealMustBeByATrustedKey()
{
    const UpdateOutcome outcome
        = update([this](UpdateController &updater) { updater.setTrustedKeys({key("other.pub")}); });
    verifyRefused(outcome, Code::NotTrusted, m_scenario->patch() + "/patchSeal.json"_s);
}

/// So that a key can be replaced: players trust both for a while, or patches have both seals.
void tst_SealedUpdate::anyOfTheKeysWillDo()
{
    const UpdateOutcome byPlayers = update([this](UpdateController &updater) {
        updater.setTrustedKeys({key("other.pub"), key("key.pub")});
    });
    QCOMPARE(byPlayers.result, Result::Updated);

    m_scenario->lay();
    seal({key("key"), key("third")});
    for (const char *trusted : {"key.pub", "third.pub"}) {
        m_scenario->lay();
        const UpdateOutcome byPublisher
            = update([&](UpdateController &updater) { updater.setTrustedKeys({key(trusted)}); });
        QCOMPARE(byPublisher.result, Result::Updated);
    }
    seal({key("key")});
}

void tst_SealedUpdate::trustedKeyMustBeOne_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("missing") << "no such key"_s << QByteArray();
    QTest::newRow("text") << "text"_s << QByteArray("no key");
    QTest::newRow("path with a colon") << "odd: /odd: key"_s << QByteArray("no key");
    QTest::newRow("private key") << "key"_s << QByteArray();
}

/// The patch is not to blame for it.
void tst_SealedUpdate::trustedKeyMustBeOne()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, content);
    if (!content.isEmpty())
        m_scenario->tree().write(name, content);
    const QString file = m_scenario->tree().path(name);
    const UpdateOutcome outcome = update([&](UpdateController &updater) {
        updater.setTrustedKeys({key("key.pub"), file});
    });
    verifyRefused(outcome, Code::BadKey, file);
}

void tst_SealedUpdate::alteredPatchIsRefused_data()
{
    QTest::addColumn<QString>("file");
    for (const char *file :
        {"patchRules.json", "game.exe", "data/large.pak", "added/deep/program", "moved to here"})
        QTest::newRow(file) << QString::fromLatin1(file);
}

/// One bit, at the end of any of its files.
void tst_SealedUpdate::alteredPatchIsRefused()
{
    QFETCH(QString, file);
    const QString path = m_scenario->patch() + QLatin1Char('/') + file;
    QFile altered(path);
    QVERIFY(altered.open(QIODevice::ReadWrite));
    const QByteArray content = altered.readAll();
    QByteArray other = content;
    other[other.size() - 1] = static_cast<char>(other.at(other.size() - 1) ^ 1);
    QVERIFY(altered.seek(0) && altered.write(other) == other.size() && altered.flush());
    const UpdateOutcome outcome = update();
    QVERIFY(altered.seek(0) && altered.write(content) == content.size() && altered.flush());
    verifyRefused(outcome, Code::NotTrusted, path);
}

/// Damaged, modded or missing: nothing is touched, and each is named.
void tst_SealedUpdate::strangeFilesAreRefusedAllAtOnce()
{
    const TestTree &tree = m_scenario->tree();
    tree.write("build/game.exe"_s, "modded");
    tree.write(
        "build/data/changed"_s, m_scenario->oldFiles().value("data/changed"_s).content + "x");
    tree.remove("build/data/large.pak"_s);
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.result, Result::Refused);
    QStringList named;
    for (const Pellox::UpdateProblem &problem : outcome.problems) {
        QVERIFY(problem.code == Code::DamagedInstall);
        named.append(problem.file.mid(m_scenario->build().size()));
    }
    named.sort();
    QCOMPARE(named, (QStringList{"/data/changed"_s, "/data/large.pak"_s, "/game.exe"_s}));
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

/// A run that was killed at its very end leaves the hidden folder, with nothing in it.
void tst_SealedUpdate::recordsInAFolderThatACrashHasLeft()
{
    m_scenario->layNew();
    m_scenario->tree().makeFolder("build/.pellox/staged"_s);
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::AlreadyUpToDate);
    QCOMPARE(installedRelease(), Release);
    removeRecord();
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_SealedUpdate::fallbackBringsStrangeFiles()
{
    const TestTree &tree = m_scenario->tree();
    tree.write("build/game.exe"_s, "modded");
    tree.write("build/data/changed"_s, "damaged");
    const UpdateOutcome outcome = update(
        [this](UpdateController &updater) { updater.setFallbackSource(m_scenario->newBuild()); });
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    removeRecord();
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_SealedUpdate::fallbackMustHaveThem()
{
    const TestTree &tree = m_scenario->tree();
    tree.makeFolder("fallback"_s);
    tree.write("build/game.exe"_s, "modded");
    const auto before = TestTree::snapshot(m_scenario->build());
    const auto fromFallback = [this](UpdateController &updater) {
        updater.setFallbackSource(m_scenario->tree().path("fallback"_s));
    };
    const UpdateOutcome missing = update(fromFallback);
    QCOMPARE(missing.result, Result::Refused);
    QVERIFY(missing.problems.first().code == Code::BadFallback);

    QByteArray other = m_scenario->newFiles().value("game.exe"_s).content;
    other[5] = static_cast<char>(~other.at(5));
    tree.write("fallback/game.exe"_s, other);
    const UpdateOutcome wrong = update(fromFallback);
    QCOMPARE(wrong.result, Result::Failed);
    QVERIFY(wrong.problems.first().code == Code::BadFallback);
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

void tst_SealedUpdate::newFilesAreNewWhateverElseIs()
{
    m_scenario->tree().write(
        "build/game.exe"_s, m_scenario->newFiles().value("game.exe"_s).content);
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.result, Result::Updated);
    QVERIFY(!outcome.staged.contains("/game.exe"_s));
}

/// A copied file of another content is replaced, though its size is right.
void tst_SealedUpdate::copiedFilesAreCompared()
{
    const QByteArray content = m_scenario->newFiles().value("moved to here"_s).content;
    m_scenario->tree().write("build/moved to here"_s, QByteArray(content.size(), 'x'));
    QCOMPARE(update().result, Result::Updated);
    QCOMPARE(m_scenario->tree().read("build/moved to here"_s), content);

    m_scenario->lay();
    m_scenario->tree().write("build/moved to here"_s, content);
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.result, Result::Updated);
    QVERIFY(!outcome.staged.contains("/moved to here"_s));
}

/// As desktops leave them. No rule leads to them, and nothing of them is read.
void tst_SealedUpdate::hiddenFilesInThePatchDoNotMatter()
{
    const TestTree &tree = m_scenario->tree();
    tree.write("patch/.DS_Store"_s, "icons");
    tree.write("patch/data/.cache/deep/x"_s, "pictures");
    tree.link("patch/.link"_s, "nowhere"_s);
    const UpdateOutcome outcome = update();
    for (const QString &path : {"patch/.DS_Store"_s, "patch/data/.cache"_s, "patch/.link"_s})
        tree.remove(path);
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    removeRecord();
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_SealedUpdate::otherFilesInThePatchAreNamed_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("plain") << "more"_s;
    QTest::newRow("in a folder") << "data/more"_s;
    QTest::newRow("with a colon") << "data/more: of it"_s;
    QTest::newRow("in a folder with a colon") << "data: more/of: it/x: y"_s;
    QTest::newRow("in an update's folder") << ".pellox/journal"_s;
}

void tst_SealedUpdate::otherFilesInThePatchAreNamed()
{
    QFETCH(QString, path);
    const QString file = m_scenario->patch() + QLatin1Char('/') + path;
    m_scenario->tree().write("patch/"_s + path, "x");
    const UpdateOutcome outcome = update();
    QVERIFY(QFile::remove(file));
    for (QString folder = QFileInfo(file).path(); QDir().rmdir(folder);)
        folder = QFileInfo(folder).path();
    verifyRefused(outcome, Code::NotTrusted, file);
    QCOMPARE(outcome.problems.first().reason, "is no part of the patch"_s);
}

/// In bytes of the patch and of the installed files, up to all; then staging begins anew.
void tst_SealedUpdate::checkTellsHowFarItIs()
{
    QVector<QPair<qlonglong, qlonglong>> checked;
    qlonglong staged = 0;
    UpdateController::UpdatePhase phase = UpdateController::UpdatePhase::Finishing;
    const UpdateOutcome outcome = update([&](UpdateController &updater) {
        connect(
            &updater, &UpdateController::phaseChanged, &updater,
            [&](UpdateController::UpdatePhase now) { phase = now; }, Qt::DirectConnection);
        connect(
            &updater, &UpdateController::updateProgress, &updater,
            [&](qlonglong done, qlonglong total) {
                if (phase == UpdateController::UpdatePhase::Checking)
                    checked.append({done, total});
                else
                    staged = total;
            },
            Qt::DirectConnection);
    });
    QCOMPARE(outcome.result, Result::Updated);
    qint64 patch = 0;
    QDirIterator files(m_scenario->patch(), QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        files.next();
        patch += files.fileName() == "patchSeal.json"_s ? 0 : files.fileInfo().size();
    }
    qint64 bases = 0;
    for (const char *name :
        {"data/changed", "data/emptied", "data/filled", "data/large.pak", "game.exe"})
        bases += m_scenario->oldFiles().value(QString::fromLatin1(name)).content.size();
    QVERIFY(checked.size() >= 2);
    qlonglong last = 0;
    for (const auto &[done, total] : checked) {
        QVERIFY(done >= last);
        QVERIFY(total >= patch + bases);
        QVERIFY(total < patch + bases + 100000); // the file with the long name
        last = done;
    }
    QCOMPARE(last, checked.last().second);
    QVERIFY(staged > 0 && staged != last);
}

void tst_SealedUpdate::cancelledCheck()
{
    const UpdateOutcome outcome = update([](UpdateController &updater) {
        connect(
            &updater, &UpdateController::updateProgress, &updater, [&] { updater.cancel(); },
            Qt::DirectConnection);
    });
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Cancelled);
    QVERIFY(outcome.phases
        == QVector<UpdateController::UpdatePhase>{UpdateController::UpdatePhase::Checking});
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_SealedUpdate::olderReleaseIsRefused()
{
    m_scenario->tree().write(
        "build/.pellox/release"_s, R"({"build":")" + QByteArray(128, 'a') + R"(","release":8})");
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code == Code::OlderRelease);
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

/// Else a build that was installed whole could be brought to an older release.
void tst_SealedUpdate::installedReleaseIsRecordedInAnyCase()
{
    m_scenario->layNew();
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::AlreadyUpToDate);
    QCOMPARE(installedRelease(), Release);

    seal({key("key")}, Release + 2);
    QCOMPARE(update().result, Result::AlreadyUpToDate);
    QCOMPARE(installedRelease(), Release + 2);
    const QString record = m_scenario->build() + "/.pellox/release"_s;
    const QDateTime written = QFileInfo(record).lastModified();
    QCOMPARE(update().result, Result::AlreadyUpToDate);
    QCOMPARE(QFileInfo(record).lastModified(), written);
    seal({key("key")});
    removeRecord();
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_SealedUpdate::recordThatCannotBeWritten()
{
    m_scenario->layNew();
    m_scenario->tree().write("build/.pellox/release.new/in the way"_s, "x");
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.result, Result::Failed);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().file.startsWith(m_scenario->build() + "/.pellox/release"_s));
    QCOMPARE(installedRelease(), 0);
    m_scenario->tree().remove("build/.pellox"_s);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// It is refused like any other; where that is allowed, the same build has gone back nowhere.
void tst_SealedUpdate::olderPatchToTheSameBuild()
{
    seal({key("key")}, Release + 2);
    QCOMPARE(update().result, Result::Updated);
    QCOMPARE(installedRelease(), Release + 2);
    seal({key("key")});
    const UpdateOutcome refused = update();
    QCOMPARE(refused.result, Result::Refused);
    QCOMPARE(refused.problems.size(), 1);
    QVERIFY(refused.problems.first().code == Code::OlderRelease);
    const auto allow = [](UpdateController &updater) { updater.setOlderAllowed(true); };
    QCOMPARE(update(allow).result, Result::AlreadyUpToDate);
    QCOMPARE(installedRelease(), Release + 2);

    m_scenario->tree().remove("build/moved to here"_s);
    QCOMPARE(update(allow).result, Result::Updated);
    QCOMPARE(installedRelease(), Release + 2);
    removeRecord();
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_SealedUpdate::olderReleaseMayBeAllowed()
{
    seal({key("key")}, 9);
    QCOMPARE(update().result, Result::Updated);
    QCOMPARE(installedRelease(), 9);
    // The way back, as a patch of its own with a smaller number.
    PublishController publisher;
    const QString back = key("back");
    QVERIFY(
        publisher.createPatch(m_scenario->tree().path("old"_s), m_scenario->signatures(), back));
    PatchSeal sealer;
    QVERIFY2(
        sealer.seal(back, m_scenario->signatures(), 8, {key("key")}), qPrintable(sealer.error()));
    const auto updateBack = [&](bool allowed) {
        return outcomeOf([&](UpdateController &updater) {
            updater.setTrustedKeys({key("key.pub")});
            updater.setOlderAllowed(allowed);
            // What was taken whole is not what the new build's signatures say.
            updater.setFallbackSource(m_scenario->tree().path("old"_s));
            return updater.update(m_scenario->build(), back);
        });
    };
    const UpdateOutcome refused = updateBack(false);
    QCOMPARE(refused.result, Result::Refused);
    QVERIFY(refused.problems.first().code == Code::OlderRelease);
    const UpdateOutcome allowed = updateBack(true);
    QCOMPARE(allowed.errors, QStringList());
    QCOMPARE(allowed.result, Result::Updated);
    QCOMPARE(installedRelease(), 8);
    seal({key("key")});
}

void tst_SealedUpdate::patchOfAnotherBuildIsRefused()
{
    m_scenario->tree().write(
        "build/.pellox/release"_s, R"({"build":")" + QByteArray(128, 'a') + R"(","release":6})");
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code == Code::ForeignPatch);
}

/// Nobody knows which release that is.
void tst_SealedUpdate::updateWithoutASealForgetsTheRelease()
{
    m_scenario->tree().write(
        "build/.pellox/release"_s, R"({"build":")" + QByteArray(128, 'a') + R"(","release":6})");
    QCOMPARE(m_scenario->update().result, Result::Updated);
    QCOMPARE(installedRelease(), 0);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_SealedUpdate::rollbackBringsTheReleaseBack()
{
    QCOMPARE(update([](UpdateController &updater) { updater.setKeepPrevious(true); }).result,
        Result::Updated);
    QCOMPARE(installedRelease(), Release);
    QCOMPARE(m_scenario->rollback().result, Result::Updated);
    QCOMPARE(installedRelease(), 0);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_SealedUpdate::damagedRecordIsTold()
{
    m_scenario->tree().write("build/.pellox/release"_s, "torn");
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.result, Result::Refused);
    QVERIFY(outcome.problems.first().code == Code::DamagedInstall);
    QCOMPARE(outcome.problems.first().file, m_scenario->build() + "/.pellox/release"_s);
}

/// By the signatures of the new build.
bool tst_SealedUpdate::repair() const
{
    Pellox::IntegrityController controller;
    ToldSpy finished(&controller, &Pellox::IntegrityController::finished);
    return controller.repair(m_scenario->build(), m_scenario->signatures(), m_scenario->newBuild())
        && finished.comes() && finished.at(0).at(0).toBool();
}

void tst_SealedUpdate::repairSettlesTheRecord_data()
{
    QTest::addColumn<bool>("isDamaged");
    QTest::newRow("of an intact build") << false;
    QTest::newRow("of a damaged build") << true;
}

/// So that its advice for a damaged record helps; one that fits the build is as good as before.
void tst_SealedUpdate::repairSettlesTheRecord()
{
    QFETCH(bool, isDamaged);
    m_scenario->layNew();
    const auto damage = [&] {
        if (isDamaged)
            m_scenario->tree().write("build/game.exe"_s, "modded");
    };
    for (const QByteArray &record :
        {QByteArray("torn"), R"({"build":")" + QByteArray(128, 'a') + R"(","release":8})"}) {
        damage();
        m_scenario->tree().write("build/.pellox/release"_s, record);
        QVERIFY(repair());
        QCOMPARE(m_scenario->differenceToNew(), QString());
    }
    QCOMPARE(update().result, Result::AlreadyUpToDate);
    QCOMPARE(installedRelease(), Release);
    damage();
    QVERIFY(repair());
    QCOMPARE(installedRelease(), Release);
    removeRecord();
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_SealedUpdate::missingPatchIsNoSealsFault()
{
    const QString nowhere = m_scenario->tree().path("nowhere"_s);
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setTrustedKeys({key("key.pub")});
        return updater.update(m_scenario->build(), nowhere);
    });
    verifyRefused(outcome, Code::BadFolder, nowhere);
}

/// The calls that block throw nothing either.
void tst_SealedUpdate::sealingRunsOutOfMemory()
{
    if (HasSanitizer)
        QSKIP("the sanitizer needs the memory itself");
    constexpr rlim_t LittleMemory = rlim_t(32) << 20;
    constexpr int Records = 200;
    constexpr int Length = 400000;
    const TestTree large;
    QByteArray json = "[\n";
    for (int i = 0; i < Records; ++i) {
        json += "    {\n        \"relative_path\": \"/" + QByteArray::number(i)
            + QByteArray(Length, 'n') + "\",\n        \"sha512\": \"" + QByteArray(128, '0')
            + "\"\n    }" + (i + 1 < Records ? ",\n" : "\n");
    }
    large.write("signatures/signatures.json"_s, json + "]\n");
    json.clear();
    PatchSeal sealer;
    bool sealed = true;
    {
        const MemoryLimit limit(LittleMemory);
        sealed
            = sealer.seal(m_scenario->patch(), large.path("signatures"_s), Release, {key("key")});
    }
    QVERIFY(!sealed);
    QVERIFY(!sealer.wasCancelled());
    QCOMPARE(sealer.error(), m_scenario->patch() + ": out of memory"_s);

    large.write("patch/patchSeal.json"_s, QByteArray());
    QVERIFY(QFile::resize(large.path("patch/patchSeal.json"_s), qint64(200) << 20));
    QString error;
    QStringList signers{"x"_s};
    {
        const MemoryLimit limit(LittleMemory);
        signers = PatchSeal::signersOf(large.path("patch"_s), {key("key.pub")}, &error);
    }
    QCOMPARE(signers, QStringList());
    QCOMPARE(error, large.path("patch: out of memory"_s));
    QCOMPARE(update().result, Result::Updated); // by the seal before
}

/// By the scenario's patch and the signatures of the new build, where no others are given.
tst_SealedUpdate::Recorded tst_SealedUpdate::record(
    const QString &patch, const QString &signatures, const char *trusted) const
{
    Recorded recorded;
    Pellox::IntegrityController controller;
    ToldSpy finished(&controller, &Pellox::IntegrityController::finished);
    connect(
        &controller, &Pellox::IntegrityController::problemFound, &controller,
        [&](const Pellox::UpdateProblem &problem) { recorded.problems.append(problem); },
        Qt::DirectConnection);
    if (!controller.recordRelease(m_scenario->build(),
            signatures.isEmpty() ? m_scenario->signatures() : signatures,
            patch.isEmpty() ? m_scenario->patch() : patch, {key(trusted)}))
        qFatal("a run does not start");
    if (!finished.comes())
        qFatal("a run does not end");
    recorded.result = controller.repairResult();
    const bool isGood
        = recorded.result == Result::Updated || recorded.result == Result::AlreadyUpToDate;
    if (finished.at(0).at(0).toBool() != isGood || recorded.problems.isEmpty() != isGood)
        qFatal("a run contradicts itself");
    return recorded;
}

void tst_SealedUpdate::installerRecordsTheRelease()
{
    m_scenario->layNew();
    QCOMPARE(record().result, Result::Updated);
    QCOMPARE(installedRelease(), Release);
    QCOMPARE(record().result, Result::AlreadyUpToDate);
    QCOMPARE(update().result, Result::AlreadyUpToDate);
    QCOMPARE(installedRelease(), Release);
    QCOMPARE(m_scenario->touchedFile(), QString());
    removeRecord();
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_SealedUpdate::sealAloneIsEnoughToRecord()
{
    m_scenario->layNew();
    const TestTree shipped;
    shipped.write("patchSeal.json"_s, m_scenario->tree().read("patch/patchSeal.json"_s));
    QCOMPARE(record(shipped.path()).result, Result::Updated);
    QCOMPARE(installedRelease(), Release);
}

/// From then on a patch of another build is refused, though all files that it names fit.
void tst_SealedUpdate::recordProvesTheBase()
{
    const TestTree other;
    layBuild(m_scenario->newFiles(), other.path("base"_s));
    other.write("base/data/unchanged"_s, "another base");
    layBuild(m_scenario->newFiles(), other.path("next"_s));
    other.write("next/data/unchanged"_s, "another base");
    other.write("next/game.exe"_s, "the next one");
    PublishController publisher;
    QVERIFY(publisher.createSignatures(other.path("base"_s), other.path("signatures"_s)));
    QVERIFY(publisher.createPatch(
        other.path("next"_s), other.path("signatures"_s), other.path("patch"_s)));
    PatchSeal sealer;
    QVERIFY2(
        sealer.seal(other.path("patch"_s), other.path("signatures"_s), Release + 1, {key("key")}),
        qPrintable(sealer.error()));
    const auto updateBy = [&] {
        return outcomeOf([&](UpdateController &updater) {
            updater.setSynced(false);
            updater.setTrustedKeys({key("key.pub")});
            return updater.update(m_scenario->build(), other.path("patch"_s));
        });
    };
    m_scenario->layNew();
    QCOMPARE(record().result, Result::Updated);
    const UpdateOutcome refused = updateBy();
    QCOMPARE(refused.result, Result::Refused);
    QVERIFY(refused.problems.first().code == Code::ForeignPatch);
    m_scenario->layNew();
    QCOMPARE(updateBy().result, Result::Updated); // nothing tells that it is not the base
}

void tst_SealedUpdate::recordIsRefused_data()
{
    QTest::addColumn<QString>("what");
    QTest::addColumn<QString>("code");
    QTest::newRow("changed file") << "changed"_s
                                  << "damaged-install"_s;
    QTest::newRow("missing file") << "missing"_s
                                  << "damaged-install"_s;
    QTest::newRow("file that no rule names is changed") << "unnamed"_s
                                                        << "damaged-install"_s;
    QTest::newRow("stranger's key") << "key"_s
                                    << "not-trusted"_s;
    QTest::newRow("altered seal") << "seal"_s
                                  << "not-trusted"_s;
    QTest::newRow("no seal") << "no seal"_s
                             << "not-trusted"_s;
    QTest::newRow("no patch") << "no patch"_s
                              << "bad-folder"_s;
    QTest::newRow("signatures of the old build") << "old"_s
                                                 << "bad-manifest"_s;
    QTest::newRow("signatures that leave a file out") << "fewer"_s
                                                      << "bad-manifest"_s;
}

void tst_SealedUpdate::recordIsRefused()
{
    QFETCH(QString, what);
    QFETCH(QString, code);
    const TestTree &tree = m_scenario->tree();
    m_scenario->layNew();
    const TestTree other;
    QByteArray seal = tree.read("patch/patchSeal.json"_s);
    if (what == "seal"_s)
        seal.replace("\\\"release\\\":7", "\\\"release\\\":9");
    if (what != "no seal"_s)
        other.write("patch/patchSeal.json"_s, seal);
    else
        other.makeFolder("patch"_s);
    if (what == "changed"_s)
        tree.write("build/game.exe"_s, "modded");
    else if (what == "missing"_s)
        tree.remove("build/data/filled"_s);
    else if (what == "unnamed"_s)
        tree.write("build/data/unchanged"_s, "modded");
    QString signatures;
    if (what == "old"_s) {
        m_scenario->lay();
        signatures = m_scenario->oldSignatures();
    } else if (what == "fewer"_s) {
        QJsonArray records
            = QJsonDocument::fromJson(tree.read("signatures/signatures.json"_s)).array();
        records.removeLast();
        other.write("signatures/signatures.json"_s, QJsonDocument(records).toJson());
        signatures = other.path("signatures"_s);
    }
    const auto before = TestTree::snapshot(m_scenario->build());
    const Recorded recorded
        = record(what == "no patch"_s ? other.path("x"_s) : other.path("patch"_s), signatures,
            what == "key"_s ? "other.pub" : "key.pub");
    QCOMPARE(recorded.result, Result::Refused);
    QCOMPARE(recorded.problems.size(), 1);
    QCOMPARE(recorded.problems.first().codeName(), code);
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

/// As with updates; a repair forgets what is of another build.
void tst_SealedUpdate::recordNeverFalls()
{
    m_scenario->layNew();
    m_scenario->tree().write(
        "build/.pellox/release"_s, R"({"build":")" + QByteArray(128, 'a') + R"(","release":8})");
    const Recorded older = record();
    QCOMPARE(older.result, Result::Refused);
    QVERIFY(older.problems.first().code == Code::OlderRelease);
    QCOMPARE(installedRelease(), 8);
    QVERIFY(repair());
    QCOMPARE(record().result, Result::Updated);
    QCOMPARE(installedRelease(), Release);

    seal({key("key")}, Release + 2);
    QCOMPARE(record().result, Result::Updated);
    QCOMPARE(installedRelease(), Release + 2);
    seal({key("key")});
    QCOMPARE(record().result, Result::AlreadyUpToDate);
    QCOMPARE(installedRelease(), Release + 2);

    for (const QByteArray &known :
        {QByteArray("torn"), R"({"build":")" + QByteArray(128, 'a') + R"(","release":6})"}) {
        m_scenario->tree().write("build/.pellox/release"_s, known);
        QCOMPARE(record().result, Result::Updated);
        QCOMPARE(installedRelease(), Release);
    }
}

void tst_SealedUpdate::recordOfALockedBuild()
{
    m_scenario->layNew();
    const int folder
        = ::open(QFile::encodeName(m_scenario->build()).constData(), O_RDONLY | O_DIRECTORY);
    QVERIFY(folder >= 0 && ::flock(folder, LOCK_EX | LOCK_NB) == 0);
    const Recorded recorded = record();
    ::close(folder);
    QCOMPARE(recorded.result, Result::Refused);
    QVERIFY(recorded.problems.first().code == Code::Busy);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

QTEST_GUILESS_MAIN(tst_SealedUpdate)

#include "tst_sealedupdate.moc"
