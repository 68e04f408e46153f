// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "patience.h"
#include "updatescenario.h"

#include <Pellox/BinariesController>
#include <Pellox/PatchSeal>
#include <Pellox/PublishController>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QSignalSpy>
#include <QtTest>

#include <algorithm>
#include <optional>

#include <sys/stat.h>

using Pellox::PatchSeal;
using Pellox::PublishController;
using Pellox::UpdateController;
using Code = Pellox::UpdateProblem::Code;
using Result = UpdateController::UpdateResult;

Q_DECLARE_METATYPE(Code)

namespace {

void removeIfThere(const TestTree &tree, const QString &path)
{
    if (tree.exists(path))
        tree.remove(path);
}

const QString Moved = QStringLiteral("moved to here"); // of UpdateScenario
const QString Source = QStringLiteral("moved");

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

mode_t permissionsOf(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode & 0777U : 0;
}

} // namespace

/// Patches without the files that players have under other names.
class tst_SlimPatch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { m_scenario.reset(); }
    void init();
    void cleanup();

    void slimPatchLacksWhatMovedAndNothingElse();
    void patchWithoutMovedFilesIsAllThere();
    void slimPatchReplacesAnEarlierOne();
    void foldersThatWillNotDo_data();
    void foldersThatWillNotDo();
    void patchesThatWillNotDo_data();
    void patchesThatWillNotDo();
    void whatIsLeftOutNeedNotBeThere();
    void slimPatchThatCannotBeWritten();
    void cancelLeavesNoSlimPatch_data();
    void cancelLeavesNoSlimPatch();
    void progressNeverFalls();

    void oneSealServesBoth();
    void anyOfThemMayBeMissing();
    void allElseMustBeThere_data();
    void allElseMustBeThere();
    void payloadThatIsThereMustBeRight();
    void withoutAKeyNothingMayBeMissing();
    void coreNeedsTheFullPatch();
    void sourceMayChangeInTheSameUpdate();
    void newFilesNeedNoSource();
    void otherContentIsReplaced();
    void sourceThatWillNotDoIsNamed_data();
    void sourceThatWillNotDoIsNamed();
    void everySourceIsNamedAtOnce();
    void linkToTheContentWillDo();
    void fallbackBringsWhatNoSourceCan();
    void fallbackMustHaveIt();
    void sourceThatChangesMeanwhile_data();
    void sourceThatChangesMeanwhile();
    void permissionsAreTheSources();
    void rollbackAfterASlimUpdate();
    void planCountsRight();
    void checkTellsHowFarItIs();

private:
    QString path(const QString &relative) const { return m_scenario->tree().path(relative); }
    QString build(const QString &relative) const
    {
        return m_scenario->build() + QLatin1Char('/') + relative;
    }
    QString slim(const QString &relative = QString()) const
    {
        return path("slim"_s) + (relative.isEmpty() ? QString() : QLatin1Char('/') + relative);
    }
    QString writeSlim() const;
    void seal(const QString &patch, const QString &oldSignatures) const;
    void publishSealed(const TestTree &tree) const;
    void publishSlim(const TestTree &tree) const;
    UpdateOutcome update(
        const QString &patch, const std::function<void(UpdateController &)> &set = {}) const;
    UpdateOutcome update() const { return update(slim()); }
    QStringList problemsOf(const UpdateOutcome &outcome) const;
    QString differenceToNew() const;

    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
    QString m_key;
};

void tst_SlimPatch::initTestCase()
{
    m_scenario.emplace();
    m_key = path("key"_s);
    QString error;
    if (!PatchSeal::generateKey(m_key, m_key + ".pub"_s, &error)) {
        QVERIFY2(error.contains("libcrypto"_s), qPrintable(error));
        QSKIP("built without libcrypto");
    }
    seal(m_scenario->fullPatch(), m_scenario->oldSignatures());
}

void tst_SlimPatch::init()
{
    m_log.emplace();
    m_scenario->lay();
    removeIfThere(m_scenario->tree(), "slim"_s);
    QCOMPARE(writeSlim(), QString());
}

void tst_SlimPatch::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

