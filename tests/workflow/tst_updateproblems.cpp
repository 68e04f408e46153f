// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "patience.h"
#include "updatescenario.h"

#include <Pellox/IntegrityController>
#include <Pellox/PatchSeal>
#include <Pellox/UpdateProblem>

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QSet>
#include <QtTest>

#include <cerrno>
#include <functional>
#include <optional>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using Pellox::IntegrityController;
using Pellox::UpdateController;
using Pellox::UpdateProblem;
using Phase = UpdateController::UpdatePhase;
using Result = UpdateController::UpdateResult;
using Code = UpdateProblem::Code;
using Prepare = std::function<void(const UpdateScenario &)>;
using Start = std::function<bool(UpdateController &, const UpdateScenario &)>;

Q_DECLARE_METATYPE(Prepare)
Q_DECLARE_METATYPE(Start)
Q_DECLARE_METATYPE(Pellox::UpdateProblem::Code)

namespace {

// What the file system says of locks. Only one run is at work when they are changed.
QVector<int> s_errors;     ///< of the next calls
bool s_foldersLock = true; ///< whether folders can be locked
std::function<void()> s_beforeLock;

std::optional<uid_t> s_user; ///< who runs this, as far as the library asks
QByteArray s_fixedPath;      ///< what has the attribute
quint64 s_attribute = 0;
QByteArray s_unseenPath; ///< which nobody can look at
bool s_threadsAreUsedUp = false;

void makePipe(const QString &path)
{
    if (::mkfifo(QFile::encodeName(path).constData(), 0600) != 0)
        qFatal("cannot make a pipe");
}

bool isFolder(int handle)
{
    struct stat status = {};
    return ::fstat(handle, &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

// The library calls this instead of the system's.
extern "C" __attribute__((visibility("default"))) int flock(int handle, int operation) noexcept
{
    static auto *const original = reinterpret_cast<int (*)(int, int)>(::dlsym(RTLD_NEXT, "flock"));
    if (s_beforeLock)
        s_beforeLock();
    if (!s_errors.isEmpty())
        errno = s_errors.takeFirst();
    else if (!s_foldersLock && isFolder(handle))
        errno = EBADF;
    else
        return original(handle, operation);
    return -1;
}

extern "C" __attribute__((visibility("default"))) int lstat(
    const char *path, struct stat *status) noexcept
{
    using Function = int (*)(const char *, struct stat *);
    static const auto original = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "lstat"));
    if (s_unseenPath.isEmpty() || s_unseenPath != path)
        return original(path, status);
    errno = EIO;
    return -1;
}

extern "C" __attribute__((visibility("default"))) uid_t geteuid() noexcept
{
    static auto *const original = reinterpret_cast<uid_t (*)()>(::dlsym(RTLD_NEXT, "geteuid"));
    return s_user.value_or(original());
}

extern "C" __attribute__((visibility("default"))) int statx(
    int folder, const char *path, int flags, unsigned mask, struct statx *status) noexcept
{
    using Function = int (*)(int, const char *, int, unsigned, struct statx *);
    static const auto original = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "statx"));
    const int result = original(folder, path, flags, mask, status);
    if (result == 0 && !s_fixedPath.isEmpty() && s_fixedPath == path)
        status->stx_attributes |= s_attribute;
    return result;
}

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t *thread,
    const pthread_attr_t *attributes, void *(*start)(void *), void *argument) noexcept
{
    using Function = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const auto original = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "pthread_create"));
    return s_threadsAreUsedUp ? EAGAIN : original(thread, attributes, start, argument);
}

