// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "leftovers.h"
#include "literals.h"
#include "logcapture.h"
#include "memorylimit.h"
#include "patience.h"
#include "testtree.h"
#include "toldspy.h"
#include "updatescenario.h"

#include <Pellox/integritycontroller.h>

#include <QCryptographicHash>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>
#include <QThreadPool>
#include <QTimer>
#include <QtTest>

#include <atomic>
#include <cerrno>
#include <functional>
#include <new>
#include <optional>
#include <utility>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Pellox::IntegrityController;
using Pellox::IntegrityReport;
using Result = Pellox::UpdateController::UpdateResult;

namespace {

const QByteArray Changes("create,write,sync,rename,link,remove,mkdir,mode,truncate,copy");

std::function<void()> s_beforeEntry; ///< called once, before the next entry of a folder is read
bool s_kindsAreUntold = false;       ///< with the names in a folder, as some file systems do it
QByteArray s_unseen;                 ///< a path that fails to be looked at
int s_unseenError = 0;

/// What a run has told until finished() came.
struct Outcome
{
    bool success = false;
    QStringList errors;
    QVector<QPair<qlonglong, qlonglong>> progress;
    IntegrityReport report;
};

Outcome outcomeOf(const std::function<bool(IntegrityController &)> &start)
{
    Outcome outcome;
    IntegrityController controller;
    QEventLoop loop;
    int finished = 0;
    QObject::connect(&controller, &IntegrityController::integrityError, &loop,
        [&](const QString &error) { outcome.errors.append(error); });
    QObject::connect(
        &controller, &IntegrityController::progress, &loop, [&](qlonglong done, qlonglong total) {
            outcome.progress.append({done, total});
        });
    QObject::connect(&controller, &IntegrityController::finished, &loop, [&](bool success) {
        outcome.success = success;
        ++finished;
        loop.quit();
    });
    QTimer::singleShot(Patience, &loop, &QEventLoop::quit);
    if (!start(controller))
        qFatal("a run does not start");
    loop.exec();
    if (finished != 1)
        qFatal("a run does not end once");
    outcome.report = controller.report();
    return outcome;
}

} // namespace

// The library walks through folders by this.
extern "C" __attribute__((visibility("default"))) dirent *readdir(DIR *folder)
{
    static auto *const original
        = reinterpret_cast<dirent *(*)(DIR *)>(::dlsym(RTLD_NEXT, "readdir"));
    if (s_beforeEntry)
        std::exchange(s_beforeEntry, nullptr)();
    dirent *const entry = original(folder);
    if (entry && s_kindsAreUntold)
        entry->d_type = DT_UNKNOWN;
    return entry;
}

extern "C" __attribute__((visibility("default"))) int lstat(
    const char *path, struct stat *status) noexcept
{
    using Function = int (*)(const char *, struct stat *);
    static const auto original = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "lstat"));
    if (s_unseen.isEmpty() || s_unseen != path)
        return original(path, status);
    errno = s_unseenError;
    return -1;
}

/// On the new build of the scenario.
class tst_IntegrityController : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { m_scenario.reset(); }
    void init();
    void cleanup();

    void intactBuild_data();
    void intactBuild();
    void tellsWhatDiffers();
    void linksAreFollowed();
    void checkChangesNothing();
    void manifestsThatWillNotDo_data();
    void manifestsThatWillNotDo();
    void foldersThatWillNotDo_data();
    void foldersThatWillNotDo();

    void repairsWhatDiffers();
    void repairOfAnIntactBuild();
    void repairKeepsPermissions();
    void repairNeedsTheRightFiles();
    void repairWithAFolderInTheWay_data();
    void repairWithAFolderInTheWay();
    void repairFollowsNoLinkOut();
    void repairTellsWhyItCannotBegin();
    void repairStaysInside_data();
    void repairStaysInside();

    void nameThatCannotBeTold();
    void folderThatCannotBeListed_data();
    void folderThatCannotBeListed();
    void buildThatCannotBeListed();
    void kindsThatAreNotTold();
    void kindThatCannotBeSeen_data();
    void kindThatCannotBeSeen();
    void pipeIsNoFile();
    void repairNeedsChecksums();

    void cancelledCheck();
    void cancelledWhileTheSignaturesAreRead();
    void cancelledWhileTheBuildIsWalked();
    void cancelledRepairChangesNothing();
    void cancelCountsForOneRun();
    void destroyedInMidRun();
    void destroyedAfterASlowSlot();
    void exceptionEndsTheRun();
    void exceptionDuringARepair();
    void outOfMemory();
    void onlyOneRunAtATime();
    void repairIsRefusedDuringAnUpdate();
    void progressNeverFalls();

    void tellsWhatCannotBeReached();
    void tellsAllInOrder();
    void repairedFilesCanBeRead_data();
    void repairedFilesCanBeRead();
    void repairKilledAtAnyCall();
    void anyCallOfARepairMayFail_data();
    void anyCallOfARepairMayFail();
    void recordThatCannotBeRemoved_data();
    void recordThatCannotBeRemoved();

private:
    Outcome check() const;
    Outcome repair() const;
    void damage() const;
    FaultRun run(Faults faults) const;
    QString brokenPromise() const;
    QString file(const QString &path) const { return m_scenario->tree().path("build/"_s + path); }

    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
    Leftovers m_leftovers;
};

void tst_IntegrityController::initTestCase()
{
    m_leftovers.begin();
    QThreadPool::globalInstance()->setExpiryTimeout(50);
    useMemoryForFiles();
    m_scenario.emplace();
}

void tst_IntegrityController::init()
{
    m_log.emplace();
    m_scenario->layNew();
}

void tst_IntegrityController::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    QCOMPARE(m_leftovers.found(), QByteArray());
    m_log.reset();
}

