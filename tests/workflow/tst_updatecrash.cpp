// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "literals.h"
#include "logcapture.h"
#include "testtree.h"
#include "updaterestart.h"
#include "updatescenario.h"

#include <Pellox/PatchSeal>

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QtTest>

#include <cerrno>
#include <optional>
#include <utility>

using Result = Pellox::UpdateController::UpdateResult;

namespace {

/// The kinds of calls that change something on the disk.
const QByteArray Changes("create,write,sync,rename,link,remove,mkdir,mode,truncate,copy");

constexpr int FirstResult = 10; ///< status of updatecall

/// A row takes all points, or each so-and-so-many-th of them where there is no time.
int stepOf(int everyday)
{
    return qEnvironmentVariableIsSet("PELLOX_ALL_CRASH_POINTS") ? 1 : everyday;
}

/// What goes wrong in a row, as far as it is worth printing.
class Findings
{
public:
    void add(const QString &where, const QString &problem)
    {
        constexpr int Enough = 25;
        if (!problem.isEmpty() && m_texts.size() < Enough)
            m_texts.append(where + ": "_s + problem);
    }
    QString text() const { return m_texts.join("\n    "_s); }

private:
    QStringList m_texts;
};

} // namespace

/// Runs a program that makes one call of UpdateController. It is killed at each call that changes
/// something on the disk, and each such call fails.
class tst_UpdateCrash : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void withoutAFaultAllIsWell_data();
    void withoutAFaultAllIsWell();
    void killedAtAnyCall_data();
    void killedAtAnyCall();
    void killedOnceMoreWhileItRecovers_data();
    void killedOnceMoreWhileItRecovers();
    void anyCallMayFail_data();
    void anyCallMayFail();
    void readsAndWritesMayBeShort_data();
    void readsAndWritesMayBeShort();
    void linksMayBeUnknownToTheFileSystem_data();
    void linksMayBeUnknownToTheFileSystem();
    void damagedBuildKilledAtAnyCall_data();
    void damagedBuildKilledAtAnyCall();
    void anyCallOnADamagedBuildMayFail_data();
    void anyCallOnADamagedBuildMayFail();
    void sealedUpdateKilledAtAnyCall();
    void discardsNothingThatARollbackNeeds();
    void stagedWorkIsNotDoneAgain();
    void slimUpdateKilledAtAnyCall_data();
    void slimUpdateKilledAtAnyCall();
    void anyCallOfASlimUpdateMayFail_data();
    void anyCallOfASlimUpdateMayFail();

private:
    void prepare(const QString &command);
    FaultRun run(const QString &command, Faults faults, int threads = 1) const;
    QString problemOfRestart(const QString &command, bool byRecovery) const
    {
        return ::problemOfRestart(*m_scenario, command, byRecovery, m_foldersMayStay);
    }
    QString problemOfFailure(const QString &command, const FaultRun &run, const QString &call);

    bool makeSlim();
    void killAtAnyCall(const QString &command, bool byRecovery, int threads);
    void failAtAnyCall(const QString &command, const QByteArray &calls, int error, bool later,
        const QString &folder = QString());

    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
    bool m_isDamaged = false;      ///< each run starts from a damaged build, and has a fallback
    bool m_foldersMayStay = false; ///< empty, since they could not be removed
    int m_points = 0;              ///< at which a run was killed or a call has failed
};

/// In memory where the system has a folder for that: there are very many runs, and what a process
/// leaves when it is killed is the same there.
void tst_UpdateCrash::initTestCase()
{
    useMemoryForFiles();
    m_scenario.emplace();
}

void tst_UpdateCrash::cleanupTestCase()
{
    qInfo("%d runs with a fault", m_points);
    qunsetenv("UPDATECALL_KEY");
    m_scenario.reset();
}

void tst_UpdateCrash::init()
{
    m_log.emplace();
    m_isDamaged = false;
    m_foldersMayStay = false;
}

void tst_UpdateCrash::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

namespace {

void addCommands()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("update") << "update"_s;
    QTest::newRow("update that keeps") << "update-keeping"_s;
    QTest::newRow("rollback") << "rollback"_s;
}

} // namespace