/// What a host's program learns of a run besides its texts.
class tst_UpdateProblems : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_scenario.emplace(); }
    void cleanupTestCase() { m_scenario.reset(); }
    void init();
    void cleanup();

    void eachProblemHasItsCode_data();
    void eachProblemHasItsCode();
    void patchIsMadeOfPlainFiles_data();
    void patchIsMadeOfPlainFiles();
    void foldersStandApart_data();
    void foldersStandApart();
    void lockedBuildIsBusy();
    void lockIsTriedAgainAfterASignal();
    void buildThatCannotBeLocked();
    void foldersThatLockNothing();
    void lockFileThatCannotBeLocked();
    void lockFileThatCannotBeMade_data();
    void lockFileThatCannotBeMade();
    void lockFileThatGoesMeanwhile();
    void lockFileThatCannotBeSeen();
    void whoeverOnlyLooksKeepsNobodyOut();
    void planMakesNoLockFile();
    void filesThatCannotBeReplaced_data();
    void filesThatCannotBeReplaced();
    void immutableFileIsRefused();
    void workFolderThatCannotBeWritten_data();
    void workFolderThatCannotBeWritten();
    void sealThatThereAreNoThreadsFor();
    void runThatGetsNoThread_data();
    void runThatGetsNoThread();
    void checkThatGetsNoThread();
    void recoveryNeedsNoMoreThreads();
    void rollbackWithNothingKept();
    void namesAndAdviceAreThereForAll();
    void adviceLeadsOut_data();
    void adviceLeadsOut();
    void folderWithoutRules();
    void phasesInTheirOrder();
    void phasesOfARunThatDoesNothing();
    void phasesAfterACrash();
    void eachStagedFileIsTold();

private:
    std::optional<LogCapture> m_log;
    std::optional<UpdateScenario> m_scenario;
};

void tst_UpdateProblems::init()
{
    m_log.emplace();
    m_scenario->lay();
}

void tst_UpdateProblems::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_UpdateProblems::eachProblemHasItsCode_data()
{
    QTest::addColumn<Prepare>("prepare");
    QTest::addColumn<Code>("code");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("reason");
    const auto row
        = [](const char *name, Code code, const QString &file, const QString &reason,
              const Prepare &prepare) { QTest::newRow(name) << prepare << code << file << reason; };
    row("no build", Code::BadFolder, "build"_s, "cannot be opened: No such file or directory"_s,
        [](const UpdateScenario &scenario) { QDir(scenario.build()).removeRecursively(); });
    row("installed file is missing", Code::DamagedInstall, "build/game.exe"_s, "is missing"_s,
        [](const UpdateScenario &scenario) { scenario.tree().remove("build/game.exe"_s); });
    row("installed file is another", Code::DamagedInstall, "build/data/changed"_s,
        "is not the file that the patch is for"_s, [](const UpdateScenario &scenario) {
            scenario.tree().write("build/data/changed"_s, QByteArray(20480, 'x'));
        });
    row("link in the place of a file", Code::Obstructed, "build/game.exe"_s, "is a symbolic link"_s,
        [](const UpdateScenario &scenario) {
            scenario.tree().remove("build/game.exe"_s);
            scenario.tree().link("build/game.exe"_s, scenario.newBuild() + "/game.exe"_s);
        });
    row("pipe in the place of a file", Code::Obstructed, "build/game.exe"_s, "is no regular file"_s,
        [](const UpdateScenario &scenario) {
            scenario.tree().remove("build/game.exe"_s);
            makePipe(scenario.tree().path("build/game.exe"_s));
        });
    row("link in the place of a folder", Code::Obstructed, "build/added/deep"_s,
        "is a symbolic link"_s, [](const UpdateScenario &scenario) {
            scenario.tree().makeFolder("build/added"_s);
            scenario.tree().link("build/added/deep"_s, scenario.newBuild() + "/added/deep"_s);
        });
    row("player's file in the place of a folder", Code::Obstructed, "build/added/deep"_s,
        "is no folder"_s, [](const UpdateScenario &scenario) {
            scenario.tree().write("build/added/deep"_s, "mine");
        });
    row("player's file in a folder that becomes a file", Code::Obstructed, "build/folder to file"_s,
        "is a folder, and holds files that no rule deletes"_s, [](const UpdateScenario &scenario) {
            scenario.tree().write("build/folder to file/mine"_s, "mine");
        });
    row("own folder is a file", Code::Obstructed, "build/.pellox"_s,
        "is no folder, but where an update keeps its own files"_s,
        [](const UpdateScenario &scenario) { scenario.tree().write("build/.pellox"_s, "mine"); });
    row("journal is no journal", Code::DamagedJournal, "build/.pellox/journal"_s,
        "is damaged; if the build is whole, remove it"_s, [](const UpdateScenario &scenario) {
            scenario.tree().write("build/.pellox/journal"_s, "torn");
        });
}