/// Empty when it was written.
QString tst_SlimPatch::writeSlim() const
{
    PatchSeal sealer;
    const bool written = sealer.writeSlim(m_scenario->fullPatch(), slim());
    return written == sealer.error().isEmpty() ? sealer.error() : "result and error do not fit"_s;
}

void tst_SlimPatch::seal(const QString &patch, const QString &oldSignatures) const
{
    PatchSeal sealer;
    if (!sealer.seal(patch, oldSignatures, 7, {m_key}))
        qFatal("cannot seal: %s", qPrintable(sealer.error()));
}

/// From "old" to "new", into "patch".
void tst_SlimPatch::publishSealed(const TestTree &tree) const
{
    PublishController publisher;
    QVERIFY(publisher.createSignatures(tree.path("old"_s), tree.path("of old"_s)));
    QVERIFY(publisher.createPatch(tree.path("new"_s), tree.path("of old"_s), tree.path("patch"_s)));
    seal(tree.path("patch"_s), tree.path("of old"_s));
}

/// Likewise, and the slim patch into "slim".
void tst_SlimPatch::publishSlim(const TestTree &tree) const
{
    publishSealed(tree);
    PatchSeal sealer;
    QVERIFY(sealer.writeSlim(tree.path("patch"_s), tree.path("slim"_s)));
}

UpdateOutcome tst_SlimPatch::update(
    const QString &patch, const std::function<void(UpdateController &)> &set) const
{
    return outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        updater.setTrustedKeys({m_key + ".pub"_s});
        if (set)
            set(updater);
        return updater.update(m_scenario->build(), patch);
    });
}

/// Sorted, with paths relative to the test's folder.
QStringList tst_SlimPatch::problemsOf(const UpdateOutcome &outcome) const
{
    QStringList problems = outcome.errors;
    problems.replaceInStrings(m_scenario->tree().path() + QLatin1Char('/'), QString());
    problems.sort();
    return problems;
}

QString tst_SlimPatch::differenceToNew() const
{
    m_scenario->removeRecord();
    return m_scenario->differenceToNew();
}

void tst_SlimPatch::slimPatchLacksWhatMovedAndNothingElse()
{
    auto expected = TestTree::snapshot(m_scenario->fullPatch());
    QCOMPARE(expected.remove(Moved), 1);
    QCOMPARE(TestTree::snapshot(slim()), expected);
    QDirIterator files(slim(), QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString relative = files.next().mid(slim().size());
        if (relative != "/patchRules.json"_s && relative != "/patchSeal.json"_s)
            QCOMPARE(permissionsOf(slim() + relative),
                permissionsOf(m_scenario->fullPatch() + relative));
    }
}

void tst_SlimPatch::patchWithoutMovedFilesIsAllThere()
{
    const TestTree tree;
    tree.write("old/a"_s, "one");
    tree.write("new/a"_s, "two");
    tree.write("new/b"_s, "three");
    tree.write("new/empty"_s, "");
    tree.write("old/was empty"_s, "");
    publishSealed(tree);
    PatchSeal sealer;
    QVERIFY(sealer.writeSlim(tree.path("patch"_s), tree.path("deep/slim"_s)));
    QCOMPARE(
        TestTree::snapshot(tree.path("deep/slim"_s)), TestTree::snapshot(tree.path("patch"_s)));
}

/// With the files that the new one has not, and those of a full one too. Hidden ones stay.
void tst_SlimPatch::slimPatchReplacesAnEarlierOne()
{
    const auto expected = TestTree::snapshot(slim());
    const TestTree &tree = m_scenario->tree();
    QFile rules(slim("patchRules.json"_s));
    QVERIFY(rules.open(QIODevice::WriteOnly));
    rules.write(R"([{"rule":"copy","relative_path":"/earlier"}])");
    rules.close();
    removeIfThere(m_scenario->tree(), "slim"_s);
    tree.write("slim/patchRules.json"_s, R"([{"rule":"copy","relative_path":"/of it/earlier"}])");
    tree.write("slim/patchSeal.json"_s, "an earlier seal");
    tree.write("slim/of it/earlier"_s, "earlier");
    QCOMPARE(writeSlim(), QString());
    QCOMPARE(TestTree::snapshot(slim()), expected);
    tree.write("slim/.hidden"_s, "stays");
    QCOMPARE(writeSlim(), QString());
    QCOMPARE(tree.read("slim/.hidden"_s), QByteArray("stays"));
    QCOMPARE(TestTree::snapshot(slim()).size(), expected.size() + 1);
}

