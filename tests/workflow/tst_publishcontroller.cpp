// SPDX-License-Identifier: MIT
#include "foldercompare.h"
#include "leftovers.h"
#include "literals.h"
#include "logcapture.h"
#include "patience.h"
#include "testtree.h"

#include <Pellox/deltacontroller.h>
#include <Pellox/publishcontroller.h>
#include <Pellox/signaturescontroller.h>

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QMutexLocker>
#include <QProcess>
#include <QRandomGenerator>
#include <QThread>
#include <QThreadPool>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>
#include <optional>
#include <thread>

#include <dlfcn.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using Pellox::DeltaController;
using Pellox::PublishController;
using Pellox::SignaturesController;

using Build = QMap<QString, QByteArray>; // content by relative path

namespace {

constexpr int Block = 2048;
constexpr qint64 MiB = 1 << 20;

/// The paths of one release.
struct Paths
{
    QString build;
    QString oldSignatures;
    QString patch;
    QString signatures;
};

/// Whether @p message begins with @p path and not with a longer one.
bool namesFirst(const QString &message, const QString &path)
{
    if (path.isEmpty() || !message.startsWith(path))
        return false;
    const QChar next = message.size() > path.size() ? message.at(path.size()) : QLatin1Char(':');
    return !next.isLetterOrNumber() && next != QLatin1Char('/') && next != QLatin1Char('.');
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

QJsonArray recordsIn(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).array();
}

/// A manifest of either kind, as far as it says which files there are.
QByteArray manifestNaming(const QStringList &paths)
{
    QJsonArray records;
    for (const QString &path : paths)
        records.append(QJsonObject{{"relative_path"_s, QLatin1Char('/') + path}});
    return QJsonDocument(records).toJson();
}

/// What stands in the hidden file of a run that was killed.
QByteArray markerOf(const QByteArray &manifest, const QByteArrayList &paths)
{
    QByteArray marker = '\0' + manifest + '\0';
    for (const QByteArray &path : paths)
        marker += '/' + path + '\0';
    return marker + '\0';
}

std::atomic<qint64> s_readable{-1}; // bytes that reads of large files get; -1: all
std::atomic<bool> s_wasHeld{false}; // a read has waited

} // namespace

/// Stands before that of the system for the whole process.
extern "C" __attribute__((visibility("default"))) ssize_t pread(
    int file, void *buffer, size_t size, off_t position)
{
    static auto *const original
        = reinterpret_cast<ssize_t (*)(int, void *, size_t, off_t)>(dlsym(RTLD_NEXT, "pread"));
    constexpr size_t SizeForLargeFiles = 1 << 15;
    const QDeadlineTimer patience(size < SizeForLargeFiles ? 0 : Patience);
    while (s_readable == 0 && !patience.hasExpired()) {
        s_wasHeld = true;
        QThread::msleep(1);
    }
    qint64 left = s_readable;
    while (size >= SizeForLargeFiles && left > 0
        && !s_readable.compare_exchange_weak(left, std::max<qint64>(0, left - qint64(size)))) { }
    return original(file, buffer, size, position);
}

namespace {

/// While it lives, reads of large files wait as soon as that much has been read: a run is in their
/// midst, however late its progress is told.
class HeldReading
{
public:
    explicit HeldReading(qint64 bytes)
    {
        s_wasHeld = false;
        s_readable = bytes;
    }
    ~HeldReading() { release(); }
    HeldReading(const HeldReading &) = delete;
    HeldReading &operator=(const HeldReading &) = delete;

    void allow(qint64 bytes) { s_readable = bytes; }
    void release() { s_readable = -1; }
    /// Waits until a read does. False when none does.
    static bool isReached()
    {
        const QDeadlineTimer patience(Patience);
        while (!s_wasHeld && !patience.hasExpired())
            QThread::msleep(1);
        return s_wasHeld;
    }
};

int openDescriptors()
{
    return QDir("/proc/self/fd"_s).entryList(QDir::AllEntries | QDir::System).size();
}

/// What this process has read by now, in bytes, or -1.
qint64 bytesRead()
{
    for (const QByteArray &line : contentOf("/proc/self/io"_s).split('\n')) {
        if (line.startsWith("rchar:"))
            return line.mid(6).trimmed().toLongLong();
    }
    return -1;
}

/// A file of @p size zeros that takes no room on the disk, to be read for a while.
void makeLargeFile(const QString &path, qint64 size)
{
    QFile file(path);
    if (!QDir().mkpath(QFileInfo(path).path()) || !file.open(QIODevice::WriteOnly)
        || !file.resize(size))
        qFatal("cannot make %s", qPrintable(path));
}

/// Lets the process write no file beyond so many bytes while it lives.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
        : m_previousHandler(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &m_previous);
        rlimit lowered = m_previous;
        lowered.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lowered);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_previous);
        std::signal(SIGXFSZ, m_previousHandler);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;

private:
    void (*m_previousHandler)(int);
    rlimit m_previous{};
};

/// A file system of little room on a folder, while it lives.
class SmallDisk
{
public:
    SmallDisk(const QString &folder, const char *size)
        : m_folder(QFile::encodeName(folder))
    {
        m_isMounted = ::mount("tmpfs", m_folder.constData(), "tmpfs", 0, size) == 0;
        m_reason = QString::fromLocal8Bit(std::strerror(errno));
    }
    ~SmallDisk()
    {
        if (m_isMounted)
            ::umount2(m_folder.constData(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk &) = delete;
    SmallDisk &operator=(const SmallDisk &) = delete;

    bool isMounted() const { return m_isMounted; }
    QString reason() const { return m_reason; } ///< why it is not

private:
    const QByteArray m_folder;
    bool m_isMounted = false;
    QString m_reason;
};

/// Runs rdiff's signature command on @p file.
bool signWithRdiff(const QString &file, const QString &signature, const QStringList &options)
{
    QFile::remove(signature);
    const QStringList arguments
        = QStringList("signature"_s) + options + QStringList{file, signature};
    return QProcess::execute(QStringLiteral(RDIFF_PROGRAM), arguments) == 0;
}

} // namespace

Q_DECLARE_METATYPE(Paths)

/// Each test has a folder of its own with the builds "old" and "new". The calls read "new" and
/// "old signatures" and write "patch" and "signatures".
class tst_PublishController : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void belongsToItsParent();
    void threadCountIsKept();
    void threadCountCountsFromTheNextCall();

    void progressRunsFromZeroToAHundred_data();
    void progressRunsFromZeroToAHundred();
    void progressComesOftenDuringALargeFile();
    void progressDoesNotFallWhereAFileIsReadAgain();
    void emptyCallbackIsNone_data();
    void emptyCallbackIsNone();
    void anyThreadMayCall();
    void twoMayWorkAtOnce();

    void pathsMayTakeAnyForm_data();
    void pathsMayTakeAnyForm();
    void foldersAreMadeWithTheirParents_data();
    void foldersAreMadeWithTheirParents();
    void foldersAreMadeByAllThreads();
    void hiddenFilesAreNoPartOfABuild();
    void emptyBuilds_data();
    void emptyBuilds();
    void inputsAreLeftAsTheyAre();

    void copiesKeepTheirPermissions_data();
    void copiesKeepTheirPermissions();

    void ignoredFiles_data();
    void ignoredFiles();
    void nearMissesAreNotIgnored_data();
    void nearMissesAreNotIgnored();
    void ignoredFilesAreSigned();
    void fileOfTheOldBuildAloneIsDeletedThoughIgnored();

    void nextReleaseStartsFromTheNewSignatures();

    void olderReleaseIsReplaced_data();
    void olderReleaseIsReplaced();
    void linksInAnOlderReleaseAreNotFollowed();
    void hiddenFilesOfOthersAreLeftAlone_data();
    void hiddenFilesOfOthersAreLeftAlone();
    void foreignFolderIsRefused_data();
    void foreignFolderIsRefused();
    void foreignFileBesideARelease_data();
    void foreignFileBesideARelease();
    void sealIsPartOfAnOlderRelease();
    void tellsBeforehandWhichFoldersItTakes();
    void tellsTheSizeOfASignature();
    void anotherRunWritesThere_data();
    void anotherRunWritesThere();
    void failureBeforehandLeavesTheOlderRelease_data();
    void failureBeforehandLeavesTheOlderRelease();
    void earlyCancelLeavesTheOlderRelease();
    void callbackThatThrows_data();
    void callbackThatThrows();
    void climbsBehindALink();
    void folderOfACrashedRunIsTaken_data();
    void folderOfACrashedRunIsTaken();
    void emptyFolderIsTaken();
    void overlappingFoldersAreRefused_data();
    void overlappingFoldersAreRefused();
    void similarNamesDoNotOverlap();

    void tellsWhichFilesAreSigned();
    void unusableSignatureRecords_data();
    void unusableSignatureRecords();
    void recordWithoutAChecksum();
    void signatureThatIsNeeded_data();
    void signatureThatIsNeeded();
    void signatureToTakeOverMustFitTheFile_data();
    void signatureToTakeOverMustFitTheFile();
    void signatureOfALargeFileMustBeItsOwn();
    void signaturesThatAreNotNeeded();

    void filesNamedLikeManifests_data();
    void filesNamedLikeManifests();
    void unreadableNewFile_data();
    void unreadableNewFile();
    void unusableBuildFolder_data();
    void unusableBuildFolder();
    void buildThatMovesUnderTheRun_data();
    void buildThatMovesUnderTheRun();

    void blockedOutput_data();
    void blockedOutput();
    void fileThatCannotBeWrittenWhole_data();
    void fileThatCannotBeWrittenWhole();
    void fullDisk_data();
    void fullDisk();

    void cancelFromTheCallback_data();
    void cancelFromTheCallback();
    void cancelAtAnyInstant();
    void cancelStopsReading();
    void cancelBeforeARunDoesNothing();
    void wasCancelledIsOfTheLastCall();

    void planIsWhatThePatchWillSay();
    void planWritesNothing();
    void planOfEqualBuildsIsEmpty();
    void planNeedsBothFolders_data();
    void planNeedsBothFolders();

    void readsNoMoreThanPromised_data();
    void readsNoMoreThanPromised();

private:
    QString path(const QString &relative) const { return m_tree->path(relative); }
    void lay(const QString &folder, const Build &build) const;
    void layRelease() const;
    void signOld() const;
    void makeExpectation(const QStringList &ignored = QStringList()) const;
    QString differenceToExpectation() const;

    bool call(const QString &name, const PROGRESS_CALLBACK &progress = PROGRESS_CALLBACK());
    QString failureProblem(const QString &name, const QStringList &culprits);
    QStringList ruleLines() const;

    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
    std::optional<PublishController> m_publisher;
    Paths m_paths; ///< absolute ones before each test
    QStringList m_ignored;
    QVariantList m_plan;  ///< of the last call
    QStringList m_errors; ///< not taken yet
    Leftovers m_leftovers;
    int m_descriptors = 0;
};

