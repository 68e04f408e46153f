// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "literals.h"
#include "logcapture.h"
#include "testtree.h"
#include "updatescenario.h"

#include <QDir>
#include <QFile>
#include <QtTest>

#include <cerrno>
#include <functional>
#include <optional>

using Prepare = std::function<void()>;
using Result = Pellox::UpdateController::UpdateResult;

Q_DECLARE_METATYPE(Prepare)

namespace {

constexpr int FirstResult = 10; ///< status of updatecall

int statusOf(Result result)
{
    return FirstResult + static_cast<int>(result);
}

/// An empty build, and a patch with names that some file systems take for one.
void layTrial(const TestTree &tree)
{
    tree.makeFolder("build"_s);
    tree.write("patch/Fusion1"_s, "one");
    tree.write("patch/fusion1"_s, "other");
    tree.write("patch/patchRules.json"_s,
        "[{\"rule\":\"copy\",\"relative_path\":\"/Fusion1\"},"
        "{\"rule\":\"copy\",\"relative_path\":\"/fusion1\"}]");
}

} // namespace

/// Where the system does not tell what stands at a path, nothing is made of it: neither that the
/// file is missing nor that there is nothing to do.
class tst_FailingLooks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { m_scenario.reset(); }
    void init();
    void cleanup();

    void fileThatCannotBeSeen_data();
    void fileThatCannotBeSeen();
    void oneLookAtAFileFails_data();
    void oneLookAtAFileFails();
    void playersFileThatCannotBeSeen();
    void recordThatCannotBeSeen_data();
    void recordThatCannotBeSeen();
    void leftoverThatCannotBeSeen_data();
    void leftoverThatCannotBeSeen();
    void trialThatFails_data();
    void trialThatFails();
    void trialAfterAKilledRun();
    void roomThatIsNotTold();
    void journalThatCannotBeSeenAfterAFailure_data();
    void journalThatCannotBeSeenAfterAFailure();

    void oneCallFails_data();
    void oneCallFails();
    void fileToBeCopiedAsideFails_data();
    void fileToBeCopiedAsideFails();

private:
    FaultRun update(const Faults &faults, const QString &fallback = QString()) const;
    FaultRun run(const QStringList &command, Faults faults) const;
    void layKilled(const QString &command, int placed);
    QString differenceToGoal(const QString &goal) const;
    QString file(const QString &path) const { return m_scenario->tree().path("build/"_s + path); }

    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
};

void tst_FailingLooks::initTestCase()
{
    useMemoryForFiles();
    m_scenario.emplace();
}

void tst_FailingLooks::init()
{
    m_log.emplace();
    m_scenario->lay();
}

void tst_FailingLooks::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

FaultRun tst_FailingLooks::update(const Faults &faults, const QString &fallback) const
{
    Faults unsynced = faults;
    unsynced.unsynced = true;
    QStringList arguments{"1"_s, "update"_s, m_scenario->build(), m_scenario->patch()};
    if (!fallback.isEmpty())
        arguments.append(fallback);
    return runWithFaults(QStringLiteral(UPDATECALL_PROGRAM), arguments, unsynced);
}

void tst_FailingLooks::fileThatCannotBeSeen_data()
{
    QTest::addColumn<QString>("path");
    for (const char *path :
        {"build/gone", "build/saves", "build/left empty/deep/gone", "build/game.exe",
            "build/data/taken whole", "build/moved to here", "build/folder to file",
            "build/folder to file/sub", "patch/game.exe", "patch/data", "patch/added/deep/program"})
        QTest::newRow(path) << QString::fromLatin1(path);
}