void tst_SlimPatch::foldersThatWillNotDo_data()
{
    QTest::addColumn<QString>("patch");
    QTest::addColumn<QString>("slim");
    QTest::addColumn<QString>("error"); // %1: the test's folder
    const QString patch = "patch"_s;
    QTest::newRow("no patch given") << QString() << "slim"_s
                                    << "a folder is not given"_s;
    QTest::newRow("no folder given") << patch << QString() << "a folder is not given"_s;
    QTest::newRow("no such patch") << "no such"_s
                                   << "slim"_s
                                   << "%1/no such: there is no such folder"_s;
    QTest::newRow("the patch itself")
        << patch << patch << "%1/patch: must not be, hold or lie inside of %1/patch"_s;
    QTest::newRow("inside of the patch")
        << patch << "patch/slim"_s
        << "%1/patch/slim: must not be, hold or lie inside of %1/patch"_s;
    QTest::newRow("not sealed")
        << "old"_s
        << "slim"_s
        << "%1/old/patchSeal.json: is missing, so the patch is not sealed"_s;
    QTest::newRow("other files")
        << patch << "mixed"_s
        << "%1/mixed/more: is no part of the earlier release in its folder, which would be "
           "replaced as a whole: move it away"_s;
    QTest::newRow("no release")
        << patch << "new"_s
        << "%1/new: is not empty and holds no patchRules.json: only the folder of an earlier "
           "release is replaced"_s;
    QTest::newRow("a file") << patch << "key"_s
                            << "%1/key: is no folder"_s;
}

/// And nothing in them is touched.
void tst_SlimPatch::foldersThatWillNotDo()
{
    QFETCH(QString, patch);
    QFETCH(QString, slim);
    QFETCH(QString, error);
    m_scenario->tree().write("mixed/patchRules.json"_s, "[]");
    m_scenario->tree().write("mixed/more"_s, "more");
    const auto before = TestTree::snapshot(m_scenario->tree().path());
    const auto absolute
        = [&](const QString &folder) { return folder.isEmpty() ? folder : path(folder); };
    PatchSeal sealer;
    QVERIFY(!sealer.writeSlim(absolute(patch), absolute(slim)));
    QVERIFY(!sealer.wasCancelled());
    QCOMPARE(sealer.error(), error.replace("%1"_s, m_scenario->tree().path()));
    QCOMPARE(TestTree::snapshot(m_scenario->tree().path()), before);
}

void tst_SlimPatch::patchesThatWillNotDo_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("content"); // none: it goes
    QTest::addColumn<QString>("reason");
    const QString other = "is not what was sealed"_s;
    QTest::newRow("longer") << "game.exe"_s << QByteArray(100000, 'x') << other;
    QTest::newRow("of the same size")
        << "data/taken whole"_s << QByteArray("other comment") << other;
    QTest::newRow("rules") << "patchRules.json"_s << QByteArray("[]") << other;
    QTest::newRow("seal") << "patchSeal.json"_s << QByteArray("{}")
                          << "is damaged: it has not the form of a seal"_s;
    QTest::newRow("missing") << "game.exe"_s << QByteArray()
                             << "cannot be opened: No such file or directory"_s;
    QTest::newRow("no rules") << "patchRules.json"_s << QByteArray()
                              << "cannot be opened: No such file or directory"_s;
}

/// Players would refuse it, so there is none.
void tst_SlimPatch::patchesThatWillNotDo()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, content);
    QFETCH(QString, reason);
    const TestTree &tree = m_scenario->tree();
    const QString name = "patch/"_s + file;
    const QByteArray before = tree.read(name);
    const mode_t permissions = permissionsOf(path(name));
    removeIfThere(tree, "slim"_s);
    tree.remove(name);
    if (!content.isEmpty())
        tree.write(name, content);
    const QString error = writeSlim();
    removeIfThere(tree, name);
    tree.write(name, before);
    QCOMPARE(::chmod(QFile::encodeName(path(name)).constData(), permissions), 0);
    QCOMPARE(error, path(name) + ": "_s + reason);
    QVERIFY(!tree.exists("slim"_s));
    QCOMPARE(writeSlim(), QString());
}

