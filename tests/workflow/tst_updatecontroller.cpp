// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "leftovers.h"
#include "literals.h"
#include "logcapture.h"
#include "memorylimit.h"
#include "patience.h"
#include "toldspy.h"
#include "updatescenario.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QSignalSpy>
#include <QtConcurrent>
#include <QThread>
#include <QThreadPool>
#include <QtTest>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <new>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using Pellox::UpdateController;
using Pellox::UpdatePlan;
using Code = Pellox::UpdateProblem::Code;
using Result = UpdateController::UpdateResult;
using Throw = std::function<void()>;

Q_DECLARE_METATYPE(Throw)
Q_DECLARE_METATYPE(Pellox::UpdateProblem::Code)

namespace {

constexpr int MiB = 1 << 20;
constexpr int FirstResult = 10; ///< status of updatecall
constexpr rlim_t LittleMemory = 32 << 20;

/// The kinds of calls that change something on the disk.
const QByteArray Changes("create,write,rename,remove,mkdir,mode,truncate,copy");

QByteArray zeroDelta(qint64 size)
{
    QByteArray delta = QByteArray::fromHex("72730236");
    delta += '\x44';
    for (int shift = 56; shift >= 0; shift -= 8)
        delta += static_cast<char>(size >> shift);
    return delta;
}

} // namespace

class tst_UpdateController : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void bringsTheNewBuild_data();
    void bringsTheNewBuild();
    void pathsMayTakeAnyForm_data();
    void pathsMayTakeAnyForm();
    void doesNothingOnTheNewBuild_data();
    void doesNothingOnTheNewBuild();
    void finishesWhatIsPartlyNew_data();
    void finishesWhatIsPartlyNew();
    void leavesPlayersFilesAlone_data();
    void leavesPlayersFilesAlone();
    void folderOfADeletedFilesNameStays();
    void emptyFoldersDoNotMatter_data();
    void emptyFoldersDoNotMatter();

    void reusesWhatIsStaged();
    void makesAnewWhatIsStagedBadly_data();
    void makesAnewWhatIsStagedBadly();

    void missingFilesAreNamedAtOnce();
    void wrongFilesAreNamedAtOnce();
    void takesWholeFilesFromTheFallback();
    void fallbackMustHaveTheRightFiles();
    void brokenDeltas_data();
    void brokenDeltas();
    void endlessDeltaIsStoppedAtOnce();
    void foldersThatWillNotDo_data();
    void foldersThatWillNotDo();

    void keepsThePreviousBuild();
    void updatesAgainAfterARollback();
    void rollbackNeedsWhatWasKept_data();
    void rollbackNeedsWhatWasKept();
    void discardsThePreviousBuild();
    void nextUpdateForgetsThePreviousBuild();
    void failedUpdateForgetsNothing();

    void cancelBeforeTheCommit();
    void cancelAtAnyInstant();
    void cancelCountsForOneRun();
    void destroyedInMidRun();
    void destroyedAfterASlowSlot();
    void destroyedWhileASlotStartsAnew();
    void nextRunComesAfterTheEndOfTheLast();
    void exceptionEndsTheRun_data();
    void exceptionEndsTheRun();
    void exceptionDuringACommit();
    void whatASlotThrowsIsTold_data();
    void whatASlotThrowsIsTold();
    void whatTheLastSlotThrowsEndsNothing();
    void discardingSlotThrows();
    void noSecondRunOnTheSameObject();
    void outOfMemory();

    void progressIsInBytesAndNeverFalls();
    void endsOnce();
    void onlyOneRunAtATime();
    void onlyOneObjectAtABuild();
    void twoObjectsAtTheSameMoment();
    void mayStartTheNextRunAtTheEnd_data();
    void mayStartTheNextRunAtTheEnd();
    void hostMayWaitOnThePool();

    void planOfAnUpdate();
    void planOfTheNewBuild();
    void planTellsRefusals();
    void planAfterACancelledRun();
    void cancelledPlanIsTold();
    void planOfALockedBuild();
    void planOfAnInterruptedUpdate();
    void planOutOfMemory();

    void recoverWithNothingToDo();
    void damagedJournalIsToldAndKept();

private:
    FaultRun countedRun(const QString &command, const QByteArray &calls) const;
    void write(const QString &path, const QByteArray &content) const;
    void stageAndDie() const;
    QString file(const QString &path) const { return m_scenario->tree().path("build/"_s + path); }
    QStringList namedBy(const QStringList &errors) const;
    void interruptUpdate() const;
    void layLargePatch() const;

    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
    Leftovers m_leftovers;
    int m_cancelled = 0; ///< runs, in the test that cancels at any instant
};

void tst_UpdateController::initTestCase()
{
    m_leftovers.begin();
    QThreadPool::globalInstance()->setExpiryTimeout(50);
    m_scenario.emplace();
}

void tst_UpdateController::cleanupTestCase()
{
    qInfo("%d runs ended as cancelled", m_cancelled);
    m_scenario.reset();
}

void tst_UpdateController::init()
{
    m_log.emplace();
    m_scenario->lay();
}

void tst_UpdateController::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    QCOMPARE(m_leftovers.found(), QByteArray());
    m_log.reset();
}

FaultRun tst_UpdateController::countedRun(const QString &command, const QByteArray &calls) const
{
    return runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"2"_s, command, m_scenario->build(), m_scenario->patch()}, {m_scenario->build(), calls});
}

void tst_UpdateController::write(const QString &path, const QByteArray &content) const
{
    m_scenario->tree().write("build/"_s + path, content);
}

/// The files that @p errors begin with, relative to the build and sorted.
QStringList tst_UpdateController::namedBy(const QStringList &errors) const
{
    QStringList names;
    for (const QString &error : errors)
        names.append(error.section(": "_s, 0, 0).mid(m_scenario->build().size() + 1));
    names.sort();
    return names;
}

/// In the middle of its commit.
void tst_UpdateController::interruptUpdate() const
{
    const Faults noRename{file("game.exe"_s), "rename", 1, QByteArray::number(EIO), true};
    const FaultRun run = runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"1"_s, "update"_s, m_scenario->build(), m_scenario->patch()}, noRename);
    QCOMPARE(run.status, FirstResult + static_cast<int>(Result::Interrupted));
    QVERIFY(m_scenario->hasJournal());
}

/// With paths that take several times LittleMemory.
void tst_UpdateController::layLargePatch() const
{
    constexpr int Records = 20000;
    const QByteArray folders = ("/" + QByteArray(250, 'n')).repeated(12);
    QByteArray json = "[\n";
    for (int i = 0; i < Records; ++i) {
        json += "    {\n        \"rule\": \"delete\",\n        \"relative_path\": \"" + folders
            + "/" + QByteArray::number(i) + "\"\n    }" + (i + 1 < Records ? ",\n" : "\n");
    }
    m_scenario->tree().write("large/patchRules.json"_s, json + "]\n");
}

