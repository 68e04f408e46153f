// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "literals.h"
#include "logcapture.h"
#include "updatescenario.h"

#include <Pellox/UpdateProblem>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <cerrno>
#include <functional>
#include <optional>

using Pellox::UpdateController;
using Phase = UpdateController::UpdatePhase;
using Result = UpdateController::UpdateResult;
using Code = Pellox::UpdateProblem::Code;
using Change = std::function<void(const TestTree &tree, const QString &path)>;

Q_DECLARE_METATYPE(Change)

namespace {

constexpr int FirstResult = 10; ///< status of updatecall

/// With bytes that are not what they were, and its time set back.
void spoil(const TestTree &tree, const QString &path)
{
    QFile file(tree.path(path));
    const QDateTime time = QFileInfo(file).lastModified();
    QVERIFY(file.open(QIODevice::ReadWrite) && file.putChar('#') && file.flush());
    QVERIFY(file.setFileTime(time, QFileDevice::FileModificationTime));
}

void append(const TestTree &tree, const QString &path)
{
    tree.write(path, tree.read(path) + "more");
}

void takeAway(const TestTree &tree, const QString &path)
{
    tree.remove(path);
}

void touch(const TestTree &tree, const QString &path)
{
    QFile file(tree.path(path));
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.setFileTime(
        QDateTime::fromSecsSinceEpoch(1000000000), QFileDevice::FileModificationTime));
}

/// The identity of a build, as one that 1.0 has recorded.
const QByteArray Build10("d3ef6e88276b5e1a5e349cd2b1834507a699a5baca4aaa125ec6623fe7e3b489"
                         "c7d228e47a4fa4856d871bf8519b771d0bf567b4705f5ce6239e6e4ef8ea6f20");

/// A journal of @p line, which ends with a line feed.
QByteArray withChecksum(const QByteArray &line)
{
    return line + QCryptographicHash::hash(line, QCryptographicHash::Sha512).toHex() + '\n';
}

} // namespace

/// Between a run that was interrupted and the one that finishes it somebody has been at the build.
class tst_UpdateLeftovers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { m_scenario.reset(); }
    void init();
    void cleanup();

    void lostContentIsTold_data();
    void lostContentIsTold();
    void lostContentIsMadeAgain_data();
    void lostContentIsMadeAgain();
    void lostContentIsRepaired();
    void playersFileAtAStagedNameStays_data();
    void playersFileAtAStagedNameStays();
    void otherPatchTellsOfLostContent();
    void buildWithLostContentIsNoRelease();
    void lostContentDoesNotForgetWhatIsKept();
    void otherVersionsAreRefused_data();
    void otherVersionsAreRefused();
    void journalsOfNobodyAreRefused_data();
    void journalsOfNobodyAreRefused();
    void otherVersionsKeptFilesStay();
    void otherVersionsStagedFilesStay();
    void finishesWhatVersion10HasBegun();
    void rollsBackWhatVersion10HasKept();
    void journalThatCannotBeSeen_data();
    void journalThatCannotBeSeen();
    void keptFilesAreCheckedFirst_data();
    void keptFilesAreCheckedFirst();
    void keptFileThatIsSpoiledMeanwhileStays();
    void rollbackGoesOn();
    void repairForgetsNothing_data();
    void repairForgetsNothing();
    void fileThatCameBackStays_data();
    void fileThatCameBackStays();
    void changedFileIsNotDeleted();
    void sparedFilesLeaveTheWayBack_data();
    void sparedFilesLeaveTheWayBack();
    void sparingKilledAtAnyCall();
    void linkOnTheWay_data();
    void linkOnTheWay();
    void linkThatComesWhileItStages();
    void buildThatIsMovedIsFinished();
    void recoveryTellsHowFarItHasRead();
    void recoveryIsCancelled_data();
    void recoveryIsCancelled();

private:
    QString build(const QString &path) const
    {
        return m_scenario->build() + QLatin1Char('/') + path;
    }
    const TestTree &tree() const { return m_scenario->tree(); }
    FaultRun run(const QString &command, const Faults &faults) const;
    void repair() const;
    void killBeforeItPlaces(const QString &command = "update"_s);
    QString stagedPath(const QString &path) const;
    void changeJournal(const std::function<void(QJsonObject &)> &change) const;
    void verifyAllIsNewBut(const QString &path) const;
    void noteStaying(const QString &staged);
    void verifyStays(const QString &staged) const;
    void changeWhatIsToGo() const;
    void verifyBackButForSpared() const;
    void removeStaying(const QString &staged) const;

    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
    std::optional<QByteArray> m_staying; ///< content of somebody else's file where one was staged
};

void tst_UpdateLeftovers::initTestCase()
{
    useMemoryForFiles();
    m_scenario.emplace();
}