/// So that a slim patch can be made of a slim one.
void tst_SlimPatch::whatIsLeftOutNeedNotBeThere()
{
    PatchSeal sealer;
    QVERIFY2(sealer.writeSlim(slim(), path("again"_s)), qPrintable(sealer.error()));
    QCOMPARE(TestTree::snapshot(path("again"_s)), TestTree::snapshot(slim()));
    m_scenario->tree().remove("again"_s);
}

void tst_SlimPatch::slimPatchThatCannotBeWritten()
{
    PatchSeal sealer;
    QVERIFY(!sealer.writeSlim(m_scenario->fullPatch(), "/proc/slim"_s));
    QVERIFY2(sealer.error().startsWith("/proc/slim: "_s), qPrintable(sealer.error()));
}

void tst_SlimPatch::cancelLeavesNoSlimPatch_data()
{
    QTest::addColumn<bool>("hadOne");
    QTest::newRow("new") << false;
    QTest::newRow("replaced") << true;
}

void tst_SlimPatch::cancelLeavesNoSlimPatch()
{
    QFETCH(bool, hadOne);
    if (!hadOne)
        removeIfThere(m_scenario->tree(), "slim"_s);
    PatchSeal sealer;
    QVERIFY(!sealer.writeSlim(m_scenario->fullPatch(), slim(), [&](double) { sealer.cancel(); }));
    QVERIFY(sealer.wasCancelled());
    QCOMPARE(sealer.error(), QString());
    QVERIFY(QDir(slim()).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
    QCOMPARE(writeSlim(), QString());
}

void tst_SlimPatch::progressNeverFalls()
{
    QVector<double> reported;
    PatchSeal sealer;
    QVERIFY(sealer.writeSlim(
        m_scenario->fullPatch(), slim(), [&](double percent) { reported.append(percent); }));
    QVERIFY(reported.size() >= 2);
    QVERIFY(std::is_sorted(reported.cbegin(), reported.cend()));
    QVERIFY(reported.first() >= 0);
    QCOMPARE(reported.last(), 100.0);
}

void tst_SlimPatch::oneSealServesBoth()
{
    QCOMPARE(contentOf(slim("patchSeal.json"_s)),
        contentOf(m_scenario->fullPatch() + "/patchSeal.json"_s));
    for (const QString &patch : {slim(), m_scenario->fullPatch()}) {
        m_scenario->lay();
        const UpdateOutcome outcome = update(patch);
        QCOMPARE(outcome.errors, QStringList());
        QCOMPARE(outcome.result, Result::Updated);
        QVERIFY(outcome.staged.contains(QLatin1Char('/') + Moved));
        QCOMPARE(update(patch).result, Result::AlreadyUpToDate);
        QCOMPARE(differenceToNew(), QString());
        QCOMPARE(m_scenario->touchedFile(), QString());
    }
}

/// A patch with two such files; each of them, and both.
void tst_SlimPatch::anyOfThemMayBeMissing()
{
    const TestTree tree;
    tree.write("old/one"_s, "one");
    tree.write("old/two"_s, "two");
    tree.write("new/to/one"_s, "one");
    tree.write("new/to/one again"_s, "one");
    tree.write("new/two"_s, "two");
    tree.write("new/two again"_s, "two");
    publishSealed(tree);
    const QStringList moved{"to/one"_s, "to/one again"_s, "two again"_s};
    for (int missing = 0; missing < 8; ++missing) {
        removeIfThere(tree, "some"_s);
        removeIfThere(tree, "build"_s);
        tree.write("build/one"_s, "one");
        tree.write("build/two"_s, "two");
        QDirIterator files(tree.path("patch"_s), QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString relative = files.next().mid(tree.path("patch"_s).size() + 1);
            const int number = moved.indexOf(relative);
            if (number < 0 || (missing & (1 << number)) == 0)
                tree.write("some/"_s + relative, tree.read("patch/"_s + relative));
        }
        const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
            updater.setTrustedKeys({m_key + ".pub"_s});
            return updater.update(tree.path("build"_s), tree.path("some"_s));
        });
        QCOMPARE(outcome.errors, QStringList());
        QCOMPARE(outcome.result, Result::Updated);
        tree.remove("build/.pellox"_s);
        QCOMPARE(TestTree::snapshot(tree.path("build"_s)), TestTree::snapshot(tree.path("new"_s)));
    }
}

