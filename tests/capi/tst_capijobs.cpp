// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "recordedjob.h"
#include "updatescenario.h"

#include <Pellox/UpdateProblem>

#include <QCoreApplication>
#include <QDir>
#include <QThread>
#include <QThreadPool>
#include <QtTest>

#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <pthread.h>

namespace {

std::atomic<bool> s_threadsAreUsedUp{false};

/// A function of the interface that takes paths.
struct PathFunction
{
    const char *name;
    int pathCount;
    bool isRun;
    bool takesNull;
    int (*call)(pellox_job *job, const char *const *paths);
};

const PathFunction PathFunctions[] = {
    {"set_fallback", 1, false, true,
        [](auto *job, auto *paths) { return pellox_set_fallback(job, paths[0]); }},
    {"set_old_build", 1, false, true,
        [](auto *job, auto *paths) { return pellox_set_old_build(job, paths[0]); }},
    {"add_trusted_key", 1, false, false,
        [](auto *job, auto *paths) { return pellox_add_trusted_key(job, paths[0]); }},
    {"add_ignored_file", 1, false, false,
        [](auto *job, auto *paths) { return pellox_add_ignored_file(job, paths[0]); }},
    {"add_private_key", 1, false, false,
        [](auto *job, auto *paths) { return pellox_add_private_key(job, paths[0]); }},
    {"update", 2, true, false,
        [](auto *job, auto *paths) { return pellox_update(job, paths[0], paths[1]); }},
    {"plan", 2, true, false,
        [](auto *job, auto *paths) { return pellox_plan(job, paths[0], paths[1]); }},
    {"recover", 1, true, false,
        [](auto *job, auto *paths) { return pellox_recover(job, paths[0]); }},
    {"rollback", 1, true, false,
        [](auto *job, auto *paths) { return pellox_rollback(job, paths[0]); }},
    {"discard_previous", 1, true, false,
        [](auto *job, auto *paths) { return pellox_discard_previous(job, paths[0]); }},
    {"check", 2, true, false,
        [](auto *job, auto *paths) { return pellox_check(job, paths[0], paths[1]); }},
    {"repair", 3, true, false,
        [](auto *job, auto *paths) { return pellox_repair(job, paths[0], paths[1], paths[2]); }},
    {"record_release", 3, true, false,
        [](auto *job, auto *paths) {
            return pellox_record_release(job, paths[0], paths[1], paths[2]);
        }},
    {"create_signatures", 2, true, false,
        [](auto *job, auto *paths) { return pellox_create_signatures(job, paths[0], paths[1]); }},
    {"create_patch", 3, true, false,
        [](auto *job, auto *paths) {
            return pellox_create_patch(job, paths[0], paths[1], paths[2]);
        }},
    {"publish", 4, true, false,
        [](auto *job, auto *paths) {
            return pellox_publish(job, paths[0], paths[1], paths[2], paths[3]);
        }},
    {"seal", 2, true, false,
        [](auto *job, auto *paths) { return pellox_seal(job, paths[0], paths[1], 1); }},
    {"write_slim", 2, true, false,
        [](auto *job, auto *paths) { return pellox_write_slim(job, paths[0], paths[1]); }},
    {"generate_key", 2, true, false,
        [](auto *job, auto *paths) { return pellox_generate_key(job, paths[0], paths[1]); }},
    {"pack", 2, true, false,
        [](auto *job, auto *paths) { return pellox_pack(job, paths[0], paths[1]); }},
    {"unpack", 2, true, false,
        [](auto *job, auto *paths) { return pellox_unpack(job, paths[0], paths[1]); }},
};

/// One that takes none, with arguments that will do.
struct PlainFunction
{
    const char *name;
    int (*call)(pellox_job *job);
};

const PlainFunction PlainFunctions[] = {
    {"on_progress", [](auto *job) { return pellox_on_progress(job, nullptr, nullptr); }},
    {"on_phase", [](auto *job) { return pellox_on_phase(job, nullptr, nullptr); }},
    {"on_problem", [](auto *job) { return pellox_on_problem(job, nullptr, nullptr); }},
    {"on_file", [](auto *job) { return pellox_on_file(job, nullptr, nullptr); }},
    {"set_threads", [](auto *job) { return pellox_set_threads(job, 1); }},
    {"set_older_allowed", [](auto *job) { return pellox_set_older_allowed(job, 1); }},
    {"set_keep_previous", [](auto *job) { return pellox_set_keep_previous(job, 1); }},
    {"set_delta_effort",
        [](auto *job) { return pellox_set_delta_effort(job, PELLOX_EFFORT_FASTEST); }},
    {"set_delta_memory", [](auto *job) { return pellox_set_delta_memory(job, 1 << 20); }},
    {"set_volume_size", [](auto *job) { return pellox_set_volume_size(job, 1); }},
};

using Paths = std::array<const char *, 4>;

constexpr char NoFolder[] = "/proc/not there";
const Paths NoFolders{NoFolder, NoFolder, NoFolder, NoFolder};

} // namespace