void tst_UpdateProblems::eachProblemHasItsCode()
{
    QFETCH(Prepare, prepare);
    QFETCH(Code, code);
    QFETCH(QString, file);
    QFETCH(QString, reason);
    prepare(*m_scenario);
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.problems.size(), 1);
    const UpdateProblem &problem = outcome.problems.first();
    QCOMPARE(problem.reason, reason);
    QCOMPARE(problem.codeName(), UpdateProblem({code, QString(), QString()}).codeName());
    QCOMPARE(problem.file, m_scenario->tree().path(file));
    QCOMPARE(outcome.errors, QStringList(problem.file + ": "_s + problem.reason));
    QCOMPARE(outcome.errors, QStringList(problem.message()));
}

void tst_UpdateProblems::patchIsMadeOfPlainFiles_data()
{
    QTest::addColumn<QString>("taken");
    QTest::addColumn<Prepare>("replace");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("reason");
    const QString deep = "patch/added/deep"_s;
    const QString game = "patch/game.exe"_s;
    QTest::newRow("a file is a pipe") << game << Prepare([=](const UpdateScenario &scenario) {
        makePipe(scenario.tree().path(game));
    }) << game << "is no regular file"_s;
    QTest::newRow("a file is a link") << game << Prepare([=](const UpdateScenario &scenario) {
        scenario.tree().link(game, scenario.tree().path("taken"_s));
    }) << game << "is no regular file"_s;
    QTest::newRow("a folder is a link") << deep << Prepare([=](const UpdateScenario &scenario) {
        scenario.tree().link(deep, scenario.tree().path("taken"_s));
    }) << deep + "/program"_s
                                        << "is reached through a symbolic link"_s;
    QTest::newRow("a file is missing")
        << game << Prepare([](const UpdateScenario &) {}) << game << "is missing from the patch"_s;
}

/// What stands at one of its paths is the publisher's own file, or the patch is refused.
void tst_UpdateProblems::patchIsMadeOfPlainFiles()
{
    QFETCH(QString, taken);
    QFETCH(Prepare, replace);
    QFETCH(QString, file);
    QFETCH(QString, reason);
    const TestTree &tree = m_scenario->tree();
    QVERIFY(QDir().rename(tree.path(taken), tree.path("taken"_s)));
    replace(*m_scenario);
    const UpdateOutcome outcome = m_scenario->update();
    QFile::remove(tree.path(taken));
    QVERIFY(QDir().rename(tree.path("taken"_s), tree.path(taken)));
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code == Code::BadPatch);
    QCOMPARE(outcome.errors, QStringList(tree.path(file) + ": "_s + reason));
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->update().result, Result::Updated);
}

void tst_UpdateProblems::foldersStandApart_data()
{
    QTest::addColumn<QString>("patch");
    QTest::addColumn<QString>("fallback"); // may be empty
    QTest::addColumn<QString>("refused");
    QTest::newRow("patch in the build") << "build/mods"_s << QString() << "build/mods"_s;
    QTest::newRow("patch is the build") << "build"_s << QString() << "build"_s;
    QTest::newRow("fallback in the build") << "patch"_s
                                           << "build/mods"_s
                                           << "build/mods"_s;
    QTest::newRow("fallback holds the build") << "patch"_s
                                              << "."_s
                                              << "."_s;
}

void tst_UpdateProblems::foldersStandApart()
{
    QFETCH(QString, patch);
    QFETCH(QString, fallback);
    QFETCH(QString, refused);
    const TestTree &tree = m_scenario->tree();
    const auto absolute = [&](const QString &path) { return QDir::cleanPath(tree.path(path)); };
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        if (!fallback.isEmpty())
            updater.setFallbackSource(absolute(fallback));
        return updater.update(m_scenario->build(), absolute(patch));
    });
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code == Code::BadFolder);
    QCOMPARE(outcome.errors,
        QStringList(
            absolute(refused) + ": must not be, hold or lie inside of "_s + m_scenario->build()));
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QCOMPARE(m_scenario->touchedFile(), QString());
}