void tst_SlimPatch::allElseMustBeThere_data()
{
    QTest::addColumn<QString>("file");
    for (const char *file :
        {"game.exe", "data/large.pak", "added/deep/program", "added/large.pak", "patchRules.json"})
        QTest::newRow(file) << QString::fromLatin1(file);
}

void tst_SlimPatch::allElseMustBeThere()
{
    QFETCH(QString, file);
    m_scenario->tree().remove("slim/"_s + file);
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(problemsOf(outcome), QStringList("slim/"_s + file + ": is missing"_s));
    QVERIFY(outcome.problems.first().code == Code::NotTrusted);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_SlimPatch::payloadThatIsThereMustBeRight()
{
    const QByteArray content = m_scenario->newFiles().value(Moved).content;
    m_scenario->tree().write("slim/"_s + Moved, QByteArray(content.size(), 'x'));
    const UpdateOutcome wrong = update();
    QCOMPARE(wrong.result, Result::Refused);
    QCOMPARE(problemsOf(wrong), QStringList("slim/moved to here: is not what was sealed"_s));
    m_scenario->tree().remove("slim/"_s + Moved);
    m_scenario->tree().link("slim/"_s + Moved, "nowhere"_s);
    const UpdateOutcome link = update();
    QCOMPARE(link.result, Result::Refused);
    QCOMPARE(problemsOf(link), QStringList("slim/moved to here: is no regular file"_s));
    m_scenario->tree().remove("slim/"_s + Moved);
    m_scenario->tree().write("slim/"_s + Moved, content);
    m_scenario->tree().write("build/"_s + Source, "is not needed");
    QCOMPARE(update().result, Result::Updated);
    QCOMPARE(contentOf(build(Moved)), content);
}

/// As without one nobody knows what the missing file was.
void tst_SlimPatch::withoutAKeyNothingMayBeMissing()
{
    const UpdateOutcome outcome
        = update(slim(), [](UpdateController &updater) { updater.setTrustedKeys({}); });
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(problemsOf(outcome), QStringList("slim/moved to here: is missing from the patch"_s));
    QVERIFY(outcome.problems.first().code == Code::BadPatch);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_SlimPatch::coreNeedsTheFullPatch()
{
    Pellox::BinariesController core;
    QSignalSpy finished(&core, &Pellox::BinariesController::finished);
    const auto isApplied = [&](const QString &patch) {
        finished.clear();
        m_scenario->lay();
        return core.applyPatch(m_scenario->build(), patch)
            && (!finished.isEmpty() || finished.wait(Patience)) && finished.at(0).at(0).toBool();
    };
    QVERIFY(!isApplied(slim()));
    QVERIFY(!QFileInfo::exists(build(Moved)));
    isApplied(m_scenario->fullPatch()); // other rules of it are beyond the core
    QCOMPARE(contentOf(build(Moved)), m_scenario->newFiles().value(Moved).content);
    m_log->clear();
}

/// Patched, deleted, or in the place of a new folder: staging only reads.
void tst_SlimPatch::sourceMayChangeInTheSameUpdate()
{
    const TestTree tree;
    const QByteArray content = randomBytes(3000, 5);
    tree.write("old/patched"_s, content);
    tree.write("old/deleted"_s, content + "2");
    tree.write("old/place"_s, content + "3");
    tree.write("new/patched"_s, content + "new");
    tree.write("new/was patched"_s, content);
    tree.write("new/was deleted"_s, content + "2");
    tree.write("new/place/of/it"_s, content + "3");
    publishSlim(tree);
    QCOMPARE(TestTree::snapshot(tree.path("slim"_s)).keys(),
        (QStringList{"patchRules.json"_s, "patchSeal.json"_s, "patched"_s}));
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setTrustedKeys({m_key + ".pub"_s});
        return updater.update(tree.path("old"_s), tree.path("slim"_s));
    });
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    tree.remove("old/.pellox"_s);
    QCOMPARE(TestTree::snapshot(tree.path("old"_s)), TestTree::snapshot(tree.path("new"_s)));
}