/// The call must fail as promised: false, with one error that begins with one of the paths, and
/// without a manifest.
#define EXPECT_FAILURE(name, ...)                                                                  \
    QCOMPARE(failureProblem(name, QStringList{__VA_ARGS__}), QString())

#define EXPECT_CALL(name)                                                                          \
    do {                                                                                           \
        const bool done = call(name);                                                              \
        QVERIFY2(done, qPrintable(m_errors.join(QLatin1Char('\n'))));                              \
        QVERIFY(!m_publisher->wasCancelled());                                                     \
    } while (false)

void tst_PublishController::initTestCase()
{
    useMemoryForFiles();
    m_leftovers.begin();
}

void tst_PublishController::init()
{
    m_log.emplace();
    m_tree.emplace();
    m_tree->makeFolder("old"_s);
    m_tree->makeFolder("new"_s);
    m_paths = {path("new"_s), path("old signatures"_s), path("patch"_s), path("signatures"_s)};
    m_ignored.clear();
    m_plan.clear();
    m_descriptors = openDescriptors();
    m_publisher.emplace();
    connect(
        &*m_publisher, &PublishController::publishError, this,
        [this](const QString &message) { m_errors.append(message); }, Qt::DirectConnection);
}

void tst_PublishController::cleanup()
{
    QThreadPool::globalInstance()->waitForDone(); // that of the core
    QCOMPARE(m_leftovers.found(), QByteArray());
    QCOMPARE(openDescriptors(), m_descriptors);
    QDir::setCurrent(QDir::rootPath());
    const QStringList errors = m_errors;
    m_errors.clear();
    m_publisher.reset();
    QCOMPARE(errors, QStringList());
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_tree.reset();
    m_log.reset();
}

void tst_PublishController::lay(const QString &folder, const Build &build) const
{
    m_tree->makeFolder(folder);
    for (auto file = build.cbegin(); file != build.cend(); ++file)
        m_tree->write(folder + QLatin1Char('/') + file.key(), file.value());
}

/// A release with all that there is: files that stay, change in place, change their length, come,
/// go and are moved into a folder.
void tst_PublishController::layRelease() const
{
    const QByteArray game = randomBytes(40000, 1);
    const QByteArray world = randomBytes(10 * Block, 2);
    QByteArray newWorld = world;
    newWorld.replace(3000, 5, "flood");
    lay("old"_s,
        {{"README"_s, "read me"}, {"game.exe"_s, game}, {"data/world.pak"_s, world},
            {"data/intro.txt"_s, "once upon a time"}, {"data/empty"_s, ""}});
    lay("new"_s,
        {{"README"_s, "read me"}, {"game.exe"_s, game.mid(5000) + "more"},
            {"data/world.pak"_s, newWorld}, {"data/levels/caves.map"_s, randomBytes(9000, 3)},
            {"data/empty"_s, ""}});
    if (::chmod(qPrintable(path("new/data/levels/caves.map"_s)), 0755) != 0)
        qFatal("cannot set permissions");
    signOld();
}

void tst_PublishController::signOld() const
{
    SignaturesController().createSignatures(path("old"_s), path("old signatures"_s));
}

/// What the core makes of "new" and "old signatures".
void tst_PublishController::makeExpectation(const QStringList &ignored) const
{
    SignaturesController().createSignatures(path("new"_s), path("expected/signatures"_s));
    if (!DeltaController().createPatch(path("new"_s), path("old signatures"_s),
            path("expected/patch"_s), ignored, PROGRESS_CALLBACK()))
        qFatal("the core makes no patch");
    QThreadPool::globalInstance()->waitForDone(); // else its threads stay for a while
}

QString tst_PublishController::differenceToExpectation() const
{
    const QString difference = differenceBetween(path("expected/patch"_s), path("patch"_s));
    return difference.isEmpty()
        ? differenceBetween(path("expected/signatures"_s), path("signatures"_s))
        : difference;
}

/// "sign", "diff", "publish" or "plan" with m_paths and m_ignored.
bool tst_PublishController::call(const QString &name, const PROGRESS_CALLBACK &progress)
{
    if (name == "sign"_s)
        return m_publisher->createSignatures(m_paths.build, m_paths.signatures, progress);
    if (name == "diff"_s) {
        return m_publisher->createPatch(
            m_paths.build, m_paths.oldSignatures, m_paths.patch, m_ignored, progress);
    }
    if (name == "publish"_s) {
        return m_publisher->publish(m_paths.build, m_paths.oldSignatures, m_paths.patch,
            m_paths.signatures, m_ignored, progress);
    }
    const auto plan = m_publisher->plan(m_paths.build, m_paths.oldSignatures, m_ignored, progress);
    m_plan = plan.value_or(QVariantList());
    return plan.has_value();
}

/// What is wrong with the failure of a call; takes its error.
QString tst_PublishController::failureProblem(const QString &name, const QStringList &culprits)
{
    if (call(name))
        return "no failure"_s;
    const QStringList errors = m_errors;
    m_errors.clear();
    const QString message = errors.join(QLatin1Char('\n'));
    if (errors.size() != 1)
        return "not one error: "_s + message;
    if (!std::any_of(culprits.begin(), culprits.end(),
            [&](const QString &culprit) { return namesFirst(message, culprit); }))
        return "wrong path: "_s + message;
    if (m_publisher->wasCancelled())
        return "says cancelled: "_s + message;
    if (name == "plan"_s)
        return m_plan.isEmpty() ? QString() : "there is a plan: "_s + message;
    if (QFileInfo(m_paths.patch + "/patchRules.json"_s).isFile()
        || (name != "diff"_s && QFileInfo(m_paths.signatures + "/signatures.json"_s).isFile()))
        return "there is a manifest: "_s + message;
    return QString();
}

/// The rules as "patch /relative/path", sorted.
QStringList tst_PublishController::ruleLines() const
{
    QStringList lines;
    for (const QJsonValue &rule : recordsIn(m_tree->read("patch/patchRules.json"_s)))
        lines.append(
            rule["rule"_s].toString() + QLatin1Char(' ') + rule["relative_path"_s].toString());
    lines.sort();
    return lines;
}

void tst_PublishController::belongsToItsParent()
{
    QObject parent;
    auto *publisher = new PublishController(&parent);
    QCOMPARE(publisher->parent(), &parent);
}

void tst_PublishController::threadCountIsKept()
{
    QCOMPARE(m_publisher->threadCount(), 0);
    m_publisher->setThreadCount(7);
    QCOMPARE(m_publisher->threadCount(), 7);
    m_publisher->setThreadCount(0);
    QCOMPARE(m_publisher->threadCount(), 0);
    m_publisher->setThreadCount(-1);
    QCOMPARE(m_publisher->threadCount(), 0);
    m_publisher->setThreadCount(std::numeric_limits<int>::max());
    QCOMPARE(m_publisher->threadCount(), 1024);
}

void tst_PublishController::threadCountCountsFromTheNextCall()
{
    layRelease();
    makeExpectation();
    m_publisher->setThreadCount(1);
    QVERIFY(call("publish"_s, [this](double) { m_publisher->setThreadCount(3); }));
    QCOMPARE(differenceToExpectation(), QString());
    QCOMPARE(m_publisher->threadCount(), 3);
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
}

namespace {

void addCalls()
{
    QTest::addColumn<QString>("name");
    for (const char *name : {"sign", "diff", "publish", "plan"})
        QTest::newRow(name) << QString::fromLatin1(name);
}

} // namespace

void tst_PublishController::progressRunsFromZeroToAHundred_data()
{
    addCalls();
}

void tst_PublishController::progressRunsFromZeroToAHundred()
{
    QFETCH(QString, name);
    layRelease();
    m_tree->write("new/large"_s, randomBytes(3 * MiB, 4));
    QVector<double> values;
    bool isOnThisThread = true;
    const auto caller = std::this_thread::get_id();
    QVERIFY(call(name, [&](double percent) {
        values.append(percent);
        isOnThisThread = isOnThisThread && std::this_thread::get_id() == caller;
    }));
    QVERIFY(isOnThisThread);
    QVERIFY(values.size() >= 2);
    QCOMPARE(values.first(), 0.0);
    QCOMPARE(values.last(), 100.0);
    QVERIFY(std::is_sorted(values.cbegin(), values.cend()));
}

void tst_PublishController::progressComesOftenDuringALargeFile()
{
    makeLargeFile(path("new/large"_s), 256 * MiB);
    QSet<double> between;
    HeldReading reading(30 * MiB);
    bool isHeld = false;
    QVERIFY(call("sign"_s, [&](double percent) {
        if (percent <= 0 || percent >= 100 || between.contains(percent))
            return;
        isHeld = isHeld || HeldReading::isReached();
        between.insert(percent);
        reading.allow(between.size() < 3 ? 30 * MiB : -1);
    }));
    QVERIFY2(between.size() >= 3, qPrintable(QString::number(between.size())));
    QVERIFY(isHeld);
}

void tst_PublishController::progressDoesNotFallWhereAFileIsReadAgain()
{
    for (const QString &file : {"old/large"_s, "new/large"_s})
        makeLargeFile(path(file), 128 * MiB);
    signOld();
    QFile changed(path("new/large"_s));
    QVERIFY(changed.open(QIODevice::ReadWrite) && changed.seek(30000) && changed.write("x") == 1);
    changed.close();
    QVector<double> values;
    HeldReading reading(30 * MiB);
    QVERIFY(call("diff"_s, [&](double percent) {
        values.append(percent);
        reading.allow(percent < 100 ? 30 * MiB : -1);
    }));
    QVERIFY(values.size() >= 4);
    QVERIFY(std::is_sorted(values.cbegin(), values.cend()));
}

void tst_PublishController::emptyCallbackIsNone_data()
{
    addCalls();
}

void tst_PublishController::emptyCallbackIsNone()
{
    QFETCH(QString, name);
    layRelease();
    QVERIFY(call(name, PROGRESS_CALLBACK()));
    QVERIFY(call(name, nullptr));
}

void tst_PublishController::anyThreadMayCall()
{
    layRelease();
    makeExpectation();
    std::thread::id worker;
    QSet<size_t> reporters;
    QSet<size_t> signallers;
    const auto here = [] { return std::hash<std::thread::id>()(std::this_thread::get_id()); };
    connect(
        &*m_publisher, &PublishController::publishError, this, [&] { signallers.insert(here()); },
        Qt::DirectConnection);
    bool done = false;
    bool failed = false;
    std::thread thread([&] {
        worker = std::this_thread::get_id();
        done = call("publish"_s, [&](double) { reporters.insert(here()); });
        m_paths.build = path("nothing"_s);
        failed = !call("publish"_s);
    });
    const size_t id = std::hash<std::thread::id>()(thread.get_id());
    thread.join();
    QVERIFY(done);
    QVERIFY(failed);
    QCOMPARE(reporters, QSet<size_t>{id});
    QCOMPARE(signallers, QSet<size_t>{id});
    QCOMPARE(m_errors.size(), 1);
    m_errors.clear();
}