/// Lays the build that @p command starts from.
void tst_UpdateCrash::prepare(const QString &command)
{
    if (m_isDamaged)
        m_scenario->layDamaged();
    else
        m_scenario->lay();
    if (command == "rollback"_s)
        QCOMPARE(m_scenario->update(true).result, Result::Updated);
}

/// Whoever kills the process alone sees no difference between what is synced and what is not.
FaultRun tst_UpdateCrash::run(const QString &command, Faults faults, int threads) const
{
    faults.unsynced = true;
    QStringList arguments{QString::number(threads), command, m_scenario->build()};
    if (command.startsWith("update"_s))
        arguments << m_scenario->patch() << m_scenario->fallback();
    return runWithFaults(QStringLiteral(UPDATECALL_PROGRAM), arguments, faults);
}

void tst_UpdateCrash::withoutAFaultAllIsWell_data()
{
    addCommands();
}

/// Otherwise the tests below would be of little worth.
void tst_UpdateCrash::withoutAFaultAllIsWell()
{
    QFETCH(QString, command);
    prepare(command);
    const FaultRun run = this->run(command, {m_scenario->build(), Changes});
    QCOMPARE(run.output, QByteArray());
    QCOMPARE(run.status, FirstResult + static_cast<int>(Result::Updated));
    QCOMPARE(m_scenario->brokenPromise(), QString());
    if (command == "update-keeping"_s)
        QVERIFY(m_scenario->discardPrevious());
    QCOMPARE(
        command == "rollback"_s ? m_scenario->differenceToOld() : m_scenario->differenceToNew(),
        QString());

    QSet<QString> kinds;
    for (const QString &call : run.calls)
        kinds.insert(call.section(QLatin1Char(' '), 0, 0));
    QStringList expected{"create"_s, "write"_s, "sync"_s, "rename"_s, "remove"_s, "mkdir"_s};
    if (command != "rollback"_s)
        expected.append("mode"_s);
    for (const QString &kind : std::as_const(expected))
        QVERIFY2(kinds.contains(kind), qPrintable(kind));
}

void tst_UpdateCrash::killedAtAnyCall_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<bool>("byRecovery");
    QTest::addColumn<int>("threads");
    QTest::newRow("update, then update") << "update"_s << false << 1;
    QTest::newRow("update, then recovery") << "update"_s << true << 1;
    QTest::newRow("update of two threads") << "update"_s << false << 2;
    QTest::newRow("update that keeps, then update") << "update-keeping"_s << false << 1;
    QTest::newRow("update that keeps, then recovery and rollback")
        << "update-keeping"_s << true << 1;
    QTest::newRow("rollback, then rollback") << "rollback"_s << false << 1;
    QTest::newRow("rollback, then recovery") << "rollback"_s << true << 1;
}

void tst_UpdateCrash::killedAtAnyCall()
{
    QFETCH(QString, command);
    QFETCH(bool, byRecovery);
    QFETCH(int, threads);
    killAtAnyCall(command, byRecovery, threads);
}

void tst_UpdateCrash::killAtAnyCall(const QString &command, bool byRecovery, int threads)
{
    Findings findings;
    const int step = stepOf(9);
    bool died = true;
    int at = 1;
    for (; died; at += step) {
        prepare(command);
        const FaultRun run
            = this->run(command, {m_scenario->build(), Changes, at, "kill"}, threads);
        died = run.crashed;
        m_points += died ? 1 : 0;
        const QString where = "%1 (%2)"_s.arg(run.calls.value(at - 1)).arg(at);
        if (!died && run.status != FirstResult + static_cast<int>(Result::Updated))
            findings.add(where, "ends with status %1"_s.arg(run.status));
        findings.add(where, m_scenario->brokenPromise());
        findings.add(where, problemOfRestart(command, byRecovery));
    }
    QVERIFY2(at > 40, "too few points");
    QVERIFY2(findings.text().isEmpty(), qPrintable(findings.text()));
}

void tst_UpdateCrash::killedOnceMoreWhileItRecovers_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("second");
    QTest::newRow("update, recovery") << "update"_s
                                      << "recover"_s;
    QTest::newRow("update, update") << "update"_s
                                    << "update"_s;
    QTest::newRow("update that keeps, recovery") << "update-keeping"_s
                                                 << "recover"_s;
    QTest::newRow("update that keeps, update") << "update-keeping"_s
                                               << "update-keeping"_s;
    QTest::newRow("rollback, recovery") << "rollback"_s
                                        << "recover"_s;
}

