// SPDX-License-Identifier: MIT
#include "diskrecord.h"
#include "faultrun.h"
#include "literals.h"
#include "logcapture.h"
#include "patience.h"
#include "toldspy.h"
#include "updatescenario.h"

#include <Pellox/IntegrityController>
#include <Pellox/PatchSeal>
#include <Pellox/PublishController>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QtTest>

#include <cerrno>
#include <climits>
#include <optional>
#include <random>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Pellox::IntegrityController;
using Pellox::PatchSeal;
using Pellox::PublishController;
using Pellox::UpdateController;
using Code = Pellox::UpdateProblem::Code;
using Result = UpdateController::UpdateResult;

namespace {

/// The kinds of calls that change something on the disk.
const QByteArray Changes("create,write,sync,rename,link,remove,mkdir,mode,truncate,copy");

constexpr int FirstResult = 10; ///< status of updatecall

int statusOf(Result result)
{
    return FirstResult + static_cast<int>(result);
}

QJsonObject rule(const char *kind, const QString &path)
{
    return {{"rule"_s, QString::fromLatin1(kind)}, {"relative_path"_s, path}};
}

bool isGood(Result result)
{
    return result == Result::Updated || result == Result::AlreadyUpToDate;
}

bool repaired(const QString &build, const QString &signatures, const QString &source)
{
    IntegrityController controller;
    ToldSpy finished(&controller, &IntegrityController::finished);
    if (!controller.repair(build, signatures, source))
        return false;
    return finished.comes() && finished.at(0).at(0).toBool();
}

/// What updatecall says of folders "build" and "patch" of @p tree where names in folder @p folding
/// of it fold: its status and its output. An empty one: where they do not.
QPair<int, QString> runFolding(const TestTree &tree, const QString &command, const QString &folding)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (!folding.isEmpty()) {
        environment.insert("LD_PRELOAD"_s, QStringLiteral(FOLDING_LIBRARY));
        environment.insert("ASAN_OPTIONS"_s, "verify_asan_link_order=0"_s);
        environment.insert("FOLDING_PATH"_s, tree.path(folding));
    }
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(UPDATECALL_PROGRAM),
        {"1"_s, command, tree.path("build"_s), tree.path("patch"_s)});
    if (!process.waitForFinished(Patience))
        qFatal("a run does not end");
    return {process.exitCode(), QString::fromLocal8Bit(process.readAllStandardOutput())};
}

/// An environment variable for as long as this lives.
class Setting
{
public:
    Setting(const char *name, const QByteArray &value)
        : m_name(name)
    {
        qputenv(name, value);
    }
    ~Setting() { qunsetenv(m_name); }
    Setting(const Setting &) = delete;
    Setting &operator=(const Setting &) = delete;

private:
    const char *m_name;
};

} // namespace

/// What lies beside a build's files while they are staged, whose it is, and what staging needs.
class tst_StagedFiles : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { m_scenario.reset(); }
    void init();
    void cleanup();

    void playersFilesStay_data();
    void playersFilesStay();
    void playersFilesStayWhereverItIsKilled_data();
    void playersFilesStayWhereverItIsKilled();
    void repairSparesFilesOfSuchNames_data();
    void repairSparesFilesOfSuchNames();
    void leftoversGoWhateverComesNext_data();
    void leftoversGoWhateverComesNext();
    void recoveryLeavesWhatIsStaged_data();
    void recoveryLeavesWhatIsStaged();
    void leftoversAreInNobodysWay();
    void recordIsThereBeforeTheFiles();
    void leftoversGoAfterAnyPowerCut();
    void damagedRecordIsNotBelieved_data();
    void damagedRecordIsNotBelieved();
    void leftoversBehindALinkStay();
    void leftoverThatStaysIsTold();
    void leftoverThatNothingRemovesIsTold_data();
    void leftoverThatNothingRemovesIsTold();

    void foldedNamesCollide_data();
    void foldedNamesCollide();
    void folderThatFoldsByItself();
    void foldedFileBecomesAFolder();
    void deletedFileOfTheSameKey();
    void triesNoNamesWithoutNeed();
    void ownersStay_data();
    void ownersStay();
    void ownersOfStagedFilesStay();
    void foldersThatGetAFileStay();
    void foldersOfRootBelongToThePlayer();
    void deletionSparesTheNewFile_data();
    void deletionSparesTheNewFile();
    void renameOfCaseIsRolledBack_data();
    void renameOfCaseIsRolledBack();

    void unreadableFilesAreTakenWhole_data();
    void unreadableFilesAreTakenWhole();
    void unreadableFilesAreNamedAtOnce_data();
    void unreadableFilesAreNamedAtOnce();

    void roomIsLookedAtFirst_data();
    void roomIsLookedAtFirst();
    void copiesThatAreKeptNeedRoom_data();
    void copiesThatAreKeptNeedRoom();
    void sumsOfSizesDoNotOverflow();
    void mountsInTheBuildAreRefused();
    void pathsThatAreTooLongAreRefused();

private:
    FaultRun run(const QString &command, Faults faults, const QStringList &more = {}) const;
    void stageAndDie() const;
    QStringList temporaryFiles() const;
    QString emptyPatch() const;
    QString file(const QString &path) const { return m_scenario->tree().path("build/"_s + path); }
    void layPlayersTemporaryFiles() const;
    QString harmedTemporaryFile() const;
    void removePlayersTemporaryFiles() const;

    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
};

void tst_StagedFiles::initTestCase()
{
    useMemoryForFiles();
    m_scenario.emplace();
    m_scenario->tree().write("empty patch/patchRules.json"_s, "[]");
}

void tst_StagedFiles::init()
{
    m_log.emplace();
    m_scenario->lay();
}

void tst_StagedFiles::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

FaultRun tst_StagedFiles::run(const QString &command, Faults faults, const QStringList &more) const
{
    faults.unsynced = true;
    QStringList arguments{"1"_s, command, m_scenario->build()};
    if (command.startsWith("update"_s) || command.startsWith("plan"_s))
        arguments.append(m_scenario->patch());
    return runWithFaults(QStringLiteral(UPDATECALL_PROGRAM), arguments + more, faults);
}

/// Leaves what a run leaves that is killed when all is staged.
void tst_StagedFiles::stageAndDie() const
{
    QVERIFY(run("update"_s, {file(".pellox/journal.new"_s), "create", 1, "kill"}).crashed);
    QVERIFY(temporaryFiles().size() > 5);
}

QString tst_StagedFiles::emptyPatch() const
{
    return m_scenario->tree().path("empty patch"_s);
}

/// All in the build that staging may have left, the hidden folder among it.
QStringList tst_StagedFiles::temporaryFiles() const
{
    QStringList files;
    for (const QString &path : TestTree::snapshot(m_scenario->build()).keys()) {
        if (path.endsWith(".temp"_s) || path.startsWith(".pellox/"_s))
            files.append(path);
    }
    return files;
}