void tst_PublishController::twoMayWorkAtOnce()
{
    layRelease();
    makeExpectation();
    bool otherDone = false;
    std::thread thread([&] {
        PublishController other;
        otherDone = other.publish(path("new"_s), path("old signatures"_s), path("other/patch"_s),
            path("other/signatures"_s));
    });
    const bool done = call("publish"_s);
    thread.join();
    QVERIFY(done);
    QVERIFY(otherDone);
    QCOMPARE(differenceToExpectation(), QString());
    QCOMPARE(differenceBetween(path("expected/patch"_s), path("other/patch"_s)), QString());
    QCOMPARE(
        differenceBetween(path("expected/signatures"_s), path("other/signatures"_s)), QString());
}

void tst_PublishController::pathsMayTakeAnyForm_data()
{
    QTest::addColumn<QString>("form"); // %1 the folder of the test, %2 the folder itself
    QTest::newRow("absolute") << "%1/%2"_s;
    QTest::newRow("separator at the end") << "%1/%2/"_s;
    QTest::newRow("separators at the end") << "%1/%2//"_s;
    QTest::newRow("relative") << "%2"_s;
    QTest::newRow("relative, separator") << "%2/"_s;
    QTest::newRow("relative, dot") << "./%2"_s;
    QTest::newRow("there and back") << "%1/old/../%2"_s;
    QTest::newRow("doubled separator") << "%1//%2"_s;
    QTest::newRow("through a link") << "%1/link/%2"_s;
}

void tst_PublishController::pathsMayTakeAnyForm()
{
    QFETCH(QString, form);
    layRelease();
    makeExpectation();
    m_tree->link("link"_s, path(QString()));
    QDir::setCurrent(path(QString()));
    const auto formed = [&](const char *folder) {
        return QString(form)
            .replace("%1"_s, path(QString()))
            .replace("%2"_s, QLatin1String(folder));
    };
    m_paths = {formed("new"), formed("old signatures"), formed("patch"), formed("signatures")};

    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
    EXPECT_CALL("plan"_s);
    QCOMPARE(m_plan.size(), recordsIn(m_tree->read("patch/patchRules.json"_s)).size());

    m_tree->remove("patch"_s);
    m_tree->remove("signatures"_s);
    EXPECT_CALL("sign"_s);
    EXPECT_CALL("diff"_s);
    QCOMPARE(differenceToExpectation(), QString());
}

void tst_PublishController::foldersAreMadeWithTheirParents_data()
{
    addCalls();
}

void tst_PublishController::foldersAreMadeWithTheirParents()
{
    QFETCH(QString, name);
    layRelease();
    makeExpectation();
    m_paths.patch = path("a/b/c/patch"_s);
    m_paths.signatures = path("a/d/e/signatures"_s);
    EXPECT_CALL(name);
    QCOMPARE(m_tree->exists("a"_s), name != "plan"_s);
    if (name == "diff"_s || name == "publish"_s)
        QCOMPARE(differenceBetween(path("expected/patch"_s), m_paths.patch), QString());
    if (name == "sign"_s || name == "publish"_s)
        QCOMPARE(differenceBetween(path("expected/signatures"_s), m_paths.signatures), QString());
}

/// Two threads that need the same new folder must not be in each other's way.
void tst_PublishController::foldersAreMadeByAllThreads()
{
    for (int i = 0; i < 400; ++i)
        m_tree->write("new/%1/a/b/%2"_s.arg(i / 4).arg(i), "x");
    signOld();
    makeExpectation();
    m_publisher->setThreadCount(8);
    for (int i = 0; i < 3; ++i) {
        EXPECT_CALL("publish"_s);
        QCOMPARE(differenceToExpectation(), QString());
    }
}

void tst_PublishController::hiddenFilesAreNoPartOfABuild()
{
    lay("old"_s, {{"x"_s, "1"}});
    signOld();
    lay("new"_s, {{"x"_s, "2"}, {".hidden"_s, "h"}, {".folder/y"_s, "y"}, {"a/.hidden"_s, "h"}});
    m_tree->makeFolder("new/empty"_s);
    EXPECT_CALL("publish"_s);
    QCOMPARE(TestTree::snapshot(path("patch"_s)).keys(), QStringList({"patchRules.json"_s, "x"_s}));
    QCOMPARE(
        TestTree::snapshot(path("signatures"_s)).keys(), QStringList({"signatures.json"_s, "x"_s}));
}

void tst_PublishController::emptyBuilds_data()
{
    QTest::addColumn<bool>("oldIsEmpty");
    QTest::addColumn<bool>("newIsEmpty");
    QTest::newRow("old") << true << false;
    QTest::newRow("new") << false << true;
    QTest::newRow("both") << true << true;
}

void tst_PublishController::emptyBuilds()
{
    QFETCH(bool, oldIsEmpty);
    QFETCH(bool, newIsEmpty);
    const Build build{{"x"_s, "x"}, {"data/y"_s, "y"}};
    lay("old"_s, oldIsEmpty ? Build() : build);
    lay("new"_s, newIsEmpty ? Build() : build);
    signOld();
    makeExpectation();
    QVector<double> values;
    QVERIFY(call("publish"_s, [&](double percent) { values.append(percent); }));
    QCOMPARE(differenceToExpectation(), QString());
    QCOMPARE(values.value(0, -1), 0.0);
    QCOMPARE(values.last(), 100.0);
}

void tst_PublishController::inputsAreLeftAsTheyAre()
{
    layRelease();
    const auto build = TestTree::snapshot(path("new"_s));
    const auto signatures = TestTree::snapshot(path("old signatures"_s));
    for (const QString &name : {"sign"_s, "diff"_s, "plan"_s, "publish"_s})
        EXPECT_CALL(name);
    QCOMPARE(TestTree::snapshot(path("new"_s)), build);
    QCOMPARE(TestTree::snapshot(path("old signatures"_s)), signatures);
}

void tst_PublishController::copiesKeepTheirPermissions_data()
{
    QTest::addColumn<uint>("permissions");
    for (const uint permissions : {0644U, 0755U, 0600U, 0444U, 0555U, 0664U, 0777U})
        QTest::addRow("%o", permissions) << permissions;
}

void tst_PublishController::copiesKeepTheirPermissions()
{
    QFETCH(uint, permissions);
    signOld();
    lay("new"_s, {{"x"_s, "x"}, {"large"_s, randomBytes(3 * MiB, 1)}});
    for (const QString &file : {"/x"_s, "/large"_s})
        QCOMPARE(::chmod(qPrintable(m_paths.build + file), permissions), 0);
    for (const QString &name : {"diff"_s, "publish"_s}) {
        EXPECT_CALL(name);
        for (const QString &file : {"/x"_s, "/large"_s}) {
            struct stat status;
            QCOMPARE(::stat(qPrintable(m_paths.patch + file), &status), 0);
            QCOMPARE(static_cast<uint>(status.st_mode & 07777), permissions);
        }
    }
}

void tst_PublishController::ignoredFiles_data()
{
    QTest::addColumn<QString>("ignored"); // %1 the new build
    QTest::newRow("absolute") << "%1/data/world.pak"_s;
    QTest::newRow("relative") << "data/world.pak"_s;
    QTest::newRow("relative, dot") << "./data/world.pak"_s;
    QTest::newRow("relative, there and back") << "data/levels/../world.pak"_s;
    QTest::newRow("absolute, there and back") << "%1/data/../data/world.pak"_s;
}

void tst_PublishController::ignoredFiles()
{
    QFETCH(QString, ignored);
    layRelease();
    makeExpectation({path("new/data/world.pak"_s), path("new/data/levels/caves.map"_s)});
    m_ignored = QStringList{"data/levels/caves.map"_s, ignored.replace("%1"_s, path("new"_s))};
    EXPECT_CALL("diff"_s);
    QCOMPARE(differenceBetween(path("expected/patch"_s), path("patch"_s)), QString());
    QCOMPARE(ruleLines(), QStringList({"delete /data/intro.txt"_s, "patch /game.exe"_s}));
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
    EXPECT_CALL("plan"_s);
    QCOMPARE(m_plan.size(), 2);
}

void tst_PublishController::nearMissesAreNotIgnored_data()
{
    QTest::addColumn<QString>("ignored"); // %1 the new build
    QTest::newRow("other case") << "data/World.pak"_s;
    QTest::newRow("folder") << "data"_s;
    QTest::newRow("folder, separator") << "data/"_s;
    QTest::newRow("beginning of the name") << "data/world"_s;
    QTest::newRow("name alone") << "world.pak"_s;
    QTest::newRow("of the old build") << "%1/../old/data/world.pak"_s;
    QTest::newRow("pattern") << "data/*"_s;
    QTest::newRow("empty") << QString();
}

void tst_PublishController::nearMissesAreNotIgnored()
{
    QFETCH(QString, ignored);
    layRelease();
    makeExpectation();
    m_ignored = QStringList{ignored.replace("%1"_s, path("new"_s))};
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
}

void tst_PublishController::ignoredFilesAreSigned()
{
    lay("old"_s, {{"changed"_s, "1"}, {"same"_s, "1"}});
    lay("new"_s, {{"changed"_s, "2"}, {"same"_s, "1"}, {"added"_s, "1"}});
    signOld();
    m_ignored = QStringList{"changed"_s, "same"_s, "added"_s};
    EXPECT_CALL("publish"_s);
    QCOMPARE(m_tree->read("patch/patchRules.json"_s), QByteArray("[\n]\n"));
    QCOMPARE(TestTree::snapshot(path("patch"_s)).keys(), QStringList("patchRules.json"_s));
    SignaturesController().createSignatures(path("new"_s), path("expected"_s));
    QCOMPARE(differenceBetween(path("expected"_s), path("signatures"_s)), QString());
}

void tst_PublishController::fileOfTheOldBuildAloneIsDeletedThoughIgnored()
{
    lay("old"_s, {{"gone"_s, "1"}, {"x"_s, "1"}});
    lay("new"_s, {{"x"_s, "1"}});
    signOld();
    m_ignored = QStringList{"gone"_s, path("new/gone"_s)};
    EXPECT_CALL("publish"_s);
    QCOMPARE(ruleLines(), QStringList("delete /gone"_s));
}