/// Neither now nor later, with a fallback that has all.
void tst_FailingLooks::fileThatCannotBeSeen()
{
    QFETCH(QString, path);
    const QString absolute = m_scenario->tree().path(path);
    const FaultRun run
        = update({absolute, "look", 1, QByteArray::number(EIO), true}, m_scenario->newBuild());
    QVERIFY2(run.status == statusOf(Result::Refused), run.output);
    const QStringList errors
        = QString::fromLocal8Bit(run.output).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QVERIFY(!errors.isEmpty());
    for (const QString &error : errors) {
        QVERIFY2(error.startsWith(absolute), qPrintable(error));
        QVERIFY2(error.contains(": cannot be "_s), qPrintable(error));
    }
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
    QCOMPARE(m_scenario->update().result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_FailingLooks::oneLookAtAFileFails_data()
{
    QTest::addColumn<QString>("path");
    for (const char *path : {"gone", "game.exe", "data/changed", "data/large.pak",
             "data/taken whole", "moved to here", "folder to file", "file to folder",
             "added/deep/program", "data/filled.temp", "data/taken whole.temp"})
        QTest::newRow(path) << QString::fromLatin1(path);
}

/// Each of those that a run takes: the result says what is so.
void tst_FailingLooks::oneLookAtAFileFails()
{
    QFETCH(QString, path);
    int failed = 0;
    bool met = true;
    for (int at = 1; met; ++at) {
        m_scenario->lay();
        const FaultRun run = update({file(path), "look", at, QByteArray::number(EIO)});
        met = run.calls.size() >= at;
        const QByteArray where
            = run.calls.value(at - 1).toLocal8Bit() + QByteArray::number(at) + ": " + run.output;
        QCOMPARE(m_scenario->brokenPromise(), QString());
        if (run.status == statusOf(Result::Updated)) {
            QVERIFY2(run.output.isEmpty(), where);
            QVERIFY2(m_scenario->differenceToNew().isEmpty(),
                where + qPrintable(m_scenario->differenceToNew()));
            continue;
        }
        ++failed;
        QVERIFY2(run.output.contains(file(path).toLocal8Bit()), where);
        QVERIFY2(!run.output.contains("is missing"), where);
        if (run.status != statusOf(Result::Interrupted))
            QVERIFY2(m_scenario->differenceToOld().isEmpty(),
                where + qPrintable(m_scenario->differenceToOld()));
        QCOMPARE(m_scenario->update().result, Result::Updated);
        QCOMPARE(m_scenario->differenceToNew(), QString());
    }
    if (!path.endsWith(".temp"_s))
        QVERIFY(failed > 0);
}

/// It may be a player's, so the new content goes elsewhere.
void tst_FailingLooks::playersFileThatCannotBeSeen()
{
    const QString players = file("data/changed.temp"_s);
    m_scenario->tree().write("build/data/changed.temp"_s, "mine");
    const FaultRun run = update({players, "look", 1, QByteArray::number(EIO), true});
    QCOMPARE(run.output, QByteArray());
    QCOMPARE(run.status, statusOf(Result::Updated));
    QCOMPARE(m_scenario->tree().read("build/data/changed.temp"_s), QByteArray("mine"));
    QVERIFY(QFile::remove(players));
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_FailingLooks::recordThatCannotBeSeen_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("the record") << ".pellox/staging"_s;
    QTest::newRow("its folder") << ".pellox"_s;
}

/// It is not written anew: then nobody would know what it names.
void tst_FailingLooks::recordThatCannotBeSeen()
{
    QFETCH(QString, path);
    QVERIFY(update({file(".pellox/journal.new"_s), "create", 1, "kill"}).crashed);
    m_scenario->tree().write("other patch/patchRules.json"_s, "[]");
    const auto before = TestTree::snapshot(m_scenario->build());
    QVERIFY(before.contains("data/changed.temp"_s) && before.contains(".pellox/staging"_s));
    const FaultRun blind = update({file(path), "look", 1, QByteArray::number(EIO), true});
    QVERIFY2(blind.status == statusOf(Result::Refused)
            || (path == ".pellox"_s && blind.status == statusOf(Result::Interrupted)),
        blind.output);
    QVERIFY2(blind.output.contains(file(path).toLocal8Bit()), blind.output);
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
    const UpdateOutcome other = outcomeOf([&](Pellox::UpdateController &updater) {
        updater.setSynced(false);
        return updater.update(m_scenario->build(), m_scenario->tree().path("other patch"_s));
    });
    QCOMPARE(other.result, Result::AlreadyUpToDate);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_FailingLooks::leftoverThatCannotBeSeen_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("a file") << "data/filled.temp"_s;
    QTest::newRow("a folder above") << "added"_s;
    QTest::newRow("one staged in the hidden folder") << ".pellox/staged"_s;
}

/// Its record stays, so that a later run removes it.
void tst_FailingLooks::leftoverThatCannotBeSeen()
{
    QFETCH(QString, path);
    QVERIFY(update({file(".pellox/journal.new"_s), "create", 1, "kill"}).crashed);
    const FaultRun blind = runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"1"_s, "discard"_s, m_scenario->build()},
        {file(path), "look", 1, QByteArray::number(EIO), true});
    QVERIFY(!blind.crashed);
    QVERIFY(QFile::exists(file(".pellox/staging"_s)));
    QVERIFY(m_scenario->discardPrevious());
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_FailingLooks::trialThatFails_data()
{
    QTest::addColumn<QByteArray>("call");
    for (const char *call : {"look", "create", "remove"})
        QTest::newRow(call) << QByteArray(call);
}

/// Whether names fold must be certain where the rules have such names.
void tst_FailingLooks::trialThatFails()
{
    QFETCH(QByteArray, call);
    const TestTree tree;
    layTrial(tree);
    const QString staged = tree.path("build/.pellox/staged"_s);
    const QStringList update{"update"_s, tree.path("build"_s), tree.path("patch"_s)};
    const FaultRun run = this->run(update, {staged, call, 1, QByteArray::number(EIO), true});
    QVERIFY2(run.status == statusOf(Result::Refused), run.output);
    QVERIFY2(run.output.startsWith(staged.toLocal8Bit()), run.output);
    QVERIFY2(run.output.endsWith(": Input/output error\n"), run.output);
    QVERIFY(!tree.exists("build/Fusion1"_s) && !tree.exists("build/fusion1"_s));
    QCOMPARE(this->run(update, {}).output, QByteArray());
    QCOMPARE(tree.read("build/Fusion1"_s), QByteArray("one"));
    QCOMPARE(tree.read("build/fusion1"_s), QByteArray("other"));
}

/// Whose own folder goes with the trial, and is made again.
void tst_FailingLooks::trialAfterAKilledRun()
{
    const TestTree tree;
    layTrial(tree);
    tree.makeFolder("build/.pellox/staged"_s);
    const FaultRun run = this->run({"update"_s, tree.path("build"_s), tree.path("patch"_s)}, {});
    QCOMPARE(run.output, QByteArray());
    QCOMPARE(run.status, statusOf(Result::Updated));
    QCOMPARE(tree.read("build/Fusion1"_s), QByteArray("one"));
    QCOMPARE(tree.read("build/fusion1"_s), QByteArray("other"));
}

/// A file system that does not say what it has free may have enough.
void tst_FailingLooks::roomThatIsNotTold()
{
    for (const char *command : {"update", "update-keeping"}) {
        m_scenario->lay();
        const FaultRun run
            = this->run({QString::fromLatin1(command), m_scenario->build(), m_scenario->patch()},
                {m_scenario->build(), "room", 1, QByteArray::number(EIO), true});
        QVERIFY(!run.calls.isEmpty());
        QCOMPARE(run.output, QByteArray());
        QCOMPARE(run.status, statusOf(Result::Updated));
        m_scenario->discardPrevious();
        QCOMPARE(m_scenario->differenceToNew(), QString());
    }
}

void tst_FailingLooks::journalThatCannotBeSeenAfterAFailure_data()
{
    QTest::addColumn<QByteArray>("call"); // that fails first
    QTest::addColumn<QString>("file");
    QTest::newRow("staging fails") << QByteArray("create") << "data/filled.temp"_s;
    QTest::newRow("journal cannot be put in place") << QByteArray("rename") << ".pellox/journal"_s;
}

/// It may stand there, so what is staged stays.
void tst_FailingLooks::journalThatCannotBeSeenAfterAFailure()
{
    QFETCH(QByteArray, call);
    QFETCH(QString, file);
    const QStringList update{"update"_s, m_scenario->build(), m_scenario->patch()};
    const QByteArray calls = "look," + call;
    const QStringList all = run(update, {m_scenario->build(), calls}).calls;
    const int at = all.indexOf(QString::fromLatin1(call) + QLatin1Char(' ') + this->file(file)) + 1;
    QVERIFY(at > 0);
    m_scenario->lay();
    const FaultRun run
        = this->run(update, {m_scenario->build(), calls, at, QByteArray::number(EIO), true});
    QVERIFY2(run.status == statusOf(Result::Interrupted), run.output);
    QVERIFY2(run.output.startsWith(m_scenario->build().toLocal8Bit() + '/'), run.output);
    QVERIFY(QFile::exists(this->file("data/large.pak.temp"_s)));
    QVERIFY(m_scenario->isOld());
    QCOMPARE(m_scenario->touchedFile(), QString());
    QCOMPARE(this->run(update, {}).output, QByteArray());
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// @p command is what comes after the number of threads.
FaultRun tst_FailingLooks::run(const QStringList &command, Faults faults) const
{
    faults.unsynced = true;
    return runWithFaults(QStringLiteral(UPDATECALL_PROGRAM), QStringList{"1"_s} + command, faults);
}

/// The old build with what @p command leaves that is killed when @p placed files are in place.
void tst_FailingLooks::layKilled(const QString &command, int placed)
{
    const QStringList update{command, m_scenario->build(), m_scenario->patch()};
    m_scenario->lay();
    const QStringList calls = run(update, {m_scenario->build(), "rename"}).calls;
    const int journal = calls.indexOf("rename "_s + file(".pellox/journal"_s));
    QVERIFY(journal >= 0 && journal + 1 + placed < calls.size());
    m_scenario->lay();
    QVERIFY(run(update, {m_scenario->build(), "rename", journal + 2 + placed, "kill"}).crashed);
    QVERIFY(m_scenario->hasJournal());
}

/// @p goal: "new", "old", or "spared", which is new but for a deleted file that somebody changed.
QString tst_FailingLooks::differenceToGoal(const QString &goal) const
{
    m_scenario->discardPrevious();
    m_scenario->removeEmptyFolders(); // one may stay where a call on it has failed
    if (goal == "spared"_s) {
        if (m_scenario->tree().read("build/gone"_s) != "mine now")
            return "the player's file is lost"_s;
        m_scenario->tree().remove("build/gone"_s);
    }
    const QString difference
        = goal == "old"_s ? m_scenario->differenceToOld() : m_scenario->differenceToNew();
    return difference.isEmpty() ? m_scenario->touchedFile() : difference;
}

void tst_FailingLooks::oneCallFails_data()
{
    QTest::addColumn<Prepare>("prepare");
    QTest::addColumn<QStringList>("command");
    QTest::addColumn<QString>("goal");
    QTest::addColumn<QString>("path"); // in which calls fail
    QTest::addColumn<QByteArray>("calls");
    const QString build = m_scenario->build();
    const QString newBuild = m_scenario->newBuild();
    const QStringList update{"update"_s, build, m_scenario->patch()};
    const QStringList keeping{"update-keeping"_s, build, m_scenario->patch()};
    const QStringList recover{"recover"_s, build};
    const auto row = [&](const char *name, const Prepare &prepare, const QStringList &command,
                         const QString &goal) {
        QTest::newRow(name) << prepare << command << goal << m_scenario->tree().path()
                            << QByteArray("open,read,list,entry");
        for (const char *calls : {"look", "create,remove,mkdir,rename"})
            QTest::addRow("%s, own files: %s", name, calls)
                << prepare << command << goal << file(".pellox"_s) << QByteArray(calls);
    };
    const auto lay = [this] { m_scenario->lay(); };
    row("update", lay, update, "new"_s);
    row("update that keeps", lay, keeping, "new"_s);
    row(
        "update of a damaged build", [this] { m_scenario->layDamaged(); },
        update + QStringList(newBuild), "new"_s);
    row(
        "update after one that was killed",
        [this] {
            m_scenario->lay();
            QVERIFY(this->update({file(".pellox/journal.new"_s), "create", 1, "kill"}).crashed);
        },
        update, "new"_s);
    row("plan", lay, {"plan"_s, build, m_scenario->patch()}, "old"_s);
    row(
        "recovery", [this] { layKilled("update"_s, 0); }, recover, "new"_s);
    row(
        "recovery of half a commit", [this] { layKilled("update"_s, 5); }, recover, "new"_s);
    row(
        "recovery of one that keeps", [this] { layKilled("update-keeping"_s, 1); }, recover,
        "new"_s);
    row(
        "recovery that spares a file",
        [this] {
            layKilled("update-keeping"_s, 0);
            m_scenario->tree().write("build/gone"_s, "mine now");
        },
        recover, "spared"_s);
    row(
        "rollback",
        [this] {
            m_scenario->lay();
            QCOMPARE(m_scenario->update(true).result, Result::Updated);
        },
        {"rollback"_s, build}, "old"_s);
    row(
        "repair",
        [this] {
            m_scenario->layNew();
            m_scenario->tree().write("build/data/changed"_s, "damaged");
        },
        {"repair"_s, build, m_scenario->signatures(), newBuild}, "new"_s);
    row(
        "repair that finishes an update first", [this] { layKilled("update"_s, 3); },
        {"repair"_s, build, m_scenario->signatures(), newBuild}, "new"_s);
}

/// Each of those that a run makes, or where there are many of them, a part. What the run says is
/// so, and the next one finishes.
void tst_FailingLooks::oneCallFails()
{
    QFETCH(Prepare, prepare);
    QFETCH(QStringList, command);
    QFETCH(QString, goal);
    QFETCH(QString, path);
    QFETCH(QByteArray, calls);
    prepare();
    const int count = run(command, {path, calls}).calls.size();
    const int step = stepThrough(count, 12);
    int failed = 0;
    QStringList findings;
    for (int at = 1; at <= count; at += step) {
        prepare();
        const FaultRun run = this->run(command, {path, calls, at, QByteArray::number(EIO)});
        const QString where = "%1 (%2): "_s.arg(run.calls.value(at - 1)).arg(at);
        const QString told = QString::fromLocal8Bit(run.output);
        const bool isDone = run.status == statusOf(Result::Updated) || run.status == 0;
        failed += isDone ? 0 : 1;
        if (run.crashed || isDone != told.isEmpty()
            || (!isDone && !told.contains("Input/output error"_s)))
            findings.append(where + "ends with %1 and "_s.arg(run.status) + told);
        const FaultRun again = isDone ? FaultRun() : this->run(command, {});
        if (!again.output.isEmpty())
            findings.append(where + "and then "_s + QString::fromLocal8Bit(again.output));
        const QString difference = differenceToGoal(goal);
        if (!difference.isEmpty())
            findings.append(where + difference);
    }
    if (command.first() == "plan"_s && calls.contains("create"))
        QCOMPARE(count, 0); // it changes nothing
    else
        QVERIFY(failed > 0);
    QVERIFY2(findings.isEmpty(), qPrintable(findings.join(QLatin1Char('\n'))));
}

void tst_FailingLooks::fileToBeCopiedAsideFails_data()
{
    QTest::addColumn<QByteArray>("call");
    QTest::addColumn<QByteArray>("error");
    QTest::addColumn<Result>("result");
    // With no folder opened either, nobody knows whether there is a journal.
    QTest::newRow("cannot be opened")
        << QByteArray("open") << QByteArray(": cannot be opened: ") << Result::Interrupted;
    QTest::newRow("cannot be read")
        << QByteArray("read") << QByteArray(": cannot be read: ") << Result::Failed;
    QTest::newRow("cannot be made")
        << QByteArray("create") << QByteArray(": cannot be written: ") << Result::Failed;
}

/// Where a file can have no second name, its content is copied before the commit.
void tst_FailingLooks::fileToBeCopiedAsideFails()
{
    QFETCH(QByteArray, call);
    QFETCH(QByteArray, error);
    QFETCH(Result, result);
    const QStringList keeping{"update-keeping"_s, m_scenario->build(), m_scenario->patch()};
    const QByteArray calls = "link," + call;
    const QStringList all = run(keeping, {m_scenario->build(), calls}).calls;
    const QString keptFile = "link "_s + file(".pellox/keeping/data/"_s); // no trial beforehand
    int link = 0;
    while (link < all.size() && !all.at(link).startsWith(keptFile))
        ++link;
    QVERIFY(link + 1 < all.size());
    m_scenario->lay();
    const FaultRun run = this->run(
        keeping, {m_scenario->build(), calls, link + 1, QByteArray::number(EPERM), true});
    QVERIFY2(run.status == statusOf(result), run.output);
    QVERIFY2(run.output.contains(error), run.output);
    QVERIFY2(run.output.startsWith(m_scenario->build().toLocal8Bit() + '/'), run.output);
    QVERIFY(m_scenario->isOld());
    if (result == Result::Failed)
        QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
    QCOMPARE(m_scenario->update().result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

QTEST_GUILESS_MAIN(tst_FailingLooks)

#include "tst_failinglooks.moc"
