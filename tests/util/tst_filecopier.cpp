// SPDX-License-Identifier: MIT
#include "leftovers.h"
#include "logcapture.h"
#include "patience.h"
#include "qtversion.h"
#include "testtree.h"

#include <Pellox/FileCopier>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMetaEnum>
#include <QMetaMethod>
#include <QMutex>
#include <QPointer>
#include <QScopeGuard>
#include <QSemaphore>
#include <QSignalSpy>
#include <QtConcurrent>
#include <QThread>
#include <QThreadPool>
#include <QTimer>
#include <QtTest>

#include <atomic>
#include <cmath>
#include <csignal>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <type_traits>

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#if !defined(__has_feature)
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
#define UNDER_ADDRESS_SANITIZER
#endif
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
#define UNDER_THREAD_SANITIZER
#endif

using Pellox::FileCopier;
using Errors = QList<FileCopier::CopyError>;
using Sizes = QList<qint64>;

Q_DECLARE_METATYPE(Errors)
Q_DECLARE_METATYPE(Sizes)

static_assert(std::is_base_of_v<QObject, FileCopier>);
static_assert(std::is_same_v<decltype(&FileCopier::progress),
    void (FileCopier::*)(qlonglong, qlonglong, float)>);
static_assert(
    std::is_same_v<decltype(&FileCopier::finished), void (FileCopier::*)(FileCopier::CopyError)>);
static_assert(std::is_same_v<decltype(&FileCopier::setBlockSize), void (FileCopier::*)(qint64)>);

namespace {

constexpr qint64 MiB = 1024 * 1024;
/// Nanoseconds that this thread's monotonic clock goes on with each look; below 0: the real clock.
thread_local qint64 t_clockStep = -1;
thread_local qint64 t_clockTime = 0;

} // namespace

/// Stands before the C library's for the whole process, so that a test can say how long a block
/// takes.
extern "C" Q_DECL_EXPORT int clock_gettime(clockid_t clock, struct timespec *time) noexcept
{
    if (clock != CLOCK_MONOTONIC || t_clockStep < 0)
        return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
    t_clockTime += t_clockStep;
    time->tv_sec = t_clockTime / 1000000000;
    time->tv_nsec = t_clockTime % 1000000000;
    return 0;
}

namespace {

/// While it lives, each look of this thread at the clock takes @p nanoseconds, and nothing else
/// takes any time.
class ScriptedClock
{
public:
    explicit ScriptedClock(qint64 nanoseconds) { t_clockStep = nanoseconds; }
    ~ScriptedClock() { t_clockStep = -1; }
    ScriptedClock(const ScriptedClock &) = delete;
    ScriptedClock &operator=(const ScriptedClock &) = delete;
};

/// Of the whole process, while it lives. What exceeds the size of a file is an error of the write.
class Limit
{
public:
    using Resource = decltype(RLIMIT_FSIZE);

    Limit(Resource resource, qint64 bytes)
        : m_resource(resource)
        , m_oldAction(std::signal(SIGXFSZ, SIG_IGN))
    {
        ::getrlimit(m_resource, &m_old);
        const rlimit limit{static_cast<rlim_t>(bytes), m_old.rlim_max};
        m_isSet = ::setrlimit(m_resource, &limit) == 0;
    }
    ~Limit()
    {
        ::setrlimit(m_resource, &m_old);
        std::signal(SIGXFSZ, m_oldAction);
    }
    Limit(const Limit &) = delete;
    Limit &operator=(const Limit &) = delete;

    bool isSet() const { return m_isSet; }

private:
    const Resource m_resource;
    void (*const m_oldAction)(int);
    rlimit m_old{};
    bool m_isSet = false;
};

/// The global thread pool, of one thread and with nothing started on it until release().
class HeldPool
{
public:
    HeldPool()
    {
        QThreadPool::globalInstance()->setMaxThreadCount(1);
        static_cast<void>(QtConcurrent::run([this] { m_gate.tryAcquire(1, Patience); }));
    }
    ~HeldPool()
    {
        release();
        QThreadPool::globalInstance()->setMaxThreadCount(QThread::idealThreadCount());
    }
    HeldPool(const HeldPool &) = delete;
    HeldPool &operator=(const HeldPool &) = delete;

    /// Returns when all that was started has ended.
    void release()
    {
        m_gate.release();
        QThreadPool::globalInstance()->waitForDone();
    }
    void releaseAndReturn() { m_gate.release(); }

private:
    QSemaphore m_gate;
};

/// Writes down all that a copier emits, on the thread that emits it.
class Recorder
{
public:
    explicit Recorder(FileCopier &copier)
    {
        QObject::connect(
            &copier, &FileCopier::progress, &m_context,
            [this](qlonglong total, qlonglong copied, float speed) {
                write([&] {
                    m_totals.append(total);
                    m_copied.append(copied);
                    m_speeds.append(speed);
                });
                if (atBlock)
                    atBlock(copied);
            },
            Qt::DirectConnection);
        QObject::connect(
            &copier, &FileCopier::finished, &m_context,
            [this](FileCopier::CopyError error) {
                write([&] { m_ends.append(error); });
                if (atEnd)
                    atEnd();
            },
            Qt::DirectConnection);
    }

    /// Called at every progress, with the bytes copied so far, and at every finished.
    std::function<void(qint64)> atBlock;
    std::function<void()> atEnd;

    Sizes totals() const { return read(m_totals); }
    Sizes copied() const { return read(m_copied); }
    QList<float> speeds() const { return read(m_speeds); }
    Errors ends() const { return read(m_ends); }
    /// Of every signal in order.
    QList<QThread *> threads() const { return read(m_threads); }

private:
    template <typename Change> void write(const Change &change)
    {
        const QMutexLocker lock(&m_mutex);
        change();
        m_threads.append(QThread::currentThread());
    }
    template <typename T> T read(const T &value) const
    {
        const QMutexLocker lock(&m_mutex);
        return value;
    }

    QObject m_context;
    mutable QMutex m_mutex;
    Sizes m_totals;
    Sizes m_copied;
    QList<float> m_speeds;
    Errors m_ends;
    QList<QThread *> m_threads;
};

/// A copy on the pool that stands still in its first progress until goOn().
class PausedCopy
{
public:
    explicit PausedCopy(FileCopier &copier)
    {
        QObject::connect(
            &copier, &FileCopier::progress, &m_context,
            [this] {
                if (m_paused.exchange(true))
                    return;
                m_reached.release();
                m_goOn.tryAcquire(1, Patience);
            },
            Qt::DirectConnection);
        copier.copyAsync();
    }
    ~PausedCopy() { goOn(); }
    PausedCopy(const PausedCopy &) = delete;
    PausedCopy &operator=(const PausedCopy &) = delete;

    bool isReached() { return m_reached.tryAcquire(1, Patience); }
    /// Returns when the copy has ended.
    void goOn()
    {
        m_goOn.release();
        QThreadPool::globalInstance()->waitForDone();
    }

private:
    QObject m_context;
    std::atomic<bool> m_paused{false};
    QSemaphore m_reached;
    QSemaphore m_goOn;
};

/// A host's object with slots for both signals.
class Receiver : public QObject
{
    Q_OBJECT
public:
    Errors ends() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_ends;
    }
    Sizes copied() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_copied;
    }
    QSet<QThread *> threads() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_threads;
    }

public Q_SLOTS:
    void onProgress(qlonglong, qlonglong copied, float)
    {
        const QMutexLocker lock(&m_mutex);
        m_copied.append(copied);
        m_threads.insert(QThread::currentThread());
    }
    void onFinished(FileCopier::CopyError error)
    {
        const QMutexLocker lock(&m_mutex);
        m_ends.append(error);
        m_threads.insert(QThread::currentThread());
    }

private:
    mutable QMutex m_mutex;
    Errors m_ends;
    Sizes m_copied;
    QSet<QThread *> m_threads;
};

using Connect = void (*)(FileCopier &, Receiver &, Qt::ConnectionType);

void connectByPointer(FileCopier &copier, Receiver &receiver, Qt::ConnectionType type)
{
    QObject::connect(&copier, &FileCopier::progress, &receiver, &Receiver::onProgress, type);
    QObject::connect(&copier, &FileCopier::finished, &receiver, &Receiver::onFinished, type);
}

