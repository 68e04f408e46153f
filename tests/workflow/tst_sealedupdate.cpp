// SPDX-License-Identifier: MIT
#include "logcapture.h"
#include "updatescenario.h"

#include <Pellox/PatchSeal>
#include <Pellox/PublishController>

#include <QDir>
#include <QDirIterator>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <optional>

using Pellox::PatchSeal;
using Pellox::PublishController;
using Pellox::UpdateController;
using Code = Pellox::UpdateProblem::Code;
using Result = UpdateController::UpdateResult;

namespace {

QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, static_cast<int>(size));
}

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
    void keyMustBeReadable();
    void alteredPatchIsRefused_data();
    void alteredPatchIsRefused();
    void strangeFilesAreRefusedAllAtOnce();
    void fallbackBringsStrangeFiles();
    void fallbackMustHaveThem();
    void newFilesAreNewWhateverElseIs();
    void copiedFilesAreCompared();
    void olderReleaseIsRefused();
    void olderReleaseMayBeAllowed();
    void patchOfAnotherBuildIsRefused();
    void updateWithoutASealForgetsTheRelease();
    void rollbackBringsTheReleaseBack();
    void damagedRecordIsTold();

private:
    QString key(const char *name) const { return m_scenario->tree().path(QLatin1String(name)); }
    void seal(const QStringList &keys, qint64 release = Release) const;
    UpdateOutcome update(const std::function<void(UpdateController &)> &set = {}) const;
    void verifyRefused(const UpdateOutcome &outcome, Code code, const QString &file) const;
    qint64 installedRelease() const;
    void removeRecord() const;

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

void tst_SealedUpdate::keyMustBeReadable()
{
    const UpdateOutcome outcome = update([this](UpdateController &updater) {
        updater.setTrustedKeys({key("key.pub"), key("no such key")});
    });
    verifyRefused(outcome, Code::NotTrusted, key("no such key"));
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

QTEST_GUILESS_MAIN(tst_SealedUpdate)

#include "tst_sealedupdate.moc"