void tst_SlimPatch::newFilesNeedNoSource()
{
    m_scenario->tree().write("build/"_s + Moved, m_scenario->newFiles().value(Moved).content);
    m_scenario->tree().remove("build/"_s + Source);
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QVERIFY(!outcome.staged.contains(QLatin1Char('/') + Moved));
}

void tst_SlimPatch::otherContentIsReplaced()
{
    const QByteArray content = m_scenario->newFiles().value(Moved).content;
    for (const QByteArray &other : {QByteArray("other"), QByteArray(content.size(), 'x')}) {
        m_scenario->lay();
        m_scenario->tree().write("build/"_s + Moved, other);
        QCOMPARE(update().result, Result::Updated);
        QCOMPARE(contentOf(build(Moved)), content);
    }
}

void tst_SlimPatch::sourceThatWillNotDoIsNamed_data()
{
    QTest::addColumn<QString>("what");
    QTest::addColumn<QString>("reason");
    const QString other = "is not the file that the patch is for"_s;
    QTest::newRow("missing") << "missing"_s
                             << "is missing"_s;
    QTest::newRow("longer") << "longer"_s << other;
    QTest::newRow("of the same size") << "same size"_s << other;
    QTest::newRow("empty") << "empty"_s << other;
}

/// Before anything is touched, and with the file that is made of it.
void tst_SlimPatch::sourceThatWillNotDoIsNamed()
{
    QFETCH(QString, what);
    QFETCH(QString, reason);
    const TestTree &tree = m_scenario->tree();
    const QByteArray content = tree.read("build/"_s + Source);
    tree.remove("build/"_s + Source);
    const QMap<QString, QByteArray> contents{{"longer"_s, content + "x"},
        {"same size"_s, QByteArray(content.size(), 'x')}, {"empty"_s, QByteArray("")}};
    if (contents.contains(what))
        tree.write("build/"_s + Source, contents.value(what));
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(problemsOf(outcome),
        QStringList("build/moved: "_s + reason + ", and moved to here is made of it"_s));
    QVERIFY(outcome.problems.first().code == Code::DamagedInstall);
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

/// With the installed files that are to be patched.
void tst_SlimPatch::everySourceIsNamedAtOnce()
{
    const TestTree tree;
    for (const char *name : {"a", "b", "patched"})
        tree.write("old/"_s + QLatin1String(name), name);
    tree.write("new/patched"_s, "new");
    tree.write("new/of a"_s, "a");
    tree.write("new/of a again"_s, "a");
    tree.write("new/of b"_s, "b");
    publishSlim(tree);
    tree.write("old/a"_s, "x");
    tree.remove("old/b"_s);
    tree.write("old/patched"_s, "modded");
    const auto before = TestTree::snapshot(tree.path("old"_s));
    UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setTrustedKeys({m_key + ".pub"_s});
        return updater.update(tree.path("old"_s), tree.path("slim"_s));
    });
    QCOMPARE(outcome.result, Result::Refused);
    outcome.errors.replaceInStrings(tree.path("old/"_s), QString());
    outcome.errors.sort();
    QCOMPARE(outcome.errors,
        (QStringList{"a: is not the file that the patch is for, and of a again is made of it"_s,
            "a: is not the file that the patch is for, and of a is made of it"_s,
            "b: is missing, and of b is made of it"_s,
            "patched: is not the file that the patch is for"_s}));
    QCOMPARE(TestTree::snapshot(tree.path("old"_s)), before);
}