void tst_PublishController::nextReleaseStartsFromTheNewSignatures()
{
    layRelease();
    m_ignored = QStringList{"game.exe"_s};
    EXPECT_CALL("publish"_s);

    m_ignored.clear();
    m_tree->write("new/data/world.pak"_s, randomBytes(5000, 9));
    m_tree->remove("new/README"_s);
    m_paths.oldSignatures = m_paths.signatures;
    m_paths.patch = path("next patch"_s);
    m_paths.signatures = path("next signatures"_s);
    EXPECT_CALL("publish"_s);
    if (!DeltaController().createPatch(path("new"_s), path("signatures"_s),
            path("expected/patch"_s), QStringList(), PROGRESS_CALLBACK()))
        QFAIL("the core makes no patch");
    QCOMPARE(differenceBetween(path("expected/patch"_s), path("next patch"_s)), QString());
    SignaturesController().createSignatures(path("new"_s), path("expected/signatures"_s));
    QCOMPARE(
        differenceBetween(path("expected/signatures"_s), path("next signatures"_s)), QString());
}

void tst_PublishController::olderReleaseIsReplaced_data()
{
    QTest::addColumn<QString>("left"); // beside the manifest
    QTest::newRow("stale file") << "stale"_s;
    QTest::newRow("stale file in a folder") << "data/stale"_s;
    QTest::newRow("stale folders") << "a/b/c/stale"_s;
    QTest::newRow("empty folders") << "a/b/c/"_s;
    QTest::newRow("folder in place of a file") << "game.exe/x/y"_s;
    QTest::newRow("empty folder in place of a file") << "game.exe/"_s;
    QTest::newRow("file in place of a folder") << "data"_s;
    QTest::newRow("longer file") << "game.exe"_s;
    QTest::newRow("mark of a crash") << ".pellox-incomplete"_s;
}

void tst_PublishController::olderReleaseIsReplaced()
{
    QFETCH(QString, left);
    layRelease();
    makeExpectation();
    for (const QString &folder : {"patch/"_s, "signatures/"_s}) {
        if (left.endsWith(QLatin1Char('/')))
            m_tree->makeFolder(folder + left);
        else
            m_tree->write(folder + left, QByteArray(100000, 'x'));
    }
    m_tree->write("patch/patchRules.json"_s, manifestNaming({left}));
    m_tree->write("signatures/signatures.json"_s, manifestNaming({left}));
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
}

void tst_PublishController::linksInAnOlderReleaseAreNotFollowed()
{
    layRelease();
    makeExpectation();
    lay("precious"_s, {{"world.pak"_s, "mine"}, {"stale"_s, "mine"}, {"levels/x"_s, "mine"}});
    const auto precious = TestTree::snapshot(path("precious"_s));
    for (const QString &folder : {"patch"_s, "signatures"_s}) {
        m_tree->makeFolder(folder);
        m_tree->link(folder + "/data"_s, path("precious"_s));
        m_tree->link(folder + "/game.exe"_s, path("precious/stale"_s));
        m_tree->link(folder + "/stale link"_s, path("precious"_s));
        m_tree->link(folder + "/dangling"_s, path("nowhere"_s));
    }
    const QByteArray manifest
        = manifestNaming({"data"_s, "game.exe"_s, "stale link"_s, "dangling"_s});
    m_tree->write("patch/patchRules.json"_s, manifest);
    m_tree->write("signatures/signatures.json"_s, manifest);
    EXPECT_CALL("publish"_s);
    QCOMPARE(TestTree::snapshot(path("precious"_s)), precious);
    QCOMPARE(differenceToExpectation(), QString());
    QVERIFY(!m_tree->exists("nowhere"_s));
}

void tst_PublishController::hiddenFilesOfOthersAreLeftAlone_data()
{
    QTest::addColumn<bool>("besideARelease");
    QTest::newRow("alone") << false;
    QTest::newRow("beside an older release") << true;
}

/// No release holds such, so they are neither stale nor a reason to refuse a folder.
void tst_PublishController::hiddenFilesOfOthersAreLeftAlone()
{
    QFETCH(bool, besideARelease);
    layRelease();
    makeExpectation();
    for (const QString &folder : {"patch"_s, "signatures"_s}) {
        const Build hidden{{".mine"_s, "mine"}, {".folder/mine"_s, "mine"}};
        lay(folder, hidden);
        lay("expected/"_s + folder, hidden);
        if (besideARelease) {
            lay(folder, {{"old/.mine"_s, "mine"}, {"old/stale"_s, "x"}, {"data/.mine"_s, "mine"}});
            lay("expected/"_s + folder, {{"old/.mine"_s, "mine"}, {"data/.mine"_s, "mine"}});
        }
    }
    if (besideARelease) {
        m_tree->write("patch/patchRules.json"_s, manifestNaming({"old/stale"_s}));
        m_tree->write("signatures/signatures.json"_s, manifestNaming({"old/stale"_s}));
    }
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
}

void tst_PublishController::foreignFolderIsRefused_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("refused"); // the folder
    QTest::addColumn<QString>("content");
    const auto addRows = [](const char *title, const QString &content) {
        for (const char *name : {"sign", "publish"}) {
            QTest::addRow("%s, signatures of %s", title, name)
                << QString::fromLatin1(name) << "signatures"_s << content;
        }
        for (const char *name : {"diff", "publish"}) {
            QTest::addRow("%s, patch of %s", title, name)
                << QString::fromLatin1(name) << "patch"_s << content;
        }
    };
    addRows("a file", "mine"_s);
    addRows("a file in a folder", "a/b/mine"_s);
    addRows("a file named like the mark", "pellox-incomplete"_s);
    addRows("a manifest in a folder", "a/patchRules.json"_s);
    QTest::newRow("a patch, signatures of sign") << "sign"_s
                                                 << "signatures"_s
                                                 << "patchRules.json"_s;
    QTest::newRow("a patch, signatures of publish") << "publish"_s
                                                    << "signatures"_s
                                                    << "patchRules.json"_s;
    QTest::newRow("signatures, patch of diff") << "diff"_s
                                               << "patch"_s
                                               << "signatures.json"_s;
    QTest::newRow("signatures, patch of publish") << "publish"_s
                                                  << "patch"_s
                                                  << "signatures.json"_s;
}

void tst_PublishController::foreignFolderIsRefused()
{
    QFETCH(QString, name);
    QFETCH(QString, refused);
    QFETCH(QString, content);
    layRelease();
    m_tree->write(refused + QLatin1Char('/') + content, "mine");
    const auto before = TestTree::snapshot(path(QString()));
    EXPECT_FAILURE(name, path(refused));
    QCOMPARE(TestTree::snapshot(path(QString())), before);
}

void tst_PublishController::foreignFileBesideARelease_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("manifest");
    QTest::addColumn<QByteArray>("marker");
    const QByteArray rules = "patchRules.json";
    const auto addRow
        = [](const char *name, const QString &file, const QByteArray &manifest,
              const QByteArray &marker) { QTest::newRow(name) << file << manifest << marker; };
    const QByteArray release = manifestNaming({"game.exe"_s, "data/x"_s});
    addRow("beside a manifest", "thesis"_s, release, QByteArray());
    addRow("in a folder", "data/thesis"_s, release, QByteArray());
    addRow("in a folder of its own", "other/thesis"_s, release, QByteArray());
    addRow("other case", "Game.exe"_s, release, QByteArray());
    addRow("other manifest", "signatures.json"_s, release, QByteArray());
    addRow("empty manifest", "thesis"_s, "[]", QByteArray());
    addRow("beside a marker", "thesis"_s, QByteArray(), markerOf(rules, {"game.exe"}));
    addRow("beside both", "thesis"_s, release, markerOf(rules, {"half"}));
    addRow("no manifest at all", "patchRules.json"_s, "my own notes", QByteArray());
    addRow("object", "patchRules.json"_s, "{}", QByteArray());
    // Of what a marker does not say, nothing is known.
    addRow("marker of another kind", QString(), QByteArray(),
        markerOf("signatures.json", {"game.exe", "thesis"}));
    addRow("empty marker", QString(), QByteArray(), "");
    addRow("marker that is cut off", QString(), QByteArray(),
        markerOf(rules, {"game.exe", "data/x"}).chopped(1));
}

void tst_PublishController::foreignFileBesideARelease()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, manifest);
    QFETCH(QByteArray, marker);
    layRelease();
    lay("patch"_s, {{"game.exe"_s, "delta"}, {"data/x"_s, "x"}});
    if (marker.startsWith('\0') && !file.isEmpty())
        marker += markerOf("patchRules.json", {"data/x", "game.exe"});
    if (!manifest.isEmpty())
        m_tree->write("patch/patchRules.json"_s, manifest);
    if (!marker.isNull())
        m_tree->write("patch/.pellox-incomplete"_s, marker);
    if (!file.isEmpty() && file != "patchRules.json"_s)
        m_tree->write("patch/"_s + file, "years of work");
    const auto before = TestTree::snapshot(path(QString()));
    const QString culprit = file.isEmpty() ? m_paths.patch : path("patch/"_s + file);
    for (const QString &name : {"diff"_s, "publish"_s}) {
        QVERIFY(!call(name));
        QCOMPARE(m_errors.size(), 1);
        const QString error = m_errors.takeFirst();
        QVERIFY2(namesFirst(error, culprit), qPrintable(error));
        QCOMPARE(TestTree::snapshot(path(QString())), before);
        QCOMPARE(PublishController::problemOfPatchFolder(m_paths.patch), error);
    }
    m_tree->remove("patch"_s);
    EXPECT_CALL("publish"_s);
}

/// A seal belongs to the patch that it was made for.
void tst_PublishController::sealIsPartOfAnOlderRelease()
{
    layRelease();
    makeExpectation();
    lay("patch"_s, {{"patchRules.json"_s, "[]"}, {"patchSeal.json"_s, "{}"}});
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
    m_tree->write("signatures/patchSeal.json"_s, "{}");
    QVERIFY(namesFirst(PublishController::problemOfSignaturesFolder(m_paths.signatures),
        path("signatures/patchSeal.json"_s)));
}

void tst_PublishController::tellsBeforehandWhichFoldersItTakes()
{
    layRelease();
    const auto problem = [&] {
        return PublishController::problemOfPatchFolder(m_paths.patch)
            + PublishController::problemOfSignaturesFolder(m_paths.signatures);
    };
    QCOMPARE(problem(), QString()); // neither is there
    EXPECT_CALL("publish"_s);
    const auto before = TestTree::snapshot(path(QString()));
    QCOMPARE(problem(), QString());
    QVERIFY(namesFirst(
        PublishController::problemOfPatchFolder(m_paths.signatures), m_paths.signatures));
    QVERIFY(namesFirst(PublishController::problemOfSignaturesFolder(m_paths.patch), m_paths.patch));
    QVERIFY(namesFirst(
        PublishController::problemOfPatchFolder(path("new/README"_s)), path("new/README"_s)));
    QCOMPARE(TestTree::snapshot(path(QString())), before);
}

