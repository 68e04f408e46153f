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
#include <optional>

using Result = Pellox::UpdateController::UpdateResult;

namespace {

constexpr int FirstResult = 10; ///< status of updatecall

int statusOf(Result result)
{
    return FirstResult + static_cast<int>(result);
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
    void trialThatCannotBeSeen();

private:
    FaultRun update(const Faults &faults, const QString &fallback = QString()) const;
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

/// Whether names fold must be certain where the rules have such names.
void tst_FailingLooks::trialThatCannotBeSeen()
{
    const TestTree tree;
    tree.makeFolder("build"_s);
    tree.write("patch/Fusion1"_s, "one");
    tree.write("patch/fusion1"_s, "other");
    tree.write("patch/patchRules.json"_s,
        "[{\"rule\":\"copy\",\"relative_path\":\"/Fusion1\"},"
        "{\"rule\":\"copy\",\"relative_path\":\"/fusion1\"}]");
    const QString staged = tree.path("build/.pellox/staged"_s);
    const FaultRun run = runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"1"_s, "update"_s, tree.path("build"_s), tree.path("patch"_s)},
        {staged, "look", 1, QByteArray::number(EIO), true});
    QVERIFY2(run.status == statusOf(Result::Refused), run.output);
    QVERIFY2(run.output.startsWith(staged.toLocal8Bit() + "/"), run.output);
    QVERIFY(!tree.exists("build/Fusion1"_s) && !tree.exists("build/fusion1"_s));
}

QTEST_GUILESS_MAIN(tst_FailingLooks)

#include "tst_failinglooks.moc"