void tst_UpdateProblems::lockedBuildIsBusy()
{
    const int folder
        = ::open(QFile::encodeName(m_scenario->build()).constData(), O_RDONLY | O_DIRECTORY);
    QVERIFY(folder >= 0 && ::flock(folder, LOCK_EX | LOCK_NB) == 0);
    const UpdateOutcome outcome = m_scenario->update();
    ::close(folder);
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code == Code::Busy);
    QCOMPARE(outcome.problems.first().file, m_scenario->build());
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_UpdateProblems::lockIsTriedAgainAfterASignal()
{
    s_errors = {EINTR, EINTR, EINTR};
    const UpdateOutcome outcome = m_scenario->update();
    QVERIFY(s_errors.isEmpty());
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
}

/// It is not that somebody else would have it.
void tst_UpdateProblems::buildThatCannotBeLocked()
{
    s_errors = {ENOLCK};
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code != Code::Busy);
    QCOMPARE(outcome.problems.first().file, m_scenario->build());
    QVERIFY(outcome.problems.first().reason.startsWith("cannot be locked: "_s));
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

/// As on NFS, where only what is open for writing can be locked.
void tst_UpdateProblems::foldersThatLockNothing()
{
    s_foldersLock = false;
    const UpdateOutcome outcome = m_scenario->update();
    const UpdateOutcome again = m_scenario->update();
    m_scenario->tree().write("build/.pellox/lock"_s, QByteArray()); // of a run that was killed
    const int lock
        = ::open(QFile::encodeName(m_scenario->build() + "/.pellox/lock"_s).constData(), O_RDWR);
    const UpdateOutcome afterCrash = m_scenario->update();
    const bool isRemoved = !m_scenario->tree().exists("build/.pellox"_s);
    m_scenario->tree().write("build/.pellox/lock"_s, QByteArray());
    const int held
        = ::open(QFile::encodeName(m_scenario->build() + "/.pellox/lock"_s).constData(), O_RDWR);
    const bool isHeld = ::flock(held, LOCK_EX | LOCK_NB) == 0;
    const UpdateOutcome busy = m_scenario->update();
    const auto plan = UpdateController().plan(m_scenario->build(), m_scenario->patch());
    ::close(held);
    ::close(lock);
    s_foldersLock = true;
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(again.result, Result::AlreadyUpToDate);
    QCOMPARE(afterCrash.result, Result::AlreadyUpToDate);
    QVERIFY(isRemoved);
    QVERIFY(isHeld);
    QCOMPARE(busy.result, Result::Refused);
    QVERIFY(busy.problems.first().code == Code::Busy);
    QCOMPARE(busy.problems.first().file, m_scenario->build());
    QCOMPARE(plan.refusals.size(), 1);
    QVERIFY(plan.refusals.first().code == Code::Busy);
    m_scenario->tree().remove("build/.pellox"_s);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_UpdateProblems::lockFileThatCannotBeLocked()
{
    s_errors = {EBADF, ENOLCK};
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QCOMPARE(outcome.problems.first().file, m_scenario->build() + "/.pellox/lock"_s);
    QVERIFY(outcome.problems.first().reason.startsWith("cannot be locked: "_s));
}

void tst_UpdateProblems::lockFileThatCannotBeMade_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("reason");
    QTest::newRow("a file where its folder goes") << ".pellox"_s
                                                  << "cannot be made: File exists"_s;
    QTest::newRow("a folder in its place") << ".pellox/lock/x"_s
                                           << "cannot be opened: Is a directory"_s;
}

/// On a file system that locks no folders.
void tst_UpdateProblems::lockFileThatCannotBeMade()
{
    QFETCH(QString, path);
    QFETCH(QString, reason);
    m_scenario->tree().write("build/"_s + path, "mine");
    const auto before = TestTree::snapshot(m_scenario->build());
    s_foldersLock = false;
    const UpdateOutcome outcome = m_scenario->update();
    s_foldersLock = true;
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.errors.size(), 1);
    QVERIFY2(outcome.errors.first().endsWith(": "_s + reason), qPrintable(outcome.errors.first()));
    QVERIFY(outcome.errors.first().startsWith(m_scenario->build() + "/.pellox"_s));
    QVERIFY(outcome.problems.first().code == Code::BadFolder);
    QCOMPARE(TestTree::snapshot(m_scenario->build()), before);
}