void tst_PublishController::tellsTheSizeOfASignature()
{
    for (const int size : {0, 1, Block - 1, Block, Block + 1, 7 * Block}) {
        m_tree->write("new/x"_s, QByteArray(size, 'x'));
        EXPECT_CALL("sign"_s);
        QCOMPARE(PublishController::signatureSize(size), QFileInfo(path("signatures/x"_s)).size());
    }
}

void tst_PublishController::anotherRunWritesThere_data()
{
    QTest::addColumn<QString>("other"); // folders that the second run shares with the first
    QTest::newRow("both") << "patch signatures"_s;
    QTest::newRow("patch") << "patch"_s;
    QTest::newRow("signatures") << "signatures"_s;
}

/// The second run is refused, and the first does not notice.
void tst_PublishController::anotherRunWritesThere()
{
    QFETCH(QString, other);
    layRelease();
    makeLargeFile(path("new/large"_s), 64 * MiB);
    makeExpectation();
    EXPECT_CALL("publish"_s); // so that there is a release that could be replaced
    QStringList errors;
    int calls = 0;
    const auto publishAgain = [&] {
        PublishController second;
        connect(&second, &PublishController::publishError, this,
            [&](const QString &message) { errors.append(message); });
        const auto folder = [&](const QString &name) {
            return other.contains(name) ? path(name) : path("other "_s + name);
        };
        ++calls;
        if (second.publish(
                path("new"_s), path("old signatures"_s), folder("patch"_s), folder("signatures"_s)))
            errors.append("done"_s);
    };
    HeldReading reading(10 * MiB);
    QVERIFY(call("publish"_s, [&](double percent) {
        if (percent > 0 && percent < 100 && calls == 0) {
            reading.release();
            publishAgain();
        }
    }));
    QCOMPARE(calls, 1);
    QCOMPARE(errors.size(), 1);
    QVERIFY2(errors.first().endsWith("another run writes here"_s), qPrintable(errors.first()));
    QVERIFY2(namesFirst(errors.first(), path(other.section(QLatin1Char(' '), -1)))
            || namesFirst(errors.first(), path(other.section(QLatin1Char(' '), 0, 0))),
        qPrintable(errors.first()));
    QCOMPARE(differenceToExpectation(), QString());
    QVERIFY(!m_tree->exists("patch/.pellox-incomplete"_s));
    errors.clear();
    publishAgain();
    QCOMPARE(errors, QStringList("done"_s));
}

/// What can be known before the folders are emptied is told before that.
void tst_PublishController::failureBeforehandLeavesTheOlderRelease_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("damage"); // of the old signature of a changed file
    for (const char *name : {"diff", "publish"}) {
        for (const char *damage : {"missing", "cut", "folder"})
            QTest::addRow("%s, %s", name, damage)
                << QString::fromLatin1(name) << QString::fromLatin1(damage);
    }
}

void tst_PublishController::failureBeforehandLeavesTheOlderRelease()
{
    QFETCH(QString, name);
    QFETCH(QString, damage);
    layRelease();
    EXPECT_CALL("publish"_s);
    const auto patch = TestTree::snapshot(m_paths.patch);
    const auto signatures = TestTree::snapshot(m_paths.signatures);
    const QString broken = "old signatures/data/world.pak"_s;
    const QByteArray signature = m_tree->read(broken);
    m_tree->remove(broken);
    if (damage == "cut"_s)
        m_tree->write(broken, signature.chopped(1));
    else if (damage == "folder"_s)
        m_tree->makeFolder(broken);
    QVERIFY(!call(name));
    QCOMPARE(m_errors.size(), 1);
    QVERIFY2(namesFirst(m_errors.first(), path(broken)), qPrintable(m_errors.first()));
    m_errors.clear();
    QCOMPARE(TestTree::snapshot(m_paths.patch), patch);
    QCOMPARE(TestTree::snapshot(m_paths.signatures), signatures);
}

void tst_PublishController::earlyCancelLeavesTheOlderRelease()
{
    layRelease();
    EXPECT_CALL("publish"_s);
    const auto patch = TestTree::snapshot(m_paths.patch);
    const auto signatures = TestTree::snapshot(m_paths.signatures);
    QVERIFY(!call("publish"_s, [this](double) { m_publisher->cancel(); }));
    QVERIFY(m_publisher->wasCancelled());
    QCOMPARE(TestTree::snapshot(m_paths.patch), patch);
    QCOMPARE(TestTree::snapshot(m_paths.signatures), signatures);
}

void tst_PublishController::callbackThatThrows_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<double>("from"); // percent
    for (const char *name : {"sign", "diff", "publish", "plan"}) {
        QTest::addRow("%s, at once", name) << QString::fromLatin1(name) << 0.0;
        QTest::addRow("%s, during the work", name) << QString::fromLatin1(name) << 0.001;
        QTest::addRow("%s, at the end", name) << QString::fromLatin1(name) << 100.0;
    }
}

/// That no thread is left is seen in cleanup().
void tst_PublishController::callbackThatThrows()
{
    QFETCH(QString, name);
    QFETCH(double, from);
    struct Thrown
    {
    };
    layRelease();
    makeLargeFile(path("old/large"_s), 64 * MiB);
    makeLargeFile(path("new/large"_s), 64 * MiB);
    signOld();
    bool isThrown = false;
    try {
        call(name, [&](double percent) {
            if (percent >= from)
                throw Thrown();
        });
    } catch (const Thrown &) {
        isThrown = true;
    }
    QVERIFY(isThrown);
    QVERIFY(!m_publisher->wasCancelled());
    if (from < 100) {
        QCOMPARE(m_tree->exists("patch"_s), false);
        QCOMPARE(m_tree->exists("signatures"_s), false);
    }
    makeExpectation();
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
}

/// As the system counts it: from where the link leads.
void tst_PublishController::climbsBehindALink()
{
    layRelease();
    makeExpectation();
    m_tree->makeFolder("elsewhere/deep"_s);
    m_tree->link("link"_s, path("elsewhere/deep"_s));
    const Build precious{{"mine"_s, "mine"}};
    lay("patch"_s, precious);
    lay("signatures"_s, precious);
    m_paths.patch = path("link/../patch"_s);
    m_paths.signatures = path("link/.."_s) + "/signatures/"_s;
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceBetween(path("expected/patch"_s), path("elsewhere/patch"_s)), QString());
    QCOMPARE(differenceBetween(path("expected/signatures"_s), path("elsewhere/signatures"_s)),
        QString());
    QCOMPARE(TestTree::snapshot(path("patch"_s)).keys(), QStringList("mine"_s));
    QCOMPARE(TestTree::snapshot(path("signatures"_s)).keys(), QStringList("mine"_s));
}

void tst_PublishController::folderOfACrashedRunIsTaken_data()
{
    QTest::addColumn<bool>("withManifest");
    QTest::newRow("without a manifest") << false;
    QTest::newRow("with a manifest") << true;
}

void tst_PublishController::folderOfACrashedRunIsTaken()
{
    QFETCH(bool, withManifest);
    layRelease();
    makeExpectation();
    for (const QString &folder : {"patch/"_s, "signatures/"_s}) {
        const QByteArray manifest = folder == "patch/"_s ? "patchRules.json" : "signatures.json";
        m_tree->write(folder + ".pellox-incomplete"_s,
            markerOf(manifest, {"not yet made", "game.exe", "data/stale"})
                + markerOf(manifest, {"a/b/stale"}));
        m_tree->write(folder + "game.exe"_s, "half");
        m_tree->write(folder + "data/stale"_s, "x");
        m_tree->write(folder + "a/b/stale"_s, "x");
    }
    if (withManifest) {
        m_tree->write("patch/patchRules.json"_s, "[]");
        m_tree->write("signatures/signatures.json"_s, "[]");
    }
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
}

void tst_PublishController::emptyFolderIsTaken()
{
    layRelease();
    makeExpectation();
    m_tree->makeFolder("patch"_s);
    m_tree->makeFolder("signatures"_s);
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
}

void tst_PublishController::overlappingFoldersAreRefused_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<Paths>("paths"); // relative to the folder of the test
    const Paths usual{"new"_s, "old signatures"_s, "patch"_s, "signatures"_s};
    const auto addRow
        = [&](const char *title, const char *name, QString Paths::*which, const QString &value) {
              Paths paths = usual;
              paths.*which = value;
              QTest::addRow("%s: %s", name, title) << QString::fromLatin1(name) << paths;
          };
    addRow("into the build", "sign", &Paths::signatures, "new"_s);
    addRow("inside the build", "sign", &Paths::signatures, "new/signatures"_s);
    addRow("deep inside the build", "sign", &Paths::signatures, "new/data/a/b"_s);
    addRow("around the build", "sign", &Paths::signatures, QString());
    addRow("build through a link", "sign", &Paths::signatures, "link to new/signatures"_s);
    addRow("there and back", "sign", &Paths::signatures, "old/../new"_s);
    for (const char *name : {"diff", "publish"}) {
        addRow("into the build", name, &Paths::patch, "new"_s);
        addRow("inside the build", name, &Paths::patch, "new/patch"_s);
        addRow("around the build", name, &Paths::patch, QString());
        addRow("into the old signatures", name, &Paths::patch, "old signatures"_s);
        addRow("inside the old signatures", name, &Paths::patch, "old signatures/patch"_s);
        addRow("build through a link", name, &Paths::patch, "link to new/patch"_s);
        addRow("signatures through a link", name, &Paths::patch, "link to old signatures"_s);
        addRow("signatures inside the build", name, &Paths::oldSignatures, "new/signatures"_s);
    }
    addRow("patch into new signatures", "publish", &Paths::patch, "signatures"_s);
    addRow("patch inside new signatures", "publish", &Paths::patch, "signatures/patch"_s);
    addRow("new signatures inside the patch", "publish", &Paths::signatures, "patch/a"_s);
    addRow("new signatures into the build", "publish", &Paths::signatures, "new"_s);
    addRow("new signatures inside the build", "publish", &Paths::signatures, "new/a"_s);
    addRow("new signatures over the old", "publish", &Paths::signatures, "old signatures"_s);
    addRow("new inside old signatures", "publish", &Paths::signatures, "old signatures/new"_s);
    addRow("new over old by a link", "publish", &Paths::signatures, "link to old signatures"_s);
    addRow("new around old signatures", "publish", &Paths::signatures, QString());
}