void tst_UpdateController::bringsTheNewBuild_data()
{
    QTest::addColumn<int>("threads");
    QTest::addColumn<bool>("synced");
    QTest::newRow("as many threads as cores") << 0 << true;
    QTest::newRow("one thread") << 1 << false;
    QTest::newRow("eight threads") << 8 << false;
    QTest::newRow("less than none") << -1 << false;
}

/// With every kind of rule; permissions stay, and nothing else is left.
void tst_UpdateController::bringsTheNewBuild()
{
    QFETCH(int, threads);
    QFETCH(bool, synced);
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setThreadCount(threads);
        updater.setSynced(synced);
        return updater.update(m_scenario->build(), m_scenario->patch());
    });
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
}

void tst_UpdateController::pathsMayTakeAnyForm_data()
{
    QTest::addColumn<QString>("build");
    QTest::addColumn<QString>("patch");
    QTest::newRow("separators at the end") << "%1/build/"_s
                                           << "%1/patch//"_s;
    QTest::newRow("doubled separators and dots") << "%1//./build"_s
                                                 << "%1/new/../patch"_s;
    QTest::newRow("relative") << "build"_s
                              << "./patch"_s;
    QTest::newRow("through a link") << "link to build"_s
                                    << "link to patch"_s;
}

void tst_UpdateController::pathsMayTakeAnyForm()
{
    QFETCH(QString, build);
    QFETCH(QString, patch);
    const QString current = QDir::currentPath();
    const QString path = m_scenario->tree().path();
    QVERIFY(QDir::setCurrent(path));
    if (!m_scenario->tree().exists("link to build"_s)) {
        m_scenario->tree().link("link to build"_s, m_scenario->build());
        m_scenario->tree().link("link to patch"_s, m_scenario->patch());
    }
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        return updater.update(
            QString(build).replace("%1"_s, path), QString(patch).replace("%1"_s, path));
    });
    QDir::setCurrent(current);
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::doesNothingOnTheNewBuild_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("update") << "update"_s;
    QTest::newRow("update that keeps") << "update-keeping"_s;
}