/// Who has had it removes it, between our opening and our locking it.
void tst_UpdateProblems::lockFileThatGoesMeanwhile()
{
    const QString lock = m_scenario->build() + "/.pellox/lock"_s;
    s_errors = {EBADF};
    s_beforeLock = [&] {
        if (QFile::remove(lock))
            s_beforeLock = nullptr;
    };
    const UpdateOutcome outcome = m_scenario->update();
    const bool wasRemoved = !s_beforeLock;
    s_beforeLock = nullptr;
    QVERIFY(wasRemoved);
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// Whether it is the one that others find is not to be known; the run ends all the same.
void tst_UpdateProblems::lockFileThatCannotBeSeen()
{
    const QString lock = m_scenario->build() + "/.pellox/lock"_s;
    s_foldersLock = false;
    s_unseenPath = QFile::encodeName(lock);
    const UpdateOutcome outcome = m_scenario->update();
    s_unseenPath.clear();
    const UpdateOutcome later = m_scenario->update();
    s_foldersLock = true;
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.errors,
        QStringList(lock + ": cannot be looked at: "_s + QString::fromLocal8Bit(strerror(EIO))));
    QCOMPARE(later.result, Result::Updated);
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// A check and a plan at the same moment, and an update that comes to it.
void tst_UpdateProblems::whoeverOnlyLooksKeepsNobodyOut()
{
    const int folder
        = ::open(QFile::encodeName(m_scenario->build()).constData(), O_RDONLY | O_DIRECTORY);
    QVERIFY(folder >= 0 && ::flock(folder, LOCK_SH | LOCK_NB) == 0);
    const auto plan = UpdateController().plan(m_scenario->build(), m_scenario->patch());
    ::close(folder);
    QCOMPARE(plan.refusals.size(), 0);
    QVERIFY(plan.filesToPatch > 0);

    s_errors = {EWOULDBLOCK, EWOULDBLOCK};
    const UpdateOutcome outcome = m_scenario->update();
    s_errors.clear();
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
}

void tst_UpdateProblems::planMakesNoLockFile()
{
    s_foldersLock = false;
    bool isMade = false;
    s_beforeLock = [&] { isMade |= m_scenario->tree().exists("build/.pellox"_s); };
    const auto plan = UpdateController().plan(m_scenario->build(), m_scenario->patch());
    s_beforeLock = nullptr;
    s_foldersLock = true;
    QCOMPARE(plan.refusals.size(), 0);
    QVERIFY(!isMade);
}

void tst_UpdateProblems::filesThatCannotBeReplaced_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<quint64>("attribute");
    QTest::addColumn<bool>("sticky");
    QTest::addColumn<int>("user"); // -1: who really runs this
    QTest::addColumn<bool>("refused");
    constexpr quint64 Immutable = STATX_ATTR_IMMUTABLE;
    constexpr quint64 Append = STATX_ATTR_APPEND;
    constexpr int Other = 12345;
    const auto row = [](const char *name, const char *path, quint64 attribute, bool sticky,
                         int user, bool refused) {
        QTest::newRow(name) << QString::fromLatin1(path) << attribute << sticky << user << refused;
    };
    row("immutable", "data/changed", Immutable, false, -1, true);
    row("immutable, to be deleted", "gone", Immutable, false, -1, true);
    row("append only", "data/changed", Append, false, -1, true);
    row("append only folder", "data", Append, false, -1, true);
    row("append only build", "", Append, false, -1, true);
    row("another attribute", "data/changed", STATX_ATTR_NODUMP, false, -1, false);
    row("immutable, of no rule", "mods/mod.pak", Immutable, false, -1, false);
    row("others' in a sticky folder", "data/changed", 0, true, Other, true);
    row("others' in a sticky build", "game.exe", 0, true, Other, true);
    row("others' to be deleted in a sticky folder", "saves/gone", 0, true, Other, true);
    row("others' in a sticky folder, by root", "data/changed", 0, true, 0, false);
    row("own in a sticky folder", "data/changed", 0, true, -1, false);
    row("others' in a folder that is not sticky", "data/changed", 0, false, Other, false);
}