// Threads are started by this.
extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t *thread,
    const pthread_attr_t *attributes, void *(*start)(void *), void *argument) noexcept
{
    static auto *const original
        = reinterpret_cast<decltype(&::pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
    return s_threadsAreUsedUp ? EAGAIN : original(thread, attributes, start, argument);
}

/// What hosts may do wrong, and jobs at the same time. This host has a QCoreApplication of its own.
class tst_CapiJobs : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { m_scenario.reset(); }
    void init();
    void cleanup();

    void versionIsThatOfTheLibrary();
    void resultsHaveNames_data();
    void resultsHaveNames();
    void problemsHaveTheNamesOfTheLibrary();
    void hostsApplicationStays();

    void nullJob();
    void nullJobIsFreed();
    void pathsThatWillNotDo_data();
    void pathsThatWillNotDo();
    void numbersThatWillNotDo();
    void jobInUse();
    void figuresThatAreNotThere();
    void cancelledBeforeItBegins();
    void callbacksMayBeNull();
    void callbackThatThrows_data();
    void callbackThatThrows();
    void noThreads();
    void runsThatGetNoThread();

    void twoAtTheSameTime();
    void runWithinACallback();
    void buildIsBusy();
    void cancelOnAnotherThread();

private:
    QByteArray build() const { return utf8(m_scenario->build()); }
    QByteArray patch() const { return utf8(m_scenario->patch()); }

    std::optional<UpdateScenario> m_scenario;
    std::optional<LogCapture> m_log;
};

void tst_CapiJobs::initTestCase()
{
    useMemoryForFiles();
    m_scenario.emplace();
}

void tst_CapiJobs::init()
{
    m_log.emplace();
    m_scenario->lay();
}

void tst_CapiJobs::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_CapiJobs::versionIsThatOfTheLibrary()
{
    QCOMPARE(QByteArray(pellox_version()), QByteArray(PELLOX_VERSION));
}

void tst_CapiJobs::resultsHaveNames_data()
{
    QTest::addColumn<int>("result");
    QTest::addColumn<int>("number");
    const auto row
        = [](const char *name, int result, int number) { QTest::newRow(name) << result << number; };
    row("done", PELLOX_DONE, 0);
    row("nothing-to-do", PELLOX_NOTHING_TO_DO, 1);
    row("refused", PELLOX_REFUSED, 2);
    row("failed", PELLOX_FAILED, 3);
    row("interrupted", PELLOX_INTERRUPTED, 4);
    row("cancelled", PELLOX_CANCELLED, 5);
    row("not-intact", PELLOX_NOT_INTACT, 6);
    row("bad-argument", PELLOX_BAD_ARGUMENT, 16);
    row("in-use", PELLOX_IN_USE, 17);
    row("no-memory", PELLOX_NO_MEMORY, 18);
    row("unknown", 7, 7);
}

void tst_CapiJobs::resultsHaveNames()
{
    QFETCH(const int, result);
    QFETCH(const int, number);
    QCOMPARE(result, number); // promised
    QCOMPARE(QByteArray(pellox_result_name(result)), QByteArray(QTest::currentDataTag()));
}

/// The library has no code that the interface does not have.
void tst_CapiJobs::problemsHaveTheNamesOfTheLibrary()
{
    constexpr int Last = PELLOX_PROBLEM_DAMAGED_KEPT;
    const auto nameOf = [](int code) {
        const auto known = static_cast<Pellox::UpdateProblem::Code>(code);
        return Pellox::UpdateProblem{known, QString(), QString()}.codeName();
    };
    QCOMPARE(nameOf(Last), "damaged-kept"_s);
    QCOMPARE(nameOf(Last + 1), "unknown"_s);
}