/// No write and no rename, on the new build as it comes and on one that an update has made.
void tst_UpdateController::doesNothingOnTheNewBuild()
{
    QFETCH(QString, command);
    const FaultRun first = countedRun(command, Changes);
    QCOMPARE(first.status, FirstResult + static_cast<int>(Result::Updated));
    QVERIFY(!first.calls.isEmpty());
    const FaultRun again = countedRun(command, Changes);
    QCOMPARE(again.output, QByteArray());
    QCOMPARE(again.status, FirstResult + static_cast<int>(Result::AlreadyUpToDate));
    QCOMPARE(again.calls, QStringList());

    m_scenario->layNew();
    const FaultRun fresh = countedRun(command, Changes);
    QCOMPARE(fresh.output, QByteArray());
    QCOMPARE(fresh.status, FirstResult + static_cast<int>(Result::AlreadyUpToDate));
    QCOMPARE(fresh.calls, QStringList());
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::finishesWhatIsPartlyNew_data()
{
    QTest::addColumn<QStringList>("newFiles");
    QTest::addColumn<QStringList>("goneFiles");
    QTest::newRow("a patched file") << QStringList("data/changed"_s) << QStringList();
    QTest::newRow("the large one") << QStringList("data/large.pak"_s) << QStringList();
    QTest::newRow("an added file") << QStringList("added/deep/program"_s) << QStringList();
    QTest::newRow("a file taken whole") << QStringList("data/taken whole"_s) << QStringList();
    QTest::newRow("an emptied file") << QStringList("data/emptied"_s) << QStringList();
    QTest::newRow("deleted files")
        << QStringList() << QStringList{"gone"_s, "left empty/deep/gone"_s};
    QTest::newRow("a file that has become a folder")
        << QStringList("file to folder/inside"_s) << QStringList("file to folder"_s);
    QTest::newRow("a folder that has become a file")
        << QStringList("folder to file"_s) << QStringList("folder to file"_s);
    QTest::newRow("a folder that is to become a file is half empty")
        << QStringList() << QStringList("folder to file/one"_s);
}

void tst_UpdateController::finishesWhatIsPartlyNew()
{
    QFETCH(QStringList, newFiles);
    QFETCH(QStringList, goneFiles);
    for (const QString &path : goneFiles)
        m_scenario->tree().remove("build/"_s + path);
    RandomBuild files;
    for (const QString &path : newFiles) {
        if (QFileInfo(file(path)).isFile())
            m_scenario->tree().remove("build/"_s + path);
        RandomFile newFile = m_scenario->newFiles().value(path);
        newFile.permissions = m_scenario->oldFiles().value(path, newFile).permissions;
        files.insert(path, newFile);
    }
    layBuild(files, m_scenario->build());
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    if (QTest::currentDataTag() == QByteArray("deleted files")) // nothing has left it empty
        QDir(file("left empty"_s)).removeRecursively();
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::leavesPlayersFilesAlone_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("update") << "update"_s;
    QTest::newRow("update that keeps") << "update-keeping"_s;
}

/// Files that no rule names are not even opened.
void tst_UpdateController::leavesPlayersFilesAlone()
{
    QFETCH(QString, command);
    const FaultRun run = countedRun(command, QByteArray());
    QCOMPARE(run.status, FirstResult + static_cast<int>(Result::Updated));
    QVERIFY(run.calls.size() > 50);
    for (const QString &call : run.calls) {
        const QString path = call.section(QLatin1Char(' '), 1).mid(m_scenario->build().size() + 1);
        QVERIFY2(!m_scenario->playersFiles().contains(path), qPrintable(call));
    }
    QVERIFY(run.calls.contains("rename "_s + file("data/changed"_s)));
    QVERIFY(!run.calls.filter("data/unchanged"_s).contains("rename "_s + file("data/unchanged"_s)));
    QCOMPARE(m_scenario->touchedFile(), QString());
}

/// The file is gone, and what the player has there is none of the update's business.
void tst_UpdateController::folderOfADeletedFilesNameStays()
{
    m_scenario->tree().remove("build/gone"_s);
    write("gone/mine"_s, "a player's");
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(m_scenario->tree().read("build/gone/mine"_s), QByteArray("a player's"));
    m_scenario->tree().remove("build/gone"_s);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::emptyFoldersDoNotMatter_data()
{
    QTest::addColumn<QString>("folder");
    QTest::newRow("where a file is added") << "moved to here"_s;
    QTest::newRow("in a folder that becomes a file") << "folder to file/empty"_s;
    QTest::newRow("empty ones in each other where a file is added") << "moved to here/a/b"_s;
}

void tst_UpdateController::emptyFoldersDoNotMatter()
{
    QFETCH(QString, folder);
    m_scenario->tree().makeFolder("build/"_s + folder);
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// Leaves what a run leaves that is killed when all is staged.
void tst_UpdateController::stageAndDie() const
{
    const Faults atTheJournal{file(".pellox/journal.new"_s), "create", 1, "kill"};
    QVERIFY(runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"2"_s, "update"_s, m_scenario->build(), m_scenario->patch()}, atTheJournal)
                .crashed);
}

/// What a run that was killed has left is taken where it is whole, with the right permissions.
void tst_UpdateController::reusesWhatIsStaged()
{
    stageAndDie();
    const QStringList paths{"data/changed"_s, "data/large.pak"_s, "added/deep/program"_s,
        "data/taken whole"_s, "game.exe"_s};
    for (const QString &path : paths) {
        QCOMPARE(m_scenario->tree().read("build/"_s + path + ".temp"_s),
            m_scenario->newFiles().value(path).content);
        QVERIFY(QFile::setPermissions(
            file(path + ".temp"_s), QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther));
    }
    m_scenario->tree().remove("build/data/filled.temp"_s);
    const FaultRun run = countedRun("update"_s, "create,write");
    QCOMPARE(run.output, QByteArray());
    QCOMPARE(run.status, FirstResult + static_cast<int>(Result::Updated));
    for (const QString &path : paths) {
        QVERIFY2(!run.calls.contains("create "_s + file(path + ".temp"_s)), qPrintable(path));
        QVERIFY2(!run.calls.contains("write "_s + file(path + ".temp"_s)), qPrintable(path));
    }
    QVERIFY(run.calls.contains("create "_s + file("data/filled.temp"_s)));
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::makesAnewWhatIsStagedBadly_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("too short") << QByteArray("short");
    QTest::newRow("too long") << QByteArray(2 * MiB, 'x');
    QTest::newRow("of the right size") << QByteArray();
}

void tst_UpdateController::makesAnewWhatIsStagedBadly()
{
    QFETCH(QByteArray, content);
    stageAndDie();
    for (const QString &path : {"data/changed"_s, "data/large.pak"_s, "added/deep/program"_s,
             "data/taken whole"_s, "data/emptied"_s}) {
        const QByteArray right = m_scenario->newFiles().value(path).content;
        write(path + ".temp"_s, content.isNull() ? QByteArray(right.size(), 'x') : content);
    }
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::missingFilesAreNamedAtOnce()
{
    const QStringList missing{"data/changed"_s, "data/large.pak"_s, "game.exe"_s};
    for (const QString &path : missing)
        m_scenario->tree().remove("build/"_s + path);
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(namedBy(outcome.errors), missing);
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

/// Known by what the delta makes of them.
void tst_UpdateController::wrongFilesAreNamedAtOnce()
{
    const QStringList wrong{"data/changed"_s, "data/large.pak"_s, "game.exe"_s};
    for (const QString &path : wrong)
        write(path, m_scenario->oldFiles().value(path).content + "a mod");
    write("data/large.pak"_s, "cut short"); // shorter than what the delta takes of it
    write("data/changed"_s,
        QByteArray(m_scenario->oldFiles().value("data/changed"_s).content.size(), 'x'));
    QByteArray other = m_scenario->oldFiles().value("game.exe"_s).content;
    other[100] = static_cast<char>(~other.at(100));
    write("game.exe"_s, other);
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdateOutcome outcome = m_scenario->update();
    QVERIFY(outcome.result == Result::Failed || outcome.result == Result::Refused);
    QCOMPARE(namedBy(outcome.errors), wrong);
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
    QCOMPARE(m_scenario->touchedFile(), QString());
}

void tst_UpdateController::takesWholeFilesFromTheFallback()
{
    m_scenario->tree().remove("build/data/changed"_s);
    m_scenario->tree().remove("build/data/large.pak"_s);
    const uint permissions = m_scenario->oldFiles().value("game.exe"_s).permissions;
    write("game.exe"_s, "damaged");
    write("data/filled"_s, "was empty");
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        updater.setFallbackSource(m_scenario->newBuild());
        return updater.update(m_scenario->build(), m_scenario->patch());
    });
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    struct stat status = {};
    QCOMPARE(::stat(file("game.exe"_s).toLocal8Bit().constData(), &status), 0);
    QCOMPARE(status.st_mode & 0777U, permissions);
    for (const QString &path : {"data/changed"_s, "data/large.pak"_s}) // that were not there
        QVERIFY(QFile::setPermissions(
            file(path), QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup));
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::fallbackMustHaveTheRightFiles()
{
    m_scenario->tree().remove("build/data/changed"_s);
    m_scenario->tree().remove("build/data/large.pak"_s);
    write("game.exe"_s, "damaged");
    const TestTree fallback;
    fallback.write("data/changed"_s, "wrong");
    fallback.write("game.exe"_s, m_scenario->newFiles().value("game.exe"_s).content);
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        updater.setFallbackSource(fallback.path());
        return updater.update(m_scenario->build(), m_scenario->patch());
    });
    QVERIFY(outcome.result == Result::Failed || outcome.result == Result::Refused);
    QStringList errors = outcome.errors;
    errors.sort();
    QCOMPARE(errors.size(), 2);
    QVERIFY2(errors.at(0).startsWith(fallback.path("data/changed: "_s)), qPrintable(errors.at(0)));
    QVERIFY2(
        errors.at(1).startsWith(fallback.path("data/large.pak: "_s)), qPrintable(errors.at(1)));
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

void tst_UpdateController::brokenDeltas_data()
{
    QTest::addColumn<QByteArray>("delta");
    const QByteArray magic = QByteArray::fromHex("72730236");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("not a delta") << QByteArray("not a delta");
    QTest::newRow("begin alone") << magic;
    QTest::newRow("makes nothing") << magic + QByteArray(1, '\0');
    QTest::newRow("unknown command") << magic + QByteArray("\x7f\0", 2);
    QTest::newRow("literal cut short") << zeroDelta(20480) + "cut";
    QTest::newRow("makes too much") << zeroDelta(1LL << 40) + "x";
    QTest::newRow("makes more than a number holds") << zeroDelta(-1) + "x";
    QTest::newRow("one byte too few") << zeroDelta(20479) + QByteArray(20480, '\0');
}

void tst_UpdateController::brokenDeltas()
{
    QFETCH(QByteArray, delta);
    TestTree other;
    const auto patch = TestTree::snapshot(m_scenario->patch());
    for (auto entry = patch.cbegin(); entry != patch.cend(); ++entry) {
        if (!entry.key().endsWith(QLatin1Char('/')))
            other.write(entry.key(), entry.key() == "data/changed"_s ? delta : entry.value());
    }
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        return updater.update(m_scenario->build(), other.path());
    });
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.errors.size(), 1);
    QVERIFY2(outcome.errors.at(0).startsWith(other.path("data/changed: "_s)),
        qPrintable(outcome.errors.at(0)));
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