void tst_UpdateCrash::killedOnceMoreWhileItRecovers()
{
    QFETCH(QString, command);
    QFETCH(QString, second);
    Findings findings;
    prepare(command);
    const int calls = run(command, {m_scenario->build(), Changes}).calls.size();
    const bool most = stepOf(2) == 1;
    const int step = most ? 5 : 11;
    const int secondStep = most ? 2 : 22;
    int killedTwice = 0;
    // The commit is what is left at the end; a third of the points lies in it at least.
    for (int at = calls / 3; at <= calls; at += step) {
        bool died = true;
        for (int secondAt = 1 + at % secondStep; died; secondAt += secondStep) {
            prepare(command);
            if (!run(command, {m_scenario->build(), Changes, at, "kill"}).crashed)
                break;
            const FaultRun run
                = this->run(second, {m_scenario->build(), Changes, secondAt, "kill"});
            died = run.crashed;
            m_points += died ? 1 : 0;
            killedTwice += died ? 1 : 0;
            const QString where
                = "%1 (%2, %3)"_s.arg(run.calls.value(secondAt - 1)).arg(at).arg(secondAt);
            findings.add(where, m_scenario->brokenPromise());
            findings.add(where, problemOfRestart(command, secondAt % 2 == 0));
        }
    }
    QVERIFY(killedTwice > 0);
    QVERIFY2(findings.text().isEmpty(), qPrintable(findings.text()));
}

namespace {

/// Which keeps it from being removed, too.
bool isOpenOfEmptiedFolder(const QString &call)
{
    return call.startsWith("open "_s)
        && (call.endsWith("/left empty"_s) || call.endsWith("/left empty/deep"_s)
            || call.endsWith("/folder to file/sub"_s));
}

} // namespace

void tst_UpdateCrash::anyCallMayFail_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<int>("error");
    QTest::addColumn<bool>("later");
    const QByteArray all = Changes + ",close";
    int row = 0;
    for (const char *command : {"update", "update-keeping", "rollback"}) {
        for (const auto &[name, error] :
            {std::pair("ENOSPC", ENOSPC), {"EIO", EIO}, {"EACCES", EACCES}, {"EPERM", EPERM}}) {
            QTest::addRow("%s, %s", command, name)
                << QString::fromLatin1(command) << all << error << false;
        }
        QTest::addRow("%s, ENOSPC from then on", command)
            << QString::fromLatin1(command) << QByteArray("create,write,mkdir,sync") << ENOSPC
            << true;
        QTest::addRow("%s, reading, EIO", command)
            << QString::fromLatin1(command) << QByteArray("open,read,list") << EIO << false;
        ++row;
    }
}

/// What is wrong after one call of a run has failed.
QString tst_UpdateCrash::problemOfFailure(
    const QString &command, const FaultRun &run, const QString &call)
{
    const QString errors = QString::fromLocal8Bit(run.output + run.errors);
    if (run.crashed || run.status < FirstResult)
        return "ends with status %1: %2"_s.arg(run.status).arg(errors);
    const auto result = static_cast<Result>(run.status - FirstResult);
    if (isGood(result) != errors.isEmpty())
        return "ends with %1: %2"_s.arg(static_cast<int>(result)).arg(errors);
    if (!errors.isEmpty() && !errors.startsWith(m_scenario->tree().path()))
        return "names no file: "_s + errors;
    // A file that could not be removed is no reason to fail.
    const bool mayLeave = call.startsWith("remove "_s) || call.startsWith("list "_s);
    if ((result == Result::Failed || result == Result::Refused) && !mayLeave
        && command != "rollback"_s) {
        const QString difference = m_scenario->differenceToOld();
        if (!difference.isEmpty())
            return "has failed, but not without a trace: "_s + difference;
    }
    // Where the system does not tell whether there is a journal, there may be one.
    const bool mayHaveJournal = errors.contains("/.pellox/journal: cannot be looked at"_s);
    if (result == Result::Interrupted && !mayHaveJournal && !m_scenario->hasJournal())
        return "is to be resumed, but has no journal: "_s + errors;
    return QString();
}