void tst_CapiJobs::hostsApplicationStays()
{
    const QCoreApplication *application = QCoreApplication::instance();
    QCOMPARE(pellox_prepare(), int(PELLOX_DONE));
    const RecordedJob job;
    QCOMPARE(QCoreApplication::instance(), application);
    QCOMPARE(application->thread(), QThread::currentThread());
}

void tst_CapiJobs::nullJob()
{
    for (const PathFunction &function : PathFunctions)
        QVERIFY2(function.call(nullptr, NoFolders.data()) == PELLOX_BAD_ARGUMENT, function.name);
    for (const PlainFunction &function : PlainFunctions)
        QVERIFY2(function.call(nullptr) == PELLOX_BAD_ARGUMENT, function.name);
    QCOMPARE(pellox_cancel(nullptr), int(PELLOX_BAD_ARGUMENT));
    QCOMPARE(int(pellox_figure(nullptr, PELLOX_FIGURE_INTACT_FILES)), -1);
}

void tst_CapiJobs::nullJobIsFreed()
{
    QCOMPARE(pellox_job_free(nullptr), int(PELLOX_DONE));
}

void tst_CapiJobs::pathsThatWillNotDo_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::newRow("null") << QByteArray();
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("Latin-1") << QByteArray("/Gr\xfc\xdf"
                                           "e");
    QTest::newRow("cut in mid-character") << QByteArray("/Gr\xc3");
    QTest::newRow("longer than need be") << QByteArray("/a\xc0\xaf"
                                                       "b");
    QTest::newRow("half a pair") << QByteArray("/\xed\xa0\x80");
}

void tst_CapiJobs::pathsThatWillNotDo()
{
    QFETCH(const QByteArray, path);
    const char *text = path.isNull() ? nullptr : path.constData();
    RecordedJob job;
    for (const PathFunction &function : PathFunctions) {
        if (!text && function.takesNull)
            continue;
        for (int i = 0; i < function.pathCount; ++i) {
            Paths paths = NoFolders;
            paths[static_cast<size_t>(i)] = text;
            QVERIFY2(function.call(job, paths.data()) == PELLOX_BAD_ARGUMENT, function.name);
        }
    }
    QVERIFY(job.problems.isEmpty());
}

void tst_CapiJobs::numbersThatWillNotDo()
{
    const RecordedJob job;
    QCOMPARE(pellox_set_threads(job, -1), int(PELLOX_BAD_ARGUMENT));
    QCOMPARE(pellox_set_threads(job, 1025), int(PELLOX_BAD_ARGUMENT));
    QCOMPARE(pellox_set_threads(job, 1024), int(PELLOX_DONE));
    QCOMPARE(pellox_set_delta_effort(job, 0), int(PELLOX_BAD_ARGUMENT));
    QCOMPARE(pellox_set_delta_effort(job, 4), int(PELLOX_BAD_ARGUMENT));
    QCOMPARE(pellox_set_delta_memory(job, -1), int(PELLOX_BAD_ARGUMENT));
    QCOMPARE(pellox_set_delta_memory(job, 0), int(PELLOX_BAD_ARGUMENT));
    QCOMPARE(pellox_set_delta_memory(job, (1 << 20) - 1), int(PELLOX_BAD_ARGUMENT));
    QCOMPARE(pellox_set_delta_memory(job, 1 << 20), int(PELLOX_DONE));
    QCOMPARE(pellox_set_volume_size(job, 0), int(PELLOX_BAD_ARGUMENT));
}

/// Nothing but the cancelling of a job is possible while it runs.
void tst_CapiJobs::jobInUse()
{
    RecordedJob job;
    QByteArrayList wrong;
    const auto expectInUse = [&](int result, const char *name) {
        if (result != PELLOX_IN_USE)
            wrong.append(name);
    };
    job.onPhase = [&](int) {
        for (const PathFunction &function : PathFunctions)
            expectInUse(function.call(job, NoFolders.data()), function.name);
        for (const PlainFunction &function : PlainFunctions)
            expectInUse(function.call(job), function.name);
        expectInUse(pellox_job_free(job), "job_free");
        std::thread([&] { expectInUse(pellox_job_free(job), "job_free elsewhere"); }).join();
        if (pellox_figure(job, PELLOX_FIGURE_BYTES_TO_READ) != -1)
            wrong.append("figure");
    };
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_DONE));
    QCOMPARE(wrong, QByteArrayList());
    QCOMPARE(job.phases.size(), 3);
    QVERIFY(!job.files.isEmpty());
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