/// Else it would turn out when others are replaced already.
void tst_UpdateProblems::filesThatCannotBeReplaced()
{
    QFETCH(QString, path);
    QFETCH(quint64, attribute);
    QFETCH(bool, sticky);
    QFETCH(int, user);
    QFETCH(bool, refused);
    const QString file
        = path.isEmpty() ? m_scenario->build() : m_scenario->tree().path("build/"_s + path);
    const QByteArray folder = QFile::encodeName(QFileInfo(file).path());
    constexpr mode_t Plain = 0755;
    QCOMPARE(::chmod(folder.constData(), sticky ? Plain | S_ISVTX : Plain), 0);
    s_fixedPath = QFile::encodeName(file);
    s_attribute = attribute;
    if (user >= 0)
        s_user = static_cast<uid_t>(user);
    const UpdateOutcome outcome = m_scenario->update();
    s_attribute = 0;
    s_user.reset();
    ::chmod(folder.constData(), Plain);
    QCOMPARE(outcome.result, refused ? Result::Refused : Result::Updated);
    QVERIFY(refused || outcome.problems.isEmpty());
    QStringList named;
    for (const UpdateProblem &problem : outcome.problems) {
        QVERIFY2(problem.code == Code::NotWritable, qPrintable(problem.message()));
        named.append(problem.file);
    }
    QVERIFY2(!refused || named.contains(file), qPrintable(named.join(QLatin1Char(' '))));
    QCOMPARE(refused ? m_scenario->differenceToOld() : m_scenario->differenceToNew(), QString());
}

void tst_UpdateProblems::workFolderThatCannotBeWritten_data()
{
    QTest::addColumn<QString>("folder");
    QTest::newRow("the folder") << ".pellox"_s;
    QTest::newRow("that of staged files") << ".pellox/staged"_s;
}

/// Nothing could be staged there, and a plan would have promised it.
void tst_UpdateProblems::workFolderThatCannotBeWritten()
{
    QFETCH(QString, folder);
    const QString path = m_scenario->tree().path("build/"_s + folder);
    m_scenario->tree().write("build/.pellox/mine"_s, "mine"); // it stays
    m_scenario->tree().makeFolder("build/.pellox/staged"_s);
    s_fixedPath = QFile::encodeName(path);
    s_attribute = STATX_ATTR_IMMUTABLE;
    const auto plan = UpdateController().plan(m_scenario->build(), m_scenario->patch());
    const UpdateOutcome outcome = m_scenario->update();
    s_attribute = 0;
    QCOMPARE(plan.refusals.size(), 1);
    QCOMPARE(plan.refusals.first().codeName(), "not-writable"_s);
    QCOMPARE(plan.refusals.first().file, path);
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QCOMPARE(outcome.problems.first().codeName(), "not-writable"_s);
    QCOMPARE(outcome.problems.first().file, path);
    m_scenario->tree().remove("build/.pellox"_s);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

/// A real one, where the file system and the user's rights allow it.
void tst_UpdateProblems::immutableFileIsRefused()
{
    const QString file = m_scenario->build() + "/data/changed"_s;
    QProcess chattr;
    chattr.start("chattr"_s, {"+i"_s, file});
    if (!chattr.waitForFinished(Patience) || chattr.exitCode() != 0)
        QSKIP("no file can be made immutable here");
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(QProcess::execute("chattr"_s, {"-i"_s, file}), 0);
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code == Code::NotWritable);
    QCOMPARE(outcome.problems.first().file, file);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

/// That is no fault of the patch's.
void tst_UpdateProblems::sealThatThereAreNoThreadsFor()
{
    const TestTree keys;
    QString error;
    if (!Pellox::PatchSeal::generateKey(keys.path("key"_s), keys.path("key.pub"_s), &error))
        QSKIP("built without libcrypto");
    Pellox::PatchSeal sealer;
    QVERIFY2(sealer.seal(m_scenario->patch(), m_scenario->oldSignatures(), 1, {keys.path("key"_s)}),
        qPrintable(sealer.error()));
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        updater.setTrustedKeys({keys.path("key.pub"_s)});
        connect( // by then the run has its own
            &updater, &UpdateController::phaseChanged, &updater, [] { s_threadsAreUsedUp = true; },
            Qt::DirectConnection);
        connect(
            &updater, &UpdateController::problemFound, &updater, [] { s_threadsAreUsedUp = false; },
            Qt::DirectConnection);
        return updater.update(m_scenario->build(), m_scenario->patch());
    });
    s_threadsAreUsedUp = false;
    m_scenario->tree().remove("patch/patchSeal.json"_s);
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QCOMPARE(outcome.problems.first().codeName(), "no-memory"_s);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_UpdateProblems::runThatGetsNoThread_data()
{
    QTest::addColumn<Start>("start");
    QTest::newRow("update") << Start([](UpdateController &updater, const UpdateScenario &scenario) {
        return updater.update(scenario.build(), scenario.patch());
    });
    QTest::newRow("recover") << Start(
        [](UpdateController &updater, const UpdateScenario &scenario) {
            return updater.recover(scenario.build());
        });
    QTest::newRow("rollback") << Start(
        [](UpdateController &updater, const UpdateScenario &scenario) {
            return updater.rollback(scenario.build());
        });
}