namespace {

/// Names that a run would like to stage under: of a patched, a large, a copied file, and of one in
/// a folder that is made.
const QStringList WantedNames{"data/changed.temp"_s, "data/large.pak.temp"_s,
    "data/taken whole.temp"_s, "moved to here.temp"_s, "added/large.pak.temp"_s};

} // namespace

/// One of them has the very content that would be staged there.
void tst_StagedFiles::layPlayersTemporaryFiles() const
{
    for (const QString &path : WantedNames)
        m_scenario->tree().write("build/"_s + path, "mine: " + path.toUtf8());
    m_scenario->tree().write(
        "build/data/changed.temp"_s, m_scenario->newFiles().value("data/changed"_s).content);
}

QString tst_StagedFiles::harmedTemporaryFile() const
{
    for (const QString &path : WantedNames) {
        const QByteArray right = path == "data/changed.temp"_s
            ? m_scenario->newFiles().value("data/changed"_s).content
            : "mine: " + path.toUtf8();
        if (!m_scenario->tree().exists("build/"_s + path)
            || m_scenario->tree().read("build/"_s + path) != right)
            return path;
    }
    return QString();
}

void tst_StagedFiles::removePlayersTemporaryFiles() const
{
    for (const QString &path : WantedNames)
        QFile::remove(file(path));
}

void tst_StagedFiles::playersFilesStay_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<Result>("result");
    QTest::newRow("update") << QString() << QByteArray() << Result::Updated;
    QTest::newRow("staging fails")
        << "data/filled.temp"_s << QByteArray("create") << Result::Failed;
    QTest::newRow("staging in the hidden folder fails")
        << ".pellox/staged"_s << QByteArray("create") << Result::Failed;
    QTest::newRow("record cannot be written")
        << ".pellox/staging.new"_s << QByteArray("create") << Result::Failed;
    QTest::newRow("journal cannot be written")
        << ".pellox/journal.new"_s << QByteArray("create") << Result::Failed;
}

void tst_StagedFiles::playersFilesStay()
{
    QFETCH(QString, fault);
    QFETCH(QByteArray, calls);
    QFETCH(Result, result);
    layPlayersTemporaryFiles();
    const Faults faults{file(fault), calls, fault.isEmpty() ? 0 : 1, "5", true};
    const FaultRun run = this->run("update"_s, faults);
    QVERIFY2(run.status == statusOf(result), run.output);
    QCOMPARE(harmedTemporaryFile(), QString());
    removePlayersTemporaryFiles();
    if (result != Result::Updated)
        QDir().rmdir(file("added"_s));
    QCOMPARE(
        result == Result::Updated ? m_scenario->differenceToNew() : m_scenario->differenceToOld(),
        QString());
}

void tst_StagedFiles::playersFilesStayWhereverItIsKilled_data()
{
    QTest::addColumn<QString>("second");
    QTest::newRow("then update") << "update"_s;
    QTest::newRow("then recovery, and discarding") << "recover"_s;
}

/// And nothing of the run's own is left by the next, whether it is old or new.
void tst_StagedFiles::playersFilesStayWhereverItIsKilled()
{
    QFETCH(QString, second);
    const int step = qEnvironmentVariableIsSet("PELLOX_ALL_CRASH_POINTS") ? 1 : 5;
    QStringList problems;
    int points = 0;
    bool died = true;
    for (int at = 1; died; at += step) {
        m_scenario->lay();
        layPlayersTemporaryFiles();
        const FaultRun first = run("update"_s, {m_scenario->build(), Changes, at, "kill"});
        died = first.crashed;
        const QString where = "%1 (%2): "_s.arg(first.calls.value(at - 1)).arg(at);
        const auto note = [&](const QString &problem) {
            if (!problem.isEmpty())
                problems.append(where + problem);
        };
        note(harmedTemporaryFile());
        const FaultRun next = run(second, {});
        if (second == "recover"_s) // which leaves what is staged
            run("discard"_s, {});
        if (next.status != statusOf(Result::Updated)
            && next.status != statusOf(Result::AlreadyUpToDate))
            note("status %1 "_s.arg(next.status) + QString::fromLocal8Bit(next.output));
        note(harmedTemporaryFile());
        removePlayersTemporaryFiles();
        if (m_scenario->isOld())
            QDir().rmdir(file("added"_s));
        m_scenario->removeEmptyWorkFolder();
        note(m_scenario->isOld() ? m_scenario->differenceToOld() : m_scenario->differenceToNew());
        ++points;
    }
    QVERIFY(points > 5);
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join("\n    "_s)));
}

void tst_StagedFiles::repairSparesFilesOfSuchNames_data()
{
    QTest::addColumn<QStringList>("damaged");
    const QString name = "program"_s;
    QTest::newRow("beside an intact one") << QStringList{name};
    QTest::newRow("both") << QStringList{name, name + ".temp"_s};
    QTest::newRow("all three") << QStringList{name, name + ".temp"_s, name + ".temp.temp"_s};
    QTest::newRow("the longer name") << QStringList{name + ".temp"_s};
}

void tst_StagedFiles::repairSparesFilesOfSuchNames()
{
    QFETCH(QStringList, damaged);
    const TestTree tree;
    for (const char *folder : {"source/", "build/"}) {
        for (const char *name : {"program", "program.temp", "program.temp.temp"})
            tree.write(
                QLatin1String(folder) + QLatin1String(name), QByteArray("content of ") + name);
    }
    PublishController publisher;
    QVERIFY(publisher.createSignatures(tree.path("source"_s), tree.path("signatures"_s)));
    const auto right = TestTree::snapshot(tree.path("source"_s));
    for (const bool missing : {false, true}) {
        for (const QString &name : damaged) {
            if (missing)
                tree.remove("build/"_s + name);
            else
                tree.write("build/"_s + name, "damaged");
        }
        QVERIFY(repaired(tree.path("build"_s), tree.path("signatures"_s), tree.path("source"_s)));
        QCOMPARE(TestTree::snapshot(tree.path("build"_s)), right);
    }
}

void tst_StagedFiles::leftoversGoWhateverComesNext_data()
{
    QTest::addColumn<QString>("next");
    for (const char *next : {"another patch", "patch that changes nothing", "discarding",
             "repair of what is intact", "repair", "cancelled", "failed"})
        QTest::newRow(next) << QString::fromLatin1(next);
}