void connectByName(FileCopier &copier, Receiver &receiver, Qt::ConnectionType type)
{
    QObject::connect(&copier, SIGNAL(progress(qlonglong, qlonglong, float)), &receiver,
        SLOT(onProgress(qlonglong, qlonglong, float)), type);
    QObject::connect(&copier, SIGNAL(finished(FileCopier::CopyError)), &receiver,
        SLOT(onFinished(FileCopier::CopyError)), type);
}

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

/// The errors that the copy ended with, as they were emitted or, for copy(), returned.
Errors run(FileCopier &copier, bool onPool)
{
    if (!onPool)
        return {copier.copy()};
    const Recorder recorder(copier);
    copier.copyAsync();
    QThreadPool::globalInstance()->waitForDone();
    return recorder.ends();
}

/// Runs @p check in a process of its own, in which nothing has happened since the fork.
bool holdsInAFork(const std::function<bool()> &check)
{
    const pid_t child = ::fork();
    if (child == 0) {
        std::signal(SIGABRT, SIG_DFL); // no stack dump of QtTest's
        std::signal(SIGSEGV, SIG_DFL);
        const auto status = [&check]() noexcept { return check() ? 0 : 1; };
        ::_exit(status());
    }
    int outcome = -1;
    return child > 0 && ::waitpid(child, &outcome, 0) == child && outcome == 0;
}

bool makeNode(const QString &path, mode_t type)
{
    return ::mknod(QFile::encodeName(path).constData(), type | 0600, 0) == 0;
}

/// Everything under @p folder: what files hold, where links lead, sockets and pipes by name.
QMap<QString, QByteArray> contentOf(const QString &folder)
{
    QMap<QString, QByteArray> entries;
    QDirIterator walk(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        walk.next();
        const QFileInfo entry = walk.fileInfo();
        QFile file(entry.filePath());
        const bool isRegular = entry.isFile() && !entry.isSymLink();
        const bool isRead = isRegular && file.open(QIODevice::ReadOnly);
        entries.insert(entry.filePath(), isRead ? file.readAll() : entry.symLinkTarget().toUtf8());
    }
    return entries;
}

/// The descriptors of this process that are open on something under @p folder.
QList<int> descriptorsUnder(const QString &folder)
{
    QList<int> descriptors;
    const QFileInfoList links
        = QDir(text("/proc/self/fd")).entryInfoList(QDir::AllEntries | QDir::System);
    for (const QFileInfo &link : links) {
        if (link.symLinkTarget().startsWith(folder))
            descriptors.append(link.fileName().toInt());
    }
    return descriptors;
}

/// Makes the open file @p path one that cannot be read any more.
bool breakReading(const QString &path)
{
    const QList<int> descriptors = descriptorsUnder(path);
    const int folder = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool isBroken = descriptors.size() == 1 && ::dup2(folder, descriptors.first()) >= 0;
    ::close(folder);
    return isBroken;
}

/// @p key of /proc/self/status in bytes.
qint64 memory(const QByteArray &key)
{
    QFile file(text("/proc/self/status"));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith(key + ':'))
            return line.mid(key.size() + 1).trimmed().split(' ').first().toLongLong() * 1024;
    }
    return -1;
}

bool forgetPeakOfMemory()
{
    QFile file(text("/proc/self/clear_refs"));
    return file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && file.write("5") == 1;
}

} // namespace

/// Each test has a folder of its own with "source" of 10 bytes; copies go to "copy".
class tst_FileCopier : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    // First, while nothing else has made a copier.
    void constructorsRegisterTheMetaType_data();
    void constructorsRegisterTheMetaType();
    void metaTypeIsThatOfTheEnumeration();
    void metaObjectHoldsWhatIsPromisedAndNoMore();
    void copyErrorHasElevenKeysInOrder();
    void belongsToItsParent();
    void constructorsStoreTheirPaths();

    void everyFormCopiesAndStoresItsPaths_data();
    void everyFormCopiesAndStoresItsPaths();
    void refusedFormsStoreTheirPathsToo();
    void asyncFormsStoreTheirPathsOnTheCallingThread();
    void pathsAreTakenAsTheyAre_data();
    void pathsAreTakenAsTheyAre();

    void blockSizeIsTenMebibytesAtFirst();
    void everyBlockIsReported_data();
    void everyBlockIsReported();
    void blockSizeIsLookedAtWhenACopyStarts();
    void emptySourceGivesAnEmptyCopyWithoutProgress_data();
    void emptySourceGivesAnEmptyCopyWithoutProgress();
    void fileThatTellsNoSizeIsTakenAsEmpty_data();
    void fileThatTellsNoSizeIsTakenAsEmpty();
    void totalIsTheSizeAtTheStart();
    void reportedBlocksHaveReachedTheFile();
    void speedIsThatOfTheBlock();
    void blockThatTakesNoTimeIsInfinitelyFast();
    void realSpeedIsPositive();

    void firstReasonToRefuseWins_data();
    void firstReasonToRefuseWins();
    void refusedCopierIsFreeForTheNextCopy();
    void existingDestinationIsNeverOverwritten();

    void writeErrorDeletesThePartialCopy_data();
    void writeErrorDeletesThePartialCopy();
    void sourceCutShortDeletesThePartialCopy_data();
    void sourceCutShortDeletesThePartialCopy();
    void sourceCutShortWithinABlockDeletesThePartialCopy_data();
    void sourceCutShortWithinABlockDeletesThePartialCopy();
    void failedReadDeletesThePartialCopy();
    void survivesABlockLargerThanMemory();
    void filesAreClosedWhenFinishedIsEmitted_data();
    void filesAreClosedWhenFinishedIsEmitted();

    void stopsAtTheNextBlock_data();
    void stopsAtTheNextBlock();
    void stopsFromAnotherThread_data();
    void stopsFromAnotherThread();
    void stopBeforeTheFilesAreOpenIsForgotten_data();
    void stopBeforeTheFilesAreOpenIsForgotten();
    void stopAfterTheLastBlockIsTooLate();
    void stopOfOneCopyIsForgottenByTheNext();
    void stopOfAnIdleCopierDoesNothing();

    void secondCopyIsRefusedAndClearsTheBusyMark();
    void secondAsyncCopyIsRefusedToo();
    void busyIsTheFirstReasonToRefuse();
    void settersDoNotDisturbTheRunningCopy();
    void stoppedCopyRemovesTheFileItHasOpened();
    void handlerOfFinishedMayStartTheNextCopy();

    void copyEmitsOnItsCallersThread();
    void copyAsyncEmitsOnAThreadOfTheGlobalPool();
    void copyAsyncReturnsBeforeTheCopyIsDone();
    void eventLoopKeepsTickingDuringCopyAsync();
    void signalsReachReceiversOnOtherThreads_data();
    void signalsReachReceiversOnOtherThreads();
    void copyOnAHostsThreadReachesAnotherOfItsThreads_data();
    void copyOnAHostsThreadReachesAnotherOfItsThreads();
    void queuedOnTheSameThread_data();
    void queuedOnTheSameThread();
    void spiesSeeTheError_data();
    void spiesSeeTheError();
    void spyWaitsForACopyOnThePool();

    void largeSourceNeedsNoMoreMemoryThanABlock();
    void permissionsAreTheDefaultOnes_data();
    void permissionsAreTheDefaultOnes();
    void sourceThatIsALinkIsFollowed();
    void danglingLinkIsADestinationThatExists();

private:
    QString path(const char *relative) const { return m_tree->path(text(relative)); }
    QString source() const { return path("source"); }
    QString target() const { return path("copy"); }
    QByteArray read(const char *name) const
    {
        return m_tree->exists(text(name)) ? m_tree->read(text(name)) : QByteArray("no such file");
    }
    bool isCopied() const { return read("copy") == read("source"); }
    /// "s" in @p calls is stop(), "k" stopWithoutRemove().
    static void stopWith(FileCopier &copier, const QByteArray &calls)
    {
        for (const char call : calls) {
            if (call == 's')
                copier.stop();
            else
                copier.stopWithoutRemove();
        }
    }

    Leftovers m_leftovers;
    std::unique_ptr<TestTree> m_tree;
    std::unique_ptr<LogCapture> m_log;
};

void tst_FileCopier::initTestCase()
{
    // Large blocks go back to the system at once, so that none is there already when memory is
    // measured.
    ::mallopt(M_MMAP_THRESHOLD, static_cast<int>(MiB));
    m_leftovers.begin();
}