/// As players keep large files on another disk: no rule touches the link, and its content counts.
void tst_SlimPatch::linkToTheContentWillDo()
{
    const TestTree tree;
    tree.write("old/data/kept"_s, "content");
    tree.write("new/data/kept"_s, "content");
    tree.write("new/double"_s, "content");
    publishSlim(tree);
    const auto updateLinked = [&] {
        return outcomeOf([&](UpdateController &updater) {
            updater.setTrustedKeys({m_key + ".pub"_s});
            return updater.update(tree.path("old"_s), tree.path("slim"_s));
        });
    };
    QVERIFY(QFile::rename(tree.path("old/data"_s), tree.path("elsewhere"_s)));
    tree.link("old/data"_s, "../elsewhere"_s);
    QCOMPARE(updateLinked().errors, QStringList());
    QCOMPARE(tree.read("old/double"_s), QByteArray("content"));

    tree.remove("old/double"_s);
    tree.remove("old/data"_s);
    tree.makeFolder("old/data"_s);
    for (const char *target : {"kept", "nowhere"}) {
        tree.link("old/data/kept"_s, QLatin1String(target));
        const UpdateOutcome outcome = updateLinked();
        QCOMPARE(outcome.result, Result::Refused);
        QVERIFY(outcome.problems.first().code == Code::DamagedInstall);
        tree.remove("old/data/kept"_s);
    }
    // What is no file is not waited for.
    QCOMPARE(::mkfifo(QFile::encodeName(tree.path("old/data/kept"_s)).constData(), 0600), 0);
    const UpdateOutcome pipe = updateLinked();
    QCOMPARE(pipe.result, Result::Refused);
    QCOMPARE(pipe.errors,
        QStringList(
            tree.path("old/data/kept"_s) + ": is no regular file, and double is made of it"_s));
}

void tst_SlimPatch::fallbackBringsWhatNoSourceCan()
{
    const auto fromNew
        = [this](UpdateController &updater) { updater.setFallbackSource(m_scenario->newBuild()); };
    m_scenario->tree().write("build/"_s + Source, "damaged");
    const UpdateOutcome outcome = update(slim(), fromNew);
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(differenceToNew(), QString());

    m_scenario->lay();
    m_scenario->tree().remove("build/"_s + Source);
    QCOMPARE(update(slim(), fromNew).result, Result::Updated);
    QCOMPARE(differenceToNew(), QString());
}

void tst_SlimPatch::fallbackMustHaveIt()
{
    const TestTree &tree = m_scenario->tree();
    const auto fromOther = [this](UpdateController &updater) {
        updater.setFallbackSource(path("other fallback"_s));
    };
    tree.makeFolder("other fallback"_s);
    tree.write("build/"_s + Source, "damaged");
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdateOutcome missing = update(slim(), fromOther);
    QCOMPARE(missing.result, Result::Refused);
    QCOMPARE(problemsOf(missing),
        QStringList("other fallback/moved to here: is not the file that the patch leads to"_s));

    const int size = m_scenario->newFiles().value(Moved).content.size();
    tree.write("other fallback/"_s + Moved, QByteArray(size, 'x'));
    const UpdateOutcome wrong = update(slim(), fromOther);
    QCOMPARE(wrong.result, Result::Failed);
    QVERIFY(wrong.problems.first().code == Code::BadFallback);
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

void tst_SlimPatch::sourceThatChangesMeanwhile_data()
{
    QTest::addColumn<QByteArray>("content"); // none: it goes
    QTest::addColumn<bool>("hasFallback");
    const QByteArray sameSize(m_scenario->oldFiles().value(Source).content.size(), 'x');
    for (const bool hasFallback : {false, true}) {
        const char *fallback = hasFallback ? ", fallback" : "";
        QTest::addRow("of the same size%s", fallback) << sameSize << hasFallback;
        QTest::addRow("longer%s", fallback) << sameSize + "x" << hasFallback;
        QTest::addRow("gone%s", fallback) << QByteArray() << hasFallback;
    }
}

/// Between the check and the staging.
void tst_SlimPatch::sourceThatChangesMeanwhile()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, hasFallback);
    const UpdateOutcome outcome = update(slim(), [&](UpdateController &updater) {
        if (hasFallback)
            updater.setFallbackSource(m_scenario->newBuild());
        connect(
            &updater, &UpdateController::phaseChanged, &updater,
            [&](UpdateController::UpdatePhase phase) {
                if (phase != UpdateController::UpdatePhase::Staging)
                    return;
                m_scenario->tree().remove("build/"_s + Source);
                if (!content.isEmpty())
                    m_scenario->tree().write("build/"_s + Source, content);
            },
            Qt::DirectConnection);
    });
    if (hasFallback) {
        QCOMPARE(outcome.errors, QStringList());
        QCOMPARE(outcome.result, Result::Updated);
        QCOMPARE(differenceToNew(), QString());
        return;
    }
    const QString why
        = content.isEmpty() ? "is missing"_s : "is not the file that the patch is for"_s;
    QCOMPARE(outcome.result, Result::Failed);
    QCOMPARE(problemsOf(outcome),
        QStringList("build/moved: "_s + why + ", and moved to here is made of it"_s));
    QVERIFY(!QFileInfo::exists(build(Moved)));
    QVERIFY(!QFileInfo::exists(build(".pellox"_s)));
}