void tst_StagedFiles::leftoversGoWhateverComesNext()
{
    QFETCH(QString, next);
    stageAndDie();
    const TestTree &tree = m_scenario->tree();
    const auto updateBy
        = [&](const QString &patch, const std::function<void(UpdateController &)> &set) {
              return outcomeOf([&](UpdateController &updater) {
                  updater.setSynced(false);
                  set(updater);
                  return updater.update(m_scenario->build(), patch);
              });
          };
    if (next == "another patch"_s) {
        tree.write("other patch/patchRules.json"_s,
            QJsonDocument(QJsonArray{rule("copy", "/other"_s)}).toJson());
        tree.write("other patch/other"_s, "of another patch");
        QCOMPARE(updateBy(tree.path("other patch"_s), [](auto &) {}).result, Result::Updated);
        QCOMPARE(tree.read("build/other"_s), QByteArray("of another patch"));
        tree.remove("build/other"_s);
    } else if (next == "patch that changes nothing"_s) {
        QCOMPARE(updateBy(emptyPatch(), [](auto &) {}).result, Result::AlreadyUpToDate);
    } else if (next == "discarding"_s) {
        QVERIFY(m_scenario->discardPrevious());
    } else if (next.startsWith("repair"_s)) {
        if (next == "repair"_s)
            tree.write("build/data/unchanged"_s, "damaged");
        QVERIFY(repaired(m_scenario->build(), m_scenario->oldSignatures(), tree.path("old"_s)));
    } else if (next == "cancelled"_s) {
        const auto cancel = [](UpdateController &updater) {
            connect(
                &updater, &UpdateController::phaseChanged, &updater,
                [&updater](UpdateController::UpdatePhase phase) {
                    if (phase == UpdateController::UpdatePhase::Staging)
                        updater.cancel();
                },
                Qt::DirectConnection);
        };
        QCOMPARE(updateBy(m_scenario->patch(), cancel).result, Result::Cancelled);
    } else {
        const Faults noJournal{file(".pellox/journal.new"_s), "create", 1, "28", true};
        QCOMPARE(run("update"_s, noJournal).status, statusOf(Result::Failed));
    }
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
}

void tst_StagedFiles::recoveryLeavesWhatIsStaged_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("last"); // what is made just then
    QTest::newRow("all") << "update"_s
                         << ".pellox/journal.new"_s;
    QTest::newRow("all, and what is to be kept") << "update-keeping"_s
                                                 << ".pellox/journal.new"_s;
    QTest::newRow("some") << "update"_s
                          << "data/taken whole.temp"_s;
}