Outcome tst_IntegrityController::check() const
{
    return outcomeOf([&](IntegrityController &controller) {
        return controller.check(m_scenario->build(), m_scenario->signatures());
    });
}

Outcome tst_IntegrityController::repair() const
{
    return outcomeOf([&](IntegrityController &controller) {
        return controller.repair(
            m_scenario->build(), m_scenario->signatures(), m_scenario->newBuild());
    });
}

/// Changes and removes files, and lays extra ones.
void tst_IntegrityController::damage() const
{
    const TestTree &tree = m_scenario->tree();
    tree.write("build/game.exe"_s, "damaged");
    QByteArray large = m_scenario->newFiles().value("data/large.pak"_s).content;
    large[100000] = static_cast<char>(~large.at(100000)); // of the same size
    tree.write("build/data/large.pak"_s, large);
    tree.write("build/data/emptied"_s, "x");
    tree.remove("build/moved to here"_s);
    tree.remove("build/added"_s); // a folder
}

void tst_IntegrityController::intactBuild_data()
{
    QTest::addColumn<int>("threads");
    QTest::newRow("as many threads as cores") << 0;
    QTest::newRow("one thread") << 1;
    QTest::newRow("eight threads") << 8;
}

void tst_IntegrityController::intactBuild()
{
    QFETCH(int, threads);
    for (const auto &[path, file] : m_scenario->playersFiles().toStdMap()) {
        if (!isHidden(path))
            m_scenario->tree().remove("build/"_s + path);
    }
    const Outcome outcome = outcomeOf([&](IntegrityController &controller) {
        controller.setThreadCount(threads);
        return controller.check(
            m_scenario->build() + "//"_s, m_scenario->signatures() + QLatin1Char('/'));
    });
    QVERIFY(outcome.success);
    QCOMPARE(outcome.errors, QStringList());
    QVERIFY(outcome.report.isIntact());
    QCOMPARE(outcome.report.intactFiles, m_scenario->newFiles().size());
    QCOMPARE(outcome.report.extra, QStringList());
}

void tst_IntegrityController::tellsWhatDiffers()
{
    damage();
    m_scenario->tree().remove("build/data/filled"_s);
    m_scenario->tree().makeFolder("build/data/filled"_s);
    const Outcome outcome = check();
    QVERIFY(outcome.success);
    QCOMPARE(outcome.errors, QStringList());
    QVERIFY(!outcome.report.isIntact());
    const auto sorted = [](QStringList list) {
        list.sort();
        return list;
    };
    QCOMPARE(sorted(outcome.report.changed),
        (QStringList{"/data/emptied"_s, "/data/large.pak"_s, "/game.exe"_s}));
    QCOMPARE(sorted(outcome.report.missing),
        (QStringList{"/added/deep/program"_s, "/added/large.pak"_s, "/moved to here"_s}));
    QCOMPARE(outcome.report.unreadable, QStringList("/data/filled"_s));
    QStringList extra;
    for (const QString &path : m_scenario->playersFiles().keys()) {
        if (!isHidden(path))
            extra.append(QLatin1Char('/') + path);
    }
    QCOMPARE(sorted(outcome.report.extra), sorted(extra));
    QCOMPARE(outcome.report.intactFiles, m_scenario->newFiles().size() - 7);
}

/// A player may have moved a large file to another disk.
void tst_IntegrityController::linksAreFollowed()
{
    const TestTree &tree = m_scenario->tree();
    tree.remove("build/game.exe"_s);
    tree.link("build/game.exe"_s, tree.path("new/game.exe"_s));
    tree.remove("build/moved to here"_s);
    tree.link("build/moved to here"_s, tree.path("nowhere"_s));
    const Outcome outcome = check();
    QVERIFY(outcome.success);
    QCOMPARE(outcome.report.changed, QStringList());
    QCOMPARE(outcome.report.missing, QStringList("/moved to here"_s));
}

void tst_IntegrityController::checkChangesNothing()
{
    damage();
    const FaultRun run = runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"2"_s, "check"_s, m_scenario->build(), m_scenario->signatures()},
        {m_scenario->tree().path(), Changes});
    QCOMPARE(run.status, 0);
    QCOMPARE(run.calls, QStringList());
}

void tst_IntegrityController::manifestsThatWillNotDo_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("an object") << QByteArray("{}");
    QTest::newRow("a record that is none") << QByteArray("[1]");
    QTest::newRow("no path") << QByteArray("[{\"sha512\":\"00\"}]");
    QTest::newRow("climbs out") << QByteArray("[{\"relative_path\":\"/../x\"}]");
    QTest::newRow("climbs out later") << QByteArray("[{\"relative_path\":\"/a/../../x\"}]");
    QTest::newRow("no separator") << QByteArray("[{\"relative_path\":\"x\"}]");
    QTest::newRow("twice") << QByteArray("[{\"relative_path\":\"/x\"},{\"relative_path\":\"/x\"}]");
}