/// A small delta can make a file of any size of a small one.
void tst_UpdateController::endlessDeltaIsStoppedAtOnce()
{
    const QByteArray old = m_scenario->oldFiles().value("data/changed"_s).content;
    QByteArray delta = QByteArray::fromHex("72730236");
    for (int i = 0; i < 10000; ++i) {
        delta += '\x47'; // a copy with an offset of two bytes and a length of two
        delta += QByteArray("\0\0", 2);
        delta += static_cast<char>(old.size() >> 8);
        delta += static_cast<char>(old.size());
    }
    delta += '\0';
    TestTree other;
    other.write("data/changed"_s, delta);
    other.write("patchRules.json"_s,
        QJsonDocument(
            QJsonArray{QJsonObject{{"rule"_s, "patch"_s}, {"relative_path"_s, "/data/changed"_s},
                {"file_size"_s, old.size()}, {"sha512"_s, QString(128, QLatin1Char('0'))}}})
            .toJson());
    const FaultRun run = runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"1"_s, "update"_s, m_scenario->build(), other.path()}, {m_scenario->build(), "write"});
    QCOMPARE(run.status, FirstResult + static_cast<int>(Result::Refused));
    QVERIFY2(run.output.startsWith(other.path("data/changed: "_s).toLocal8Bit()),
        run.output.constData());
    QCOMPARE(run.calls, QStringList());
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_UpdateController::foldersThatWillNotDo_data()
{
    QTest::addColumn<QString>("build");
    QTest::addColumn<QString>("patch");
    QTest::addColumn<QString>("fallback");
    QTest::newRow("no build") << QString() << "patch"_s << QString();
    QTest::newRow("no patch") << "build"_s << QString() << QString();
    QTest::newRow("build is not there") << "nowhere"_s
                                        << "patch"_s << QString();
    QTest::newRow("patch is not there") << "build"_s
                                        << "nowhere"_s << QString();
    QTest::newRow("fallback is not there") << "build"_s
                                           << "patch"_s
                                           << "nowhere"_s;
    QTest::newRow("build is a file") << "build/game.exe"_s
                                     << "patch"_s << QString();
    QTest::newRow("patch is a file") << "build"_s
                                     << "patch/game.exe"_s << QString();
    QTest::newRow("patch has no manifest") << "build"_s
                                           << "new"_s << QString();
    QTest::newRow("patch is the build") << "build"_s
                                        << "build"_s << QString();
    QTest::newRow("patch lies in the build") << "build"_s
                                             << "build/data"_s << QString();
    QTest::newRow("build lies in the patch") << "build/data"_s
                                             << "build"_s << QString();
    QTest::newRow("fallback is the build") << "build"_s
                                           << "patch"_s
                                           << "build"_s;
}

void tst_UpdateController::foldersThatWillNotDo()
{
    QFETCH(QString, build);
    QFETCH(QString, patch);
    QFETCH(QString, fallback);
    const auto path = [&](const QString &relative) {
        return relative.isEmpty() ? relative : m_scenario->tree().path(relative);
    };
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        updater.setFallbackSource(path(fallback));
        return updater.update(path(build), path(patch));
    });
    QCOMPARE(outcome.result, Result::Refused);
    QVERIFY(!outcome.errors.isEmpty());
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_UpdateController::keepsThePreviousBuild()
{
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    QVERIFY(QFileInfo(file(".pellox"_s)).isDir());
    QCOMPARE(m_scenario->brokenPromise(), QString());
    write("added while it was new"_s, "by the player");
    const UpdateOutcome back = m_scenario->rollback();
    QCOMPARE(back.errors, QStringList());
    QCOMPARE(back.result, Result::Updated);
    m_scenario->tree().remove("build/added while it was new"_s);
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
}

void tst_UpdateController::updatesAgainAfterARollback()
{
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(m_scenario->update(true).result, Result::Updated);
        QCOMPARE(m_scenario->rollback().result, Result::Updated);
        QCOMPARE(m_scenario->differenceToOld(), QString());
    }
    QCOMPARE(m_scenario->update().result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::rollbackNeedsWhatWasKept_data()
{
    QTest::addColumn<bool>("updated");
    QTest::newRow("no update") << false;
    QTest::newRow("an update that keeps nothing") << true;
}

void tst_UpdateController::rollbackNeedsWhatWasKept()
{
    QFETCH(bool, updated);
    if (updated)
        QCOMPARE(m_scenario->update().result, Result::Updated);
    const UpdateOutcome back = m_scenario->rollback();
    QCOMPARE(back.result, Result::Refused);
    QCOMPARE(back.errors.size(), 1);
    QVERIFY(back.errors.at(0).startsWith(m_scenario->build()));
    QCOMPARE(updated ? m_scenario->differenceToNew() : m_scenario->differenceToOld(), QString());
}

void tst_UpdateController::discardsThePreviousBuild()
{
    QVERIFY(m_scenario->discardPrevious()); // there is none
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    QVERIFY(m_scenario->discardPrevious());
    QCOMPARE(m_scenario->differenceToNew(), QString());
    QCOMPARE(m_scenario->rollback().result, Result::Refused);

    UpdateController updater;
    QSignalSpy errors(&updater, &UpdateController::updateError);
    QVERIFY(!updater.discardPrevious(m_scenario->tree().path("nowhere"_s)));
    QCOMPARE(errors.size(), 1);
}

void tst_UpdateController::nextUpdateForgetsThePreviousBuild()
{
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    QCOMPARE(m_scenario->rollback().result, Result::Updated);
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    m_scenario->tree().remove("build/moved to here"_s);
    const UpdateOutcome repaired = m_scenario->update(false);
    QCOMPARE(repaired.result, Result::Updated);
    QCOMPARE(m_scenario->rollback().result, Result::Refused);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// The build from before the last update that was carried out can be brought back still.
void tst_UpdateController::failedUpdateForgetsNothing()
{
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    m_scenario->tree().remove("build/moved to here"_s);
    const Faults noJournal{
        file(".pellox/journal.new"_s), "create", 1, QByteArray::number(ENOSPC), true};
    const FaultRun run = runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"1"_s, "update-keeping"_s, m_scenario->build(), m_scenario->patch()}, noJournal);
    QCOMPARE(run.status, FirstResult + static_cast<int>(Result::Failed));
    const UpdateOutcome back = m_scenario->rollback();
    QCOMPARE(back.errors, QStringList());
    QCOMPARE(back.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

/// At the first byte that is told.
void tst_UpdateController::cancelBeforeTheCommit()
{
    // Progress comes at least once from the thread that waits before the commit begins.
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        updater.setThreadCount(1);
        connect(
            &updater, &UpdateController::updateProgress, &updater, [&updater] { updater.cancel(); },
            Qt::DirectConnection);
        return updater.update(m_scenario->build(), m_scenario->patch());
    });
    QCOMPARE(outcome.result, Result::Cancelled);
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
    QCOMPARE(m_scenario->update().result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::cancelAtAnyInstant()
{
    constexpr int Everyday = 60; // PELLOX_CANCELS says how many else
    const int times = qEnvironmentVariableIsSet("PELLOX_CANCELS")
        ? qEnvironmentVariableIntValue("PELLOX_CANCELS")
        : Everyday;
    std::mt19937 random(1);
    std::uniform_int_distribution<unsigned long> microseconds(0, 20000);
    int cancelled = 0;
    for (int i = 0; i < times; ++i) {
        m_scenario->lay();
        const unsigned long wait = microseconds(random);
        std::thread other;
        const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
            updater.setSynced(false);
            if (i == 0) { // one that is in time on any machine
                connect(
                    &updater, &UpdateController::phaseChanged, &updater,
                    [&updater] { updater.cancel(); }, Qt::DirectConnection);
            }
            const bool started = updater.update(m_scenario->build(), m_scenario->patch());
            other = std::thread([&updater, wait] {
                QThread::usleep(wait);
                updater.cancel();
            });
            other.join();
            return started;
        });
        QCOMPARE(outcome.errors, QStringList());
        const bool wasCancelled = outcome.result == Result::Cancelled;
        QVERIFY(wasCancelled || outcome.result == Result::Updated);
        cancelled += wasCancelled ? 1 : 0;
        QCOMPARE(wasCancelled ? m_scenario->differenceToOld() : m_scenario->differenceToNew(),
            QString());
        QCOMPARE(m_scenario->touchedFile(), QString());
    }
    QVERIFY(cancelled > 0);
    m_cancelled = cancelled;
}