void tst_PublishController::overlappingFoldersAreRefused()
{
    QFETCH(QString, name);
    QFETCH(Paths, paths);
    layRelease();
    m_tree->link("link to new"_s, path("new"_s));
    m_tree->link("link to old signatures"_s, path("old signatures"_s));
    if (paths.oldSignatures.startsWith("new/"_s))
        SignaturesController().createSignatures(path("old"_s), path(paths.oldSignatures));
    // As if of an older release, so that the overlap is all that is wrong.
    m_tree->write("patchRules.json"_s, "[]");
    m_tree->write("signatures.json"_s, "[]");
    m_tree->write("new/patchRules.json"_s, "[]");
    m_tree->write("new/signatures.json"_s, "[]");
    m_tree->write("old signatures/patchRules.json"_s, "[]");
    const auto before = TestTree::snapshot(path(QString()));
    m_paths
        = {path(paths.build), path(paths.oldSignatures), path(paths.patch), path(paths.signatures)};

    QVERIFY(!call(name));
    QCOMPARE(m_errors.size(), 1);
    const QString error = m_errors.takeFirst();
    const QStringList named{QDir::cleanPath(m_paths.build), QDir::cleanPath(m_paths.oldSignatures),
        QDir::cleanPath(m_paths.patch), QDir::cleanPath(m_paths.signatures)};
    const auto isFirst = [&](const QString &one) { return namesFirst(error, one); };
    QVERIFY2(std::any_of(named.begin(), named.end(), isFirst), qPrintable(error));
    QCOMPARE(TestTree::snapshot(path(QString())), before);
}

void tst_PublishController::similarNamesDoNotOverlap()
{
    layRelease();
    makeExpectation();
    m_paths.patch = path("new patch"_s);
    m_paths.signatures = path("old signatures 2"_s);
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceBetween(path("expected/patch"_s), m_paths.patch), QString());
    QCOMPARE(differenceBetween(path("expected/signatures"_s), m_paths.signatures), QString());
}

void tst_PublishController::tellsWhichFilesAreSigned()
{
    layRelease();
    QString error;
    auto files = PublishController::signedFiles(m_paths.oldSignatures, &error);
    QVERIFY2(files, qPrintable(error));
    files->sort();
    QCOMPARE(*files,
        QStringList({"/README"_s, "/data/empty"_s, "/data/intro.txt"_s, "/data/world.pak"_s,
            "/game.exe"_s}));
    m_tree->write("old signatures/signatures.json"_s, "[{}]");
    QVERIFY(!PublishController::signedFiles(m_paths.oldSignatures, &error));
    QVERIFY2(namesFirst(error, path("old signatures/signatures.json"_s)), qPrintable(error));
}

void tst_PublishController::unusableSignatureRecords_data()
{
    QTest::addColumn<QByteArray>("json");
    const auto addRow = [](const char *title, QByteArray json) {
        QTest::newRow(title) << json.replace('\'', '"');
    };
    const auto record = [](const QByteArray &path) {
        return "{'relative_path': '" + path + "', 'sha512': '" + QByteArray(128, 'a')
            + "', 'suffix': ''}";
    };
    addRow("none", QByteArray());
    addRow("no JSON", "hello");
    addRow("cut off", "[" + record("/x") + ", {'rel");
    addRow("object", "{}");
    addRow("null", "null");
    addRow("more behind it", "[] []");
    addRow("number for a record", "[1]");
    addRow("array for a record", "[[]]");
    addRow("empty record", "[{}]");
    addRow("path is a number", "[{'relative_path': 1, 'sha512': ''}]");
    addRow("path is empty", "[" + record("") + "]");
    addRow("path is a separator", "[" + record("/") + "]");
    addRow("path begins without a separator", "[" + record("x") + "]");
    addRow("path leads out", "[" + record("/../x") + "]");
    addRow("path leads out later", "[" + record("/a/../../x") + "]");
    addRow("path twice", "[" + record("/x") + ", " + record("/y") + ", " + record("/x") + "]");
    addRow("no checksum", "[{'relative_path': '/game.exe', 'suffix': ''}]");
    addRow("checksum is a number", "[{'relative_path': '/game.exe', 'sha512': 1}]");
    addRow("checksum is none", "[{'relative_path': '/game.exe', 'sha512': 'abc'}]");
}

void tst_PublishController::unusableSignatureRecords()
{
    QFETCH(QByteArray, json);
    layRelease();
    m_tree->remove("old signatures/signatures.json"_s);
    if (!json.isEmpty())
        m_tree->write("old signatures/signatures.json"_s, json);
    const QString manifest = path("old signatures/signatures.json"_s);
    EXPECT_FAILURE("plan"_s, manifest, m_paths.oldSignatures);
    EXPECT_FAILURE("diff"_s, manifest, m_paths.oldSignatures);
    EXPECT_FAILURE("publish"_s, manifest, m_paths.oldSignatures);
}

/// Such a one stands for a file that was unreadable when the core signed it.
void tst_PublishController::recordWithoutAChecksum()
{
    lay("old"_s, {{"x"_s, "1"}, {"gone"_s, "1"}});
    m_tree->link("old/y"_s, path("pipe"_s));
    QCOMPARE(::mkfifo(qPrintable(path("pipe"_s)), 0600), 0);
    signOld();
    lay("new"_s, {{"x"_s, "2"}, {"y"_s, "now it can be read"}});
    EXPECT_FAILURE("diff"_s, path("old signatures/y"_s), path("old signatures/signatures.json"_s));
    EXPECT_FAILURE(
        "publish"_s, path("old signatures/y"_s), path("old signatures/signatures.json"_s));

    // Nobody asks for the rule of an ignored file, and its signature can be made anew.
    m_ignored = QStringList("y"_s);
    for (const QString &name : {"plan"_s, "diff"_s, "publish"_s})
        EXPECT_CALL(name);
    QCOMPARE(ruleLines(), QStringList({"delete /gone"_s, "patch /x"_s}));
    SignaturesController().createSignatures(path("new"_s), path("expected"_s));
    QCOMPARE(differenceBetween(path("expected"_s), path("signatures"_s)), QString());

    m_ignored.clear();
    m_tree->remove("new/y"_s);
    EXPECT_CALL("diff"_s);
    QCOMPARE(ruleLines(), QStringList({"delete /gone"_s, "delete /y"_s, "patch /x"_s}));
}

void tst_PublishController::signatureThatIsNeeded_data()
{
    QTest::addColumn<QString>("damage");
    QTest::addColumn<QString>("state"); // of the file: "changed", "longer", "same"
    QTest::addColumn<QString>("name");
    for (const char *damage :
        {"missing", "folder", "dangling link", "pipe", "empty", "cut in its head", "cut in a block",
            "other magic", "too long by a byte", "other block length", "other strong sum",
            "other strong sum length", "other rolling sum", "no blocks of the length 0"}) {
        for (const auto &[state, name] : {std::pair("changed", "diff"), std::pair("longer", "diff"),
                 std::pair("changed", "publish"), std::pair("longer", "publish"),
                 std::pair("same", "publish")}) {
            QTest::addRow("%s, %s file, %s", damage, state, name) << QString::fromLatin1(
                damage) << QString::fromLatin1(state) << QString::fromLatin1(name);
        }
    }
}

void tst_PublishController::signatureThatIsNeeded()
{
    QFETCH(QString, damage);
    QFETCH(QString, state);
    QFETCH(QString, name);
    const QByteArray content = randomBytes(10 * Block, 5);
    QByteArray changed = content;
    changed[5] = static_cast<char>(~changed.at(5));
    lay("old"_s, {{"x"_s, content}, {"y"_s, "y"}});
    lay("new"_s,
        {{"x"_s,
             state == "same"_s         ? content
                 : state == "longer"_s ? content + content
                                       : changed},
            {"y"_s, "y"}});
    signOld();

    const QString file = "old signatures/x"_s;
    const QByteArray signature = m_tree->read(file);
    const auto rdiff = [&](const char *option, const char *value) {
        return signWithRdiff(path("old/x"_s), path(file),
            QStringList{"-R"_s, "rollsum"_s, "-b"_s, "2048"_s, QString::fromLatin1(option),
                QString::fromLatin1(value)});
    };
    m_tree->remove(file);
    if (damage == "folder"_s)
        m_tree->makeFolder(file);
    else if (damage == "dangling link"_s)
        m_tree->link(file, path("nowhere"_s));
    else if (damage == "pipe"_s)
        QCOMPARE(::mkfifo(qPrintable(path(file)), 0600), 0);
    else if (damage == "empty"_s)
        m_tree->write(file, "");
    else if (damage == "cut in its head"_s)
        m_tree->write(file, signature.left(9));
    else if (damage == "cut in a block"_s)
        m_tree->write(file, signature.left(12 + 36 * 3 + 7));
    else if (damage == "other magic"_s)
        m_tree->write(file, "x" + signature.mid(1));
    else if (damage == "too long by a byte"_s)
        m_tree->write(file, signature + "x");
    else if (damage == "other block length"_s)
        QVERIFY(rdiff("-b", "1024"));
    else if (damage == "other strong sum"_s)
        QVERIFY(rdiff("-H", "md4"));
    else if (damage == "other strong sum length"_s)
        QVERIFY(rdiff("-S", "8"));
    else if (damage == "other rolling sum"_s)
        QVERIFY(rdiff("-R", "rabinkarp"));
    else if (damage == "no blocks of the length 0"_s)
        m_tree->write(file, signature.left(4) + QByteArray(4, '\0') + signature.mid(8, 4));

    EXPECT_FAILURE(name, path(file));
}

void tst_PublishController::signatureToTakeOverMustFitTheFile_data()
{
    QTest::addColumn<int>("blocks"); // that the signature has
    QTest::newRow("none") << 0;
    QTest::newRow("one less") << 9;
    QTest::newRow("one more") << 11;
}

/// A signature of whole blocks may be that of another file, which shows by its size alone.
void tst_PublishController::signatureToTakeOverMustFitTheFile()
{
    QFETCH(int, blocks);
    const QByteArray content = randomBytes(10 * Block - 1, 6);
    lay("old"_s, {{"x"_s, content}});
    lay("new"_s, {{"x"_s, content}});
    signOld();
    QByteArray signature = m_tree->read("old signatures/x"_s);
    signature = (signature + signature.right(36)).left(12 + 36 * blocks);
    m_tree->write("old signatures/x"_s, signature);
    EXPECT_FAILURE("publish"_s, path("old signatures/x"_s));
}

/// It tells how the file changed, so it must not tell of a change where there is none.
void tst_PublishController::signatureOfALargeFileMustBeItsOwn()
{
    QByteArray content = randomBytes(2 * MiB, 6);
    lay("new"_s, {{"x"_s, content}});
    lay("old"_s, {{"x"_s, content}});
    content[0] = static_cast<char>(~content.at(0));
    lay("another"_s, {{"x"_s, content}});
    signOld();
    SignaturesController().createSignatures(path("another"_s), path("other signatures"_s));
    m_tree->write("old signatures/x"_s, m_tree->read("other signatures/x"_s));
    for (const QString &name : {"diff"_s, "publish"_s}) {
        QVERIFY(!call(name));
        QCOMPARE(m_errors,
            QStringList(path("old signatures/x"_s) + ": is not the signature of its file"_s));
        m_errors.clear();
        QVERIFY(!m_tree->exists("patch/patchRules.json"_s));
    }
}