void tst_IntegrityController::manifestsThatWillNotDo()
{
    QFETCH(QByteArray, json);
    const TestTree signatures;
    signatures.write("signatures.json"_s, json);
    damage();
    const auto before = TestTree::snapshot(m_scenario->build());
    for (const bool repairs : {false, true}) {
        const Outcome outcome = outcomeOf([&](IntegrityController &controller) {
            return repairs
                ? controller.repair(m_scenario->build(), signatures.path(), m_scenario->newBuild())
                : controller.check(m_scenario->build(), signatures.path());
        });
        QVERIFY(!outcome.success);
        QCOMPARE(outcome.errors.size(), 1);
        QVERIFY2(outcome.errors.at(0).startsWith(signatures.path("signatures.json: "_s)),
            qPrintable(outcome.errors.at(0)));
    }
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

void tst_IntegrityController::foldersThatWillNotDo_data()
{
    QTest::addColumn<QString>("build");
    QTest::addColumn<QString>("signatures");
    QTest::addColumn<QString>("source");
    QTest::newRow("no build") << "nowhere"_s
                              << "signatures"_s
                              << "new"_s;
    QTest::newRow("no signatures") << "build"_s
                                   << "nowhere"_s
                                   << "new"_s;
    QTest::newRow("no manifest") << "build"_s
                                 << "patch"_s
                                 << "new"_s;
    QTest::newRow("no source") << "build"_s
                               << "signatures"_s
                               << "nowhere"_s;
    QTest::newRow("empty source") << "build"_s
                                  << "signatures"_s << QString();
    QTest::newRow("source is the build") << "build"_s
                                         << "signatures"_s
                                         << "build"_s;
    QTest::newRow("source lies in the build") << "build"_s
                                              << "signatures"_s
                                              << "build/data"_s;
}

void tst_IntegrityController::foldersThatWillNotDo()
{
    QFETCH(QString, build);
    QFETCH(QString, signatures);
    QFETCH(QString, source);
    damage();
    const auto before = TestTree::snapshot(m_scenario->build());
    const TestTree &tree = m_scenario->tree();
    const Outcome outcome = outcomeOf([&](IntegrityController &controller) {
        return controller.repair(tree.path(build), tree.path(signatures),
            source.isEmpty() ? QString() : tree.path(source));
    });
    QVERIFY(!outcome.success);
    QVERIFY(!outcome.errors.isEmpty());
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

void tst_IntegrityController::repairsWhatDiffers()
{
    damage();
    struct stat before = {};
    QCOMPARE(::stat(file("data/changed"_s).toLocal8Bit().constData(), &before), 0);
    const Outcome outcome = repair();
    QCOMPARE(outcome.errors, QStringList());
    QVERIFY(outcome.success);
    QCOMPARE(outcome.report.changed.size(), 3); // what was found
    QCOMPARE(outcome.report.missing.size(), 3);
    QCOMPARE(m_scenario->differenceToNew(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
    struct stat after = {};
    QCOMPARE(::stat(file("data/changed"_s).toLocal8Bit().constData(), &after), 0);
    QCOMPARE(after.st_ino, before.st_ino);
    QCOMPARE(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
    const Outcome again = check();
    QVERIFY(again.success);
    QVERIFY(again.report.isIntact());
}

void tst_IntegrityController::repairOfAnIntactBuild()
{
    const FaultRun run = this->run({m_scenario->build(), Changes});
    QCOMPARE(run.output, QByteArray());
    QCOMPARE(run.status, 0);
    QCOMPARE(run.calls, QStringList());
}

/// Those of the installed file; of a missing one those of the source.
void tst_IntegrityController::repairKeepsPermissions()
{
    damage();
    QVERIFY(QFile::setPermissions(file("game.exe"_s), QFile::ReadOwner | QFile::ExeOwner));
    QVERIFY(repair().success);
    struct stat status = {};
    QCOMPARE(::stat(file("game.exe"_s).toLocal8Bit().constData(), &status), 0);
    QCOMPARE(status.st_mode & 0777U, 0500U);
    QCOMPARE(::stat(file("added/deep/program"_s).toLocal8Bit().constData(), &status), 0);
    QCOMPARE(status.st_mode & 0777U, 0755U);
}

/// All or none, and every wrong one is named.
void tst_IntegrityController::repairNeedsTheRightFiles()
{
    damage();
    const TestTree source;
    layBuild(m_scenario->newFiles(), source.path());
    source.write("game.exe"_s, "wrong as well");
    source.write("data/large.pak"_s, QByteArray((1 << 20) + 106, 'x'));
    const auto before = TestTree::snapshot(m_scenario->build());
    const auto repairFromThere = [&] {
        return outcomeOf([&](IntegrityController &controller) {
            return controller.repair(m_scenario->build(), m_scenario->signatures(), source.path());
        });
    };
    Outcome outcome = repairFromThere();
    QVERIFY(!outcome.success);
    outcome.errors.sort();
    QCOMPARE(outcome.errors.size(), 2);
    QVERIFY(outcome.errors.at(0).startsWith(source.path("data/large.pak: "_s)));
    QVERIFY(outcome.errors.at(1).startsWith(source.path("game.exe: "_s)));
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);

    source.remove("moved to here"_s);
    outcome = repairFromThere();
    QVERIFY(!outcome.success);
    QVERIFY(!outcome.errors.filter(source.path("moved to here: "_s)).isEmpty());
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

void tst_IntegrityController::repairWithAFolderInTheWay_data()
{
    QTest::addColumn<QString>("content");
    QTest::addColumn<bool>("repaired");
    QTest::newRow("an empty one") << QString() << true;
    QTest::newRow("one of empty ones") << "a/b"_s << true;
    QTest::newRow("one with a file of the player") << "a/save"_s << false;
}

/// Either it is repaired or nothing is changed; it is never stuck.
void tst_IntegrityController::repairWithAFolderInTheWay()
{
    QFETCH(QString, content);
    QFETCH(bool, repaired);
    damage();
    m_scenario->tree().makeFolder("build/moved to here/"_s + content);
    if (!repaired) {
        m_scenario->tree().remove("build/moved to here/"_s + content);
        m_scenario->tree().write("build/moved to here/"_s + content, "a save");
    }
    const auto before = TestTree::snapshot(m_scenario->build());
    const Outcome outcome = repair();
    QVERIFY(!m_scenario->hasJournal());
    QCOMPARE(outcome.success, outcome.errors.isEmpty());
    if (outcome.success)
        QCOMPARE(m_scenario->differenceToNew(), QString());
    else
        QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
    QCOMPARE(outcome.success, repaired);
}

void tst_IntegrityController::repairFollowsNoLinkOut()
{
    damage();
    const TestTree outside;
    outside.write("deep/canary"_s, "unharmed");
    const TestTree &tree = m_scenario->tree();
    tree.link("build/added"_s, outside.path());
    tree.link("build/moved to here"_s, outside.path("deep/canary"_s));
    const auto before = TestTree::snapshot(outside.path());
    const Outcome outcome = repair();
    QVERIFY(!outcome.success);
    QCOMPARE(outcome.errors.filter("symbolic link"_s).isEmpty(), false);
    QCOMPARE(TestTree::snapshot(outside.path()), before);
    QCOMPARE(tree.read("build/game.exe"_s), QByteArray("damaged"));
}

/// The player has a file where its own folder would be.
void tst_IntegrityController::repairTellsWhyItCannotBegin()
{
    damage();
    m_scenario->tree().write("build/.pellox"_s, "a file");
    const auto before = TestTree::snapshot(m_scenario->build());
    const Outcome outcome = repair();
    QVERIFY(!outcome.success);
    QCOMPARE(outcome.errors.size(), 1);
    QVERIFY(outcome.errors.at(0).startsWith(file(".pellox"_s)));
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

void tst_IntegrityController::repairStaysInside_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("own folder") << "/.pellox/journal"_s;
    QTest::newRow("own folder in capitals") << "/.PELLOX/journal"_s;
    QTest::newRow("backslashes") << "/..\\..\\canary"_s;
    QTest::newRow("drive letter") << "/C:/canary"_s;
    QTest::newRow("control character") << "/a\nb"_s;
    QTest::newRow("device") << "/nul"_s;
}

void tst_IntegrityController::repairStaysInside()
{
    QFETCH(QString, path);
    const TestTree other;
    other.write("source"_s + path, "hostile");
    other.write("signatures/signatures.json"_s,
        QJsonDocument(
            QJsonArray{QJsonObject{{"relative_path"_s, path},
                {"sha512"_s,
                    QString::fromLatin1(
                        QCryptographicHash::hash("hostile", QCryptographicHash::Sha512).toHex())}}})
            .toJson());
    const auto before = TestTree::snapshot(m_scenario->tree().path());
    const Outcome outcome = outcomeOf([&](IntegrityController &controller) {
        return controller.repair(
            m_scenario->build(), other.path("signatures"_s), other.path("source"_s));
    });
    QVERIFY(!outcome.success);
    QCOMPARE(outcome.errors.size(), 1);
    QCOMPARE(TestTree::snapshot(m_scenario->tree().path()), before);
}

void tst_IntegrityController::cancelledCheck()
{
    const Outcome outcome = outcomeOf([&](IntegrityController &controller) {
        controller.setThreadCount(1);
        QObject::connect(
            &controller, &IntegrityController::progress, &controller,
            [&controller] { controller.cancel(); }, Qt::DirectConnection);
        // So large that it is under way when progress is first told.
        QFile large(file("game.exe"_s));
        return large.resize(4LL << 30)
            && controller.check(m_scenario->build(), m_scenario->signatures());
    });
    QVERIFY(!outcome.success);
    QCOMPARE(outcome.errors, QStringList());
}

void tst_IntegrityController::cancelledRepairChangesNothing()
{
    int cancelled = 0;
    for (int i = 0; i < 40; ++i) {
        m_scenario->layNew();
        damage();
        const auto before = TestTree::snapshot(m_scenario->build());
        const Outcome outcome = outcomeOf([&](IntegrityController &controller) {
            if (i == 0) { // one that is in time on any machine
                QObject::connect(
                    &controller, &IntegrityController::phaseChanged, &controller,
                    [&controller] { controller.cancel(); }, Qt::DirectConnection);
            }
            const bool started = controller.repair(
                m_scenario->build(), m_scenario->signatures(), m_scenario->newBuild());
            QThread::usleep(static_cast<unsigned long>(i * 300));
            controller.cancel();
            return started;
        });
        QCOMPARE(outcome.errors, QStringList());
        cancelled += outcome.success ? 0 : 1;
        if (outcome.success)
            QCOMPARE(m_scenario->differenceToNew(), QString());
        else
            QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
        QCOMPARE(m_scenario->touchedFile(), QString());
    }
    QVERIFY(cancelled > 0);
}

void tst_IntegrityController::cancelCountsForOneRun()
{
    IntegrityController controller;
    ToldSpy finished(&controller, &IntegrityController::finished);
    controller.cancel(); // of nothing
    QVERIFY(controller.check(m_scenario->build(), m_scenario->signatures()));
    QVERIFY(finished.comes());
    QVERIFY(finished.at(0).at(0).toBool());
    QVERIFY(!controller.isRunning());
}

void tst_IntegrityController::destroyedInMidRun()
{
    damage();
    const auto before = TestTree::snapshot(m_scenario->build());
    for (int i = 0; i < 20; ++i) {
        IntegrityController controller;
        QVERIFY(controller.check(m_scenario->build(), m_scenario->signatures()));
        QThread::usleep(static_cast<unsigned long>(i * 200));
    }
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

/// The destructor waits for slots that are still at work, also of a run before the last, and the
/// next run begins behind them.
void tst_IntegrityController::destroyedAfterASlowSlot()
{
    std::atomic<int> slotsBegun{0};
    std::atomic<int> slotsEnded{0};
    std::atomic<int> phases{0};
    std::atomic<int> phasesAtFirstEnd{0};
    {
        IntegrityController controller;
        connect(
            &controller, &IntegrityController::finished, &controller,
            [&] {
                const bool isFirst = ++slotsBegun == 1;
                if (isFirst) {
                    QThread::msleep(300);
                    phasesAtFirstEnd = phases.load();
                }
                ++slotsEnded;
            },
            Qt::DirectConnection);
        connect(
            &controller, &IntegrityController::phaseChanged, &controller, [&] { ++phases; },
            Qt::DirectConnection);
        QVERIFY(controller.check(m_scenario->build(), m_scenario->signatures()));
        while (controller.isRunning())
            QThread::msleep(1);
        QVERIFY(controller.check(m_scenario->build(), m_scenario->signatures()));
    }
    QCOMPARE(slotsEnded, 2);
    QCOMPARE(phasesAtFirstEnd, 1);
    QCOMPARE(phases, 2);
}

void tst_IntegrityController::exceptionEndsTheRun()
{
    IntegrityController controller;
    ToldSpy finished(&controller, &IntegrityController::finished);
    ToldSpy errors(&controller, &IntegrityController::integrityError);
    const auto throwing = connect(
        &controller, &IntegrityController::phaseChanged, &controller,
        [] { throw std::bad_alloc(); }, Qt::DirectConnection);
    QVERIFY(controller.check(m_scenario->build(), m_scenario->signatures()));
    QVERIFY(finished.comes());
    QVERIFY(!finished.at(0).at(0).toBool());
    QCOMPARE(errors.size(), 1);
    QCOMPARE(errors.at(0).at(0).toString(), m_scenario->build() + ": out of memory"_s);
    disconnect(throwing);
    QVERIFY(controller.check(m_scenario->build(), m_scenario->signatures()));
    QVERIFY(finished.comes(2));
    QVERIFY(finished.at(1).at(0).toBool());
}

void tst_IntegrityController::exceptionDuringARepair()
{
    using Phase = Pellox::UpdateController::UpdatePhase;
    damage();
    const auto before = TestTree::snapshot(m_scenario->build());
    for (const Phase phase : {Phase::Staging, Phase::Committing}) {
        Result result = Result::Updated;
        const Outcome outcome = outcomeOf([&](IntegrityController &controller) {
            QObject::connect(
                &controller, &IntegrityController::phaseChanged, &controller,
                [phase](Phase now) {
                    if (now == phase)
                        throw std::bad_alloc();
                },
                Qt::DirectConnection);
            QObject::connect(
                &controller, &IntegrityController::finished, &controller,
                [&] { result = controller.repairResult(); }, Qt::DirectConnection);
            return controller.repair(
                m_scenario->build(), m_scenario->signatures(), m_scenario->newBuild());
        });
        QVERIFY(!outcome.success);
        QCOMPARE(outcome.errors, QStringList(m_scenario->build() + ": out of memory"_s));
        QCOMPARE(result, Result::Failed);
        QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
    }
    QVERIFY(repair().success);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_IntegrityController::outOfMemory()
{
    if (HasSanitizer)
        QSKIP("the sanitizer needs the memory itself");
    constexpr int Records = 200;
    constexpr int Length = 400000;
    QByteArray json = "[\n";
    for (int i = 0; i < Records; ++i) {
        json += "    {\n        \"relative_path\": \"/" + QByteArray::number(i)
            + QByteArray(Length, 'n') + "\"\n    }" + (i + 1 < Records ? ",\n" : "\n");
    }
    const TestTree large;
    large.write("signatures/signatures.json"_s, json + "]\n");
    std::optional<MemoryLimit> limit;
    const Outcome outcome = outcomeOf([&](IntegrityController &controller) {
        QObject::connect( // by then the run has its thread
            &controller, &IntegrityController::phaseChanged, &controller,
            [&] { limit.emplace(rlim_t(32) << 20); }, Qt::DirectConnection);
        QObject::connect(
            &controller, &IntegrityController::problemFound, &controller, [&] { limit.reset(); },
            Qt::DirectConnection);
        return controller.check(m_scenario->build(), large.path("signatures"_s));
    });
    QVERIFY(!outcome.success);
    QCOMPARE(outcome.errors, QStringList(m_scenario->build() + ": out of memory"_s));
    QVERIFY(check().success);
}

void tst_IntegrityController::onlyOneRunAtATime()
{
    IntegrityController controller;
    ToldSpy finished(&controller, &IntegrityController::finished);
    std::atomic<bool> goOn{false};
    std::atomic<bool> reached{false};
    connect(
        &controller, &IntegrityController::progress, &controller,
        [&] {
            reached = true;
            while (!goOn)
                QThread::msleep(1);
        },
        Qt::DirectConnection);
    QVERIFY(controller.check(m_scenario->build(), m_scenario->signatures()));
    QTRY_VERIFY_WITH_TIMEOUT(reached, Patience);
    QVERIFY(controller.isRunning());
    QVERIFY(!controller.check(m_scenario->build(), m_scenario->signatures()));
    QVERIFY(
        !controller.repair(m_scenario->build(), m_scenario->signatures(), m_scenario->newBuild()));
    goOn = true;
    QVERIFY(finished.comes());
    QTest::qWait(50);
    QCOMPARE(finished.size(), 1);
}

void tst_IntegrityController::repairIsRefusedDuringAnUpdate()
{
    m_scenario->lay();
    Pellox::UpdateController updater;
    updater.setSynced(false);
    ToldSpy finished(&updater, &Pellox::UpdateController::finished);
    std::atomic<bool> goOn{false};
    std::atomic<bool> reached{false};
    connect(
        &updater, &Pellox::UpdateController::updateProgress, &updater,
        [&] {
            reached = true;
            while (!goOn)
                QThread::msleep(1);
        },
        Qt::DirectConnection);
    QVERIFY(updater.update(m_scenario->build(), m_scenario->patch()));
    QTRY_VERIFY_WITH_TIMEOUT(reached, Patience);
    const Outcome outcome = repair();
    goOn = true;
    QVERIFY(finished.comes());
    QVERIFY(!outcome.success);
    QCOMPARE(outcome.errors.size(), 1);
    QCOMPARE(finished.at(0).at(0).value<Result>(), Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_IntegrityController::progressNeverFalls()
{
    const Outcome outcome = check();
    qint64 total = 0;
    for (const RandomFile &file : m_scenario->newFiles())
        total += file.content.size();
    QVERIFY(!outcome.progress.isEmpty());
    qlonglong last = 0;
    for (const auto &[done, of] : outcome.progress) {
        QVERIFY(done >= last && done <= of);
        QCOMPARE(of, total);
        last = done;
    }
    QCOMPARE(last, total);
}

FaultRun tst_IntegrityController::run(Faults faults) const
{
    faults.unsynced = true;
    return runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"1"_s, "repair"_s, m_scenario->build(), m_scenario->signatures(), m_scenario->newBuild()},
        faults);
}

/// Every file that was intact still is, and every other one is as damaged as before or repaired.
QString tst_IntegrityController::brokenPromise() const
{
    const QStringList missing{"moved to here"_s, "added/deep/program"_s, "added/large.pak"_s};
    const QStringList changed{"game.exe"_s, "data/large.pak"_s, "data/emptied"_s};
    bool anyRepaired = false;
    bool anyDamaged = false;
    for (const auto &[path, newFile] : m_scenario->newFiles().toStdMap()) {
        const bool exists = m_scenario->tree().exists("build/"_s + path);
        const bool isRight
            = exists && m_scenario->tree().read("build/"_s + path) == newFile.content;
        const bool mayDiffer = missing.contains(path) || changed.contains(path);
        (isRight ? anyRepaired : anyDamaged) |= mayDiffer;
        if ((!isRight && !mayDiffer) || (!exists && !missing.contains(path)))
            return path + ": was harmed"_s;
        if (exists && !isRight && missing.contains(path))
            return path + ": is there in part"_s;
    }
    if (!m_scenario->hasJournal() && anyRepaired && anyDamaged)
        return "nothing to finish, and only some are repaired"_s;
    return m_scenario->touchedFile();
}

/// Whether a file is missing nobody knows where the way to it cannot be gone.
void tst_IntegrityController::tellsWhatCannotBeReached()
{
    m_scenario->tree().remove("build/added/deep"_s);
    m_scenario->tree().link("build/added/deep"_s, file("added/deep"_s)); // to itself
    m_scenario->tree().remove("build/moved to here"_s);
    m_scenario->tree().remove("build/file to folder"_s);
    m_scenario->tree().write("build/file to folder"_s, "a file");
    const Outcome outcome = check();
    QVERIFY(outcome.success);
    QCOMPARE(outcome.report.unreadable, QStringList("/added/deep/program"_s));
    const QStringList missing{"/file to folder/inside"_s, "/moved to here"_s};
    QCOMPARE(outcome.report.missing, missing);
}

/// A mod whose name is of another encoding: it is an extra file like any other.
void tst_IntegrityController::nameThatCannotBeTold()
{
    m_scenario->tree().makeFolder("build/mods"_s);
    const QByteArray odd = QFile::encodeName(m_scenario->build()) + "/mods/\x83\x82\x83h.pak";
    const int made = ::open(odd.constData(), O_WRONLY | O_CREAT, 0644);
    QVERIFY(made >= 0);
    ::close(made);
    Outcome outcome = check();
    QCOMPARE(outcome.errors, QStringList());
    QVERIFY(outcome.success);
    QVERIFY(outcome.report.isIntact());
    QCOMPARE(outcome.report.extra.filter("h.pak"_s).size(), 1);
    QVERIFY(outcome.report.extra.contains("/mods/mod.pak"_s));

    damage();
    outcome = repair();
    QCOMPARE(outcome.errors, QStringList());
    QVERIFY(outcome.success);
    QCOMPARE(::unlink(odd.constData()), 0);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_IntegrityController::folderThatCannotBeListed_data()
{
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<int>("error");
    QTest::newRow("without permission") << QByteArray("open,list") << EACCES;
    QTest::newRow("of a broken disk") << QByteArray("entry") << EIO;
    QTest::newRow("that has just gone") << QByteArray("open,list") << ENOENT;
}

/// What a player keeps there does not matter.
void tst_IntegrityController::folderThatCannotBeListed()
{
    QFETCH(QByteArray, calls);
    QFETCH(int, error);
    damage();
    const FaultRun run = this->run({file("mods"_s), calls, 1, QByteArray::number(error), true});
    QVERIFY(!run.calls.isEmpty());
    QCOMPARE(run.output, QByteArray());
    QCOMPARE(run.status, 0);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_IntegrityController::buildThatCannotBeListed()
{
    const FaultRun run = runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"1"_s, "check"_s, m_scenario->build(), m_scenario->signatures()},
        {m_scenario->build(), "entry", 1, QByteArray::number(EIO)});
    QVERIFY2(run.output.startsWith((m_scenario->build() + ": cannot be listed: "_s).toLocal8Bit()),
        run.output);
    QCOMPARE(run.status, 1);
}

/// Some file systems tell no kinds with the names: all is as with one that does.
void tst_IntegrityController::kindsThatAreNotTold()
{
    damage();
    m_scenario->tree().link("build/mods/link"_s, m_scenario->newBuild());
    const Outcome told = check();
    s_kindsAreUntold = true;
    const Outcome untold = check();
    const Outcome repaired = repair();
    s_kindsAreUntold = false;
    QCOMPARE(untold.errors, QStringList());
    QVERIFY(untold.success);
    QVERIFY(!told.report.extra.isEmpty());
    QCOMPARE(untold.report.extra, told.report.extra);
    QCOMPARE(untold.report.changed, told.report.changed);
    QCOMPARE(untold.report.missing, told.report.missing);
    QCOMPARE(repaired.errors, QStringList());
    m_scenario->tree().remove("build/mods/link"_s);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_IntegrityController::kindThatCannotBeSeen_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("error");
    QTest::addColumn<bool>("isTold");
    QTest::newRow("in the build's own folder") << "game.exe"_s << EIO << true;
    QTest::newRow("in a folder of the player's") << "mods/mod.pak"_s << EIO << false;
    QTest::newRow("of what has just gone") << "game.exe"_s << ENOENT << false;
}

void tst_IntegrityController::kindThatCannotBeSeen()
{
    QFETCH(QString, path);
    QFETCH(int, error);
    QFETCH(bool, isTold);
    s_kindsAreUntold = true;
    s_unseenError = error;
    s_unseen = QFile::encodeName(file(path));
    const Outcome outcome = check();
    s_unseen.clear();
    s_kindsAreUntold = false;
    QCOMPARE(outcome.success, !isTold);
    QCOMPARE(outcome.errors,
        isTold ? QStringList(m_scenario->build() + ": cannot be listed: Input/output error"_s)
               : QStringList());
    if (!isTold)
        QVERIFY(!outcome.report.extra.contains("/"_s + path));
}

/// It is in nobody's way, whoever uses it.
void tst_IntegrityController::pipeIsNoFile()
{
    const QByteArray pipe = QFile::encodeName(file("mods/pipe"_s));
    QCOMPARE(::mkfifo(pipe.constData(), 0600), 0);
    const Outcome outcome = check();
    QCOMPARE(::unlink(pipe.constData()), 0);
    QCOMPARE(outcome.errors, QStringList());
    QVERIFY(outcome.success);
    QVERIFY(outcome.report.isIntact());
    QVERIFY(outcome.report.extra.contains("/mods/mod.pak"_s));
    QVERIFY(!outcome.report.extra.contains("/mods/pipe"_s));
}

/// Signing leaves a file without one that it could not read. Nobody knows what it should be.
void tst_IntegrityController::repairNeedsChecksums()
{
    damage();
    const auto before = TestTree::snapshot(m_scenario->build());
    const TestTree signatures;
    QJsonArray records
        = QJsonDocument::fromJson(m_scenario->tree().read("signatures/signatures.json"_s)).array();
    for (int i = 0; i < records.size(); ++i) {
        QJsonObject record = records.at(i).toObject();
        if (record.value("relative_path"_s) == QJsonValue("/game.exe"_s))
            record.insert("sha512"_s, QString());
        records[i] = record;
    }
    signatures.write("signatures.json"_s, QJsonDocument(records).toJson());
    const Outcome outcome = outcomeOf([&](IntegrityController &controller) {
        return controller.repair(m_scenario->build(), signatures.path(), m_scenario->newBuild());
    });
    QVERIFY(!outcome.success);
    QCOMPARE(outcome.errors, QStringList(file("game.exe"_s) + ": has no checksum"_s));
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

/// The last record is a wrong one, and never reached.
void tst_IntegrityController::cancelledWhileTheSignaturesAreRead()
{
    const TestTree signatures;
    signatures.write("signatures.json"_s,
        "[\n    {\n        \"relative_path\": \"/x\"\n    },\n"
        "    {\n        \"relative_path\": \"/x\"\n    }\n]\n");
    const Outcome outcome = outcomeOf([&](IntegrityController &controller) {
        QObject::connect(
            &controller, &IntegrityController::phaseChanged, &controller,
            [&controller] { controller.cancel(); }, Qt::DirectConnection);
        return controller.check(m_scenario->build(), signatures.path());
    });
    QVERIFY(!outcome.success);
    QCOMPARE(outcome.errors, QStringList());
}

void tst_IntegrityController::cancelledWhileTheBuildIsWalked()
{
    const Outcome outcome = outcomeOf([&](IntegrityController &controller) {
        QObject::connect(
            &controller, &IntegrityController::phaseChanged, &controller,
            [&controller] { s_beforeEntry = [&controller] { controller.cancel(); }; },
            Qt::DirectConnection);
        return controller.check(m_scenario->build(), m_scenario->signatures());
    });
    QVERIFY(!s_beforeEntry);
    QVERIFY(!outcome.success);
    QCOMPARE(outcome.errors, QStringList());
}

void tst_IntegrityController::tellsAllInOrder()
{
    damage();
    const TestTree signatures;
    QJsonArray records
        = QJsonDocument::fromJson(m_scenario->tree().read("signatures/signatures.json"_s)).array();
    QJsonArray backwards;
    for (const QJsonValue &record : records)
        backwards.prepend(record);
    QVERIFY(records.size() > 3);
    for (const QJsonArray &order : {records, backwards}) {
        signatures.write("signatures.json"_s, QJsonDocument(order).toJson());
        const IntegrityReport report = outcomeOf([&](IntegrityController &controller) {
            return controller.check(m_scenario->build(), signatures.path());
        }).report;
        QCOMPARE(
            report.changed, (QStringList{"/data/emptied"_s, "/data/large.pak"_s, "/game.exe"_s}));
        QCOMPARE(report.missing,
            (QStringList{"/added/deep/program"_s, "/added/large.pak"_s, "/moved to here"_s}));
        QStringList extra = report.extra;
        extra.sort();
        QVERIFY(extra.size() > 2);
        QCOMPARE(report.extra, extra);
    }
}

void tst_IntegrityController::repairedFilesCanBeRead_data()
{
    QTest::addColumn<uint>("before");
    QTest::addColumn<int>("error");
    QTest::addColumn<uint>("after");
    QTest::newRow("no permission") << 0U << EACCES << 0755U; // that of the source
    QTest::newRow("not for its owner") << 0044U << EACCES << 0755U;
    QTest::newRow("of somebody else") << 0640U << EACCES << 0640U;
    QTest::newRow("broken") << 0640U << EIO << 0640U;
    QTest::newRow("changed") << 0640U << 0 << 0640U;
    QTest::newRow("changed, not for its owner") << 0040U << 0 << 0440U; // read by root
}

void tst_IntegrityController::repairedFilesCanBeRead()
{
    QFETCH(uint, before);
    QFETCH(int, error);
    QFETCH(uint, after);
    if (error == 0 && (before & S_IRUSR) == 0 && ::geteuid() != 0)
        QSKIP("nobody else can read it");
    m_scenario->tree().write("build/game.exe"_s, "damaged");
    const QByteArray path = QFile::encodeName(file("game.exe"_s));
    QCOMPARE(::chmod(path.constData(), before), 0);
    const FaultRun run = this->run(
        {file("game.exe"_s), "open", error == 0 ? 0 : 1, QByteArray::number(error), true});
    QCOMPARE(run.output, QByteArray());
    QCOMPARE(run.status, 0);
    struct stat status = {};
    QCOMPARE(::stat(path.constData(), &status), 0);
    QCOMPARE(status.st_mode & 0777U, after);
    QCOMPARE(m_scenario->tree().read("build/game.exe"_s),
        m_scenario->newFiles().value("game.exe"_s).content);
}

void tst_IntegrityController::repairKilledAtAnyCall()
{
    const int step = qEnvironmentVariableIsSet("PELLOX_ALL_CRASH_POINTS") ? 1 : 3;
    bool died = true;
    int at = 1;
    for (; died; at += step) {
        m_scenario->layNew();
        damage();
        const FaultRun run = this->run({m_scenario->build(), Changes, at, "kill"});
        died = run.crashed;
        const QByteArray where = "%1 (%2): "_s.arg(run.calls.value(at - 1)).arg(at).toLocal8Bit();
        QVERIFY2(brokenPromise().isEmpty(), where + qPrintable(brokenPromise()));
        if (m_scenario->hasJournal() && at % 2 == 0) {
            QCOMPARE(m_scenario->recover().result, Result::Updated);
        } else {
            const Outcome outcome = repair();
            QVERIFY2(outcome.success, where + qPrintable(outcome.errors.join(QLatin1Char(';'))));
        }
        m_scenario->removeEmptyWorkFolder();
        const QString difference = m_scenario->differenceToNew();
        QVERIFY2(difference.isEmpty(), where + qPrintable(difference));
    }
    QVERIFY(at > 20);
}

void tst_IntegrityController::anyCallOfARepairMayFail_data()
{
    QTest::addColumn<int>("error");
    QTest::addColumn<QByteArray>("calls");
    QTest::newRow("ENOSPC") << ENOSPC << Changes;
    QTest::newRow("EIO") << EIO << Changes;
    QTest::newRow("EACCES") << EACCES << Changes;
    QTest::newRow("EPERM") << EPERM << Changes;
    QTest::newRow("EIO, reading") << EIO << QByteArray("open,read,list");
}

void tst_IntegrityController::anyCallOfARepairMayFail()
{
    QFETCH(int, error);
    QFETCH(QByteArray, calls);
    const int step = qEnvironmentVariableIsSet("PELLOX_ALL_CRASH_POINTS") ? 1 : 5;
    int at = 1 + error % step;
    QStringList problems;
    for (bool met = true; met; at += step) {
        m_scenario->layNew();
        damage();
        const FaultRun run = this->run({m_scenario->build(), calls, at, QByteArray::number(error)});
        met = run.calls.size() >= at;
        const QString call = run.calls.value(at - 1);
        const QString where = "%1 (%2): "_s.arg(call).arg(at);
        if (run.crashed || run.status > 1)
            problems.append(where + "no result"_s);
        if ((run.status == 0) != run.output.isEmpty())
            problems.append(
                where + "status %1: "_s.arg(run.status) + QString::fromLocal8Bit(run.output));
        const QString promise = brokenPromise();
        if (!promise.isEmpty())
            problems.append(where + promise);
        const Outcome outcome = repair();
        if (!outcome.success)
            problems.append(where + outcome.errors.join(QLatin1Char(';')));
        m_scenario->removeEmptyWorkFolder();
        const QString difference = m_scenario->differenceToNew();
        if (!difference.isEmpty())
            problems.append(where + difference);
    }
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join("\n    "_s)));
}

void tst_IntegrityController::recordThatCannotBeRemoved_data()
{
    QTest::addColumn<bool>("isDamaged");
    QTest::newRow("of an intact build") << false;
    QTest::newRow("of a damaged build") << true;
}

/// That of another release goes in the same commit: what is begun is finished by any run.
void tst_IntegrityController::recordThatCannotBeRemoved()
{
    QFETCH(bool, isDamaged);
    if (isDamaged)
        damage();
    const QString record = ".pellox/release"_s;
    m_scenario->tree().write("build/"_s + record, "torn");
    const FaultRun run = this->run({file(record), "remove", 1, QByteArray::number(EIO), true});
    QCOMPARE(run.status, 1);
    QVERIFY2(run.output.startsWith(file(record).toLocal8Bit() + ": "), run.output);
    QCOMPARE(m_scenario->hasJournal(), isDamaged);
    if (isDamaged)
        QCOMPARE(m_scenario->recover().result, Result::Updated);
    else
        QVERIFY(repair().success);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

QTEST_GUILESS_MAIN(tst_IntegrityController)

#include "tst_integritycontroller.moc"