void tst_UpdateController::cancelCountsForOneRun()
{
    UpdateController updater;
    updater.setSynced(false);
    ToldSpy finished(&updater, &UpdateController::finished);
    updater.cancel(); // of nothing
    QVERIFY(updater.update(m_scenario->build(), m_scenario->patch()));
    QVERIFY(finished.comes());
    QCOMPARE(finished.at(0).at(0).value<Result>(), Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::destroyedInMidRun()
{
    for (int i = 0; i < 40; ++i) {
        m_scenario->lay();
        {
            UpdateController updater;
            updater.setSynced(false);
            QVERIFY(updater.update(m_scenario->build(), m_scenario->patch()));
            QThread::usleep(static_cast<unsigned long>(i * 500));
        }
        const QString toOld = m_scenario->differenceToOld();
        const QString toNew = m_scenario->differenceToNew();
        QVERIFY2(toOld.isEmpty() || toNew.isEmpty(), qPrintable(toOld + " and "_s + toNew));
        QCOMPARE(m_scenario->touchedFile(), QString());
    }
}

/// The destructor waits for slots that are still at work, also of a run before the last.
void tst_UpdateController::destroyedAfterASlowSlot()
{
    std::atomic<int> slotsBegun{0};
    std::atomic<int> slotsEnded{0};
    {
        UpdateController updater;
        updater.setSynced(false);
        connect(
            &updater, &UpdateController::finished, &updater,
            [&] {
                if (++slotsBegun == 1)
                    QThread::msleep(300);
                ++slotsEnded;
            },
            Qt::DirectConnection);
        QVERIFY(updater.recover(m_scenario->build()));
        while (updater.isRunning())
            QThread::msleep(1);
        QVERIFY(updater.recover(m_scenario->build()));
    }
    QCOMPARE(slotsEnded, 2);
}

void tst_UpdateController::destroyedWhileASlotStartsAnew()
{
    std::atomic<int> ends{0};
    {
        UpdateController updater;
        connect(
            &updater, &UpdateController::finished, &updater,
            [&] {
                ++ends;
                updater.recover(m_scenario->build());
            },
            Qt::DirectConnection);
        QVERIFY(updater.recover(m_scenario->build()));
        QTRY_VERIFY_WITH_TIMEOUT(ends > 3, Patience);
    }
    const int atTheEnd = ends;
    QTest::qWait(20);
    QCOMPARE(ends, atTheEnd);
}

/// A run that is started while the end of the last is being told begins behind that.
void tst_UpdateController::nextRunComesAfterTheEndOfTheLast()
{
    UpdateController updater;
    updater.setSynced(false);
    std::mutex mutex;
    QStringList events;
    const auto note = [&](const QString &event) {
        const std::lock_guard lock(mutex);
        events.append(event);
    };
    std::atomic<bool> isHeld{true};
    connect(
        &updater, &UpdateController::finished, &updater,
        [&] {
            while (isHeld)
                QThread::msleep(1);
        },
        Qt::DirectConnection);
    connect(
        &updater, &UpdateController::finished, &updater, [&] { note("end"_s); },
        Qt::DirectConnection);
    connect(
        &updater, &UpdateController::phaseChanged, &updater, [&] { note("phase"_s); },
        Qt::DirectConnection);
    ToldSpy finished(&updater, &UpdateController::finished);
    QVERIFY(updater.recover(m_scenario->build()));
    while (updater.isRunning())
        QThread::msleep(1);
    const bool isStarted = updater.update(m_scenario->build(), m_scenario->patch());
    const bool isRunning = updater.isRunning();
    const bool isThirdStarted = updater.recover(m_scenario->build());
    isHeld = false;
    QVERIFY(isStarted);
    QVERIFY(isRunning);
    QVERIFY(!isThirdStarted);
    QVERIFY(finished.comes(2));
    const std::lock_guard lock(mutex);
    QCOMPARE(events, (QStringList{"end"_s, "phase"_s, "phase"_s, "phase"_s, "end"_s}));
}

void tst_UpdateController::exceptionEndsTheRun_data()
{
    QTest::addColumn<UpdateController::UpdatePhase>("phase");
    QTest::newRow("check") << UpdateController::UpdatePhase::Checking;
    QTest::newRow("staging") << UpdateController::UpdatePhase::Staging;
    QTest::newRow("before the commit") << UpdateController::UpdatePhase::Committing;
}

/// As it comes when there is no more memory.
void tst_UpdateController::exceptionEndsTheRun()
{
    using Phase = UpdateController::UpdatePhase;
    QFETCH(Phase, phase);
    UpdateController updater;
    updater.setSynced(false);
    QVector<Code> codes;
    connect(
        &updater, &UpdateController::problemFound, &updater,
        [&](const Pellox::UpdateProblem &problem) { codes.append(problem.code); },
        Qt::DirectConnection);
    const auto throwing = connect(
        &updater, &UpdateController::phaseChanged, &updater,
        [phase](Phase now) {
            if (now == phase)
                throw std::bad_alloc();
        },
        Qt::DirectConnection);
    ToldSpy finished(&updater, &UpdateController::finished);
    QVERIFY(updater.update(m_scenario->build(), m_scenario->patch()));
    QVERIFY(finished.comes());
    QCOMPARE(finished.at(0).at(0).value<Result>(), Result::Failed);
    QCOMPARE(codes, QVector<Code>{Code::NoMemory});
    QCOMPARE(m_scenario->differenceToOld(), QString());

    disconnect(throwing);
    QVERIFY(updater.update(m_scenario->build(), m_scenario->patch()));
    QVERIFY(finished.comes(2));
    QCOMPARE(finished.at(1).at(0).value<Result>(), Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// With a journal the next run finishes what was begun.
void tst_UpdateController::exceptionDuringACommit()
{
    interruptUpdate();
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        connect(
            &updater, &UpdateController::phaseChanged, &updater, [] { throw std::bad_alloc(); },
            Qt::DirectConnection);
        return updater.recover(m_scenario->build());
    });
    QCOMPARE(outcome.result, Result::Interrupted);
    QCOMPARE(outcome.errors, QStringList(m_scenario->build() + ": out of memory"_s));
    QCOMPARE(m_scenario->recover().result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::whatASlotThrowsIsTold_data()
{
    QTest::addColumn<Throw>("toThrow");
    QTest::addColumn<Code>("code");
    QTest::addColumn<QString>("reason");
    QTest::newRow("a container that is too large")
        << Throw([] { throw std::length_error("vector"); }) << Code::NoMemory << "out of memory"_s;
    QTest::newRow("an error of the host's") << Throw([] { throw std::runtime_error("no window"); })
                                            << Code::ReadOrWrite << "no window"_s;
    QTest::newRow("anything else")
        << Throw([] { throw 1; }) << Code::ReadOrWrite << "an unknown error has occurred"_s;
}

/// It does not end the process, nor leave the build half done.
void tst_UpdateController::whatASlotThrowsIsTold()
{
    QFETCH(Throw, toThrow);
    QFETCH(Code, code);
    QFETCH(QString, reason);
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        connect(
            &updater, &UpdateController::phaseChanged, &updater,
            [&toThrow](UpdateController::UpdatePhase phase) {
                if (phase == UpdateController::UpdatePhase::Staging)
                    toThrow();
            },
            Qt::DirectConnection);
        return updater.update(m_scenario->build(), m_scenario->patch());
    });
    QCOMPARE(outcome.result, Result::Failed);
    QCOMPARE(outcome.errors, QStringList(m_scenario->build() + ": "_s + reason));
    QVERIFY(outcome.problems.first().code == code);
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->update().result, Result::Updated);
}

/// There is nobody left to tell it to.
void tst_UpdateController::whatTheLastSlotThrowsEndsNothing()
{
    UpdateController updater;
    updater.setSynced(false);
    ToldSpy finished(&updater, &UpdateController::finished);
    const auto throwing = connect(
        &updater, &UpdateController::finished, &updater,
        [] { throw std::runtime_error("no window"); }, Qt::DirectConnection);
    QVERIFY(updater.update(m_scenario->build(), m_scenario->patch()));
    QVERIFY(finished.comes());
    disconnect(throwing);
    QVERIFY(QTest::qWaitFor( // until the thread of the first has ended
        [&] { return updater.update(m_scenario->build(), m_scenario->patch()); }, Patience));
    QVERIFY(finished.comes(2));
    QCOMPARE(finished.at(1).at(0).value<Result>(), Result::AlreadyUpToDate);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// On the caller's own thread, and with the files still kept.
void tst_UpdateController::discardingSlotThrows()
{
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    const int folder
        = ::open(QFile::encodeName(m_scenario->build()).constData(), O_RDONLY | O_DIRECTORY);
    QVERIFY(folder >= 0 && ::flock(folder, LOCK_EX | LOCK_NB) == 0);
    UpdateController updater;
    QStringList told;
    connect(&updater, &UpdateController::updateError, &updater, [&](const QString &error) {
        told.append(error);
        if (told.size() == 1)
            throw std::runtime_error("no window");
    });
    QVERIFY(!updater.discardPrevious(m_scenario->build()));
    ::close(folder);
    QCOMPARE(told.size(), 2);
    QCOMPARE(told.last(), m_scenario->build() + ": no window"_s);
    QCOMPARE(m_scenario->rollback().result, Result::Updated);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_UpdateController::noSecondRunOnTheSameObject()
{
    Pellox::UpdatePlan plan;
    bool isDiscarded = true;
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        connect(
            &updater, &UpdateController::phaseChanged, &updater,
            [&](UpdateController::UpdatePhase phase) {
                if (phase != UpdateController::UpdatePhase::Staging)
                    return;
                plan = updater.plan(m_scenario->build(), m_scenario->patch());
                isDiscarded = updater.discardPrevious(m_scenario->build());
            },
            Qt::DirectConnection);
        return updater.update(m_scenario->build(), m_scenario->patch());
    });
    QVERIFY(!isDiscarded);
    QCOMPARE(plan.refusals.size(), 1);
    QVERIFY(plan.refusals.first().code == Code::Busy);
    QCOMPARE(plan.refusals.first().message(),
        m_scenario->build() + ": is being worked on by this object"_s);
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// With rules that are as long as they may be, and more than there is memory for.
void tst_UpdateController::outOfMemory()
{
    if (HasSanitizer)
        QSKIP("the sanitizer needs the memory itself");
    layLargePatch();
    std::optional<MemoryLimit> limit;
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        connect( // by then the run has its thread
            &updater, &UpdateController::phaseChanged, &updater,
            [&] { limit.emplace(LittleMemory); }, Qt::DirectConnection);
        connect(
            &updater, &UpdateController::problemFound, &updater, [&] { limit.reset(); },
            Qt::DirectConnection);
        return updater.update(m_scenario->build(), m_scenario->tree().path("large"_s));
    });
    QCOMPARE(outcome.errors, QStringList(m_scenario->build() + ": out of memory"_s));
    QCOMPARE(outcome.result, Result::Failed);
    QVERIFY(outcome.problems.at(0).code == Code::NoMemory);
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->update().result, Result::Updated);
}