void tst_UpdateCrash::anyCallMayFail()
{
    QFETCH(QString, command);
    QFETCH(QByteArray, calls);
    QFETCH(int, error);
    QFETCH(bool, later);
    failAtAnyCall(command, calls, error, later);
}

void tst_UpdateCrash::failAtAnyCall(
    const QString &command, const QByteArray &calls, int error, bool later, const QString &folder)
{
    const QString path = folder.isEmpty() ? m_scenario->build() : folder;
    Findings findings;
    const int step = stepOf(17);
    const QByteArray action = QByteArray::number(error);
    const int pointsBefore = m_points;
    int at = 1 + error % step;
    for (bool met = true; met; at += step) {
        prepare(command);
        const FaultRun run = this->run(command, {path, calls, at, action, later});
        met = run.calls.size() >= at;
        m_points += met ? 1 : 0;
        const QString call = run.calls.value(at - 1);
        const QString where = "%1 (%2)"_s.arg(call).arg(at);
        const QString problem = problemOfFailure(command, run, call);
        m_foldersMayStay = call.startsWith("remove "_s) || isOpenOfEmptiedFolder(call);
        findings.add(where, problem);
        findings.add(where, m_scenario->brokenPromise());
        findings.add(where, problemOfRestart(command, at % 2 == 0));
    }
    QVERIFY2(m_points > pointsBefore, "no points");
    QVERIFY2(findings.text().isEmpty(), qPrintable(findings.text()));
}

void tst_UpdateCrash::readsAndWritesMayBeShort_data()
{
    addCommands();
}

void tst_UpdateCrash::readsAndWritesMayBeShort()
{
    QFETCH(QString, command);
    for (const char *calls : {"read", "write"}) {
        prepare(command);
        const FaultRun run
            = this->run(command, {m_scenario->tree().path(), calls, 1, "half", true});
        QCOMPARE(run.output, QByteArray());
        QCOMPARE(run.status, FirstResult + static_cast<int>(Result::Updated));
        if (command == "update-keeping"_s)
            QVERIFY(m_scenario->discardPrevious());
        QCOMPARE(
            command == "rollback"_s ? m_scenario->differenceToOld() : m_scenario->differenceToNew(),
            QString());
    }
}

void tst_UpdateCrash::linksMayBeUnknownToTheFileSystem_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("EPERM") << EPERM;
    QTest::newRow("EOPNOTSUPP") << EOPNOTSUPP;
    QTest::newRow("ENOSYS") << ENOSYS;
    QTest::newRow("EMLINK") << EMLINK;
}

/// Some file systems know no second name of a file, or not that many: what is kept is copied.
void tst_UpdateCrash::linksMayBeUnknownToTheFileSystem()
{
    QFETCH(int, error);
    m_scenario->lay();
    const Faults noLinks{
        m_scenario->build() + "/.pellox/keeping"_s, "link", 1, QByteArray::number(error), true};
    const FaultRun run = this->run("update-keeping"_s, noLinks);
    QCOMPARE(run.output, QByteArray());
    QCOMPARE(run.status, FirstResult + static_cast<int>(Result::Updated));
    QVERIFY(run.calls.size() > 1);
    QCOMPARE(m_scenario->brokenPromise(), QString());
    const UpdateOutcome back = m_scenario->rollback();
    QCOMPARE(back.errors, QStringList());
    QCOMPARE(back.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
}

void tst_UpdateCrash::damagedBuildKilledAtAnyCall_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<bool>("byRecovery");
    QTest::addColumn<int>("threads");
    QTest::newRow("then update") << "update"_s << false << 1;
    QTest::newRow("then recovery, which needs no fallback") << "update"_s << true << 1;
    QTest::newRow("of two threads") << "update"_s << false << 2;
    QTest::newRow("that keeps, then recovery and rollback") << "update-keeping"_s << true << 1;
}

/// Files come whole from the fallback. Until then they are as they were, however damaged.
void tst_UpdateCrash::damagedBuildKilledAtAnyCall()
{
    QFETCH(QString, command);
    QFETCH(bool, byRecovery);
    QFETCH(int, threads);
    m_isDamaged = true;
    killAtAnyCall(command, byRecovery, threads);
}