void tst_PublishController::signaturesThatAreNotNeeded()
{
    lay("old"_s,
        {{"same"_s, "1"}, {"gone"_s, "1"}, {"ignored"_s, "1"}, {"changed"_s, "1"},
            {"also ignored"_s, "1"}});
    lay("new"_s,
        {{"same"_s, "1"}, {"ignored"_s, "2"}, {"changed"_s, "2"}, {"new"_s, "1"},
            {"also ignored"_s, "2"}});
    signOld();
    m_tree->remove("old signatures/same"_s);
    m_tree->remove("old signatures/gone"_s);
    m_tree->remove("old signatures/ignored"_s);
    m_tree->write("old signatures/also ignored"_s, "broken");
    m_ignored = QStringList{"ignored"_s, "also ignored"_s};
    EXPECT_CALL("diff"_s);
    QCOMPARE(ruleLines(), QStringList({"copy /new"_s, "delete /gone"_s, "patch /changed"_s}));
    EXPECT_CALL("plan"_s);
    QCOMPARE(m_plan.size(), 3);
}

void tst_PublishController::filesNamedLikeManifests_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("file");
    QTest::newRow("signatures, sign") << "sign"_s
                                      << "signatures.json"_s;
    QTest::newRow("signatures, publish") << "publish"_s
                                         << "signatures.json"_s;
    QTest::newRow("rules, diff") << "diff"_s
                                 << "patchRules.json"_s;
    QTest::newRow("rules, publish") << "publish"_s
                                    << "patchRules.json"_s;
}

/// One of the two would overwrite the other. Deeper down, and where no such manifest is made, a
/// file may have any name.
void tst_PublishController::filesNamedLikeManifests()
{
    QFETCH(QString, name);
    QFETCH(QString, file);
    layRelease();
    m_tree->write("new/data/"_s + file, "no manifest");
    m_tree->write("new/"_s
            + (file == "signatures.json"_s ? "patchRules.json"_s : "signatures.json"_s) + "~"_s,
        "near miss");
    EXPECT_CALL(name);
    m_tree->write("new/"_s + file, "no manifest");
    const auto before = TestTree::snapshot(path("patch"_s));
    QVERIFY(!call(name));
    QCOMPARE(m_errors, QStringList(path("new/"_s + file) + ": has the name of a manifest"_s));
    m_errors.clear();
    QCOMPARE(TestTree::snapshot(path("patch"_s)), before);
    if (file == "patchRules.json"_s) { // nor is it in the way where the patch has no such file
        m_ignored = QStringList(file);
        EXPECT_CALL(name);
    }
}

void tst_PublishController::unreadableNewFile_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<bool>("isNew");
    QTest::addColumn<QString>("name");
    for (const char *target :
        {"%1/pipe", "%1/socket", "/dev/zero", "/dev/full", "/proc/self/mem"}) {
        for (const char *name : {"sign", "diff", "publish", "plan"}) {
            for (const bool isNew : {false, true}) {
                // Files without an old one are not opened to know their rule.
                if (isNew && std::strcmp(name, "plan") == 0)
                    continue;
                QTest::addRow("%s, %s file, %s", target, isNew ? "new" : "known", name)
                    << QString::fromLatin1(target) << isNew << QString::fromLatin1(name);
            }
        }
    }
}

/// As what can neither be read nor is a folder is no part of the walk, it is a link to such.
void tst_PublishController::unreadableNewFile()
{
    QFETCH(QString, target);
    QFETCH(bool, isNew);
    QFETCH(QString, name);
    layRelease();
    QCOMPARE(::mkfifo(qPrintable(path("pipe"_s)), 0600), 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray socketPath = path("socket"_s).toLocal8Bit();
    QVERIFY(socketPath.size() < static_cast<int>(sizeof address.sun_path));
    std::memcpy(address.sun_path, socketPath.constData(), static_cast<size_t>(socketPath.size()));
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool bound
        = ::bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    ::close(socket);
    QVERIFY(bound);

    const QString file = isNew ? "new/data/added"_s : "new/game.exe"_s;
    if (!isNew)
        m_tree->remove(file);
    m_tree->link(file, target.replace("%1"_s, path(QString())));
    EXPECT_FAILURE(name, path(file));
}

void tst_PublishController::unusableBuildFolder_data()
{
    QTest::addColumn<QString>("build");
    QTest::addColumn<QString>("name");
    for (const char *name : {"sign", "diff", "publish", "plan"}) {
        QTest::addRow("missing, %s", name) << "nothing"_s << QString::fromLatin1(name);
        QTest::addRow("file, %s", name) << "old/README"_s << QString::fromLatin1(name);
        QTest::addRow("dangling link, %s", name) << "dangling"_s << QString::fromLatin1(name);
    }
}

void tst_PublishController::unusableBuildFolder()
{
    QFETCH(QString, build);
    QFETCH(QString, name);
    layRelease();
    m_tree->link("dangling"_s, path("nowhere"_s));
    m_paths.build = path(build);
    EXPECT_FAILURE(name, m_paths.build);
}

void tst_PublishController::buildThatMovesUnderTheRun_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("name");
    for (const char *change : {"append", "truncate", "rewrite", "remove", "replace"}) {
        for (const char *name : {"sign", "diff", "publish", "plan"}) {
            QTest::addRow("%s, %s", change, name)
                << QString::fromLatin1(change) << QString::fromLatin1(name);
        }
    }
}