void tst_UpdateLeftovers::init()
{
    m_log.emplace();
    m_scenario->lay();
    if (tree().exists("outside"_s))
        tree().remove("outside"_s);
}

void tst_UpdateLeftovers::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

FaultRun tst_UpdateLeftovers::run(const QString &command, const Faults &faults) const
{
    QStringList arguments{"1"_s, command, m_scenario->build()};
    if (command.startsWith("update"_s))
        arguments.append(m_scenario->patch());
    return runWithFaults(QStringLiteral(UPDATECALL_PROGRAM), arguments, faults);
}

/// From the new build.
void tst_UpdateLeftovers::repair() const
{
    const FaultRun repair = runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"1"_s, "repair"_s, m_scenario->build(), m_scenario->signatures(), m_scenario->newBuild()},
        {});
    QCOMPARE(repair.output, QByteArray());
    QCOMPARE(repair.status, 0);
}

/// With its journal on the disk and nothing done yet.
void tst_UpdateLeftovers::killBeforeItPlaces(const QString &command)
{
    const QStringList calls = run(command, {m_scenario->build(), "rename"}).calls;
    const int journal = calls.indexOf("rename "_s + build(".pellox/journal"_s));
    QVERIFY(journal >= 0 && journal + 1 < calls.size());
    m_scenario->lay();
    QVERIFY(
        run(command, {m_scenario->build(), "rename", journal + 2, "kill", false, true}).crashed);
    QVERIFY(m_scenario->hasJournal());
    QVERIFY(m_scenario->isOld());
}

/// Where the new content of @p path waits; relative to the tree.
QString tst_UpdateLeftovers::stagedPath(const QString &path) const
{
    const QByteArray journal = tree().read("build/.pellox/journal"_s);
    const QJsonObject object
        = QJsonDocument::fromJson(journal.left(journal.indexOf('\n'))).object();
    for (const QString &part : {"first"_s, "last"_s}) {
        for (const QJsonValue &entry : object.value(part).toArray()) {
            if (entry[1].toString() == QLatin1Char('/') + path)
                return "build"_s + entry[0].toString();
        }
    }
    return QString();
}