/// Those of an earlier run are gone.
void tst_CapiJobs::figuresThatAreNotThere()
{
    const RecordedJob job;
    QCOMPARE(int(pellox_figure(job, PELLOX_FIGURE_BYTES_TO_WRITE)), -1);
    QCOMPARE(pellox_plan(job, build(), patch()), int(PELLOX_DONE));
    QVERIFY(pellox_figure(job, PELLOX_FIGURE_BYTES_TO_WRITE) > 0);
    QCOMPARE(int(pellox_figure(job, 1000)), -1);
    QCOMPARE(pellox_recover(job, build()), int(PELLOX_NOTHING_TO_DO));
    QCOMPARE(int(pellox_figure(job, PELLOX_FIGURE_BYTES_TO_WRITE)), -1);
}

void tst_CapiJobs::cancelledBeforeItBegins()
{
    RecordedJob job;
    QCOMPARE(pellox_cancel(job), int(PELLOX_DONE));
    for (const PathFunction &function : PathFunctions) {
        if (function.isRun)
            QVERIFY2(function.call(job, NoFolders.data()) == PELLOX_CANCELLED, function.name);
    }
    QVERIFY(job.phases.isEmpty());
    QVERIFY(job.problems.isEmpty());
}

void tst_CapiJobs::callbacksMayBeNull()
{
    pellox_job *job = pellox_job_new();
    QVERIFY(job);
    const int updated = pellox_update(job, build(), patch());
    const int checked = pellox_check(job, build(), utf8(m_scenario->oldSignatures()));
    const int refused = pellox_update(job, NoFolder, patch());
    QCOMPARE(pellox_job_free(job), int(PELLOX_DONE));
    QCOMPARE(updated, int(PELLOX_DONE));
    QCOMPARE(checked, int(PELLOX_NOT_INTACT));
    QCOMPARE(refused, int(PELLOX_REFUSED));
}

void tst_CapiJobs::callbackThatThrows_data()
{
    QTest::addColumn<bool>("publishes");
    QTest::newRow("an update") << false;
    QTest::newRow("signatures") << true;
}

/// It must not, but where it does the run ends, and its threads with it.
void tst_CapiJobs::callbackThatThrows()
{
    QFETCH(const bool, publishes);
    RecordedJob job;
    job.onPhase = [](int) { throw std::runtime_error("of the host"); };
    job.onProgress = [] { throw std::runtime_error("of the host"); };
    const QByteArray out = utf8(m_scenario->tree().path("out"_s));
    const int result = publishes ? pellox_create_signatures(job, utf8(m_scenario->newBuild()), out)
                                 : pellox_update(job, build(), patch());
    QCOMPARE(result, int(PELLOX_FAILED));
    QCOMPARE(m_scenario->differenceToOld(), QString());
    QVERIFY(!m_scenario->tree().exists("out/signatures.json"_s));
}

void tst_CapiJobs::noThreads()
{
    RecordedJob job;
    s_threadsAreUsedUp = true;
    const int result = pellox_plan(job, build(), patch());
    s_threadsAreUsedUp = false;
    QCOMPARE(result, int(PELLOX_NO_MEMORY));
    for (const QString &line : m_log->troubleLeft())
        QVERIFY2(line.contains("QThread::start"_s), qPrintable(line));
    m_log->clear();
    QCOMPARE(pellox_plan(job, build(), patch()), int(PELLOX_DONE));
}