void tst_FileCopier::init()
{
    m_tree = std::make_unique<TestTree>();
    m_tree->write(text("source"), "0123456789");
    m_log.reset();
    m_log = std::make_unique<LogCapture>();
}

void tst_FileCopier::cleanup()
{
    QThreadPool::globalInstance()->waitForDone(); // ends the pool's idle threads as well
    QCOMPARE(QThreadPool::globalInstance()->activeThreadCount(), 0);
    QCOMPARE(m_leftovers.found(), QByteArray());
    QCOMPARE(m_log->takeAll("default"), QStringList());
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
    QCOMPARE(descriptorsUnder(m_tree->path()), QList<int>());
    m_tree.reset();
}

void tst_FileCopier::constructorsRegisterTheMetaType_data()
{
    QTest::addColumn<int>("arguments");

    QTest::newRow("parent") << 0;
    QTest::newRow("source and parent") << 1;
    QTest::newRow("source, destination and parent") << 2;
}

void tst_FileCopier::constructorsRegisterTheMetaType()
{
    QFETCH(int, arguments);
    QVERIFY(holdsInAFork([&] {
        if (metaTypeNamed("CopyError") != QMetaType::UnknownType)
            return false;
        const std::unique_ptr<FileCopier> copier(arguments == 0 ? new FileCopier(nullptr)
                : arguments == 1                                ? new FileCopier(source(), nullptr)
                                 : new FileCopier(source(), target(), nullptr));
        return metaTypeNamed("CopyError") != QMetaType::UnknownType;
    }));
}

void tst_FileCopier::metaTypeIsThatOfTheEnumeration()
{
    const FileCopier copier;
    const int type = qMetaTypeId<FileCopier::CopyError>();
    QCOMPARE(metaTypeNamed("CopyError"), type);
    QCOMPARE(metaTypeNamed("FileCopier::CopyError"), type);
    QCOMPARE(metaTypeNamed("Pellox::FileCopier::CopyError"), type);
    QVERIFY(QMetaType(type).flags() & QMetaType::IsEnumeration);
}

void tst_FileCopier::metaObjectHoldsWhatIsPromisedAndNoMore()
{
    const QMetaObject &meta = FileCopier::staticMetaObject;
    QCOMPARE(meta.className(), "Pellox::FileCopier");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 2);
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.classInfoCount(), meta.classInfoOffset());
    QCOMPARE(meta.constructorCount(), 0);

    const QMetaMethod progress = meta.method(meta.methodOffset());
    QCOMPARE(progress.methodType(), QMetaMethod::Signal);
    QCOMPARE(progress.methodSignature(), QByteArray("progress(qlonglong,qlonglong,float)"));
    QCOMPARE(progress.parameterNames(), (QList<QByteArray>{"total", "copied", "copySpeed"}));

    const QMetaMethod finished = meta.method(meta.methodOffset() + 1);
    QCOMPARE(finished.methodType(), QMetaMethod::Signal);
    QCOMPARE(finished.methodSignature(), QByteArray("finished(FileCopier::CopyError)"));
    QCOMPARE(finished.parameterNames(), QList<QByteArray>{"error"});
}

void tst_FileCopier::copyErrorHasElevenKeysInOrder()
{
    const QMetaObject &meta = FileCopier::staticMetaObject;
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 1);
    const QMetaEnum errors = meta.enumerator(meta.enumeratorOffset());
    QCOMPARE(errors.name(), "CopyError");
    QCOMPARE(errors.scope(), "Pellox::FileCopier");
    QVERIFY(!errors.isScoped() && !errors.isFlag());

    const QList<QByteArray> expected{"NoError", "CopierIsBusyError", "DestinationNotSetError",
        "SourceFileDoesNotExistError", "SourceIsDirectoryError", "DestinationFileExistsError",
        "OpenSourceFileForReadError", "OpenDestinationFileForWriteError", "WriteError",
        "BlockSizeIsZeroError", "StoppedManuallyError"};
    QCOMPARE(errors.keyCount(), 11);
    for (int i = 0; i < errors.keyCount(); ++i) {
        QCOMPARE(QByteArray(errors.key(i)), expected.at(i));
        QCOMPARE(errors.value(i), i);
    }
    QCOMPARE(static_cast<int>(FileCopier::NoError), 0);
    QCOMPARE(static_cast<int>(FileCopier::StoppedManuallyError), 10);
}

void tst_FileCopier::belongsToItsParent()
{
    auto parent = std::make_unique<QObject>();
    const QPointer<QObject> plain = new FileCopier(parent.get());
    const QPointer<QObject> withSource = new FileCopier(source(), parent.get());
    const QPointer<QObject> withBoth = new FileCopier(source(), target(), parent.get());
    QCOMPARE(parent->children(), (QObjectList{plain, withSource, withBoth}));
    parent.reset();
    QVERIFY(!plain && !withSource && !withBoth);
}

void tst_FileCopier::constructorsStoreTheirPaths()
{
    QCOMPARE(FileCopier().copy(), FileCopier::SourceFileDoesNotExistError);
    QCOMPARE(FileCopier(source()).copy(), FileCopier::DestinationNotSetError);
    QCOMPARE(FileCopier(source(), target()).copy(), FileCopier::NoError);
    QVERIFY(isCopied());
}

using Form = void (*)(FileCopier &, const QString &, const QString &);
Q_DECLARE_METATYPE(Form)

void tst_FileCopier::everyFormCopiesAndStoresItsPaths_data()
{
    QTest::addColumn<QString>("sourceAtFirst");
    QTest::addColumn<QString>("destinationAtFirst");
    QTest::addColumn<Form>("form");

    const QString right = text("source");
    const QString rightToo = text("copy");
    const QString wrong = text("wrong");
    QTest::newRow("copy()") << right << rightToo
                            << Form([](FileCopier &copier, const QString &, const QString &) {
                                   QCOMPARE(copier.copy(), FileCopier::NoError);
                               });
    QTest::newRow("copy(destination)")
        << right << wrong << Form([](FileCopier &copier, const QString &, const QString &to) {
               QCOMPARE(copier.copy(to), FileCopier::NoError);
           });
    QTest::newRow("copy(source, destination)")
        << wrong << wrong << Form([](FileCopier &copier, const QString &from, const QString &to) {
               QCOMPARE(copier.copy(from, to), FileCopier::NoError);
           });
    QTest::newRow("copyAsync()") << right << rightToo
                                 << Form([](FileCopier &copier, const QString &, const QString &) {
                                        copier.copyAsync();
                                    });
    QTest::newRow("copyAsync(destination)")
        << right << wrong << Form([](FileCopier &copier, const QString &, const QString &to) {
               copier.copyAsync(to);
           });
    QTest::newRow("copyAsync(source, destination)")
        << wrong << wrong << Form([](FileCopier &copier, const QString &from, const QString &to) {
               copier.copyAsync(from, to);
           });
}

void tst_FileCopier::everyFormCopiesAndStoresItsPaths()
{
    QFETCH(QString, sourceAtFirst);
    QFETCH(QString, destinationAtFirst);
    QFETCH(Form, form);
    FileCopier copier(m_tree->path(sourceAtFirst), m_tree->path(destinationAtFirst));
    const Recorder recorder(copier);

    form(copier, source(), target());
    QThreadPool::globalInstance()->waitForDone();
    QCOMPARE(recorder.ends(), Errors{FileCopier::NoError});
    QCOMPARE(recorder.copied(), Sizes{10});
    QVERIFY(isCopied());

    m_tree->remove(text("copy"));
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QVERIFY(isCopied());
    QVERIFY(!m_tree->exists(text("wrong")));
}

void tst_FileCopier::refusedFormsStoreTheirPathsToo()
{
    FileCopier copier;
    copier.setBlockSize(0);
    QCOMPARE(copier.copy(source(), path("first")), FileCopier::BlockSizeIsZeroError);
    copier.setBlockSize(10);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QVERIFY(m_tree->exists(text("first")));

    copier.setBlockSize(0);
    copier.copyAsync(target());
    QThreadPool::globalInstance()->waitForDone();
    copier.setBlockSize(10);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QVERIFY(isCopied());
}

void tst_FileCopier::asyncFormsStoreTheirPathsOnTheCallingThread()
{
    FileCopier copier;
    const Recorder recorder(copier);
    HeldPool pool;
    copier.copyAsync(source(), path("first"));
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QVERIFY(m_tree->exists(text("first")));
    copier.copyAsync(target());
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QVERIFY(isCopied());

    pool.release();
    QCOMPARE(recorder.ends(),
        (Errors{FileCopier::NoError, FileCopier::NoError, FileCopier::DestinationFileExistsError,
            FileCopier::DestinationFileExistsError}));
}