void tst_UpdateCrash::anyCallOnADamagedBuildMayFail_data()
{
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<int>("error");
    QTest::addColumn<bool>("later");
    QTest::addColumn<bool>("isOfFallback");
    QTest::newRow("EIO") << Changes + ",close" << EIO << false << false;
    QTest::newRow("ENOSPC from then on")
        << QByteArray("create,write,mkdir,sync") << ENOSPC << true << false;
    QTest::newRow("reading, EIO") << QByteArray("open,read,list") << EIO << false << false;
    QTest::newRow("reading the fallback, EIO")
        << QByteArray("open,read,list") << EIO << false << true;
}

void tst_UpdateCrash::anyCallOnADamagedBuildMayFail()
{
    QFETCH(QByteArray, calls);
    QFETCH(int, error);
    QFETCH(bool, later);
    QFETCH(bool, isOfFallback);
    m_isDamaged = true;
    failAtAnyCall(
        "update"_s, calls, error, later, isOfFallback ? m_scenario->newBuild() : QString());
}

namespace {

/// Of the build; 0 where none is recorded, -1 where that cannot be read.
int installedRelease(const UpdateScenario &scenario)
{
    QFile file(scenario.build() + "/.pellox/release"_s);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return QJsonDocument::fromJson(file.readAll()).object().value("release"_s).toInt(-1);
}

/// As long as this lives, the trusted key of the runs.
class TrustedKey
{
public:
    explicit TrustedKey(const QString &file) { qputenv("UPDATECALL_KEY", QFile::encodeName(file)); }
    ~TrustedKey() { qunsetenv("UPDATECALL_KEY"); }
    TrustedKey(const TrustedKey &) = delete;
    TrustedKey &operator=(const TrustedKey &) = delete;
};

} // namespace

/// The record of the release is as good as the build's files at any instant.
void tst_UpdateCrash::sealedUpdateKilledAtAnyCall()
{
    constexpr int Release = 2;
    UpdateScenario scenario; // its patch is sealed, and no other test's
    const QString key = scenario.tree().path("key"_s);
    QString error;
    if (!Pellox::PatchSeal::generateKey(key, key + ".pub"_s, &error)) {
        QVERIFY2(error.contains("libcrypto"_s), qPrintable(error));
        QSKIP("built without libcrypto");
    }
    Pellox::PatchSeal sealer;
    QVERIFY2(sealer.seal(scenario.patch(), scenario.oldSignatures(), Release, {key}),
        qPrintable(sealer.error()));
    const TrustedKey trusted(key + ".pub"_s);
    const auto run = [&](Faults faults) {
        faults.unsynced = true;
        return runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
            {"1"_s, "update"_s, scenario.build(), scenario.patch()}, faults);
    };
    Findings findings;
    const int step = stepOf(7);
    bool died = true;
    int at = 1;
    for (; died; at += step) {
        scenario.lay();
        const FaultRun killed = run({scenario.build(), Changes, at, "kill"});
        died = killed.crashed;
        m_points += died ? 1 : 0;
        const QString where = "%1 (%2)"_s.arg(killed.calls.value(at - 1)).arg(at);
        findings.add(where, scenario.brokenPromise());
        const int recorded = installedRelease(scenario);
        const bool isNew = !scenario.isOld() && scenario.brokenPromise().isEmpty();
        if (recorded != 0 && (recorded != Release || !isNew))
            findings.add(where, "release %1 is recorded"_s.arg(recorded));
        const FaultRun again = run({});
        const auto result = static_cast<Result>(again.status - FirstResult);
        if (!isGood(result) || !again.output.isEmpty())
            findings.add(
                where, "ends with %1: "_s.arg(again.status) + QString::fromLocal8Bit(again.output));
        if (installedRelease(scenario) != Release)
            findings.add(where, "the release is not recorded"_s);
        scenario.tree().remove("build/.pellox"_s);
        findings.add(where, scenario.differenceToNew());
        findings.add(where, scenario.touchedFile());
    }
    QVERIFY2(at > 40, "too few points");
    QVERIFY2(findings.text().isEmpty(), qPrintable(findings.text()));
}