/// They are no content, so that the patch could not tell them.
void tst_SlimPatch::permissionsAreTheSources()
{
    QCOMPARE(::chmod(QFile::encodeName(build(Source)).constData(), 0750), 0);
    QCOMPARE(update().result, Result::Updated);
    QCOMPARE(permissionsOf(build(Moved)), mode_t(0750));
}

void tst_SlimPatch::rollbackAfterASlimUpdate()
{
    QCOMPARE(
        update(slim(), [](UpdateController &updater) { updater.setKeepPrevious(true); }).result,
        Result::Updated);
    QCOMPARE(m_scenario->rollback().result, Result::Updated);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_SlimPatch::planCountsRight()
{
    const auto planOf = [this](const QString &patch) {
        UpdateController updater;
        updater.setTrustedKeys({m_key + ".pub"_s});
        return updater.plan(m_scenario->build(), patch);
    };
    const auto full = planOf(m_scenario->fullPatch());
    const auto slim = planOf(this->slim());
    QVERIFY(slim.refusals.isEmpty());
    QVERIFY(slim.copies.contains(QLatin1Char('/') + Moved));
    QCOMPARE(slim.copies, full.copies);
    QCOMPARE(slim.filesToCopy, full.filesToCopy);
    QCOMPARE(slim.bytesToWrite, full.bytesToWrite);
    QCOMPARE(slim.bytesToRead, full.bytesToRead);
    QCOMPARE(slim.peakExtraDisk, full.peakExtraDisk);

    m_scenario->tree().remove("build/"_s + Source);
    const auto refused = planOf(this->slim());
    QCOMPARE(refused.refusals.size(), 1);
    QCOMPARE(refused.refusals.first().file, build(Source));
    QCOMPARE(m_scenario->tree().exists("build/.pellox"_s), false);
}

void tst_SlimPatch::checkTellsHowFarItIs()
{
    QVector<QPair<qlonglong, qlonglong>> checked;
    UpdateController::UpdatePhase phase = UpdateController::UpdatePhase::Finishing;
    const auto watch = [&](UpdateController &updater) {
        connect(
            &updater, &UpdateController::phaseChanged, &updater,
            [&](UpdateController::UpdatePhase now) { phase = now; }, Qt::DirectConnection);
        connect(
            &updater, &UpdateController::updateProgress, &updater,
            [&](qlonglong done, qlonglong total) {
                if (phase == UpdateController::UpdatePhase::Checking)
                    checked.append({done, total});
            },
            Qt::DirectConnection);
    };
    QCOMPARE(update(slim(), watch).result, Result::Updated);
    QVERIFY(checked.size() >= 2);
    const qlonglong slimTotal = checked.last().second;
    QCOMPARE(checked.last().first, slimTotal);
    checked.clear();
    m_scenario->lay();
    QCOMPARE(update(m_scenario->fullPatch(), watch).result, Result::Updated);
    // What is not read of the patch is read of the build.
    QCOMPARE(checked.last().second, slimTotal);
}

QTEST_GUILESS_MAIN(tst_SlimPatch)

#include "tst_slimpatch.moc"