void tst_FileCopier::pathsAreTakenAsTheyAre_data()
{
    QTest::addColumn<QString>("name");

    QTest::newRow("blanks") << text("  a  b ");
    QTest::newRow("no ASCII") << text("größe 日本.pak");
    QTest::newRow("placeholders") << text("%1 %2");
    QTest::newRow("hidden") << text(".hidden");
    QTest::newRow("backslash") << text("a\\b");
    QTest::newRow("line break") << text("a\nb");
    QTest::newRow("255 bytes") << QString(255, QLatin1Char('n'));
}

void tst_FileCopier::pathsAreTakenAsTheyAre()
{
    QFETCH(QString, name);
    m_tree->write(text("in/") + name, "content");
    m_tree->makeFolder(text("out"));
    FileCopier copier;
    QCOMPARE(copier.copy(m_tree->path(text("in/") + name), m_tree->path(text("out/") + name)),
        FileCopier::NoError);
    QCOMPARE(m_tree->read(text("out/") + name), QByteArray("content"));
}

void tst_FileCopier::blockSizeIsTenMebibytesAtFirst()
{
    QVERIFY(QFile::resize(source(), 25 * MiB));
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QCOMPARE(recorder.copied(), (Sizes{10485760, 20971520, 26214400}));
    QCOMPARE(recorder.totals(), (Sizes{26214400, 26214400, 26214400}));
    QCOMPARE(QFileInfo(target()).size(), 25 * MiB);
}