/// Of those that work on the pool.
void tst_CapiJobs::runsThatGetNoThread()
{
    using Run = std::function<int(pellox_job *)>;
    const QByteArray signatures = utf8(m_scenario->signatures());
    const QByteArray source = utf8(m_scenario->newBuild());
    const std::vector<Run> runs{
        [&](pellox_job *job) { return pellox_update(job, build(), patch()); },
        [&](pellox_job *job) { return pellox_recover(job, build()); },
        [&](pellox_job *job) { return pellox_rollback(job, build()); },
        [&](pellox_job *job) { return pellox_check(job, build(), signatures); },
        [&](pellox_job *job) { return pellox_repair(job, build(), signatures, source); },
        [&](pellox_job *job) { return pellox_record_release(job, build(), signatures, patch()); },
    };
    for (const Run &run : runs) {
        RecordedJob job;
        s_threadsAreUsedUp = true;
        const int result = run(job);
        s_threadsAreUsedUp = false;
        QCOMPARE(result, int(PELLOX_NO_MEMORY));
        QCOMPARE(job.problems.size(), 1);
        QCOMPARE(job.problems.first().code, int(PELLOX_PROBLEM_NO_MEMORY));
        QCOMPARE(job.problems.first().file, build());
    }
    QCOMPARE(m_scenario->differenceToOld(), QString());
    const RecordedJob job;
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_DONE));
}

void tst_CapiJobs::twoAtTheSameTime()
{
    constexpr int Times = 5;
    UpdateScenario other;
    const auto update = [](UpdateScenario &scenario, QStringList *problems) {
        for (int i = 0; i < Times; ++i) {
            scenario.lay();
            RecordedJob job;
            const int result = pellox_update(job, utf8(scenario.build()), utf8(scenario.patch()));
            const std::set<std::thread::id> own{std::this_thread::get_id()};
            if (result != PELLOX_DONE || !scenario.differenceToNew().isEmpty())
                problems->append(scenario.differenceToNew() + QString::number(result));
            if (job.threads != own)
                problems->append("callbacks on other threads"_s);
        }
    };
    QStringList problems;
    QStringList othersProblems;
    std::thread beside([&] { update(other, &othersProblems); });
    update(*m_scenario, &problems);
    beside.join();
    QCOMPARE(problems + othersProblems, QStringList());
}

/// Also where the pool that runs are carried out on has but one thread, and that one is taken.
void tst_CapiJobs::runWithinACallback()
{
    QThreadPool &pool = *QThreadPool::globalInstance();
    const int before = pool.maxThreadCount();
    pool.setMaxThreadCount(1);
    UpdateScenario other;
    other.lay();
    RecordedJob job;
    int result = -1;
    job.onPhase = [&](int phase) {
        if (phase == PELLOX_PHASE_STAGING)
            result = pellox_update(RecordedJob(), utf8(other.build()), utf8(other.patch()));
    };
    const int outer = pellox_update(job, build(), patch());
    pool.setMaxThreadCount(before);
    QCOMPARE(outer, int(PELLOX_DONE));
    QCOMPARE(result, int(PELLOX_DONE));
    QCOMPARE(other.differenceToNew(), QString());
    QCOMPARE(m_scenario->differenceToNew(), QString());
}

void tst_CapiJobs::buildIsBusy()
{
    RecordedJob job;
    RecordedJob other;
    int result = -1;
    job.onPhase = [&](int phase) {
        if (phase == PELLOX_PHASE_STAGING)
            result = pellox_update(other, build(), patch());
    };
    QCOMPARE(pellox_update(job, build(), patch()), int(PELLOX_DONE));
    QCOMPARE(result, int(PELLOX_REFUSED));
    QCOMPARE(other.codes(), QVector<int>{PELLOX_PROBLEM_BUSY});
}

/// At any instant: the build is old or new, as the result says.
void tst_CapiJobs::cancelOnAnotherThread()
{
    constexpr int Times = 30;
    constexpr unsigned long Step = 700; // microseconds
    for (unsigned long i = 0; i < Times; ++i) {
        m_scenario->lay();
        RecordedJob job;
        std::thread other([&] {
            QThread::usleep(i * Step);
            pellox_cancel(job);
        });
        const int result = pellox_update(job, build(), patch());
        other.join();
        if (result == PELLOX_CANCELLED)
            QCOMPARE(m_scenario->differenceToOld(), QString());
        else
            QCOMPARE(m_scenario->differenceToNew(), QString());
        QVERIFY(result == PELLOX_CANCELLED || result == PELLOX_DONE);
        QVERIFY(i > 0 || job.problems.isEmpty());
    }
}

QTEST_GUILESS_MAIN(tst_CapiJobs)
#include "tst_capijobs.moc"