/// Its checksum follows.
void tst_UpdateLeftovers::changeJournal(const std::function<void(QJsonObject &)> &change) const
{
    const QByteArray journal = tree().read("build/.pellox/journal"_s);
    QJsonObject object = QJsonDocument::fromJson(journal.left(journal.indexOf('\n'))).object();
    change(object);
    tree().write("build/.pellox/journal"_s,
        withChecksum(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n'));
}

/// @p path is as it was before.
void tst_UpdateLeftovers::verifyAllIsNewBut(const QString &path) const
{
    for (auto file = m_scenario->newFiles().cbegin(); file != m_scenario->newFiles().cend();
         ++file) {
        if (file.key() != path)
            QVERIFY2(tree().read("build/"_s + file.key()) == file->content, qPrintable(file.key()));
    }
    const auto &old = m_scenario->oldFiles();
    QCOMPARE(QFileInfo::exists(build(path)), old.contains(path));
    if (old.contains(path))
        QCOMPARE(tree().read("build/"_s + path), old.value(path).content);
    QVERIFY(!QFileInfo::exists(build("gone"_s)));
}

/// What is not as it was staged is somebody else's, unless it lies in the hidden folder.
void tst_UpdateLeftovers::noteStaying(const QString &staged)
{
    const bool isElse = tree().exists(staged) && !staged.startsWith("build/.pellox/"_s);
    m_staying = isElse ? std::optional(tree().read(staged)) : std::nullopt;
}

void tst_UpdateLeftovers::verifyStays(const QString &staged) const
{
    QCOMPARE(tree().exists(staged), m_staying.has_value());
    if (m_staying && tree().exists(staged))
        QCOMPARE(tree().read(staged), *m_staying);
}

void tst_UpdateLeftovers::removeStaying(const QString &staged) const
{
    if (tree().exists(staged))
        tree().remove(staged);
}

void tst_UpdateLeftovers::lostContentIsTold_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<Change>("change");
    const QString replaced = "data/changed"_s;
    const QString added = "added/deep/program"_s;
    const QString last = "file to folder/inside"_s;
    QTest::newRow("replaced, gone") << replaced << Change(takeAway);
    QTest::newRow("replaced, other bytes") << replaced << Change(spoil);
    QTest::newRow("replaced, longer") << replaced << Change(append);
    QTest::newRow("copied, other bytes") << "data/taken whole"_s << Change(spoil);
    QTest::newRow("added, gone") << added << Change(takeAway);
    QTest::newRow("added, other bytes") << added << Change(spoil);
    QTest::newRow("of the last, gone") << last << Change(takeAway);
    QTest::newRow("of the last, longer") << last << Change(append);
}

/// Recovery finishes all else, and says which file is not what it should be.
void tst_UpdateLeftovers::lostContentIsTold()
{
    QFETCH(QString, path);
    QFETCH(Change, change);
    killBeforeItPlaces();
    const QString staged = stagedPath(path);
    QVERIFY(tree().exists(staged));
    change(tree(), staged);
    noteStaying(staged);

    const UpdateOutcome outcome = m_scenario->recover();
    QCOMPARE(outcome.result, Result::Failed);
    QCOMPARE(outcome.problems.size(), 1);
    QCOMPARE(outcome.problems.first().code, Code::DamagedInstall);
    QCOMPARE(outcome.problems.first().file, build(path));
    verifyAllIsNewBut(path);
    verifyStays(staged);
    QVERIFY(!m_scenario->hasJournal());
    QCOMPARE(m_scenario->touchedFile(), QString());

    QCOMPARE(m_scenario->recover().result, Result::AlreadyUpToDate);
    QCOMPARE(m_scenario->update().result, Result::Updated);
    removeStaying(staged);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateLeftovers::lostContentIsMadeAgain_data()
{
    lostContentIsTold_data();
}

/// An update that brings the file anyway has nothing to complain of.
void tst_UpdateLeftovers::lostContentIsMadeAgain()
{
    QFETCH(QString, path);
    QFETCH(Change, change);
    killBeforeItPlaces();
    const QString staged = stagedPath(path);
    change(tree(), staged);
    noteStaying(staged);
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    verifyStays(staged);
    removeStaying(staged);
    QCOMPARE(m_scenario->differenceToNew(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
}

void tst_UpdateLeftovers::lostContentIsRepaired()
{
    killBeforeItPlaces();
    tree().remove(stagedPath("data/changed"_s));
    repair();
    QVERIFY(!m_scenario->hasJournal());
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateLeftovers::playersFileAtAStagedNameStays_data()
{
    QTest::addColumn<bool>("isFolder");
    QTest::addColumn<QString>("next");
    for (const char *next : {"recover", "update"}) {
        QTest::addRow("file, %s", next) << false << QString::fromLatin1(next);
        QTest::addRow("folder, %s", next) << true << QString::fromLatin1(next);
    }
}

/// The first file has its place when the run is killed, and the game saves under the free name.
void tst_UpdateLeftovers::playersFileAtAStagedNameStays()
{
    QFETCH(bool, isFolder);
    QFETCH(QString, next);
    const QString staged = "build/game.exe.temp"_s;
    const QStringList calls = run("update"_s, {m_scenario->build(), "rename"}).calls;
    const int placed = calls.indexOf("rename "_s + build("game.exe"_s));
    QVERIFY(placed > 0 && placed + 1 < calls.size());
    m_scenario->lay();
    const Faults killed{m_scenario->build(), "rename", placed + 2, "kill", false, true};
    QVERIFY(run("update"_s, killed).crashed);
    QCOMPARE(tree().read("build/game.exe"_s), m_scenario->newFiles().value("game.exe"_s).content);
    QVERIFY(!tree().exists(staged));
    const QString mine = isFolder ? staged + "/mine"_s : staged;
    tree().write(mine, "mine");

    const UpdateOutcome outcome
        = next == "recover"_s ? m_scenario->recover() : m_scenario->update();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QVERIFY(!m_scenario->hasJournal());
    QVERIFY(tree().exists(mine));
    QCOMPARE(tree().read(mine), QByteArray("mine"));
    tree().remove(staged);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// One that does not name the file would end with a build that is no release, and say nothing.
void tst_UpdateLeftovers::otherPatchTellsOfLostContent()
{
    killBeforeItPlaces();
    tree().remove(stagedPath("data/changed"_s));
    tree().write(
        "other patch/patchRules.json"_s, "[{\"rule\": \"copy\", \"relative_path\": \"/brought\"}]");
    tree().write("other patch/brought"_s, "content");
    const auto update = [this] {
        return outcomeOf([this](UpdateController &updater) {
            updater.setSynced(false);
            return updater.update(m_scenario->build(), tree().path("other patch"_s));
        });
    };
    const UpdateOutcome outcome = update();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QCOMPARE(outcome.problems.first().file, build("data/changed"_s));
    QVERIFY(!QFileInfo::exists(build("brought"_s)));
    verifyAllIsNewBut("data/changed"_s);
    QCOMPARE(update().result, Result::Updated); // it has been told
}

void tst_UpdateLeftovers::buildWithLostContentIsNoRelease()
{
    const QJsonObject release{{"release"_s, 7}, {"build"_s, QString(128, QLatin1Char('a'))}};
    for (const bool lost : {false, true}) {
        m_scenario->lay();
        killBeforeItPlaces();
        changeJournal([&](QJsonObject &journal) { journal.insert("release"_s, release); });
        tree().write("build/.pellox/release"_s, "that of before");
        if (lost)
            tree().remove(stagedPath("data/changed"_s));
        QCOMPARE(m_scenario->recover().result, lost ? Result::Failed : Result::Updated);
        QCOMPARE(tree().exists("build/.pellox/release"_s), !lost);
        if (!lost)
            QVERIFY(tree().read("build/.pellox/release"_s).contains("7"));
    }
}

/// The way back is still open, and it is whole.
void tst_UpdateLeftovers::lostContentDoesNotForgetWhatIsKept()
{
    killBeforeItPlaces("update-keeping"_s);
    tree().remove(stagedPath("data/changed"_s));
    QCOMPARE(m_scenario->recover().result, Result::Failed);
    const UpdateOutcome outcome = m_scenario->rollback();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_UpdateLeftovers::otherVersionsAreRefused_data()
{
    QTest::addColumn<int>("version");
    QTest::newRow("earlier") << 1;
    QTest::newRow("later") << 3;
}

void tst_UpdateLeftovers::otherVersionsAreRefused()
{
    QFETCH(const int, version);
    killBeforeItPlaces();
    changeJournal([&](QJsonObject &journal) { journal.insert("version"_s, version); });
    const auto before = TestTree::snapshot(m_scenario->build());
    for (const bool recovers : {false, true}) {
        const UpdateOutcome outcome = recovers ? m_scenario->recover() : m_scenario->update();
        QCOMPARE(outcome.result, Result::Interrupted);
        QCOMPARE(outcome.problems.size(), 1);
        QCOMPARE(outcome.problems.first().code, Code::DamagedJournal);
        const QString told = "is of version %1, "_s.arg(version);
        QVERIFY2(outcome.errors.first().contains(told), qPrintable(outcome.errors.first()));
        QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
    }
}

void tst_UpdateLeftovers::journalsOfNobodyAreRefused_data()
{
    QTest::addColumn<QString>("member");
    QTest::addColumn<QJsonArray>("step");
    const QJsonObject mark{{"size"_s, 4}};
    const auto places
        = [](const char *name, const QString &from, const QString &to, const QJsonObject &placed) {
              QTest::newRow(name) << "first"_s << QJsonArray{from, to, placed};
          };
    const auto deletes = [](const char *name, const QString &path, const QJsonObject &deleted) {
        QTest::newRow(name) << "delete"_s << QJsonArray{path, deleted};
    };
    const auto withSize = [](double size) { return QJsonObject{{"size"_s, size}}; };
    places("placed outside", "/game.exe.temp"_s, "/../outside"_s, mark);
    places("taken from outside", "/../outside"_s, "/game.exe"_s, mark);
    places("placed without a size", "/game.exe.temp"_s, "/game.exe"_s, {});
    places("placed with a size below none", "/game.exe.temp"_s, "/game.exe"_s, withSize(-1));
    places("placed with a size beyond all", "/game.exe.temp"_s, "/game.exe"_s, withSize(1e300));
    places("placed with a checksum that is none", "/game.exe.temp"_s, "/game.exe"_s,
        {{"size"_s, 4}, {"sha512"_s, "0"_s}});
    QTest::newRow("placed as the last")
        << "last"_s << QJsonArray{"/game.exe.temp"_s, "/../outside"_s, mark};
    deletes("deleted outside", "/../outside"_s, mark);
    deletes("deleted without a size", "/game.exe"_s, {});
    deletes("deleted with a size beyond all", "/game.exe"_s, withSize(1e300));
    deletes("deleted with a time that is none", "/game.exe"_s,
        {{"size"_s, 4}, {"modified"_s, "yesterday"_s}});
}

/// No run has written them, though their checksum is right. Nothing of them is carried out.
void tst_UpdateLeftovers::journalsOfNobodyAreRefused()
{
    QFETCH(QString, member);
    QFETCH(QJsonArray, step);
    killBeforeItPlaces();
    tree().write("outside"_s, "mine");
    changeJournal([&](QJsonObject &journal) {
        QJsonArray steps = journal.value(member).toArray();
        steps.append(step);
        journal.insert(member, steps);
    });
    const auto before = TestTree::snapshot(m_scenario->build());
    for (const bool recovers : {false, true}) {
        const UpdateOutcome outcome = recovers ? m_scenario->recover() : m_scenario->update();
        QCOMPARE(outcome.result, Result::Interrupted);
        QCOMPARE(outcome.problems.size(), 1);
        QCOMPARE(outcome.problems.first().code, Code::DamagedJournal);
        QCOMPARE(outcome.errors,
            QStringList(
                build(".pellox/journal"_s) + ": is damaged; if the build is whole, remove it"_s));
        QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
        QCOMPARE(tree().read("outside"_s), QByteArray("mine"));
    }
}

void tst_UpdateLeftovers::otherVersionsKeptFilesStay()
{
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    tree().write("build/.pellox/previous.json"_s, withChecksum("{\"version\":3}\n"));
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdateOutcome outcome = m_scenario->rollback();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QCOMPARE(outcome.problems.first().code, Code::DamagedKept);
    QVERIFY2(outcome.errors.first().contains("version 3"_s), qPrintable(outcome.errors.first()));
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
    QVERIFY(m_scenario->discardPrevious());
    QVERIFY(!tree().exists("build/.pellox/previous.json"_s));
}

/// Of a record that is not known nothing is taken for the update's own.
void tst_UpdateLeftovers::otherVersionsStagedFilesStay()
{
    tree().write(
        "build/.pellox/staging"_s, withChecksum("staged 2\n/data/changed.temp\n/other.temp\n"));
    tree().write("build/data/changed.temp"_s, "staged");
    tree().write("build/other.temp"_s, "staged, too");
    QCOMPARE(m_scenario->update().result, Result::Updated);
    QCOMPARE(tree().read("build/data/changed.temp"_s), QByteArray("staged"));
    QCOMPARE(tree().read("build/other.temp"_s), QByteArray("staged, too"));
    verifyAllIsNewBut("nothing"_s);
    QVERIFY(!tree().exists("build/.pellox/staging"_s));
}

/// The text is that of 1.0, to the byte: a later version must not change it here.
void tst_UpdateLeftovers::finishesWhatVersion10HasBegun()
{
    tree().write("build/changed"_s, "old\n");
    tree().write("build/changed.temp"_s, "newer\n");
    tree().write("build/gone"_s, "bye\n");
    touch(tree(), "build/gone"_s);
    tree().write("build/.pellox/journal"_s,
        withChecksum("{\"changes_release\":true,\"keep_previous\":false,\"release\":{\"build\":\""
            + Build10
            + "\",\"release\":7},\"repair\":false,\"rollback\":false,\"version\":2,"
              "\"first\":[[\"/changed.temp\",\"/changed\",{\"sha512\":\""
              "f643e8cc9153751105d9067a6445f0330ebf515d92c341bb23eba950664ac31b"
              "e761c6e525537d40a8223415b010b78852ac880ef7e50be19b19723892764758\",\"size\":6}]],"
              "\"delete\":[[\"/gone\",{\"modified\":\"1000000000000000000\",\"size\":4}]],"
              "\"last\":[]}\n"));
    const UpdateOutcome outcome = m_scenario->recover();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(tree().read("build/changed"_s), QByteArray("newer\n"));
    QVERIFY(!tree().exists("build/changed.temp"_s) && !tree().exists("build/gone"_s));
    QVERIFY(!m_scenario->hasJournal());
    QCOMPARE(
        tree().read("build/.pellox/release"_s), "{\"build\":\"" + Build10 + "\",\"release\":7}");
}

/// Likewise.
void tst_UpdateLeftovers::rollsBackWhatVersion10HasKept()
{
    tree().write("build/changed"_s, "newer\n");
    tree().write("build/brought"_s, "brought\n");
    tree().write("build/.pellox/previous/changed"_s, "old\n");
    touch(tree(), "build/.pellox/previous/changed"_s);
    tree().write("build/.pellox/previous.json"_s,
        withChecksum("{\"changes_release\":true,\"keep_previous\":false,\"release\":null,"
                     "\"repair\":false,\"rollback\":true,\"version\":2,"
                     "\"first\":[[\"/.pellox/previous/changed\",\"/changed\","
                     "{\"modified\":\"1000000000000000000\",\"size\":4}]],"
                     "\"delete\":[[\"/brought\",{\"size\":-1}]],\"last\":[]}\n"));
    const UpdateOutcome outcome = m_scenario->rollback();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(tree().read("build/changed"_s), QByteArray("old\n"));
    QVERIFY(!tree().exists("build/brought"_s) && !tree().exists("build/.pellox/previous"_s));
}

void tst_UpdateLeftovers::journalThatCannotBeSeen_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<int>("error");
    for (const char *command : {"update", "recover", "rollback"}) {
        QTest::addRow("%s, EACCES", command) << QString::fromLatin1(command) << EACCES;
        QTest::addRow("%s, EIO", command) << QString::fromLatin1(command) << EIO;
    }
}

/// What is staged may be the only new content there is.
void tst_UpdateLeftovers::journalThatCannotBeSeen()
{
    QFETCH(QString, command);
    QFETCH(int, error);
    killBeforeItPlaces();
    const auto before = TestTree::snapshot(m_scenario->build());
    const QString journal = build(".pellox/journal"_s);
    const FaultRun blind
        = run(command, {journal, "look", 1, QByteArray::number(error), true, true});
    QVERIFY(!blind.calls.isEmpty());
    QCOMPARE(blind.status, FirstResult + static_cast<int>(Result::Interrupted));
    QVERIFY2(blind.output.startsWith(journal.toLocal8Bit() + ": "), blind.output.constData());
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
    QCOMPARE(m_scenario->recover().result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateLeftovers::keptFilesAreCheckedFirst_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<Change>("change");
    for (const QString &path : {"data/changed"_s, "gone"_s, "folder to file/sub/two"_s}) {
        QTest::newRow(qPrintable(path + ", gone"_s)) << path << Change(takeAway);
        QTest::newRow(qPrintable(path + ", longer"_s)) << path << Change(append);
        QTest::newRow(qPrintable(path + ", touched"_s)) << path << Change(touch);
    }
}

void tst_UpdateLeftovers::keptFilesAreCheckedFirst()
{
    QFETCH(QString, path);
    QFETCH(Change, change);
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    const QString kept = ".pellox/previous/"_s + path;
    change(tree(), "build/"_s + kept);
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdateOutcome outcome = m_scenario->rollback();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QCOMPARE(outcome.problems.first().code, Code::DamagedKept);
    QCOMPARE(outcome.problems.first().file, build(kept));
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
    QVERIFY(m_scenario->discardPrevious());
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// It may be the only copy, so that it is neither placed nor thrown away.
void tst_UpdateLeftovers::keptFileThatIsSpoiledMeanwhileStays()
{
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    const Faults killed{m_scenario->build(), "rename", 2, "kill", false, true};
    QVERIFY(run("rollback"_s, killed).crashed);
    QVERIFY(m_scenario->hasJournal());
    const QString kept = ".pellox/previous/game.exe"_s;
    QVERIFY(tree().exists("build/"_s + kept));
    append(tree(), "build/"_s + kept);
    const QByteArray content = tree().read("build/"_s + kept);

    const UpdateOutcome outcome = m_scenario->rollback();
    QCOMPARE(outcome.result, Result::Failed);
    QCOMPARE(outcome.problems.size(), 1);
    QCOMPARE(outcome.problems.first().code, Code::DamagedInstall);
    QCOMPARE(outcome.problems.first().file, build("game.exe"_s));
    QCOMPARE(tree().read("build/"_s + kept), content);
    QCOMPARE(tree().read("build/game.exe"_s), m_scenario->newFiles().value("game.exe"_s).content);
    QCOMPARE(tree().read("build/gone"_s), m_scenario->oldFiles().value("gone"_s).content);
    QVERIFY(!m_scenario->hasJournal());
}

/// Not that nothing is kept: what was kept has just been brought back.
void tst_UpdateLeftovers::rollbackGoesOn()
{
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    const Faults killed{m_scenario->build(), "rename", 3, "kill", false, true};
    QVERIFY(run("rollback"_s, killed).crashed);
    QVERIFY(m_scenario->hasJournal());
    const UpdateOutcome outcome = m_scenario->rollback();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_UpdateLeftovers::repairForgetsNothing_data()
{
    QTest::addColumn<QByteArray>("record"); // of the release
    QTest::newRow("none") << QByteArray();
    QTest::newRow("one that is damaged") << QByteArray("torn");
    QTest::newRow("of another build")
        << R"({"build":")" + QByteArray(128, 'a') + R"(","release":8})";
}

/// What is kept is the build before, whatever happens to this one's files and record.
void tst_UpdateLeftovers::repairForgetsNothing()
{
    QFETCH(QByteArray, record);
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    tree().write("build/game.exe"_s, "damaged");
    if (!record.isEmpty())
        tree().write("build/.pellox/release"_s, record);
    repair();
    QVERIFY(!tree().exists("build/.pellox/release"_s));
    QCOMPARE(tree().read("build/game.exe"_s), m_scenario->newFiles().value("game.exe"_s).content);
    const UpdateOutcome outcome = m_scenario->rollback();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QVERIFY(m_scenario->isOld());
}

void tst_UpdateLeftovers::fileThatCameBackStays_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("update") << "update"_s;
    QTest::newRow("update that keeps") << "update-keeping"_s;
}

/// The game has been started meanwhile and has made a file of a name that was deleted.
void tst_UpdateLeftovers::fileThatCameBackStays()
{
    QFETCH(QString, command);
    const Faults killed{build(".pellox/journal"_s), "remove", 1, "kill", false, true};
    QVERIFY(run(command, killed).crashed);
    QVERIFY(!QFileInfo::exists(build("gone"_s)));
    tree().write("build/gone"_s, "made anew");
    QCOMPARE(m_scenario->recover().result, Result::Updated);
    QVERIFY(tree().exists("build/gone"_s));
    QCOMPARE(tree().read("build/gone"_s), QByteArray("made anew"));
    if (command != "update-keeping"_s)
        return;
    const UpdateOutcome outcome = m_scenario->rollback();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_UpdateLeftovers::changedFileIsNotDeleted()
{
    killBeforeItPlaces();
    append(tree(), "build/gone"_s);
    QCOMPARE(m_scenario->recover().result, Result::Updated);
    QVERIFY(tree().exists("build/gone"_s));
    QCOMPARE(tree().read("build/gone"_s), m_scenario->oldFiles().value("gone"_s).content + "more");
}

/// One file is another by then, one is gone.
void tst_UpdateLeftovers::changeWhatIsToGo() const
{
    append(tree(), "build/gone"_s);
    tree().remove("build/saves/gone"_s);
}

/// After changeWhatIsToGo().
void tst_UpdateLeftovers::verifyBackButForSpared() const
{
    const UpdateOutcome outcome = m_scenario->rollback();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    const auto &old = m_scenario->oldFiles();
    QCOMPARE(tree().read("build/gone"_s), old.value("gone"_s).content + "more");
    QVERIFY(!tree().exists("build/saves/gone"_s));
    tree().write("build/gone"_s, old.value("gone"_s).content);
    tree().write("build/saves/gone"_s, old.value("saves/gone"_s).content);
    for (auto file = old.cbegin(); file != old.cend(); ++file)
        QVERIFY2(tree().exists("build/"_s + file.key())
                && tree().read("build/"_s + file.key()) == file->content,
            qPrintable(file.key()));
    QVERIFY(!tree().exists("build/.pellox"_s));
    QCOMPARE(m_scenario->touchedFile(), QString());
}

void tst_UpdateLeftovers::sparedFilesLeaveTheWayBack_data()
{
    QTest::addColumn<bool>("crashes");
    QTest::newRow("after a crash") << true;
    QTest::newRow("while it runs") << false;
}

void tst_UpdateLeftovers::sparedFilesLeaveTheWayBack()
{
    QFETCH(bool, crashes);
    if (crashes) {
        killBeforeItPlaces("update-keeping"_s);
        changeWhatIsToGo();
        QCOMPARE(m_scenario->recover().result, Result::Updated);
    } else {
        const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
            updater.setSynced(false);
            updater.setKeepPrevious(true);
            QObject::connect(
                &updater, &UpdateController::phaseChanged, &updater,
                [&](Phase phase) {
                    if (phase == Phase::Committing)
                        changeWhatIsToGo();
                },
                Qt::DirectConnection);
            return updater.update(m_scenario->build(), m_scenario->patch());
        });
        QCOMPARE(outcome.result, Result::Updated);
    }
    verifyBackButForSpared();
}

/// The recovery, and with it the way back that it shortens.
void tst_UpdateLeftovers::sparingKilledAtAnyCall()
{
    const QString own = build(".pellox"_s);
    bool crashed = true;
    int at = 0;
    while (crashed && !QTest::currentTestFailed()) {
        m_scenario->lay();
        killBeforeItPlaces("update-keeping"_s);
        changeWhatIsToGo();
        crashed
            = run("recover"_s, {own, "create,rename,remove", ++at, "kill", false, true}).crashed;
        const UpdateOutcome outcome = m_scenario->recover();
        QVERIFY2(outcome.result == Result::Updated || outcome.result == Result::AlreadyUpToDate,
            qPrintable(outcome.errors.join(QLatin1Char(';'))));
        verifyBackButForSpared();
    }
    QVERIFY(at > 3);
}

void tst_UpdateLeftovers::linkOnTheWay_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("folder");
    for (const char *command : {"update", "update-keeping"}) {
        for (const char *folder : {"data", "saves", "left empty", ".pellox"})
            QTest::addRow("%s, %s", command, folder)
                << QString::fromLatin1(command) << QString::fromLatin1(folder);
    }
}

/// Somebody has put a link in the place of a folder: nothing behind it is touched.
void tst_UpdateLeftovers::linkOnTheWay()
{
    QFETCH(QString, command);
    QFETCH(QString, folder);
    killBeforeItPlaces(command);
    tree().makeFolder("outside"_s);
    const QString moved = tree().path("outside/folder"_s);
    QVERIFY(QDir().rename(build(folder), moved));
    tree().link("build/"_s + folder, moved);
    const auto outside = TestTree::snapshot(moved);

    const UpdateOutcome outcome = m_scenario->recover();
    QCOMPARE(outcome.result, Result::Interrupted);
    QCOMPARE(outcome.errors.size(), 1);
    QVERIFY2(outcome.errors.first().startsWith(build(folder) + QLatin1Char('/')),
        qPrintable(outcome.errors.first()));
    QVERIFY2(outcome.errors.first().contains("link"_s), qPrintable(outcome.errors.first()));
    QCOMPARE(TestTree::snapshot(moved), outside);

    tree().remove("build/"_s + folder);
    QVERIFY(QDir().rename(moved, build(folder)));
    QCOMPARE(m_scenario->recover().result, Result::Updated);
    QVERIFY(command != "update-keeping"_s || m_scenario->discardPrevious());
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// After the check and before the commit.
void tst_UpdateLeftovers::linkThatComesWhileItStages()
{
    const QString moved = tree().path("outside/saves"_s);
    tree().makeFolder("outside"_s);
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        updater.setThreadCount(1);
        QObject::connect(
            &updater, &UpdateController::fileStaged, &updater,
            [&] {
                if (QDir().rename(build("saves"_s), moved))
                    tree().link("build/saves"_s, moved);
            },
            Qt::DirectConnection);
        return updater.update(m_scenario->build(), m_scenario->patch());
    });
    QVERIFY(QFileInfo(build("saves"_s)).isSymLink());
    QVERIFY(outcome.result == Result::Interrupted || outcome.result == Result::Failed);
    QVERIFY2(outcome.errors.join(QLatin1Char(';')).contains(build("saves/"_s)),
        qPrintable(outcome.errors.join(QLatin1Char(';'))));
    QCOMPARE(
        tree().read("outside/saves/gone"_s), m_scenario->oldFiles().value("saves/gone"_s).content);

    tree().remove("build/saves"_s);
    QVERIFY(QDir().rename(moved, build("saves"_s)));
    QCOMPARE(m_scenario->update().result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// The build gets another path just before the commit begins.
void tst_UpdateLeftovers::buildThatIsMovedIsFinished()
{
    const QString moved = tree().path("outside/build"_s);
    tree().makeFolder("outside"_s);
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        QObject::connect(
            &updater, &UpdateController::phaseChanged, &updater,
            [&](Phase phase) {
                if (phase == Phase::Committing)
                    QDir().rename(m_scenario->build(), moved);
            },
            Qt::DirectConnection);
        return updater.update(m_scenario->build(), m_scenario->patch());
    });
    QVERIFY(!QFileInfo::exists(m_scenario->build()));
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QVERIFY(QDir().rename(moved, m_scenario->build()));
    m_scenario->removeEmptyWorkFolder();
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateLeftovers::recoveryTellsHowFarItHasRead()
{
    killBeforeItPlaces();
    qint64 total = 0;
    const auto &old = m_scenario->oldFiles();
    for (auto file = m_scenario->newFiles().cbegin(); file != m_scenario->newFiles().cend();
         ++file) {
        if (!old.contains(file.key()) || old.value(file.key()).content != file->content)
            total += file->content.size();
    }
    const UpdateOutcome outcome = m_scenario->recover();
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(outcome.phases, QVector<Phase>{Phase::Finishing});
    QVERIFY(!outcome.progress.isEmpty());
    qint64 before = 0;
    for (const auto &[done, all] : outcome.progress) {
        QVERIFY(done >= before);
        QCOMPARE(all, total);
        before = done;
    }
    QCOMPARE(before, total);
}

void tst_UpdateLeftovers::recoveryIsCancelled_data()
{
    QTest::addColumn<QString>("command");
    for (const char *command : {"recover", "update", "rollback"})
        QTest::newRow(command) << QString::fromLatin1(command);
}

/// As long as it only looks at what is staged; with large releases that takes its time.
void tst_UpdateLeftovers::recoveryIsCancelled()
{
    QFETCH(QString, command);
    killBeforeItPlaces();
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        QObject::connect(
            &updater, &UpdateController::phaseChanged, &updater, [&] { updater.cancel(); },
            Qt::DirectConnection);
        if (command == "update"_s)
            return updater.update(m_scenario->build(), m_scenario->patch());
        return command == "recover"_s ? updater.recover(m_scenario->build())
                                      : updater.rollback(m_scenario->build());
    });
    QCOMPARE(outcome.result, Result::Interrupted);
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.phases, QVector<Phase>{Phase::Finishing});
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
    QVERIFY(m_scenario->isOld());

    QCOMPARE(m_scenario->recover().result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

QTEST_GUILESS_MAIN(tst_UpdateLeftovers)

#include "tst_updateleftovers.moc"