void tst_FileCopier::everyBlockIsReported_data()
{
    QTest::addColumn<qint64>("blockSize");
    QTest::addColumn<bool>("onPool");
    QTest::addColumn<Sizes>("copied");

    for (const bool onPool : {false, true}) {
        const auto row = [onPool](const char *name, qint64 blockSize, const Sizes &copied) {
            QTest::addRow("%s, %s", name, onPool ? "copyAsync" : "copy")
                << blockSize << onPool << copied;
        };
        row("1 byte", 1, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
        row("half the size", 5, {5, 10});
        row("last block smaller", 4, {4, 8, 10});
        row("last block of 1 byte", 3, {3, 6, 9, 10});
        row("size - 1", 9, {9, 10});
        row("the size", 10, {10});
        row("size + 1", 11, {10});
        row("1 TiB", MiB * MiB, {10});
        row("the largest number", std::numeric_limits<qint64>::max(), {10});
    }
}

void tst_FileCopier::everyBlockIsReported()
{
    QFETCH(qint64, blockSize);
    QFETCH(bool, onPool);
    QFETCH(Sizes, copied);
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    copier.setBlockSize(blockSize);
    QCOMPARE(run(copier, onPool), Errors{FileCopier::NoError});
    QCOMPARE(recorder.copied(), copied);
    QCOMPARE(recorder.totals().count(10), copied.size());
    QCOMPARE(recorder.ends(), Errors{FileCopier::NoError});
    QVERIFY(isCopied());
}

void tst_FileCopier::blockSizeIsLookedAtWhenACopyStarts()
{
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    recorder.atBlock = [&](qint64) { copier.setBlockSize(0); };
    copier.setBlockSize(-1);
    copier.setBlockSize(4);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QCOMPARE(recorder.copied(), (Sizes{4, 8, 10}));
    QVERIFY(isCopied());
    QCOMPARE(copier.copy(path("second")), FileCopier::BlockSizeIsZeroError);
}

void tst_FileCopier::emptySourceGivesAnEmptyCopyWithoutProgress_data()
{
    QTest::addColumn<qint64>("blockSize");
    QTest::addColumn<bool>("onPool");

    QTest::newRow("copy") << 10 * MiB << false;
    QTest::newRow("copyAsync") << 10 * MiB << true;
    QTest::newRow("blocks of 1 byte") << qint64(1) << false;
}

void tst_FileCopier::emptySourceGivesAnEmptyCopyWithoutProgress()
{
    QFETCH(qint64, blockSize);
    QFETCH(bool, onPool);
    m_tree->write(text("source"), QByteArray());
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    copier.setBlockSize(blockSize);
    QCOMPARE(run(copier, onPool), Errors{FileCopier::NoError});
    QCOMPARE(recorder.copied(), Sizes());
    QCOMPARE(recorder.ends(), Errors{FileCopier::NoError});
    QVERIFY(isCopied());
}

void tst_FileCopier::fileThatTellsNoSizeIsTakenAsEmpty_data()
{
    QTest::addColumn<QString>("file");

    QTest::newRow("without end") << text("/dev/zero");
    QTest::newRow("without content") << text("/dev/null");
    QTest::newRow("that cannot be read at its start") << text("/proc/self/mem");
}

void tst_FileCopier::fileThatTellsNoSizeIsTakenAsEmpty()
{
    QFETCH(QString, file);
    FileCopier copier;
    const Recorder recorder(copier);
    QCOMPARE(copier.copy(file, target()), FileCopier::NoError);
    QCOMPARE(recorder.copied(), Sizes());
    QCOMPARE(read("copy"), QByteArray());
}

void tst_FileCopier::totalIsTheSizeAtTheStart()
{
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    recorder.atBlock = [&](qint64) { QFile::resize(source(), 13); };
    copier.setBlockSize(5);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QCOMPARE(recorder.copied(), (Sizes{5, 10, 13}));
    QCOMPARE(recorder.totals(), (Sizes{10, 10, 10}));
    QVERIFY(isCopied());
}

void tst_FileCopier::reportedBlocksHaveReachedTheFile()
{
    Sizes sizes;
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    recorder.atBlock = [&](qint64) { sizes.append(QFileInfo(target()).size()); };
    copier.setBlockSize(4);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QCOMPARE(sizes, (Sizes{4, 8, 10}));
}

void tst_FileCopier::speedIsThatOfTheBlock()
{
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    copier.setBlockSize(4);
    {
        const ScriptedClock quarterOfASecond(250000000);
        QCOMPARE(copier.copy(), FileCopier::NoError);
    }
    QCOMPARE(recorder.speeds(), (QList<float>{16.0F, 16.0F, 8.0F}));
}

void tst_FileCopier::blockThatTakesNoTimeIsInfinitelyFast()
{
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    copier.setBlockSize(5);
    {
        const ScriptedClock frozen(0);
        QCOMPARE(copier.copy(), FileCopier::NoError);
    }
    constexpr float Infinity = std::numeric_limits<float>::infinity();
    QCOMPARE(recorder.speeds(), (QList<float>{Infinity, Infinity}));
}

void tst_FileCopier::realSpeedIsPositive()
{
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    copier.setBlockSize(1);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QCOMPARE(recorder.speeds().size(), 10);
    const QList<float> speeds = recorder.speeds();
    for (const float speed : speeds)
        QVERIFY2(speed > 0.0F, qPrintable(QString::number(static_cast<double>(speed))));
}

void tst_FileCopier::firstReasonToRefuseWins_data()
{
    QTest::addColumn<qint64>("blockSize");
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");
    QTest::addColumn<bool>("onPool");
    QTest::addColumn<FileCopier::CopyError>("error");

    const QString longName(256, QLatin1Char('n'));
    for (const bool onPool : {false, true}) {
        const auto row = [onPool](const char *name, FileCopier::CopyError error, qint64 blockSize,
                             const QString &from, const QString &to) {
            QTest::addRow("%s, %s", name, onPool ? "copyAsync" : "copy")
                << blockSize << from << to << onPool << error;
        };
        const auto refuse = [&row](const char *name, FileCopier::CopyError error, const char *from,
                                const char *to) { row(name, error, 1, text(from), text(to)); };

        const auto noBlock = FileCopier::BlockSizeIsZeroError;
        row("block size 0", noBlock, 0, text("source"), text("copy"));
        row("block size -1", noBlock, -1, text("source"), text("copy"));
        row("least block size", noBlock, std::numeric_limits<qint64>::min(), text("source"),
            text("copy"));
        row("block size 0 without paths", noBlock, 0, QString(), QString());
        row("block size 0 without source", noBlock, 0, text("missing"), text("copy"));
        row("block size 0 for a folder", noBlock, 0, text("folder"), text("copy"));
        row("block size 0 onto a file", noBlock, 0, text("source"), text("taken"));

        const auto noSource = FileCopier::SourceFileDoesNotExistError;
        refuse("no paths", noSource, "", "");
        refuse("no source path", noSource, "", "copy");
        refuse("no source path, destination taken", noSource, "", "taken");

        const auto noDestination = FileCopier::DestinationNotSetError;
        refuse("no destination path", noDestination, "source", "");
        refuse("no destination path, source missing", noDestination, "missing", "");
        refuse("no destination path, source a folder", noDestination, "folder", "");
        refuse("no destination path, source a socket", noDestination, "socket", "");

        refuse("source missing", noSource, "missing", "copy");
        refuse("source missing, destination taken", noSource, "missing", "taken");
        refuse("source missing, no folder to copy to", noSource, "missing", "missing/copy");
        refuse("source a dangling link", noSource, "dangling", "copy");
        refuse("source below a file", noSource, "source/file", "copy");
        row("source with too long a name", noSource, 1, longName, text("copy"));

        const auto isFolder = FileCopier::SourceIsDirectoryError;
        refuse("source a folder", isFolder, "folder", "copy");
        refuse("source a folder, destination taken", isFolder, "folder", "taken");
        refuse("source a folder onto itself", isFolder, "folder", "folder");
        refuse("source a link to a folder", isFolder, "folderLink", "copy");

        const auto isTaken = FileCopier::DestinationFileExistsError;
        refuse("destination a file", isTaken, "source", "taken");
        refuse("destination a folder", isTaken, "source", "folder");
        refuse("destination a link to a file", isTaken, "source", "fileLink");
        refuse("destination a link to a folder", isTaken, "source", "folderLink");
        refuse("destination a named pipe", isTaken, "source", "pipe");
        refuse("destination a socket", isTaken, "source", "socket");
        refuse("destination a dangling link", isTaken, "source", "dangling");
        refuse("destination a link into a missing folder", isTaken, "source", "deepDangling");
        refuse("destination the source", isTaken, "source", "source");
        refuse("destination taken, source a socket", isTaken, "socket", "taken");
        refuse("destination taken, source a named pipe", isTaken, "pipe", "taken");

        const auto noRead = FileCopier::OpenSourceFileForReadError;
        refuse("source a socket", noRead, "socket", "copy");
        refuse("source a named pipe", noRead, "pipe", "copy");
        refuse("source a link to a named pipe", noRead, "pipeLink", "copy");
        refuse("source a socket, no folder to copy to", noRead, "socket", "missing/copy");
        refuse("source a named pipe, no folder to copy to", noRead, "pipe", "missing/copy");

        const auto noWrite = FileCopier::OpenDestinationFileForWriteError;
        refuse("no folder to copy to", noWrite, "source", "missing/copy");
        refuse("destination below a file", noWrite, "source", "taken/copy");
        refuse("destination below the source", noWrite, "source", "source/copy");
        refuse("destination with a separator at its end", noWrite, "source", "copy/");
        row("destination with too long a name", noWrite, 1, text("source"), longName);
    }
}

void tst_FileCopier::firstReasonToRefuseWins()
{
    QFETCH(qint64, blockSize);
    QFETCH(QString, from);
    QFETCH(QString, to);
    QFETCH(bool, onPool);
    QFETCH(FileCopier::CopyError, error);
    m_tree->write(text("taken"), "taken");
    m_tree->write(text("folder/file"), "inside");
    m_tree->link(text("fileLink"), path("taken"));
    m_tree->link(text("folderLink"), path("folder"));
    m_tree->link(text("pipeLink"), path("pipe"));
    m_tree->link(text("dangling"), path("nowhere"));
    m_tree->link(text("deepDangling"), path("missing/nowhere"));
    QVERIFY(makeNode(path("pipe"), S_IFIFO));
    QVERIFY(makeNode(path("socket"), S_IFSOCK));
    const auto before = contentOf(m_tree->path());

    FileCopier copier(
        from.isEmpty() ? from : m_tree->path(from), to.isEmpty() ? to : m_tree->path(to));
    const Recorder recorder(copier);
    copier.setBlockSize(blockSize);
    QCOMPARE(run(copier, onPool), Errors{error});
    QCOMPARE(recorder.ends(), Errors{error});
    QCOMPARE(recorder.copied(), Sizes());
    QCOMPARE(contentOf(m_tree->path()), before);
}

void tst_FileCopier::refusedCopierIsFreeForTheNextCopy()
{
    FileCopier copier;
    copier.setBlockSize(0);
    QCOMPARE(copier.copy(), FileCopier::BlockSizeIsZeroError);
    copier.setBlockSize(1);
    QCOMPARE(copier.copy(), FileCopier::SourceFileDoesNotExistError);
    QCOMPARE(copier.copy(source(), QString()), FileCopier::DestinationNotSetError);
    QCOMPARE(copier.copy(source()), FileCopier::DestinationFileExistsError);
    QCOMPARE(copier.copy(path("missing/copy")), FileCopier::OpenDestinationFileForWriteError);
    QCOMPARE(copier.copy(target()), FileCopier::NoError);
    QVERIFY(isCopied());
}

void tst_FileCopier::existingDestinationIsNeverOverwritten()
{
    m_tree->write(text("copy"), QByteArray());
    FileCopier copier(source(), target());
    QCOMPARE(copier.copy(), FileCopier::DestinationFileExistsError);
    QCOMPARE(read("copy"), QByteArray());
    m_tree->remove(text("copy"));
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QCOMPARE(copier.copy(), FileCopier::DestinationFileExistsError);
    QVERIFY(isCopied());
}

void tst_FileCopier::writeErrorDeletesThePartialCopy_data()
{
    QTest::addColumn<qint64>("blockSize");
    QTest::addColumn<int>("room");
    QTest::addColumn<bool>("onPool");
    QTest::addColumn<Sizes>("copied");
    QTest::addColumn<FileCopier::CopyError>("error");

    for (const bool onPool : {false, true}) {
        const auto row = [onPool](const char *name, qint64 blockSize, int room, const Sizes &copied,
                             FileCopier::CopyError error = FileCopier::WriteError) {
            QTest::addRow("%s, %s", name, onPool ? "copyAsync" : "copy")
                << blockSize << room << onPool << copied << error;
        };
        row("no room at all", 4, 0, {});
        row("first block in part", 4, 1, {});
        row("one block", 4, 4, {4});
        row("second block in part", 4, 6, {4});
        row("all but the last block", 4, 8, {4, 8});
        row("all but the last byte", 4, 9, {4, 8});
        row("all but the last byte of a single block", 10, 9, {});
        row("all but the last block of 1 byte", 3, 9, {3, 6, 9});
        row("just enough", 4, 10, {4, 8, 10}, FileCopier::NoError);
        row("just enough for a single block", 11, 10, {10}, FileCopier::NoError);
    }
}

void tst_FileCopier::writeErrorDeletesThePartialCopy()
{
    QFETCH(qint64, blockSize);
    QFETCH(int, room);
    QFETCH(bool, onPool);
    QFETCH(Sizes, copied);
    QFETCH(FileCopier::CopyError, error);
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    copier.setBlockSize(blockSize);
    {
        const Limit limit(RLIMIT_FSIZE, room);
        QVERIFY(limit.isSet());
        run(copier, onPool);
    }
    QCOMPARE(recorder.ends(), Errors{error});
    QCOMPARE(recorder.copied(), copied);
    QCOMPARE(m_tree->exists(text("copy")), error == FileCopier::NoError);
    QCOMPARE(read("source"), QByteArray("0123456789"));

    if (error != FileCopier::NoError)
        QCOMPARE(copier.copy(), FileCopier::NoError);
    QVERIFY(isCopied());
}

void tst_FileCopier::sourceCutShortDeletesThePartialCopy_data()
{
    QTest::addColumn<qint64>("sizeLeft");
    QTest::addColumn<Sizes>("copied");

    QTest::newRow("to nothing") << qint64(0) << Sizes{4};
    QTest::newRow("within what is copied") << qint64(3) << Sizes{4};
    QTest::newRow("to what is copied") << qint64(4) << Sizes{4};
    QTest::newRow("to the end of the next block") << qint64(8) << Sizes{4, 8};
}

void tst_FileCopier::sourceCutShortDeletesThePartialCopy()
{
    QFETCH(qint64, sizeLeft);
    QFETCH(Sizes, copied);
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    recorder.atBlock = [&](qint64) { QFile::resize(source(), sizeLeft); };
    copier.setBlockSize(4);
    QCOMPARE(copier.copy(), FileCopier::OpenSourceFileForReadError);
    QCOMPARE(recorder.ends(), Errors{FileCopier::OpenSourceFileForReadError});
    QCOMPARE(recorder.copied(), copied);
    QVERIFY(!m_tree->exists(text("copy")));
    QCOMPARE(QFileInfo(source()).size(), sizeLeft);
}

void tst_FileCopier::sourceCutShortWithinABlockDeletesThePartialCopy_data()
{
    QTest::addColumn<qint64>("sizeLeft");

    QTest::newRow("first byte of the next block left") << qint64(5);
    QTest::newRow("half of the next block left") << qint64(6);
    QTest::newRow("last byte gone") << qint64(9);
}

void tst_FileCopier::sourceCutShortWithinABlockDeletesThePartialCopy()
{
    QFETCH(qint64, sizeLeft);
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    recorder.atBlock = [&](qint64) { QFile::resize(source(), sizeLeft); };
    copier.setBlockSize(4);
    QCOMPARE(copier.copy(), FileCopier::OpenSourceFileForReadError);
    QVERIFY(!m_tree->exists(text("copy")));
}

void tst_FileCopier::failedReadDeletesThePartialCopy()
{
    bool isBroken = false;
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    recorder.atBlock = [&](qint64) { isBroken = breakReading(source()); };
    copier.setBlockSize(4);
    QCOMPARE(copier.copy(), FileCopier::OpenSourceFileForReadError);
    QVERIFY(isBroken);
    QCOMPARE(recorder.ends(), Errors{FileCopier::OpenSourceFileForReadError});
    QCOMPARE(recorder.copied(), Sizes{4});
    QVERIFY(!m_tree->exists(text("copy")));
    recorder.atBlock = nullptr;
    QCOMPARE(copier.copy(), FileCopier::NoError);
}

void tst_FileCopier::survivesABlockLargerThanMemory()
{
#if defined(UNDER_ADDRESS_SANITIZER) || defined(UNDER_THREAD_SANITIZER)
    QSKIP("A sanitizer ends the program where memory runs out");
#endif
    QVERIFY(QFile::resize(source(), 1024 * MiB));
    QVERIFY(holdsInAFork([this] {
        const Limit limit(RLIMIT_AS, memory("VmSize") + 256 * MiB);
        FileCopier copier(source(), target());
        const Recorder recorder(copier);
        copier.setBlockSize(1024 * MiB);
        return limit.isSet() && copier.copy() == FileCopier::WriteError
            && recorder.ends() == Errors{FileCopier::WriteError} && recorder.copied().isEmpty();
    }));
    QVERIFY(!m_tree->exists(text("copy")));
}

void tst_FileCopier::filesAreClosedWhenFinishedIsEmitted_data()
{
    QTest::addColumn<QString>("to");
    QTest::addColumn<int>("room");
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<qint64>("sizeOfSource");
    QTest::addColumn<FileCopier::CopyError>("error");

    const auto row = [](const char *name, const char *to, int room, const char *calls,
                         qint64 sizeOfSource, FileCopier::CopyError error) {
        QTest::newRow(name) << text(to) << room << QByteArray(calls) << sizeOfSource << error;
    };
    row("complete", "copy", 10, "", 10, FileCopier::NoError);
    row("stopped", "copy", 10, "s", 10, FileCopier::StoppedManuallyError);
    row("stopped and kept", "copy", 10, "k", 10, FileCopier::StoppedManuallyError);
    row("source cut short", "copy", 10, "", 0, FileCopier::OpenSourceFileForReadError);
    row("no room", "copy", 5, "", 10, FileCopier::WriteError);
    row("destination does not open", "source/copy", 10, "", 10,
        FileCopier::OpenDestinationFileForWriteError);
}

void tst_FileCopier::filesAreClosedWhenFinishedIsEmitted()
{
    QFETCH(QString, to);
    QFETCH(int, room);
    QFETCH(QByteArray, calls);
    QFETCH(qint64, sizeOfSource);
    QFETCH(FileCopier::CopyError, error);
    QList<int> openAtBlock;
    QList<int> openAtEnd{-1};
    FileCopier copier(source(), m_tree->path(to));
    copier.setBlockSize(4);
    Recorder recorder(copier);
    recorder.atBlock = [&](qint64) {
        openAtBlock = descriptorsUnder(m_tree->path());
        stopWith(copier, calls);
        QFile::resize(source(), sizeOfSource);
    };
    recorder.atEnd = [&] { openAtEnd = descriptorsUnder(m_tree->path()); };
    {
        const Limit limit(RLIMIT_FSIZE, room);
        QVERIFY(limit.isSet());
        copier.copy();
    }
    QCOMPARE(recorder.ends(), Errors{error});
    QCOMPARE(openAtBlock.size(), error == FileCopier::OpenDestinationFileForWriteError ? 0 : 2);
    QCOMPARE(openAtEnd, QList<int>());
}

void tst_FileCopier::stopsAtTheNextBlock_data()
{
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<qint64>("when");
    QTest::addColumn<Sizes>("copied");
    QTest::addColumn<bool>("isKept");

    QTest::newRow("stop in the first") << QByteArray("s") << qint64(3) << Sizes{3} << false;
    QTest::newRow("stop in the second") << QByteArray("s") << qint64(6) << Sizes{3, 6} << false;
    QTest::newRow("stop before the last")
        << QByteArray("s") << qint64(9) << Sizes{3, 6, 9} << false;
    QTest::newRow("keep in the first") << QByteArray("k") << qint64(3) << Sizes{3} << true;
    QTest::newRow("keep in the second") << QByteArray("k") << qint64(6) << Sizes{3, 6} << true;
    QTest::newRow("keep before the last") << QByteArray("k") << qint64(9) << Sizes{3, 6, 9} << true;
    QTest::newRow("stop twice") << QByteArray("ss") << qint64(3) << Sizes{3} << false;
    QTest::newRow("stop, then keep") << QByteArray("sk") << qint64(3) << Sizes{3} << false;
    QTest::newRow("keep, then stop") << QByteArray("ks") << qint64(3) << Sizes{3} << false;
}

void tst_FileCopier::stopsAtTheNextBlock()
{
    QFETCH(QByteArray, calls);
    QFETCH(qint64, when);
    QFETCH(Sizes, copied);
    QFETCH(bool, isKept);
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    recorder.atBlock = [&](qint64 size) {
        if (size == when)
            stopWith(copier, calls);
    };
    copier.setBlockSize(3);
    QCOMPARE(copier.copy(), FileCopier::StoppedManuallyError);
    QCOMPARE(recorder.ends(), Errors{FileCopier::StoppedManuallyError});
    QCOMPARE(recorder.copied(), copied);
    QCOMPARE(m_tree->exists(text("copy")), isKept);
    if (isKept)
        QCOMPARE(read("copy"), QByteArray("0123456789").left(static_cast<int>(when)));
}

void tst_FileCopier::stopsFromAnotherThread_data()
{
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<QByteArray>("left");

    QTest::newRow("stop") << QByteArray("s") << QByteArray();
    QTest::newRow("stopWithoutRemove") << QByteArray("k") << QByteArray("0123");
    QTest::newRow("both") << QByteArray("ks") << QByteArray();
}

void tst_FileCopier::stopsFromAnotherThread()
{
    QFETCH(QByteArray, calls);
    QFETCH(QByteArray, left);
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    copier.setBlockSize(4);
    PausedCopy copy(copier);
    QVERIFY(copy.isReached());
    stopWith(copier, calls);
    copy.goOn();
    QCOMPARE(recorder.ends(), Errors{FileCopier::StoppedManuallyError});
    QCOMPARE(recorder.copied(), Sizes{4});
    QCOMPARE(m_tree->exists(text("copy")), !left.isEmpty());
    if (!left.isEmpty())
        QCOMPARE(read("copy"), left);
}

void tst_FileCopier::stopBeforeTheFilesAreOpenIsForgotten_data()
{
    QTest::addColumn<QByteArray>("calls");

    QTest::newRow("stop") << QByteArray("s");
    QTest::newRow("stopWithoutRemove") << QByteArray("k");
}

void tst_FileCopier::stopBeforeTheFilesAreOpenIsForgotten()
{
    QFETCH(QByteArray, calls);
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    {
        HeldPool pool;
        copier.copyAsync();
        stopWith(copier, calls);
    }
    QVERIFY(isCopied());

    stopWith(copier, calls);
    QCOMPARE(copier.copy(path("second")), FileCopier::NoError);
    QCOMPARE(recorder.ends(), (Errors{FileCopier::NoError, FileCopier::NoError}));
}

void tst_FileCopier::stopAfterTheLastBlockIsTooLate()
{
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    recorder.atBlock = [&](qint64 copied) {
        if (copied == 10)
            copier.stop();
    };
    copier.setBlockSize(4);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QVERIFY(isCopied());
}

void tst_FileCopier::stopOfOneCopyIsForgottenByTheNext()
{
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    copier.setBlockSize(4);
    recorder.atBlock = [&](qint64) { copier.stop(); };
    QCOMPARE(copier.copy(), FileCopier::StoppedManuallyError);
    QVERIFY(!m_tree->exists(text("copy")));

    recorder.atBlock = [&](qint64) { copier.stopWithoutRemove(); };
    QCOMPARE(copier.copy(), FileCopier::StoppedManuallyError);
    QCOMPARE(read("copy"), QByteArray("0123"));

    recorder.atBlock = nullptr;
    QCOMPARE(copier.copy(path("second")), FileCopier::NoError);
}

void tst_FileCopier::stopOfAnIdleCopierDoesNothing()
{
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    copier.stop();
    copier.stopWithoutRemove();
    QCOMPARE(recorder.ends(), Errors{FileCopier::NoError});
    QVERIFY(isCopied());
}

// The refused copy takes the mark from the one that runs, so that a third is let in: promised.
void tst_FileCopier::secondCopyIsRefusedAndClearsTheBusyMark()
{
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    copier.setBlockSize(4);
    PausedCopy running(copier);
    QVERIFY(running.isReached());

    QCOMPARE(copier.copy(path("second")), FileCopier::CopierIsBusyError);
    QVERIFY(!m_tree->exists(text("second")));
    QCOMPARE(copier.copy(path("third")), FileCopier::NoError);
    QCOMPARE(read("third"), QByteArray("0123456789"));

    running.goOn();
    QCOMPARE(recorder.ends(),
        (Errors{FileCopier::CopierIsBusyError, FileCopier::NoError, FileCopier::NoError}));
    QCOMPARE(recorder.copied(), (Sizes{4, 4, 8, 10, 8, 10}));
    QVERIFY(isCopied());
}

void tst_FileCopier::secondAsyncCopyIsRefusedToo()
{
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    copier.setBlockSize(4);
    recorder.atBlock = [&](qint64 copied) {
        if (copied != 4)
            return;
        copier.copyAsync(path("second"));
        QThreadPool::globalInstance()->waitForDone();
    };
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QCOMPARE(recorder.ends(), (Errors{FileCopier::CopierIsBusyError, FileCopier::NoError}));
    QVERIFY(isCopied());
    QVERIFY(!m_tree->exists(text("second")));
}

void tst_FileCopier::busyIsTheFirstReasonToRefuse()
{
    FileCopier copier(source(), target());
    copier.setBlockSize(4);
    PausedCopy running(copier);
    QVERIFY(running.isReached());
    copier.setBlockSize(0);
    QCOMPARE(copier.copy(QString(), QString()), FileCopier::CopierIsBusyError);
    QCOMPARE(copier.copy(), FileCopier::BlockSizeIsZeroError);
    running.goOn();
    QVERIFY(isCopied());
}

void tst_FileCopier::settersDoNotDisturbTheRunningCopy()
{
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    copier.setBlockSize(4);
    PausedCopy running(copier);
    QVERIFY(running.isReached());
    copier.setBlockSize(1);
    QCOMPARE(copier.copy(path("missing"), path("second")), FileCopier::CopierIsBusyError);
    running.goOn();
    QCOMPARE(recorder.copied(), (Sizes{4, 8, 10}));
    QCOMPARE(recorder.ends(), (Errors{FileCopier::CopierIsBusyError, FileCopier::NoError}));
    QVERIFY(isCopied());
    QCOMPARE(copier.copy(), FileCopier::SourceFileDoesNotExistError);
}

void tst_FileCopier::stoppedCopyRemovesTheFileItHasOpened()
{
    m_tree->write(text("other"), "of somebody else");
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    recorder.atBlock = [&](qint64) {
        copier.copyAsync(path("other"));
        QThreadPool::globalInstance()->waitForDone();
        copier.stop();
    };
    copier.setBlockSize(4);
    QCOMPARE(copier.copy(), FileCopier::StoppedManuallyError);
    QCOMPARE(
        recorder.ends(), (Errors{FileCopier::CopierIsBusyError, FileCopier::StoppedManuallyError}));
    QVERIFY(!m_tree->exists(text("copy")));
    QCOMPARE(read("other"), QByteArray("of somebody else"));
}

void tst_FileCopier::handlerOfFinishedMayStartTheNextCopy()
{
    FileCopier copier(source(), target());
    Recorder recorder(copier);
    recorder.atEnd = [&] {
        if (recorder.ends().size() == 1)
            copier.copy(path("second"));
    };
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QCOMPARE(recorder.ends(), (Errors{FileCopier::NoError, FileCopier::NoError}));
    QCOMPARE(read("second"), QByteArray("0123456789"));
}

void tst_FileCopier::copyEmitsOnItsCallersThread()
{
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QCOMPARE(recorder.threads(), (QList<QThread *>{thread(), thread()}));

    QThread *caller = nullptr;
    std::thread([&] {
        caller = QThread::currentThread();
        copier.copy(path("second"));
    }).join();
    QCOMPARE(recorder.ends(), (Errors{FileCopier::NoError, FileCopier::NoError}));
    QCOMPARE(recorder.threads().mid(2), (QList<QThread *>{caller, caller}));
}

void tst_FileCopier::copyAsyncEmitsOnAThreadOfTheGlobalPool()
{
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    HeldPool pool;
    QThread *poolThread = nullptr;
    static_cast<void>(QtConcurrent::run([&] { poolThread = QThread::currentThread(); }));
    copier.copyAsync();
    QCOMPARE(recorder.ends(), Errors());
    pool.release();
    QVERIFY(poolThread && poolThread != thread());
    QCOMPARE(recorder.threads(), (QList<QThread *>{poolThread, poolThread}));
}

void tst_FileCopier::copyAsyncReturnsBeforeTheCopyIsDone()
{
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    copier.setBlockSize(4);
    PausedCopy running(copier);
    QVERIFY(running.isReached());
    QCOMPARE(recorder.ends(), Errors());
    QCOMPARE(read("copy"), QByteArray("0123"));
    running.goOn();
    QCOMPARE(recorder.ends(), Errors{FileCopier::NoError});
}

void tst_FileCopier::eventLoopKeepsTickingDuringCopyAsync()
{
    std::atomic<bool> hasTicked{true};
    QSemaphore ticks;
    QTimer timer;
    connect(&timer, &QTimer::timeout, [&] { ticks.release(); });
    FileCopier copier(source(), target());
    Receiver receiver;
    connectByPointer(copier, receiver, Qt::AutoConnection);
    Recorder recorder(copier);
    recorder.atBlock = [&](qint64) {
        if (!ticks.tryAcquire(3, Patience))
            hasTicked = false;
    };
    copier.setBlockSize(4);
    timer.start(0);
    copier.copyAsync();
    QTRY_COMPARE_WITH_TIMEOUT(receiver.ends(), Errors{FileCopier::NoError}, Patience);
    QVERIFY(hasTicked);
    QCOMPARE(receiver.copied(), (Sizes{4, 8, 10}));
}

Q_DECLARE_METATYPE(Connect)

void tst_FileCopier::signalsReachReceiversOnOtherThreads_data()
{
    QTest::addColumn<Connect>("connectBoth");
    QTest::addColumn<Qt::ConnectionType>("type");
    QTest::addColumn<qint64>("blockSize");
    QTest::addColumn<FileCopier::CopyError>("error");

    for (const auto type : {Qt::AutoConnection, Qt::QueuedConnection}) {
        const char *typeName = type == Qt::AutoConnection ? "automatic" : "queued";
        QTest::addRow("by pointer, %s", typeName)
            << &connectByPointer << type << qint64(4) << FileCopier::NoError;
        QTest::addRow("by name, %s", typeName)
            << &connectByName << type << qint64(4) << FileCopier::NoError;
        QTest::addRow("by pointer, %s, refused", typeName)
            << &connectByPointer << type << qint64(0) << FileCopier::BlockSizeIsZeroError;
        QTest::addRow("by name, %s, refused", typeName)
            << &connectByName << type << qint64(0) << FileCopier::BlockSizeIsZeroError;
    }
}

void tst_FileCopier::signalsReachReceiversOnOtherThreads()
{
    QFETCH(Connect, connectBoth);
    QFETCH(Qt::ConnectionType, type);
    QFETCH(qint64, blockSize);
    QFETCH(FileCopier::CopyError, error);
    FileCopier copier(source(), target());
    copier.setBlockSize(blockSize);
    Receiver receiver;
    connectBoth(copier, receiver, type);
    copier.copyAsync();
    QThreadPool::globalInstance()->waitForDone();
    QCOMPARE(receiver.ends(), Errors());
    QCoreApplication::processEvents();
    QCOMPARE(receiver.ends(), Errors{error});
    QCOMPARE(receiver.copied(), error == FileCopier::NoError ? (Sizes{4, 8, 10}) : Sizes());
    QCOMPARE(receiver.threads(), QSet<QThread *>{thread()});
}

void tst_FileCopier::copyOnAHostsThreadReachesAnotherOfItsThreads_data()
{
    QTest::addColumn<Connect>("connectBoth");

    QTest::newRow("by pointer") << &connectByPointer;
    QTest::newRow("by name") << &connectByName;
}

void tst_FileCopier::copyOnAHostsThreadReachesAnotherOfItsThreads()
{
    QFETCH(Connect, connectBoth);
    QThread other;
    Receiver receiver;
    receiver.moveToThread(&other);
    FileCopier copier(source(), target());
    connectBoth(copier, receiver, Qt::AutoConnection);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QCOMPARE(receiver.ends(), Errors());

    other.start();
    const auto stopThread = qScopeGuard([&] {
        other.quit();
        other.wait();
    });
    QTRY_COMPARE_WITH_TIMEOUT(receiver.ends(), Errors{FileCopier::NoError}, Patience);
    QCOMPARE(receiver.copied(), Sizes{10});
    QCOMPARE(receiver.threads(), QSet<QThread *>{&other});
}

void tst_FileCopier::queuedOnTheSameThread_data()
{
    copyOnAHostsThreadReachesAnotherOfItsThreads_data();
}

void tst_FileCopier::queuedOnTheSameThread()
{
    QFETCH(Connect, connectBoth);
    FileCopier copier(source(), target());
    Receiver receiver;
    connectBoth(copier, receiver, Qt::QueuedConnection);
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QCOMPARE(copier.copy(), FileCopier::DestinationFileExistsError);
    QCOMPARE(receiver.ends(), Errors());
    QCoreApplication::processEvents();
    QCOMPARE(
        receiver.ends(), (Errors{FileCopier::NoError, FileCopier::DestinationFileExistsError}));
}

using MakeSpy = QSignalSpy *(*)(FileCopier &);
Q_DECLARE_METATYPE(MakeSpy)

void tst_FileCopier::spiesSeeTheError_data()
{
    QTest::addColumn<MakeSpy>("makeSpy");
    QTest::addColumn<bool>("onPool");

    for (const bool onPool : {false, true}) {
        const char *how = onPool ? "copyAsync" : "copy";
        QTest::addRow("by pointer, %s", how) << MakeSpy([](FileCopier &copier) {
            return new QSignalSpy(&copier, &FileCopier::finished);
        }) << onPool;
        QTest::addRow("by name, %s", how) << MakeSpy([](FileCopier &copier) {
            return new QSignalSpy(&copier, SIGNAL(finished(FileCopier::CopyError)));
        }) << onPool;
    }
}

void tst_FileCopier::spiesSeeTheError()
{
    QFETCH(MakeSpy, makeSpy);
    QFETCH(bool, onPool);
    FileCopier copier(source(), source());
    const std::unique_ptr<QSignalSpy> ends(makeSpy(copier));
    QVERIFY(ends->isValid());
    run(copier, onPool);
    QCOMPARE(ends->count(), 1);
    const QVariant error = ends->first().first();
    QCOMPARE(error.userType(), metaTypeNamed("CopyError"));
    QCOMPARE(error.value<FileCopier::CopyError>(), FileCopier::DestinationFileExistsError);
}

void tst_FileCopier::spyWaitsForACopyOnThePool()
{
    FileCopier copier(source(), target());
    QSignalSpy reports(&copier, &FileCopier::progress);
    QSignalSpy ends(&copier, &FileCopier::finished);
    HeldPool pool;
    copier.copyAsync();
    QTimer::singleShot(0, this, [&] { pool.releaseAndReturn(); });
    QVERIFY(ends.wait(Patience));
    pool.release();
    QCOMPARE(ends.count(), 1);
    QCOMPARE(ends.first().first().value<FileCopier::CopyError>(), FileCopier::NoError);
    QCOMPARE(reports.count(), 1);
    QCOMPARE(reports.first().at(0).toLongLong(), 10);
    QCOMPARE(reports.first().at(1).toLongLong(), 10);
    QVERIFY(reports.first().at(2).toFloat() > 0.0F);
}

void tst_FileCopier::largeSourceNeedsNoMoreMemoryThanABlock()
{
#if defined(UNDER_THREAD_SANITIZER)
    QSKIP("The thread sanitizer's own memory counts several times that of the program");
#endif
    QVERIFY(QFile::resize(source(), 300 * MiB));
    FileCopier copier(source(), target());
    const Recorder recorder(copier);
    QVERIFY(forgetPeakOfMemory());
    const qint64 before = memory("VmHWM");
    QVERIFY2(before - memory("VmRSS") < MiB, "the peak of what ran before is still there");
    QCOMPARE(copier.copy(), FileCopier::NoError);
    const qint64 used = memory("VmHWM") - before;
    QVERIFY2(used < 20 * MiB, qPrintable(text("%1 bytes").arg(used)));
    QCOMPARE(recorder.copied().size(), 30);
    QCOMPARE(QFileInfo(target()).size(), 300 * MiB);
}

void tst_FileCopier::permissionsAreTheDefaultOnes_data()
{
    QTest::addColumn<uint>("ofSource");
    QTest::addColumn<uint>("mask");
    QTest::addColumn<uint>("ofCopy");

    QTest::newRow("executable source") << 0755U << 0022U << 0644U;
    QTest::newRow("read-only source") << 0444U << 0022U << 0644U;
    QTest::newRow("private source") << 0600U << 0022U << 0644U;
    QTest::newRow("private mask") << 0755U << 0077U << 0600U;
    QTest::newRow("no mask") << 0600U << 0U << 0666U;
}

void tst_FileCopier::permissionsAreTheDefaultOnes()
{
    QFETCH(uint, ofSource);
    QFETCH(uint, mask);
    QFETCH(uint, ofCopy);
    QCOMPARE(::chmod(QFile::encodeName(source()).constData(), ofSource), 0);
    FileCopier copier(source(), target());
    const mode_t oldMask = ::umask(mask);
    const auto error = copier.copy();
    ::umask(oldMask);
    QCOMPARE(error, FileCopier::NoError);
    struct stat status = {};
    QCOMPARE(::stat(QFile::encodeName(target()).constData(), &status), 0);
    QCOMPARE(status.st_mode & 07777U, ofCopy);
}

void tst_FileCopier::sourceThatIsALinkIsFollowed()
{
    m_tree->link(text("link"), source());
    FileCopier copier(path("link"), target());
    QCOMPARE(copier.copy(), FileCopier::NoError);
    QVERIFY(isCopied());
    QVERIFY(!QFileInfo(target()).isSymLink());
    QVERIFY(QFileInfo(path("link")).isSymLink());
}

void tst_FileCopier::danglingLinkIsADestinationThatExists()
{
    m_tree->link(text("copy"), path("nowhere"));
    FileCopier copier(source(), target());
    QCOMPARE(copier.copy(), FileCopier::DestinationFileExistsError);
    QVERIFY(!m_tree->exists(text("nowhere")));
    QVERIFY(QFileInfo(target()).isSymLink());
}

QTEST_GUILESS_MAIN(tst_FileCopier)

#include "tst_filecopier.moc"