/// The pool would let it wait for ever.
void tst_UpdateProblems::runThatGetsNoThread()
{
    QFETCH(Start, start);
    {
        UpdateController updater;
        QVector<UpdateProblem> problems;
        bool hasEnded = false;
        connect(&updater, &UpdateController::problemFound, this,
            [&](const UpdateProblem &problem) { problems.append(problem); });
        connect(&updater, &UpdateController::finished, this, [&] { hasEnded = true; });
        s_threadsAreUsedUp = true;
        const bool started = start(updater, *m_scenario);
        s_threadsAreUsedUp = false;
        QVERIFY(!started);
        QVERIFY(!updater.isRunning());
        QVERIFY(!hasEnded);
        QCOMPARE(problems.size(), 1);
        QCOMPARE(problems.first().codeName(), "no-memory"_s);
        QCOMPARE(problems.first().file, m_scenario->build());
        QCOMPARE(m_scenario->differenceToOld(), QString());
    }
    QCOMPARE(m_scenario->update().result, Result::Updated);
}

void tst_UpdateProblems::checkThatGetsNoThread()
{
    IntegrityController checker;
    QVector<UpdateProblem> problems;
    connect(&checker, &IntegrityController::problemFound, this,
        [&](const UpdateProblem &problem) { problems.append(problem); });
    s_threadsAreUsedUp = true;
    const bool checks = checker.check(m_scenario->build(), m_scenario->signatures());
    const bool repairs
        = checker.repair(m_scenario->build(), m_scenario->signatures(), m_scenario->newBuild());
    const bool records = checker.recordRelease(
        m_scenario->build(), m_scenario->signatures(), m_scenario->patch(), {});
    s_threadsAreUsedUp = false;
    QVERIFY(!checks && !repairs && !records);
    QVERIFY(!checker.isRunning());
    QCOMPARE(problems.size(), 3);
    for (const UpdateProblem &problem : std::as_const(problems))
        QCOMPARE(problem.codeName(), "no-memory"_s);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

/// Until it is finished the build is neither old nor new.
void tst_UpdateProblems::recoveryNeedsNoMoreThreads()
{
    const TestTree tree;
    const QByteArray content("the new content");
    const auto sum = [](const QByteArray &bytes) {
        return QCryptographicHash::hash(bytes, QCryptographicHash::Sha512).toHex();
    };
    const QByteArray mark = "{\"size\":" + QByteArray::number(content.size()) + ",\"sha512\":\""
        + sum(content) + "\"}";
    const QByteArray line = "{\"version\":2,\"first\":[[\"/one.temp\",\"/one\"," + mark
        + "],[\"/two.temp\",\"/two\"," + mark + "]],\"delete\":[],\"last\":[]}\n";
    tree.write("build/.pellox/journal"_s, line + sum(line) + '\n');
    tree.write("build/one.temp"_s, content);
    tree.write("build/two.temp"_s, QByteArray(content.size(), 'x'));
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        connect( // by then the run has its own
            &updater, &UpdateController::phaseChanged, &updater, [] { s_threadsAreUsedUp = true; },
            Qt::DirectConnection);
        return updater.recover(tree.path("build"_s));
    });
    s_threadsAreUsedUp = false;
    QCOMPARE(outcome.result, Result::Failed);
    QCOMPARE(outcome.problems.size(), 1);
    QCOMPARE(outcome.problems.first().codeName(), "damaged-install"_s);
    QCOMPARE(outcome.problems.first().file, tree.path("build/two"_s));
    QCOMPARE(tree.read("build/one"_s), content);
    QVERIFY(!tree.exists("build/two"_s));
    QVERIFY(!tree.exists("build/.pellox"_s));
}