void tst_PublishController::buildThatMovesUnderTheRun()
{
    QFETCH(QString, change);
    QFETCH(QString, name);
    const QString file = path("new/large"_s);
    makeLargeFile(path("old/large"_s), 5 * MiB);
    makeLargeFile(file, 256 * MiB);
    signOld();
    bool isChanged = false;
    const auto changeIt = [&] {
        if (change == "remove"_s)
            return QFile::remove(file);
        if (change == "replace"_s) {
            makeLargeFile(path("other"_s), 256 * MiB);
            return ::rename(qPrintable(path("other"_s)), qPrintable(file)) == 0;
        }
        QFile large(file);
        if (!large.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
            return false;
        if (change == "truncate"_s)
            return large.resize(256 * MiB - 1);
        return large.seek(change == "append"_s ? large.size() : 0) && large.write("x") == 1;
    };
    HeldReading reading(30 * MiB);
    const bool done = call(name, [&](double percent) {
        if (percent > 0 && percent < 90 && !isChanged) {
            isChanged = changeIt();
            reading.release();
        }
    });
    QVERIFY2(isChanged, "the run was over too soon");
    QVERIFY(!done);
    QCOMPARE(m_errors.size(), 1);
    const QString error = m_errors.takeFirst();
    QVERIFY2(namesFirst(error, file), qPrintable(error));
    QVERIFY(!m_tree->exists("patch/patchRules.json"_s));
    QVERIFY(!m_tree->exists("signatures/signatures.json"_s));
}

void tst_PublishController::blockedOutput_data()
{
    QTest::addColumn<QString>("block"); // "file" or "folder with a file", and where
    QTest::addColumn<QString>("name");
    for (const char *name : {"sign", "publish"}) {
        QTest::addRow("signatures are a file, %s", name)
            << "signatures"_s << QString::fromLatin1(name);
        QTest::addRow("manifest is a folder, %s", name)
            << "signatures/signatures.json/x"_s << QString::fromLatin1(name);
    }
    for (const char *name : {"diff", "publish"}) {
        QTest::addRow("patch is a file, %s", name) << "patch"_s << QString::fromLatin1(name);
        QTest::addRow("manifest is a folder, %s ", name)
            << "patch/patchRules.json/x"_s << QString::fromLatin1(name);
    }
}

void tst_PublishController::blockedOutput()
{
    QFETCH(QString, block);
    QFETCH(QString, name);
    layRelease();
    m_tree->write(block, "mine");
    EXPECT_FAILURE(name, path(block.section(QLatin1Char('/'), 0, 0)));
    QCOMPARE(m_tree->read(block), QByteArray("mine"));

    m_tree->remove(block.section(QLatin1Char('/'), 0, 0));
    m_tree->write("file"_s, "mine");
    m_paths.patch = path("file/patch"_s);
    m_paths.signatures = path("file/signatures"_s);
    EXPECT_FAILURE(name, path("file/patch"_s), path("file/signatures"_s), path("file"_s));
    QCOMPARE(m_tree->read("file"_s), QByteArray("mine"));
}

void tst_PublishController::fileThatCannotBeWrittenWhole_data()
{
    QTest::addColumn<QString>("file"); // that is larger than files may be
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("threads");
    for (const int threads : {1, 2}) {
        for (const char *name : {"sign", "publish"}) {
            QTest::addRow("signature, %s, %d", name, threads)
                << "signatures/large"_s << QString::fromLatin1(name) << threads;
            QTest::addRow("signatures.json, %s, %d", name, threads)
                << "signatures/signatures.json"_s << QString::fromLatin1(name) << threads;
        }
        for (const char *name : {"diff", "publish"}) {
            QTest::addRow("delta, %s, %d", name, threads)
                << "patch/changed"_s << QString::fromLatin1(name) << threads;
            QTest::addRow("copy, %s, %d", name, threads)
                << "patch/added"_s << QString::fromLatin1(name) << threads;
            QTest::addRow("patchRules.json, %s, %d", name, threads)
                << "patch/patchRules.json"_s << QString::fromLatin1(name) << threads;
        }
    }
}

void tst_PublishController::fileThatCannotBeWrittenWhole()
{
    QFETCH(QString, file);
    QFETCH(QString, name);
    QFETCH(int, threads);
    constexpr int Room = 24 * 1024 + 100; // no multiple of what is written at once
    const QString which = file.section(QLatin1Char('/'), 1);
    lay("old"_s, {{"changed"_s, "1"}, {"large"_s, "1"}});
    lay("new"_s, {{"changed"_s, "1"}, {"large"_s, "1"}});
    // Long names make a manifest large; of files that go, only that of the patch.
    for (int i = 0; which.endsWith(".json"_s) && i < 100; ++i) {
        const QString longName = QString(200, QLatin1Char('n')) + QString::number(i);
        m_tree->write("old/"_s + longName, "1");
        if (which == "signatures.json"_s)
            m_tree->write("new/"_s + longName, "1");
    }
    if (!which.endsWith(".json"_s))
        m_tree->write("new/"_s + which, randomBytes(which == "large"_s ? 2 * MiB : 2 * Room, 7));
    signOld();
    m_publisher->setThreadCount(threads);
    if (which == "large"_s)
        m_ignored = QStringList{which}; // else it would be the delta
    {
        const FileSizeLimit limit(Room);
        EXPECT_FAILURE(name, path(file));
    }
    EXPECT_CALL(name);
    QVERIFY(QFileInfo(path(file)).size() > Room);
}

void tst_PublishController::fullDisk_data()
{
    QTest::addColumn<QString>("name");
    for (const char *name : {"sign", "diff", "publish"})
        QTest::newRow(name) << QString::fromLatin1(name);
}

void tst_PublishController::fullDisk()
{
    QFETCH(QString, name);
    layRelease();
    for (int i = 0; i < 4; ++i)
        m_tree->write("new/added/"_s + QString::number(i), randomBytes(MiB / 2, 8));
    makeLargeFile(path("new/large"_s), 64 * MiB);
    m_tree->makeFolder("disk"_s);
    m_paths.patch = path("disk/patch"_s);
    m_paths.signatures = path("disk/signatures"_s);
    {
        const SmallDisk disk(path("disk"_s), "size=1m");
        if (!disk.isMounted())
            QSKIP(qPrintable("cannot mount a small disk: "_s + disk.reason()));
        QVERIFY(!call(name));
        QCOMPARE(m_errors.size(), 1);
        const QString error = m_errors.takeFirst();
        QVERIFY2(error.startsWith(path("disk/"_s)), qPrintable(error));
        QVERIFY(!m_tree->exists("disk/patch/patchRules.json"_s));
        QVERIFY(!m_tree->exists("disk/signatures/signatures.json"_s));
    }
    EXPECT_CALL(name);
}

void tst_PublishController::cancelFromTheCallback_data()
{
    addCalls();
}

void tst_PublishController::cancelFromTheCallback()
{
    QFETCH(QString, name);
    layRelease();
    makeExpectation();
    QVERIFY(!call(name, [this](double) { m_publisher->cancel(); }));
    QVERIFY(m_publisher->wasCancelled());
    QCOMPARE(m_errors, QStringList());
    QCOMPARE(m_plan, QVariantList());
    QVERIFY(!m_tree->exists("patch/patchRules.json"_s));
    QVERIFY(!m_tree->exists("signatures/signatures.json"_s));

    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
}

/// PELLOX_CANCELS says how often.
void tst_PublishController::cancelAtAnyInstant()
{
    bool isSet = false;
    const int count = qEnvironmentVariableIntValue("PELLOX_CANCELS", &isSet);
    layRelease();
    m_tree->write("old/large"_s, randomBytes(3 * MiB, 1));
    m_tree->write("new/large"_s, randomBytes(3 * MiB, 1).mid(MiB / 2) + randomBytes(MiB, 2));
    m_tree->write("new/large copy"_s, randomBytes(2 * MiB, 3));
    signOld();
    makeExpectation();
    QElapsedTimer timer;
    timer.start();
    EXPECT_CALL("publish"_s);
    const auto duration = static_cast<quint64>(timer.nsecsElapsed() / 1000);

    QRandomGenerator random(1);
    int cancelled = 0;
    for (int i = 0; i < (isSet ? count : 100); ++i) {
        m_publisher->setThreadCount(i % 3 + 1);
        std::thread canceller([this, delay = random.generate64() % (duration + 1)] {
            QThread::usleep(delay);
            m_publisher->cancel();
        });
        // The first is in time on any machine.
        const bool done = call("publish"_s, [this, i](double) {
            if (i == 0)
                m_publisher->cancel();
        });
        canceller.join();
        QCOMPARE(m_errors, QStringList());
        QCOMPARE(m_publisher->wasCancelled(), !done);
        QCOMPARE(m_leftovers.found(), QByteArray());
        cancelled += done ? 0 : 1;
        if (done)
            QCOMPARE(differenceToExpectation(), QString());
        // Of what was there before, a folder is left as it was or has no manifest any more.
        for (const QString &folder : {"patch"_s, "signatures"_s}) {
            if (m_tree->exists(folder + "/patchRules.json"_s)
                || m_tree->exists(folder + "/signatures.json"_s))
                QCOMPARE(differenceBetween(path("expected/"_s + folder), path(folder)), QString());
        }
    }
    if (count > 0 || !isSet)
        QVERIFY(cancelled > 0);
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
}

/// "Within one block of each thread": what is read after cancel() does not grow with the file.
void tst_PublishController::cancelStopsReading()
{
    constexpr int Threads = 2;
    makeLargeFile(path("new/large"_s), 1024 * MiB);
    m_publisher->setThreadCount(Threads);
    qint64 before = -1;
    HeldReading reading(30 * MiB);
    QVERIFY(!call("sign"_s, [&](double percent) {
        if (percent > 0 && before < 0) {
            m_publisher->cancel();
            before = bytesRead();
            reading.release();
        }
    }));
    QVERIFY(m_publisher->wasCancelled());
    QVERIFY(before > 0);
    const qint64 readAfter = bytesRead() - before;
    QVERIFY2(readAfter <= Threads * 2 * MiB, qPrintable(QString::number(readAfter)));
}

void tst_PublishController::cancelBeforeARunDoesNothing()
{
    layRelease();
    makeExpectation();
    m_publisher->cancel();
    QVERIFY(!m_publisher->wasCancelled());
    EXPECT_CALL("publish"_s);
    QCOMPARE(differenceToExpectation(), QString());
    m_publisher->cancel();
    QVERIFY(!m_publisher->wasCancelled());
}

void tst_PublishController::wasCancelledIsOfTheLastCall()
{
    layRelease();
    QVERIFY(!m_publisher->wasCancelled());
    const auto cancel = [this](double) { m_publisher->cancel(); };
    QVERIFY(!call("publish"_s, cancel));
    QVERIFY(m_publisher->wasCancelled());
    EXPECT_CALL("plan"_s);
    QVERIFY(!call("publish"_s, cancel));
    QVERIFY(m_publisher->wasCancelled());
    m_paths.build = path("nothing"_s);
    EXPECT_FAILURE("publish"_s, m_paths.build);
    QVERIFY(!m_publisher->wasCancelled());

    m_paths.build = path("new"_s);
    QVERIFY(!call("publish"_s, cancel));
    QVERIFY(m_publisher->wasCancelled());
    m_paths.build.clear();
    QVERIFY(!call("publish"_s));
    QCOMPARE(m_errors.size(), 1);
    m_errors.clear();
    QVERIFY(!m_publisher->wasCancelled());
}

void tst_PublishController::planIsWhatThePatchWillSay()
{
    layRelease();
    m_tree->write("new/another"_s, "1234567");
    m_ignored = QStringList{"game.exe"_s};
    EXPECT_CALL("plan"_s);
    EXPECT_CALL("diff"_s);
    QJsonArray rules = recordsIn(m_tree->read("patch/patchRules.json"_s));
    QCOMPARE(rules.size(), 4);
    for (QJsonValueRef rule : rules) {
        QJsonObject members = rule.toObject();
        if (members["rule"_s] == "copy"_s) {
            QVERIFY(!members.contains("file_size"_s));
            const QString file = path("new"_s) + members["relative_path"_s].toString();
            members.insert("file_size"_s, QFileInfo(file).size());
        }
        rule = members;
    }
    QCOMPARE(QJsonArray::fromVariantList(m_plan), rules);
}

void tst_PublishController::planWritesNothing()
{
    layRelease();
    m_tree->makeFolder("temporary"_s);
    const auto before = TestTree::snapshot(path(QString()));
    const QByteArray usual = qgetenv("TMPDIR");
    qputenv("TMPDIR", path("temporary"_s).toLocal8Bit());
    int entries = 0;
    const bool done = call("plan"_s,
        [&](double) { entries = qMax(entries, TestTree::snapshot(path(QString())).size()); });
    if (usual.isNull())
        qunsetenv("TMPDIR");
    else
        qputenv("TMPDIR", usual);
    QVERIFY(done);
    QCOMPARE(entries, before.size());
    QCOMPARE(TestTree::snapshot(path(QString())), before);
}

void tst_PublishController::planOfEqualBuildsIsEmpty()
{
    lay("old"_s, {{"x"_s, "1"}});
    lay("new"_s, {{"x"_s, "1"}});
    signOld();
    EXPECT_CALL("plan"_s);
    QCOMPARE(m_plan, QVariantList());
}

void tst_PublishController::planNeedsBothFolders_data()
{
    QTest::addColumn<QString>("build");
    QTest::addColumn<QString>("signatures");
    QTest::newRow("no build") << QString() << "old signatures"_s;
    QTest::newRow("no signatures") << "new"_s << QString();
}

/// An empty path is a mistake of the host, and not the folder that it happens to run in.
void tst_PublishController::planNeedsBothFolders()
{
    QFETCH(QString, build);
    QFETCH(QString, signatures);
    layRelease();
    const auto given
        = [this](const QString &folder) { return folder.isEmpty() ? QString() : path(folder); };
    QVERIFY(!m_publisher->plan(given(build), given(signatures)));
    QCOMPARE(m_errors, QStringList("a folder is not given"_s));
    m_errors.clear();
}

void tst_PublishController::readsNoMoreThanPromised_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("state"); // of a large file
    QTest::addColumn<int>("reads");
    QTest::newRow("sign") << "sign"_s
                          << "new"_s << 1;
    QTest::newRow("plan, same file") << "plan"_s
                                     << "same"_s << 1;
    QTest::newRow("plan, changed file") << "plan"_s
                                        << "changed a little"_s << 1;
    for (const char *name : {"diff", "publish"}) {
        const auto addRow = [name](const char *state, int reads) {
            QTest::addRow("%s, %s file", name, state)
                << QString::fromLatin1(name) << QString::fromLatin1(state) << reads;
        };
        addRow("same", 1);
        addRow("new", 1);
        addRow("longer", 1);
        addRow("shorter", 1);
        addRow("changed all over", 1);
        addRow("changed a little", 2);
    }
}

/// The folders are walked and signatures and manifests read as well, which is little.
void tst_PublishController::readsNoMoreThanPromised()
{
    QFETCH(QString, name);
    QFETCH(QString, state);
    QFETCH(int, reads);
    const QByteArray content = randomBytes(4 * MiB, 1);
    QByteArray newContent = content;
    if (state == "changed a little"_s)
        newContent[30000] = static_cast<char>(~newContent.at(30000));
    else if (state == "changed all over"_s)
        newContent = randomBytes(4 * MiB, 2);
    else if (state == "longer"_s)
        newContent.append(Block, 'x');
    else if (state == "shorter"_s)
        newContent.chop(Block);
    lay("old"_s, {{"small"_s, "1"}});
    if (state != "new"_s)
        m_tree->write("old/large"_s, content);
    lay("new"_s, {{"small"_s, "1"}, {"large"_s, newContent}});
    signOld();
    const qint64 before = bytesRead();
    QVERIFY2(before >= 0, "the system does not count what is read");
    EXPECT_CALL(name);
    const qint64 read = bytesRead() - before;
    const qint64 aside = MiB / 4;
    QVERIFY2(read >= reads * newContent.size() && read <= reads * newContent.size() + aside,
        qPrintable(QString::number(read)));
}

QTEST_GUILESS_MAIN(tst_PublishController)

#include "tst_publishcontroller.moc"