void tst_UpdateController::progressIsInBytesAndNeverFalls()
{
    qint64 total = 0;
    for (auto file = m_scenario->newFiles().cbegin(); file != m_scenario->newFiles().cend(); ++file)
        total += file.key() == "data/unchanged"_s ? 0 : file->content.size();
    write("data/changed"_s, "damaged"); // is made twice
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        updater.setFallbackSource(m_scenario->newBuild());
        return updater.update(m_scenario->build(), m_scenario->patch());
    });
    QCOMPARE(outcome.result, Result::Updated);
    QVERIFY(!outcome.progress.isEmpty());
    qlonglong last = 0;
    for (const auto &[done, of] : outcome.progress) {
        QVERIFY(done >= last);
        QVERIFY(done <= of);
        QCOMPARE(of, total);
        last = done;
    }
    QCOMPARE(last, total);
}

void tst_UpdateController::endsOnce()
{
    UpdateController updater;
    updater.setSynced(false);
    ToldSpy finished(&updater, &UpdateController::finished);
    QVERIFY(updater.update(m_scenario->build(), m_scenario->patch()));
    QVERIFY(finished.comes());
    QVERIFY(!updater.isRunning());
    QVERIFY(updater.update(m_scenario->build(), m_scenario->tree().path("nowhere"_s)));
    QVERIFY(finished.comes(2));
    QTest::qWait(50);
    QCOMPARE(finished.size(), 2);
    QCOMPARE(finished.at(0).at(0).value<Result>(), Result::Updated);
    QCOMPARE(finished.at(1).at(0).value<Result>(), Result::Refused);
}