void tst_UpdateProblems::rollbackWithNothingKept()
{
    const UpdateOutcome outcome = m_scenario->rollback();
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code == Code::NothingKept);
}

void tst_UpdateProblems::namesAndAdviceAreThereForAll()
{
    QSet<QString> names;
    for (int code = static_cast<int>(Code::BadFolder); code <= static_cast<int>(Code::NoMemory);
         ++code) {
        const UpdateProblem problem{static_cast<Code>(code), QString(), "reason"_s};
        QVERIFY2(QRegularExpression("^[a-z]+(-[a-z]+)*$"_s).match(problem.codeName()).hasMatch(),
            qPrintable(problem.codeName()));
        QVERIFY(problem.advice().endsWith(QLatin1Char('.')));
        QCOMPARE(problem.message(), "reason"_s);
        names.insert(problem.codeName());
    }
    QCOMPARE(names.size(), static_cast<int>(Code::NoMemory));
}

void tst_UpdateProblems::adviceLeadsOut_data()
{
    QTest::addColumn<Code>("code");
    QTest::addColumn<QString>("words");
    QTest::newRow("patch for another release")
        << Code::DamagedInstall << "the patch is for another release"_s;
    QTest::newRow("damaged build") << Code::DamagedInstall << "check and repair the build"_s;
    QTest::newRow("newer patch") << Code::OlderRelease << "a newer patch"_s;
    QTest::newRow("going back") << Code::OlderRelease << "allow older releases"_s;
    QTest::newRow("not a patch's folder") << Code::BadManifest << "the right folder"_s;
    QTest::newRow("wrong key") << Code::BadKey << "public key"_s;
}

void tst_UpdateProblems::adviceLeadsOut()
{
    QFETCH(Code, code);
    QFETCH(QString, words);
    const QString advice = UpdateProblem{code, QString(), QString()}.advice();
    QVERIFY2(advice.contains(words), qPrintable(advice));
}

void tst_UpdateProblems::folderWithoutRules()
{
    const UpdateOutcome outcome = outcomeOf([&](UpdateController &updater) {
        return updater.update(m_scenario->build(), m_scenario->newBuild());
    });
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.problems.size(), 1);
    QVERIFY(outcome.problems.first().code == Code::BadManifest);
    QCOMPARE(outcome.problems.first().file, m_scenario->newBuild() + "/patchRules.json"_s);
    QCOMPARE(m_scenario->differenceToOld(), QString());
}

void tst_UpdateProblems::phasesInTheirOrder()
{
    const UpdateOutcome outcome = m_scenario->update(true);
    QCOMPARE(outcome.result, Result::Updated);
    QVERIFY(outcome.phases == QVector<Phase>({Phase::Checking, Phase::Staging, Phase::Committing}));
    QVERIFY(m_scenario->rollback().phases == QVector<Phase>({Phase::Checking, Phase::Committing}));
}

void tst_UpdateProblems::phasesOfARunThatDoesNothing()
{
    m_scenario->layNew();
    const UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.result, Result::AlreadyUpToDate);
    QVERIFY(outcome.phases == QVector<Phase>({Phase::Checking}));
    QVERIFY(m_scenario->recover().phases.isEmpty());
}

void tst_UpdateProblems::phasesAfterACrash()
{
    m_scenario->tree().write("build/.pellox/journal"_s, "torn");
    QVERIFY(m_scenario->update().phases == QVector<Phase>({Phase::Finishing}));
}

void tst_UpdateProblems::eachStagedFileIsTold()
{
    UpdateOutcome outcome = m_scenario->update();
    QCOMPARE(outcome.result, Result::Updated);
    QStringList expected;
    for (auto file = m_scenario->newFiles().cbegin(); file != m_scenario->newFiles().cend();
         ++file) {
        if (file.key() != "data/unchanged"_s)
            expected.append(QLatin1Char('/') + file.key());
    }
    outcome.staged.sort();
    expected.sort();
    QCOMPARE(outcome.staged, expected);
}

QTEST_GUILESS_MAIN(tst_UpdateProblems)

#include "tst_updateproblems.moc"