/// Launchers recover whenever they start, and the next update goes on where this one was.
void tst_StagedFiles::recoveryLeavesWhatIsStaged()
{
    QFETCH(QString, command);
    QFETCH(QString, last);
    QVERIFY(run(command, {file(last), "create", 1, "kill"}).crashed);
    const auto stagedFiles = [this] {
        QMap<QString, quint64> files; // with their numbers
        for (const QString &path : temporaryFiles()) {
            struct stat status = {};
            const QByteArray name = QFile::encodeName(file(path));
            if (path.endsWith(".temp"_s) && ::lstat(name.constData(), &status) == 0)
                files.insert(path, status.st_ino);
        }
        return files;
    };
    const auto staged = stagedFiles();
    QVERIFY(staged.size() > 1);

    const UpdateOutcome recovery = m_scenario->recover();
    QCOMPARE(recovery.errors, QStringList());
    QCOMPARE(recovery.result, Result::AlreadyUpToDate);
    QCOMPARE(stagedFiles(), staged);
    QVERIFY(!m_scenario->tree().exists("build/.pellox/keeping"_s));
    QVERIFY(!m_scenario->tree().exists("build/.pellox/keeping.json"_s));
    QCOMPARE(m_scenario->recover().result, Result::AlreadyUpToDate);

    const FaultRun again = run("update"_s, {m_scenario->build(), "create"});
    QCOMPARE(again.status, statusOf(Result::Updated));
    for (const QString &path : staged.keys()) {
        QVERIFY2(path == last || !again.calls.contains("create "_s + file(path)), qPrintable(path));
    }
    QCOMPARE(m_scenario->differenceToNew(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
}

/// The next patch makes a folder where one lies, and a file of the folder that another lies in.
void tst_StagedFiles::leftoversAreInNobodysWay()
{
    const TestTree tree;
    const auto publish = [&](const QString &patch, const QStringList &copies) {
        QJsonArray rules;
        for (const QString &path : copies) {
            rules.append(rule("copy", path));
            tree.write(patch + path, "new");
        }
        tree.write(patch + "/patchRules.json"_s, QJsonDocument(rules).toJson());
    };
    publish("first"_s, {"/name"_s, "/folder/inside"_s});
    publish("second"_s, {"/name.temp/inside"_s, "/folder"_s});
    tree.makeFolder("build/folder"_s);
    const Faults killed{tree.path("build/.pellox/journal.new"_s), "create", 1, "kill"};
    const QString program = QStringLiteral(UPDATECALL_PROGRAM);
    const QString build = tree.path("build"_s);
    QVERIFY(
        runWithFaults(program, {"1"_s, "update"_s, build, tree.path("first"_s)}, killed).crashed);
    QVERIFY(tree.exists("build/name.temp"_s) && tree.exists("build/folder/inside.temp"_s));
    const FaultRun second
        = runWithFaults(program, {"1"_s, "update"_s, build, tree.path("second"_s)}, {});
    QVERIFY2(second.status == statusOf(Result::Updated), second.output);
    const QMap<QString, QByteArray> expected{
        {"name.temp/"_s, ""}, {"name.temp/inside"_s, "new"}, {"folder"_s, "new"}};
    QCOMPARE(TestTree::snapshot(build), expected);
}

/// Of the run's calls: the record is on the disk before the first file is staged, and gone only
/// when the journal is there.
void tst_StagedFiles::recordIsThereBeforeTheFiles()
{
    const QStringList calls = run("update"_s, {m_scenario->build(), Changes}).calls;
    const QString record = file(".pellox/staging"_s);
    const auto first = [&](const QString &kind, const QString &end, int from) {
        for (int at = qMax(0, from); at < calls.size(); ++at) {
            if (calls.at(at).startsWith(kind + QLatin1Char(' ')) && calls.at(at).endsWith(end))
                return at;
        }
        return -1;
    };
    const int synced = first("sync"_s, record + ".new"_s, 0);
    const int renamed = first("rename"_s, record, 0);
    const int allSynced = first("sync"_s, m_scenario->build(), renamed);
    const int staged = first("create"_s, ".temp"_s, 0);
    const int journalled = first("rename"_s, file(".pellox/journal"_s), 0);
    const int journalSynced = first("sync"_s, m_scenario->build(), journalled);
    const int removed = first("remove"_s, record, renamed);
    const int journalRemoved = first("remove"_s, file(".pellox/journal"_s), journalled);
    QVERIFY(synced >= 0 && synced < renamed && renamed < allSynced && allSynced < staged);
    QVERIFY(staged < journalled && journalled < journalSynced && journalSynced < removed);
    QVERIFY(first("sync"_s, m_scenario->build(), removed) < journalRemoved);
}

/// Whatever is lost of what is not synced: what is staged is known, and so is what is not.
void tst_StagedFiles::leftoversGoAfterAnyPowerCut()
{
    using Kind = DiskRecord::Kind;
    using Fate = DiskRecord::Fate;
    const int step = qEnvironmentVariableIsSet("PELLOX_ALL_CRASH_POINTS") ? 1 : 7;
    layPlayersTemporaryFiles();
    const DiskRecord record(m_scenario->build(), QStringLiteral(UPDATECALL_PROGRAM),
        {"1"_s, "update"_s, m_scenario->build(), m_scenario->patch()});
    QCOMPARE(record.status(), statusOf(Result::Updated));
    QStringList problems;
    int old = 0;
    for (int at = 0; at <= record.size(); at += step) {
        std::mt19937 random(static_cast<unsigned>(at));
        for (const DiskRecord::Chance &chance :
            {DiskRecord::Chance([](Kind) { return Fate{false}; }),
                DiskRecord::Chance([](Kind) { return Fate{true}; }),
                DiskRecord::Chance([](Kind kind) { return Fate{kind == Kind::Name}; }),
                DiskRecord::Chance([&](Kind) { return Fate{random() % 2 == 0}; })}) {
            record.lay(at, chance);
            const QString where = "%1 (%2): "_s.arg(record.name(at)).arg(at);
            if (!isGood(m_scenario->recover().result))
                problems.append(where + "is not recovered"_s);
            if (!m_scenario->discardPrevious()) // a recovery leaves what is staged
                problems.append(where + "is not cleared"_s);
            const QString harmed = harmedTemporaryFile();
            if (!harmed.isEmpty())
                problems.append(where + harmed);
            removePlayersTemporaryFiles();
            m_scenario->removeEmptyWorkFolder();
            old += m_scenario->isOld() ? 1 : 0;
            if (m_scenario->isOld())
                QDir().rmdir(file("added"_s));
            const QString difference = m_scenario->isOld() ? m_scenario->differenceToOld()
                                                           : m_scenario->differenceToNew();
            if (!difference.isEmpty())
                problems.append(where + difference);
        }
    }
    QVERIFY(old > 10);
    QVERIFY2(problems.isEmpty(), qPrintable(problems.mid(0, 25).join("\n    "_s)));
}

void tst_StagedFiles::damagedRecordIsNotBelieved_data()
{
    QTest::addColumn<bool>("torn");
    QTest::newRow("torn") << true;
    QTest::newRow("a byte is another") << false;
}

void tst_StagedFiles::damagedRecordIsNotBelieved()
{
    QFETCH(bool, torn);
    stageAndDie();
    QByteArray record = m_scenario->tree().read("build/.pellox/staging"_s);
    const int changed = record.indexOf("/data/changed.temp");
    QVERIFY(changed > 0);
    if (torn)
        record.truncate(record.size() - 10);
    else
        record[changed + 1] = 'D';
    m_scenario->tree().write("build/.pellox/staging"_s, record);
    m_scenario->tree().write("build/data/changed.temp"_s, "mine");
    QCOMPARE(m_scenario->update().result, Result::Updated);
    QCOMPARE(m_scenario->tree().read("build/data/changed.temp"_s), QByteArray("mine"));
    QVERIFY(!m_scenario->tree().exists("build/.pellox"_s));
}

/// Whoever moves a folder away and links to it has taken the files for their own.
void tst_StagedFiles::leftoversBehindALinkStay()
{
    stageAndDie();
    const TestTree outside;
    outside.write("deep/program.temp"_s, "a canary");
    m_scenario->tree().remove("build/added"_s);
    m_scenario->tree().link("build/added"_s, outside.path());
    QVERIFY(m_scenario->discardPrevious());
    QCOMPARE(outside.read("deep/program.temp"_s), QByteArray("a canary"));
    QFile::remove(file("added"_s));
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

/// "Nothing was changed" would not be true of it.
void tst_StagedFiles::leftoverThatStaysIsTold()
{
    m_scenario->tree().write("build/game.exe"_s, // found out when it is patched only
        QByteArray(m_scenario->oldFiles().value("game.exe"_s).content.size(), 'x'));
    const QString staged = file("data/filled.temp"_s);
    const FaultRun run
        = this->run("update"_s, {staged, "remove", 1, QByteArray::number(EIO), true});
    QCOMPARE(run.status, statusOf(Result::Failed));
    QVERIFY2(run.output.contains(staged.toLocal8Bit() + ": "), run.output);
    QVERIFY(QFile::exists(staged));
    QVERIFY(m_scenario->discardPrevious());
    QCOMPARE(temporaryFiles(), QStringList());
}

void tst_StagedFiles::leftoverThatNothingRemovesIsTold_data()
{
    QTest::addColumn<QString>("command");
    for (const char *command : {"update", "recover", "rollback", "discard", "repair"})
        QTest::newRow(command) << QString::fromLatin1(command);
}

/// Also where there is nothing else to do, and in the folder of what a commit was to keep.
void tst_StagedFiles::leftoverThatNothingRemovesIsTold()
{
    QFETCH(QString, command);
    const bool blocks = command == "discard"_s || command == "repair"_s; // status 0 and 1
    const TestTree &tree = m_scenario->tree();
    if (command == "rollback"_s || command == "discard"_s)
        QCOMPARE(m_scenario->update(true).result, Result::Updated);
    else if (command != "recover"_s)
        m_scenario->layNew();
    for (const QString &leftover : {".pellox/staged/7"_s, ".pellox/keeping/gone"_s}) {
        if (command == "recover"_s && leftover.startsWith(".pellox/staged"_s))
            continue; // which a recovery leaves
        tree.write("build/"_s + leftover, "of a run that was killed");
        const QStringList more = command == "repair"_s
            ? QStringList{m_scenario->signatures(), m_scenario->newBuild()}
            : QStringList();
        const auto before = TestTree::snapshot(m_scenario->build());
        const FaultRun run = this->run(
            command, {file(leftover), "remove", 1, QByteArray::number(EIO), true}, more);
        QVERIFY2(run.status == (blocks ? 1 : statusOf(Result::Failed)), run.output);
        const QString named = leftover.section(QLatin1Char('/'), 0, 1); // the folder will do
        QVERIFY2(run.output.startsWith(file(named).toLocal8Bit()), run.output);
        QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
        tree.remove("build/"_s + named);
    }
    const FaultRun again = run(command, {},
        command == "repair"_s ? QStringList{m_scenario->signatures(), m_scenario->newBuild()}
                              : QStringList());
    QCOMPARE(again.output, QByteArray());
    m_scenario->removeEmptyWorkFolder(); // that this test has made
    const bool isOld = command == "recover"_s || command == "rollback"_s;
    QCOMPARE(isOld ? m_scenario->differenceToOld() : m_scenario->differenceToNew(), QString());
}

void tst_StagedFiles::foldedNamesCollide_data()
{
    QTest::addColumn<QString>("one");
    QTest::addColumn<QString>("other");
    QTest::newRow("case") << "/Fusion1"_s
                          << "/fusion1"_s;
    QTest::newRow("case of a folder") << "/Data/one"_s
                                      << "/data/one"_s;
    QTest::newRow("composed or not")
        << QStringLiteral("/gr\u00fcn") << QStringLiteral("/gru\u0308n");
}

/// In a build where nothing tells of it but a trial; a plan must see it on what is there.
void tst_StagedFiles::foldedNamesCollide()
{
    QFETCH(QString, one);
    QFETCH(QString, other);
    const TestTree tree;
    tree.makeFolder("build"_s);
    tree.write("patch"_s + one, "one");
    tree.write("patch"_s + other, "other");
    tree.write("patch/patchRules.json"_s,
        QJsonDocument(QJsonArray{rule("copy", one), rule("copy", other)}).toJson());
    const auto call = [&](const QString &command, bool folds) {
        return runFolding(tree, command, folds ? "build"_s : QString());
    };
    const auto isRefused = [&](const QString &errors) {
        return errors.startsWith(tree.path("patch/patchRules.json: "_s))
            && errors.contains("more than one rule"_s);
    };
    const auto update = call("update"_s, true);
    QCOMPARE(update.first, statusOf(Result::Refused));
    QVERIFY2(isRefused(update.second), qPrintable(update.second));
    QVERIFY(TestTree::snapshot(tree.path("build"_s)).isEmpty());

    tree.write(QStringLiteral("build/gr\u00fc\u00dfe"), "a player's");
    const auto before = TestTree::snapshot(tree.path("build"_s));
    const auto plan = call("plan"_s, true);
    QCOMPARE(plan.first, 1);
    QVERIFY2(isRefused(plan.second), qPrintable(plan.second));
    QCOMPARE(TestTree::snapshot(tree.path("build"_s)), before);

    const auto apart = call("update"_s, false); // on a file system that tells them apart
    QVERIFY2(apart.first == statusOf(Result::Updated), qPrintable(apart.second));
    QCOMPARE(tree.read("build"_s + one), QByteArray("one"));
    QCOMPARE(tree.read("build"_s + other), QByteArray("other"));
}

/// Files at the top tell names apart, but not those of one folder.
void tst_StagedFiles::folderThatFoldsByItself()
{
    const TestTree tree;
    tree.write("build/first"_s, "old");
    tree.write("build/sub/known"_s, "old");
    tree.write("build/another"_s, "a player's");
    QJsonArray rules{rule("delete", "/first"_s), rule("delete", "/sub/known"_s)};
    for (const char *path : {"/sub/Fusion1", "/sub/fusion1"}) {
        rules.append(rule("copy", QString::fromLatin1(path)));
        tree.write("patch"_s + QLatin1String(path), path);
    }
    tree.write("patch/patchRules.json"_s, QJsonDocument(rules).toJson());
    const auto before = TestTree::snapshot(tree.path("build"_s));
    for (const char *command : {"plan", "update"}) {
        const auto folding = runFolding(tree, QLatin1String(command), "build/sub"_s);
        QVERIFY2(folding.second.contains("more than one rule"_s), qPrintable(folding.second));
        QCOMPARE(TestTree::snapshot(tree.path("build"_s)), before);
    }
    QCOMPARE(runFolding(tree, "update"_s, QString()).first, statusOf(Result::Updated));
}

/// Under a name that differs in the case of its letters alone.
void tst_StagedFiles::foldedFileBecomesAFolder()
{
    const TestTree tree;
    tree.write("build/notes"_s, "a file");
    tree.write("build/deep/more"_s, "another");
    tree.write("patch/notes/inside"_s, "inside");
    tree.write("patch/deep"_s, "a file now");
    tree.write("patch/patchRules.json"_s,
        QJsonDocument(QJsonArray{rule("delete", "/Notes"_s), rule("copy", "/notes/inside"_s),
                          rule("delete", "/deep/More"_s), rule("copy", "/deep"_s)})
            .toJson());
    const auto apart = runFolding(tree, "update"_s, QString());
    QCOMPARE(apart.first, statusOf(Result::Refused));
    const auto folding = runFolding(tree, "update"_s, "build"_s);
    QVERIFY2(folding.first == statusOf(Result::Updated), qPrintable(folding.second));
    const QMap<QString, QByteArray> expected{
        {"notes/"_s, ""}, {"notes/inside"_s, "inside"}, {"deep"_s, "a file now"}};
    QCOMPARE(TestTree::snapshot(tree.path("build"_s)), expected);
}

/// Where names are told apart the one is in the way that no rule deletes, were it a second name of
/// the same file.
void tst_StagedFiles::deletedFileOfTheSameKey()
{
    const TestTree tree;
    tree.write("build/Notes"_s, "a file");
    QCOMPARE(::link(QFile::encodeName(tree.path("build/Notes"_s)).constData(),
                 QFile::encodeName(tree.path("build/notes"_s)).constData()),
        0);
    tree.write("patch/notes/inside"_s, "inside");
    tree.write("patch/patchRules.json"_s,
        QJsonDocument(QJsonArray{rule("delete", "/Notes"_s), rule("copy", "/notes/inside"_s)})
            .toJson());
    const auto before = TestTree::snapshot(tree.path("build"_s));
    const auto apart = runFolding(tree, "update"_s, QString());
    QCOMPARE(apart.first, statusOf(Result::Refused));
    QVERIFY2(apart.second.contains("/notes: is no folder"_s), qPrintable(apart.second));
    QCOMPARE(TestTree::snapshot(tree.path("build"_s)), before);
}

namespace {

constexpr uid_t Player = 12345;
constexpr gid_t PlayersGroup = 23456;

struct stat statusOfFile(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        qFatal("there is no %s", qPrintable(path));
    return status;
}

bool give(const QString &path)
{
    return ::lchown(QFile::encodeName(path).constData(), Player, PlayersGroup) == 0;
}

} // namespace

void tst_StagedFiles::ownersStay_data()
{
    QTest::addColumn<bool>("repairs");
    QTest::newRow("update") << false;
    QTest::newRow("repair") << true;
}

/// Where root updates a player's build: nobody else could read a file of 0600.
void tst_StagedFiles::ownersStay()
{
    QFETCH(bool, repairs);
    if (::geteuid() != 0)
        QSKIP("only root may give files away");
    if (repairs)
        m_scenario->layNew();
    const QStringList players{"data/changed"_s, "data/large.pak"_s, "data/taken whole"_s};
    for (const QString &path : players) {
        if (repairs)
            m_scenario->tree().write("build/"_s + path, "damaged");
        QVERIFY(give(file(path)));
    }
    if (repairs) {
        m_scenario->tree().write("build/game.exe"_s, "damaged");
        QVERIFY(repaired(m_scenario->build(), m_scenario->signatures(), m_scenario->newBuild()));
    } else {
        QCOMPARE(m_scenario->update().result, Result::Updated);
    }
    for (const QString &path : players) {
        const struct stat status = statusOfFile(file(path));
        QVERIFY2(status.st_uid == Player && status.st_gid == PlayersGroup, qPrintable(path));
    }
    QCOMPARE(statusOfFile(file("game.exe"_s)).st_uid, ::geteuid());
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// What an earlier run has staged is taken over, under the owner that it must have now.
void tst_StagedFiles::ownersOfStagedFilesStay()
{
    if (::geteuid() != 0)
        QSKIP("only root may give files away");
    stageAndDie();
    QVERIFY(give(file("data/changed"_s)));
    QCOMPARE(m_scenario->update().result, Result::Updated);
    QCOMPARE(statusOfFile(file("data/changed"_s)).st_uid, Player);
    QCOMPARE(statusOfFile(file("data/large.pak"_s)).st_uid, ::geteuid());
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// Where a file becomes a folder that is the only thing in another.
void tst_StagedFiles::foldersThatGetAFileStay()
{
    const TestTree tree;
    tree.write("build/deep/own/notes"_s, "a file");
    tree.write("patch/deep/own/notes/inside"_s, "inside");
    tree.write("patch/patchRules.json"_s,
        QJsonDocument(QJsonArray{rule("delete", "/deep/own/notes"_s),
                          rule("copy", "/deep/own/notes/inside"_s)})
            .toJson());
    const QString folder = tree.path("build/deep/own"_s);
    constexpr mode_t Private = 0700;
    const bool isRoot = ::geteuid() == 0;
    QVERIFY(::chmod(QFile::encodeName(folder).constData(), Private) == 0);
    QVERIFY(!isRoot || give(folder));
    const struct stat before = statusOfFile(folder);
    const auto verifyStays = [&] {
        const struct stat status = statusOfFile(folder);
        QCOMPARE(status.st_ino, before.st_ino);
        QCOMPARE(status.st_mode & mode_t(07777), Private);
        QCOMPARE(status.st_uid, before.st_uid);
        QCOMPARE(status.st_gid, before.st_gid);
    };

    const UpdateOutcome update = outcomeOf([&](UpdateController &updater) {
        updater.setKeepPrevious(true);
        return updater.update(tree.path("build"_s), tree.path("patch"_s));
    });
    QCOMPARE(update.errors, QStringList());
    QCOMPARE(update.result, Result::Updated);
    QCOMPARE(tree.read("build/deep/own/notes/inside"_s), QByteArray("inside"));
    verifyStays();
    QVERIFY(!isRoot || statusOfFile(folder + "/notes"_s).st_uid == Player);

    const UpdateOutcome rollback = outcomeOf(
        [&](UpdateController &updater) { return updater.rollback(tree.path("build"_s)); });
    QCOMPARE(rollback.errors, QStringList());
    QCOMPARE(rollback.result, Result::Updated);
    QCOMPARE(tree.read("build/deep/own/notes"_s), QByteArray("a file"));
    verifyStays();
}

/// Else his next update could not write there.
void tst_StagedFiles::foldersOfRootBelongToThePlayer()
{
    if (::geteuid() != 0)
        QSKIP("only root may give files away");
    QVERIFY(give(m_scenario->build()));
    QCOMPARE(m_scenario->update(true).result, Result::Updated);
    const QStringList paths{"added"_s, "added/deep"_s, "file to folder"_s, ".pellox"_s,
        ".pellox/previous"_s, ".pellox/previous/left empty/deep"_s};
    QStringList others;
    for (const QString &path : paths) {
        const struct stat status = statusOfFile(file(path));
        if (status.st_uid != Player || status.st_gid != PlayersGroup)
            others.append(path);
    }
    QVERIFY(::lchown(QFile::encodeName(m_scenario->build()).constData(), 0, ::getegid()) == 0);
    QCOMPARE(others, QStringList());
    QVERIFY(m_scenario->discardPrevious());
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_StagedFiles::triesNoNamesWithoutNeed()
{
    const QStringList calls = run("update"_s, {file(".pellox/staged"_s), "create"}).calls;
    for (const QString &call : calls)
        QVERIFY2(call.at(call.size() - 1).isDigit(), qPrintable(call));
}

namespace {

/// A build with a file that the patch gives a name in another case, where names fold.
class RenamedCase
{
public:
    RenamedCase()
    {
        m_tree.write("build/data/fusion1"_s, "the old content");
        m_tree.write("patch/data/fusion1"_s, "the new content");
        m_tree.write("patch/patchRules.json"_s,
            QJsonDocument(
                QJsonArray{rule("delete", "/data/Fusion1"_s), rule("copy", "/data/fusion1"_s)})
                .toJson());
    }

    QString file(const QString &path) const { return m_tree.path("build/"_s + path); }
    QMap<QString, QByteArray> build() const { return TestTree::snapshot(m_tree.path("build"_s)); }
    /// What it holds, but for the hidden folder.
    QByteArray content() const
    {
        return m_tree.exists("build/data/fusion1"_s) ? m_tree.read("build/data/fusion1"_s)
                                                     : QByteArray("gone");
    }
    /// The status of a run, to which @p faults happen: pairs of names and values.
    int run(const QString &command, const QMap<QString, QString> &faults = {}) const
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("LD_PRELOAD"_s, QStringLiteral(FOLDING_LIBRARY " " FAULTS_LIBRARY));
        environment.insert("ASAN_OPTIONS"_s, "verify_asan_link_order=0"_s);
        environment.insert("FOLDING_PATH"_s, m_tree.path("build"_s));
        for (auto fault = faults.cbegin(); fault != faults.cend(); ++fault)
            environment.insert(fault.key(), fault.value());
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::ForwardedChannels);
        process.start(QStringLiteral(UPDATECALL_PROGRAM),
            {"1"_s, command, m_tree.path("build"_s), m_tree.path("patch"_s)});
        if (!process.waitForFinished(Patience))
            qFatal("a run does not end");
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

private:
    const TestTree m_tree;
};

/// The time of one file's last change for another.
void copyTime(const QString &from, const QString &to)
{
    struct stat status = {};
    QCOMPARE(::stat(QFile::encodeName(from).constData(), &status), 0);
    const timespec times[] = {status.st_atim, status.st_mtim};
    QCOMPARE(::utimensat(AT_FDCWD, QFile::encodeName(to).constData(), times, 0), 0);
}

} // namespace

void tst_StagedFiles::deletionSparesTheNewFile_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("that was just put there") << "update"_s;
    QTest::newRow("that was just put there, kept") << "update-keeping"_s;
    QTest::newRow("that a recovery puts there") << "recover"_s;
    QTest::newRow("that is there already") << "again"_s;
}

/// Under both names there is one file.
void tst_StagedFiles::deletionSparesTheNewFile()
{
    QFETCH(QString, command);
    const RenamedCase folding;
    if (command == "recover"_s) {
        // Nothing but its number tells the new file from the one that is to be deleted.
        const QString target = folding.file("data/fusion1"_s);
        QCOMPARE(folding.run("update"_s,
                     {{"FAULTS_PATH"_s, target}, {"FAULTS_CALLS"_s, "rename"_s},
                         {"FAULTS_AT"_s, "1"_s}, {"FAULTS_DO"_s, "kill"_s}}),
            -1);
        QCOMPARE(folding.content(), QByteArray("the old content"));
        copyTime(target, target + ".temp"_s);
    }
    QCOMPARE(folding.run(command == "again"_s ? "update"_s : command), statusOf(Result::Updated));
    QCOMPARE(folding.content(), QByteArray("the new content"));
    if (command == "again"_s) {
        QCOMPARE(folding.run("update"_s), statusOf(Result::AlreadyUpToDate));
        QCOMPARE(folding.content(), QByteArray("the new content"));
    }
}

void tst_StagedFiles::renameOfCaseIsRolledBack_data()
{
    QTest::addColumn<bool>("byCopies");
    QTest::newRow("by links") << false;
    QTest::newRow("by copies") << true;
}

void tst_StagedFiles::renameOfCaseIsRolledBack()
{
    QFETCH(bool, byCopies);
    const RenamedCase folding;
    const auto before = folding.build();
    QMap<QString, QString> faults;
    if (byCopies) {
        faults = {{"FAULTS_PATH"_s, folding.file(".pellox"_s)}, {"FAULTS_CALLS"_s, "link"_s},
            {"FAULTS_AT"_s, "1"_s}, {"FAULTS_DO"_s, QString::number(EPERM)},
            {"FAULTS_REPEAT"_s, "yes"_s}};
    }
    QCOMPARE(folding.run("update-keeping"_s, faults), statusOf(Result::Updated));
    QCOMPARE(folding.content(), QByteArray("the new content"));
    QCOMPARE(folding.run("rollback"_s), statusOf(Result::Updated));
    QCOMPARE(folding.build(), before);
}

namespace {

void addUnreadable()
{
    QTest::addColumn<QByteArray>("call");
    QTest::addColumn<int>("error");
    QTest::addColumn<bool>("sealed");
    for (const bool sealed : {false, true}) {
        const char *kind = sealed ? "sealed" : "unsealed";
        QTest::addRow("%s, no permission", kind) << QByteArray("open") << EACCES << sealed;
        QTest::addRow("%s, broken", kind) << QByteArray("read") << EIO << sealed;
    }
}

} // namespace

void tst_StagedFiles::unreadableFilesAreTakenWhole_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("call");
    QTest::addColumn<int>("error");
    for (const char *path : {"data/changed", "data/large.pak", "data/filled", "data/taken whole"}) {
        QTest::addRow("%s, no permission", path)
            << QString::fromLatin1(path) << QByteArray("open") << EACCES;
        if (path != QByteArray("data/filled"))
            QTest::addRow("%s, broken", path)
                << QString::fromLatin1(path) << QByteArray("read") << EIO;
    }
}

void tst_StagedFiles::unreadableFilesAreTakenWhole()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, call);
    QFETCH(int, error);
    const Faults faults{file(path), call, 1, QByteArray::number(error), true};
    const FaultRun run = this->run("update"_s, faults, {m_scenario->newBuild()});
    QCOMPARE(run.output, QByteArray());
    QCOMPARE(run.status, statusOf(Result::Updated));
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_StagedFiles::unreadableFilesAreNamedAtOnce_data()
{
    addUnreadable();
}

/// Together with one that is missing.
void tst_StagedFiles::unreadableFilesAreNamedAtOnce()
{
    QFETCH(QByteArray, call);
    QFETCH(int, error);
    QFETCH(bool, sealed);
    const TestTree &tree = m_scenario->tree();
    std::optional<Setting> key;
    if (sealed) {
        QString message;
        if (!tree.exists("key"_s)
            && !PatchSeal::generateKey(tree.path("key"_s), tree.path("key.pub"_s), &message))
            QSKIP("built without libcrypto");
        PatchSeal sealer;
        QVERIFY2(
            sealer.seal(m_scenario->patch(), m_scenario->oldSignatures(), 1, {tree.path("key"_s)}),
            qPrintable(sealer.error()));
        key.emplace("UPDATECALL_KEY", tree.path("key.pub"_s).toLocal8Bit());
    }
    tree.remove("build/game.exe"_s);
    // As it is read before anything is staged: of the old file's size, and it may be new.
    const FaultRun run = this->run(
        "update"_s, {file("data/large.pak"_s), call, 1, QByteArray::number(error), true});
    const QString errors = QString::fromLocal8Bit(run.output);
    QVERIFY2(errors.contains(file("game.exe"_s) + ": is missing"_s), qPrintable(errors));
    if (sealed || call == "open")
        QVERIFY2(errors.contains(file("data/large.pak"_s) + ": cannot be "_s), qPrintable(errors));
    QCOMPARE(run.status, statusOf(Result::Refused));
    tree.write("build/game.exe"_s, m_scenario->oldFiles().value("game.exe"_s).content);
    QVERIFY(QFile::setPermissions(file("game.exe"_s),
        QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup
            | QFile::ReadOther | QFile::ExeOther));
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_StagedFiles::roomIsLookedAtFirst_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("setting");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("enough");
    for (const char *command : {"update", "repair"}) {
        const QString name = QString::fromLatin1(command);
        QTest::addRow("%s, bytes", command)
            << name << QByteArray("FAULTS_ROOM") << QByteArray::number(17 << 20) << false;
        QTest::addRow("%s, enough bytes", command)
            << name << QByteArray("FAULTS_ROOM") << QByteArray::number(20 << 20) << true;
        QTest::addRow("%s, files", command)
            << name << QByteArray("FAULTS_ROOM_FILES") << QByteArray("9") << false;
        QTest::addRow("%s, enough files", command)
            << name << QByteArray("FAULTS_ROOM_FILES") << QByteArray("40") << true;
    }
}

void tst_StagedFiles::roomIsLookedAtFirst()
{
    QFETCH(QString, command);
    QFETCH(QByteArray, setting);
    QFETCH(QByteArray, value);
    QFETCH(bool, enough);
    const bool repairs = command == "repair"_s;
    const Setting room(setting.constData(), value);
    if (repairs) {
        m_scenario->layNew();
        for (const QString &path : m_scenario->newFiles().keys())
            m_scenario->tree().write("build/"_s + path, "damaged");
    }
    const auto before = TestTree::snapshot(m_scenario->build());
    const QStringList more
        = repairs ? QStringList{m_scenario->signatures(), m_scenario->newBuild()} : QStringList();
    const FaultRun run = this->run(command, {m_scenario->build(), Changes}, more);
    const int bad = repairs ? 1 : statusOf(Result::Refused);
    const int good = repairs ? 0 : statusOf(Result::Updated);
    QVERIFY2(run.status == (enough ? good : bad), run.output);
    if (enough)
        return;
    QVERIFY2(
        run.output.startsWith((m_scenario->build() + ": has not enough room: "_s).toLocal8Bit()),
        run.output);
    QCOMPARE(run.calls, QStringList());
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

void tst_StagedFiles::copiesThatAreKeptNeedRoom_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<bool>("copies");
    QTest::addColumn<bool>("refused");
    QTest::newRow("update") << "update"_s << true << false;
    QTest::newRow("update that keeps links") << "update-keeping"_s << false << false;
    QTest::newRow("update that keeps copies") << "update-keeping"_s << true << true;
    QTest::newRow("plan") << "plan"_s << true << false;
    QTest::newRow("plan that keeps links") << "plan-keeping"_s << false << false;
    QTest::newRow("plan that keeps copies") << "plan-keeping"_s << true << true;
}

/// There is enough for what is staged, but not for a copy of what that replaces as well.
void tst_StagedFiles::copiesThatAreKeptNeedRoom()
{
    QFETCH(QString, command);
    QFETCH(bool, copies);
    QFETCH(bool, refused);
    constexpr int Half = 1 << 19; // of the largest file
    const auto staged = UpdateController().plan(m_scenario->build(), m_scenario->patch());
    const Setting room("FAULTS_ROOM", QByteArray::number(staged.peakExtraDisk + Half));
    const Setting kind("FAULTS_KIND", copies ? "0x4d44" : "0xef53"); // FAT, ext4
    const auto before = TestTree::snapshot(m_scenario->build());
    const FaultRun run = this->run(
        command, {file(".pellox"_s), "link", copies ? 1 : 0, QByteArray::number(EPERM), true});
    const bool plans = command.startsWith("plan"_s);
    const int good = plans ? 0 : statusOf(Result::Updated);
    QVERIFY2(run.status == (!refused ? good : plans ? 1 : statusOf(Result::Refused)), run.output);
    if (!refused)
        return;
    QVERIFY2(run.output.startsWith(
                 (m_scenario->build() + ": has not enough room to keep "_s).toLocal8Bit()),
        run.output);
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

void tst_StagedFiles::sumsOfSizesDoNotOverflow()
{
    const TestTree tree;
    QJsonArray rules;
    for (int i = 0; i < 1100; ++i) {
        QJsonObject huge = rule("patch", "/file %1"_s.arg(i));
        huge.insert("file_size"_s, static_cast<double>(1LL << 53));
        huge.insert("sha512"_s, QString(128, QLatin1Char('0')));
        rules.append(huge);
        tree.write("build/file %1"_s.arg(i), "x");
        // One copy of more than there is, which is found out only when it is staged.
        tree.write("patch/file %1"_s.arg(i),
            QByteArray::fromHex("72730236540000000000000000002000000000000000"));
    }
    tree.write("patch/patchRules.json"_s, QJsonDocument(rules).toJson());
    const auto plan = UpdateController().plan(tree.path("build"_s), tree.path("patch"_s));
    QVERIFY(plan.bytesToWrite > 0);
    QVERIFY(plan.peakExtraDisk >= plan.bytesToWrite);
    bool isFull = false;
    for (const Pellox::UpdateProblem &refusal : plan.refusals)
        isFull |= refusal.code == Code::NoSpace;
    QVERIFY(isFull);
}

/// Nothing could be put in place there by one rename.
void tst_StagedFiles::mountsInTheBuildAreRefused()
{
    if (QProcess::execute("unshare"_s, {"-m"_s, "true"_s}) != 0)
        QSKIP("nothing can be mounted here");
    m_scenario->tree().remove("build/data"_s);
    m_scenario->tree().makeFolder("build/data"_s);
    QProcess process;
    process.start("unshare"_s,
        {"-m"_s, "sh"_s, "-c"_s,
            "mount $1 \"$2/data\" && cp -a \"$3/data/.\" \"$2/data\" && \"$4\" 1 update \"$2\" \"$5\""_s,
            "sh"_s, "-t tmpfs tmpfs"_s, m_scenario->build(), m_scenario->tree().path("old"_s),
            QStringLiteral(UPDATECALL_PROGRAM), m_scenario->patch()});
    QVERIFY(process.waitForFinished(Patience));
    const QByteArray output = process.readAllStandardOutput();
    QVERIFY2(
        process.exitCode() == statusOf(Result::Refused), output + process.readAllStandardError());
    QCOMPARE(output.count('\n'), 1);
    QVERIFY2(output.startsWith((file("data"_s) + ": is on another file system"_s).toLocal8Bit()),
        output);
}

/// In the patch's folder there is room for such a path, below the build's there is none.
void tst_StagedFiles::pathsThatAreTooLongAreRefused()
{
    const TestTree tree;
    const QString folder = "build/"_s + "a-long-way-down/"_s.repeated(15) + "down"_s;
    const int room = PATH_MAX - 1 - tree.path(folder).size();
    const auto pathOf = [](int size) { // begins with a separator
        QString path;
        for (; size > 201; size -= 101)
            path += QLatin1Char('/') + QString(100, QLatin1Char('x'));
        return path + QLatin1Char('/') + QString(size - 1, QLatin1Char('y'));
    };
    for (const int excess : {0, 1}) {
        const QString path = pathOf(room + excess);
        tree.makeFolder(folder);
        tree.write("patch"_s + path, "new");
        tree.write(
            "patch/patchRules.json"_s, QJsonDocument(QJsonArray{rule("copy", path)}).toJson());
        const auto plan = UpdateController().plan(tree.path(folder), tree.path("patch"_s));
        QCOMPARE(plan.refusals.size(), excess);
        if (excess > 0) {
            QCOMPARE(plan.refusals.first().code, Code::Obstructed);
            QVERIFY(plan.refusals.first().reason.contains("too long"_s));
            QCOMPARE(plan.refusals.first().file.section(QLatin1Char('/'), -1),
                path.section(QLatin1Char('/'), -1));
        }
        tree.remove("patch"_s);
    }
}

QTEST_GUILESS_MAIN(tst_StagedFiles)

#include "tst_stagedfiles.moc"