void tst_UpdateController::onlyOneRunAtATime()
{
    UpdateController updater;
    updater.setSynced(false);
    ToldSpy finished(&updater, &UpdateController::finished);
    std::atomic<bool> goOn{false};
    std::atomic<bool> reached{false};
    connect(
        &updater, &UpdateController::updateProgress, &updater,
        [&] {
            reached = true;
            while (!goOn)
                QThread::msleep(1);
        },
        Qt::DirectConnection);
    QVERIFY(updater.update(m_scenario->build(), m_scenario->patch()));
    QTRY_VERIFY_WITH_TIMEOUT(reached, Patience);
    QVERIFY(updater.isRunning());
    QVERIFY(!updater.update(m_scenario->build(), m_scenario->patch()));
    QVERIFY(!updater.recover(m_scenario->build()));
    QVERIFY(!updater.rollback(m_scenario->build()));
    goOn = true;
    QVERIFY(finished.comes());
    QTest::qWait(50);
    QCOMPARE(finished.size(), 1);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateController::onlyOneObjectAtABuild()
{
    UpdateController updater;
    updater.setSynced(false);
    ToldSpy finished(&updater, &UpdateController::finished);
    std::atomic<bool> goOn{false};
    std::atomic<bool> reached{false};
    connect(
        &updater, &UpdateController::updateProgress, &updater,
        [&] {
            reached = true;
            while (!goOn)
                QThread::msleep(1);
        },
        Qt::DirectConnection);
    QVERIFY(updater.update(m_scenario->build(), m_scenario->patch()));
    QTRY_VERIFY_WITH_TIMEOUT(reached, Patience);
    const auto refused = [&](const UpdateOutcome &outcome) {
        return outcome.result == Result::Refused && outcome.errors.size() == 1
            && outcome.errors.at(0).startsWith(m_scenario->build() + ": "_s);
    };
    const bool updateRefused = refused(m_scenario->update());
    const bool recoverRefused = refused(m_scenario->recover());
    const bool rollbackRefused = refused(m_scenario->rollback());
    const bool discardRefused = !m_scenario->discardPrevious();
    goOn = true;
    QVERIFY(finished.comes());
    QVERIFY(updateRefused);
    QVERIFY(recoverRefused);
    QVERIFY(rollbackRefused);
    QVERIFY(discardRefused);
    QCOMPARE(finished.at(0).at(0).value<Result>(), Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// One does it; the other is refused, or comes so late that there is nothing to do.
void tst_UpdateController::twoObjectsAtTheSameMoment()
{
    constexpr int Rounds = 10;
    struct Run
    {
        Result result = Result::Failed;
        QVector<Pellox::UpdateProblem> problems;
    };
    for (int i = 0; i < Rounds; ++i) {
        m_scenario->lay();
        std::array<Run, 2> runs;
        std::atomic<int> waiting{static_cast<int>(runs.size())};
        const auto update = [&](Run &run) {
            std::promise<void> ended;
            UpdateController updater;
            updater.setSynced(false);
            connect(
                &updater, &UpdateController::problemFound, &updater,
                [&](const Pellox::UpdateProblem &problem) { run.problems.append(problem); },
                Qt::DirectConnection);
            connect(
                &updater, &UpdateController::finished, &updater,
                [&](Result result) {
                    run.result = result;
                    ended.set_value();
                },
                Qt::DirectConnection);
            --waiting;
            while (waiting > 0)
                std::this_thread::yield();
            if (!updater.update(m_scenario->build(), m_scenario->patch()))
                qFatal("a run does not start");
            ended.get_future().wait();
        };
        std::thread other([&] { update(runs[1]); });
        update(runs[0]);
        other.join();
        std::sort(runs.begin(), runs.end(),
            [](const Run &one, const Run &two) { return one.result < two.result; });
        QCOMPARE(runs[0].result, Result::Updated);
        QVERIFY(runs[0].problems.isEmpty());
        const bool isRefused = runs[1].result == Result::Refused;
        QVERIFY(isRefused || runs[1].result == Result::AlreadyUpToDate);
        QCOMPARE(runs[1].problems.size(), isRefused ? 1 : 0);
        QVERIFY(!isRefused || runs[1].problems.first().code == Pellox::UpdateProblem::Code::Busy);
        QCOMPARE(m_scenario->differenceToNew(), QString());
        QCOMPARE(m_scenario->touchedFile(), QString());
    }
}

void tst_UpdateController::mayStartTheNextRunAtTheEnd_data()
{
    QTest::addColumn<int>("connection");
    QTest::newRow("on the thread of the object") << static_cast<int>(Qt::AutoConnection);
    QTest::newRow("on the thread of the run") << static_cast<int>(Qt::DirectConnection);
}

void tst_UpdateController::mayStartTheNextRunAtTheEnd()
{
    QFETCH(int, connection);
    UpdateController updater;
    updater.setSynced(false);
    ToldSpy finished(&updater, &UpdateController::finished);
    bool started = false;
    connect(
        &updater, &UpdateController::finished, &updater,
        [&] {
            if (!started)
                started = updater.recover(m_scenario->build());
        },
        static_cast<Qt::ConnectionType>(connection));
    QVERIFY(updater.update(m_scenario->build(), m_scenario->patch()));
    QVERIFY(finished.comes(2));
    QVERIFY(started);
    QCOMPARE(finished.at(1).at(0).value<Result>(), Result::AlreadyUpToDate);
}

/// Even where the host's own thread is the only one that the pool has.
void tst_UpdateController::hostMayWaitOnThePool()
{
    QThreadPool &pool = *QThreadPool::globalInstance();
    const int before = pool.maxThreadCount();
    pool.setMaxThreadCount(1);
    UpdateController updater;
    updater.setSynced(false);
    std::promise<Result> end;
    connect(
        &updater, &UpdateController::finished, &updater,
        [&](Result result) { end.set_value(result); }, Qt::DirectConnection);
    const auto host = QtConcurrent::run([&] {
        std::future<Result> result = end.get_future();
        const bool ended = updater.update(m_scenario->build(), m_scenario->patch())
            && result.wait_for(std::chrono::milliseconds(Patience)) == std::future_status::ready;
        return ended ? std::optional(result.get()) : std::nullopt;
    });
    pool.waitForDone();
    pool.setMaxThreadCount(before);
    QVERIFY(host.result().has_value());
    QCOMPARE(*host.result(), Result::Updated);
    QCOMPARE(pool.activeThreadCount(), 0); // what was lent is given back
}

void tst_UpdateController::planOfAnUpdate()
{
    const UpdatePlan plan = UpdateController().plan(m_scenario->build(), m_scenario->patch());
    QVERIFY(plan.refusals.isEmpty());
    QStringList deletions;
    for (const QString &path : m_scenario->oldFiles().keys()) {
        if (!m_scenario->newFiles().contains(path))
            deletions.append(QLatin1Char('/') + path);
    }
    QStringList planned = plan.deletions;
    planned.sort();
    QCOMPARE(planned, deletions);
    QCOMPARE(plan.filesToPatch, 6);
    QCOMPARE(plan.filesToCopy, 6);
    qint64 written = 0;
    for (auto file = m_scenario->newFiles().cbegin(); file != m_scenario->newFiles().cend(); ++file)
        written += file.key() == "data/unchanged"_s ? 0 : file->content.size();
    QCOMPARE(plan.bytesToWrite, written);
    QVERIFY(plan.bytesToRead > 2 * MiB);
    QVERIFY(plan.bytesToRead < 3 * MiB);
    QVERIFY(plan.peakExtraDisk >= written);
    QCOMPARE(m_scenario->differenceToOld(), QString());

    const FaultRun run = countedRun("update"_s, "rename");
    const QSet<QString> calls(run.calls.cbegin(), run.calls.cend()); // some are tried twice
    // And the journal, and the record of what is staged.
    QCOMPARE(calls.size(), plan.filesToPatch + plan.filesToCopy + 2);
}

void tst_UpdateController::planOfTheNewBuild()
{
    m_scenario->layNew();
    const UpdatePlan plan = UpdateController().plan(m_scenario->build(), m_scenario->patch());
    QVERIFY(plan.refusals.isEmpty());
    QCOMPARE(plan.deletions, QStringList());
    QCOMPARE(plan.filesToPatch, 0);
    QCOMPARE(plan.filesToCopy, 0);
    QCOMPARE(plan.bytesToWrite, qint64(0));
}

void tst_UpdateController::planTellsRefusals()
{
    m_scenario->tree().remove("build/game.exe"_s);
    m_scenario->tree().remove("build/data/changed"_s);
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdatePlan plan = UpdateController().plan(m_scenario->build(), m_scenario->patch());
    QStringList refusals;
    for (const Pellox::UpdateProblem &problem : plan.refusals)
        refusals.append(problem.message());
    QCOMPARE(namedBy(refusals), (QStringList{"data/changed"_s, "game.exe"_s}));
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);

    const UpdatePlan none = UpdateController().plan(m_scenario->build(), m_scenario->newBuild());
    QCOMPARE(none.refusals.size(), 1);
}

void tst_UpdateController::planAfterACancelledRun()
{
    UpdateController updater;
    updater.setSynced(false);
    ToldSpy finished(&updater, &UpdateController::finished);
    const auto cancel = connect(
        &updater, &UpdateController::updateProgress, &updater, [&updater] { updater.cancel(); },
        Qt::DirectConnection);
    QVERIFY(updater.update(m_scenario->build(), m_scenario->patch()));
    QVERIFY(finished.comes());
    QCOMPARE(finished.at(0).at(0).value<Result>(), Result::Cancelled);
    QCOMPARE(updater.plan(m_scenario->build(), m_scenario->patch()).filesToPatch, 6);
}

/// It is not the plan of an update that has nothing to do.
void tst_UpdateController::cancelledPlanIsTold()
{
    UpdateController updater;
    std::atomic<bool> done{false};
    std::atomic<bool> begun{false};
    std::thread other([&] {
        while (!done) {
            updater.cancel();
            begun = true;
        }
    });
    while (!begun)
        std::this_thread::yield();
    UpdatePlan plan;
    const QDeadlineTimer patience(Patience); // the other thread may not get its turn
    while (!plan.isCancelled && !patience.hasExpired())
        plan = updater.plan(m_scenario->build(), m_scenario->patch());
    done = true;
    other.join();
    QVERIFY(plan.isCancelled);
    QVERIFY(plan.refusals.isEmpty());
    QVERIFY(!updater.plan(m_scenario->build(), m_scenario->patch()).isCancelled);
}

void tst_UpdateController::planOfALockedBuild()
{
    const int folder
        = ::open(QFile::encodeName(m_scenario->build()).constData(), O_RDONLY | O_DIRECTORY);
    QVERIFY(folder >= 0 && ::flock(folder, LOCK_EX | LOCK_NB) == 0);
    const UpdatePlan plan = UpdateController().plan(m_scenario->build(), m_scenario->patch());
    ::close(folder);
    QCOMPARE(plan.refusals.size(), 1);
    QVERIFY(plan.refusals.at(0).code == Code::Busy);
    QCOMPARE(plan.refusals.at(0).file, m_scenario->build());

    // A plan keeps nobody out afterwards.
    UpdateController updater;
    QVERIFY(updater.plan(m_scenario->build(), m_scenario->patch()).refusals.isEmpty());
    QCOMPARE(m_scenario->update().result, Result::Updated);
}

void tst_UpdateController::planOfAnInterruptedUpdate()
{
    interruptUpdate();
    const auto before = TestTree::snapshot(m_scenario->build());
    const UpdatePlan plan = UpdateController().plan(m_scenario->build(), m_scenario->patch());
    QCOMPARE(plan.refusals.size(), 1);
    QVERIFY(plan.refusals.at(0).code == Code::Unfinished);
    QCOMPARE(plan.refusals.at(0).file, file(".pellox/journal"_s));
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

void tst_UpdateController::planOutOfMemory()
{
    if (HasSanitizer)
        QSKIP("the sanitizer needs the memory itself");
    layLargePatch();
    UpdateController updater;
    UpdatePlan plan;
    {
        const MemoryLimit limit(LittleMemory);
        plan = updater.plan(m_scenario->build(), m_scenario->tree().path("large"_s));
    }
    QCOMPARE(plan.refusals.size(), 1);
    QVERIFY(plan.refusals.at(0).code == Code::NoMemory);
    QVERIFY(updater.plan(m_scenario->build(), m_scenario->patch()).refusals.isEmpty());
}

void tst_UpdateController::recoverWithNothingToDo()
{
    const UpdateOutcome outcome = m_scenario->recover();
    QCOMPARE(outcome.result, Result::AlreadyUpToDate);
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(m_scenario->differenceToOld(), QString());
    const UpdateOutcome nowhere = outcomeOf([&](UpdateController &updater) {
        return updater.recover(m_scenario->tree().path("nowhere"_s));
    });
    QCOMPARE(nowhere.result, Result::Refused);
    QCOMPARE(nowhere.errors.size(), 1);
}

void tst_UpdateController::damagedJournalIsToldAndKept()
{
    write(".pellox/journal"_s, "torn");
    for (const UpdateOutcome &outcome :
        {m_scenario->update(), m_scenario->recover(), m_scenario->rollback()}) {
        QCOMPARE(outcome.result, Result::Interrupted);
        QCOMPARE(outcome.errors.size(), 1);
        QVERIFY(outcome.errors.at(0).startsWith(file(".pellox/journal: "_s)));
    }
    m_scenario->tree().remove("build/.pellox"_s);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

QTEST_GUILESS_MAIN(tst_UpdateController)

#include "tst_updatecontroller.moc"