/// A rollback that was killed goes on from what is kept.
void tst_UpdateCrash::discardsNothingThatARollbackNeeds()
{
    prepare("rollback"_s);
    const QStringList calls = run("rollback"_s, {m_scenario->build(), Changes}).calls;
    int renames = 0;
    int at = 0;
    for (; at < calls.size() && renames < 3; ++at)
        renames += calls.at(at).startsWith("rename "_s) ? 1 : 0;
    prepare("rollback"_s);
    QVERIFY(run("rollback"_s, {m_scenario->build(), Changes, at, "kill"}).crashed);
    QVERIFY(m_scenario->hasJournal());
    m_scenario->discardPrevious();
    const UpdateOutcome outcome = m_scenario->recover();
    QVERIFY2(isGood(outcome.result), qPrintable(outcome.errors.join(QLatin1Char(';'))));
    QVERIFY(!m_scenario->hasJournal());
    QCOMPARE(m_scenario->brokenPromise(), QString());
}

/// A second run takes what is staged and whole, and makes only the rest.
void tst_UpdateCrash::stagedWorkIsNotDoneAgain()
{
    m_scenario->lay();
    const QStringList calls = run("update"_s, {m_scenario->build(), Changes}).calls;
    const int journal = calls.indexOf("create "_s + m_scenario->build() + "/.pellox/journal.new"_s);
    QVERIFY(journal > 0);
    m_scenario->lay();
    QVERIFY(run("update"_s, {m_scenario->build(), Changes, journal, "kill"}).crashed);
    QCOMPARE(m_scenario->brokenPromise(), QString());
    const FaultRun again = run("update"_s, {m_scenario->build(), "create"});
    QCOMPARE(
        again.calls, QStringList("create "_s + m_scenario->build() + "/.pellox/journal.new"_s));
    QCOMPARE(again.status, FirstResult + static_cast<int>(Result::Updated));
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// From now on, so that these are the last tests. Updates trust the key, in the program too. False
/// without libcrypto.
bool tst_UpdateCrash::makeSlim()
{
    if (m_scenario->trustedKey().isEmpty() && !m_scenario->makeSlim())
        return false;
    qputenv("UPDATECALL_KEY", QFile::encodeName(m_scenario->trustedKey()));
    return true;
}

void tst_UpdateCrash::slimUpdateKilledAtAnyCall_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<bool>("byRecovery");
    QTest::addColumn<int>("threads");
    QTest::addColumn<bool>("isDamaged");
    QTest::newRow("then update") << "update"_s << false << 1 << false;
    QTest::newRow("then recovery, which needs no source") << "update"_s << true << 1 << false;
    QTest::newRow("of two threads") << "update"_s << false << 2 << false;
    QTest::newRow("that keeps, then recovery and rollback")
        << "update-keeping"_s << true << 1 << false;
    QTest::newRow("of a damaged build, then update") << "update"_s << false << 1 << true;
    QTest::newRow("of a damaged build, that keeps, then recovery and rollback")
        << "update-keeping"_s << true << 1 << true;
}

/// What a file is made of is deleted by the same update.
void tst_UpdateCrash::slimUpdateKilledAtAnyCall()
{
    QFETCH(QString, command);
    QFETCH(bool, byRecovery);
    QFETCH(int, threads);
    QFETCH(bool, isDamaged);
    if (!makeSlim())
        QSKIP("built without libcrypto");
    m_isDamaged = isDamaged;
    killAtAnyCall(command, byRecovery, threads);
}

void tst_UpdateCrash::anyCallOfASlimUpdateMayFail_data()
{
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<int>("error");
    QTest::addColumn<bool>("later");
    QTest::newRow("EIO") << Changes + ",close" << EIO << false;
    QTest::newRow("ENOSPC from then on") << QByteArray("create,write,mkdir,sync") << ENOSPC << true;
    QTest::newRow("reading, EIO") << QByteArray("open,read,list") << EIO << false;
}

void tst_UpdateCrash::anyCallOfASlimUpdateMayFail()
{
    QFETCH(QByteArray, calls);
    QFETCH(int, error);
    QFETCH(bool, later);
    if (!makeSlim())
        QSKIP("built without libcrypto");
    failAtAnyCall("update"_s, calls, error, later);
}

QTEST_GUILESS_MAIN(tst_UpdateCrash)

#include "tst_updatecrash.moc"
