// SPDX-License-Identifier: MIT
#include "job.h"

#include "ownapplication.h"

#include <QByteArray>
#include <QThread>

#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Pellox {

namespace {

using Code = UpdateProblem::Code;
using Phase = UpdateController::UpdatePhase;

constexpr Code OtherCode{PELLOX_PROBLEM_OTHER};

// The numbers of pellox.h are promised to hosts.
constexpr bool isSame(int number, Code code)
{
    return number == static_cast<int>(code);
}
static_assert(isSame(PELLOX_PROBLEM_BAD_FOLDER, Code::BadFolder)
        && isSame(PELLOX_PROBLEM_BUSY, Code::Busy)
        && isSame(PELLOX_PROBLEM_NOT_WRITABLE, Code::NotWritable)
        && isSame(PELLOX_PROBLEM_BAD_MANIFEST, Code::BadManifest)
        && isSame(PELLOX_PROBLEM_BAD_PATCH, Code::BadPatch)
        && isSame(PELLOX_PROBLEM_DAMAGED_INSTALL, Code::DamagedInstall)
        && isSame(PELLOX_PROBLEM_OBSTRUCTED, Code::Obstructed)
        && isSame(PELLOX_PROBLEM_BAD_FALLBACK, Code::BadFallback)
        && isSame(PELLOX_PROBLEM_NO_SPACE, Code::NoSpace)
        && isSame(PELLOX_PROBLEM_READ_OR_WRITE, Code::ReadOrWrite)
        && isSame(PELLOX_PROBLEM_DAMAGED_JOURNAL, Code::DamagedJournal)
        && isSame(PELLOX_PROBLEM_NOTHING_KEPT, Code::NothingKept)
        && isSame(PELLOX_PROBLEM_NOT_TRUSTED, Code::NotTrusted)
        && isSame(PELLOX_PROBLEM_OLDER_RELEASE, Code::OlderRelease)
        && isSame(PELLOX_PROBLEM_FOREIGN_PATCH, Code::ForeignPatch)
        && isSame(PELLOX_PROBLEM_BAD_KEY, Code::BadKey)
        && isSame(PELLOX_PROBLEM_UNFINISHED, Code::Unfinished)
        && isSame(PELLOX_PROBLEM_NO_MEMORY, Code::NoMemory)
        && isSame(PELLOX_PROBLEM_DAMAGED_KEPT, Code::DamagedKept),
    "the library has other numbers");

/// Nobody else uses a job while this lives, unless somebody did before.
class JobUse
{
public:
    explicit JobUse(pellox_job &job)
        : m_job(job)
        , m_isOurs(!job.isInUse.exchange(true))
    {
    }
    ~JobUse()
    {
        if (m_isOurs)
            m_job.isInUse = false;
    }
    JobUse(const JobUse &) = delete;
    JobUse &operator=(const JobUse &) = delete;

    bool isOurs() const { return m_isOurs; }

private:
    pellox_job &m_job;
    const bool m_isOurs;
};

/// What @p call returns; no exception leaves it.
int withoutExceptions(const std::function<int()> &call) noexcept
{
    try {
        return call();
    } catch (const std::bad_alloc &) {
        return PELLOX_NO_MEMORY;
    } catch (const std::length_error &) { // of a container that became too large
        return PELLOX_NO_MEMORY;
    } catch (const std::system_error &) { // of a thread that could not be started
        return PELLOX_NO_MEMORY;
    } catch (...) {
        return PELLOX_FAILED;
    }
}

/// False when one of @p texts is no path.
bool readPaths(std::initializer_list<const char *> texts, QStringList *paths)
{
    for (const char *text : texts) {
        const QByteArray bytes(text);
        paths->append(QString::fromUtf8(bytes));
        // What is no UTF-8 comes back as something else.
        if (bytes.isEmpty() || paths->last().toUtf8() != bytes)
            return false;
    }
    return true;
}

int numberOf(Phase phase)
{
    switch (phase) {
    case Phase::Finishing:
        return PELLOX_PHASE_FINISHING;
    case Phase::Checking:
        return PELLOX_PHASE_CHECKING;
    case Phase::Staging:
        return PELLOX_PHASE_STAGING;
    case Phase::Committing:
        break;
    }
    return PELLOX_PHASE_COMMITTING;
}

/// What is done when nobody waits any more: at the end, or when an exception of a callback goes
/// through, which cancels.
class LastSteps
{
public:
    LastSteps(RunEvents &events, const std::function<void()> &cancel)
        : m_events(events)
        , m_cancel(cancel)
    {
    }
    ~LastSteps()
    {
        if (!hasEnded)
            m_cancel();
        m_events.abandon();
    }
    LastSteps(const LastSteps &) = delete;
    LastSteps &operator=(const LastSteps &) = delete;

    bool hasEnded = false;

private:
    RunEvents &m_events;
    const std::function<void()> &m_cancel;
};

/// Tells the host one event, if it wants to know.
class Teller
{
public:
    explicit Teller(const pellox_job &job)
        : m_job(job)
    {
    }

    void operator()(const RunProgress &progress) const
    {
        if (m_job.onProgress.function)
            m_job.onProgress.function(m_job.onProgress.user, progress.done, progress.total);
    }
    void operator()(Phase phase) const
    {
        if (m_job.onPhase.function)
            m_job.onPhase.function(m_job.onPhase.user, numberOf(phase));
    }
    void operator()(const FileEvent &file) const
    {
        if (m_job.onFile.function)
            m_job.onFile.function(m_job.onFile.user, file.event, file.path.toUtf8().constData());
    }
    void operator()(const UpdateProblem &problem) const
    {
        if (!m_job.onProblem.function)
            return;
        const bool isOther = problem.code == OtherCode;
        const QByteArray name = isOther ? QByteArray("other") : problem.codeName().toUtf8();
        const QByteArray file = problem.file.toUtf8();
        const QByteArray reason = problem.reason.toUtf8();
        const QByteArray message = problem.message().toUtf8();
        const QByteArray advice = problem.advice().toUtf8();
        const pellox_problem told{static_cast<int>(problem.code), name.constData(),
            file.constData(), reason.constData(), message.constData(), advice.constData()};
        m_job.onProblem.function(m_job.onProblem.user, &told);
    }

private:
    const pellox_job &m_job;
};

/// A thread that does one piece of work. Ended, if need be by cancelling it, when this goes.
class Worker
{
public:
    Worker(RunEvents &events, const std::function<int()> &work,
        const std::function<void(QThread &)> &cancel)
        : m_events(events)
        , m_thread(QThread::create([&events, &work] { events.end(withoutExceptions(work)); }))
        , m_cancel(cancel)
    {
    }
    ~Worker()
    {
        while (m_hasStarted && !m_events.waitForEnd())
            cancel();
        m_thread->wait();
    }
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;

    bool start()
    {
        m_thread->start();
        m_hasStarted = m_thread->isRunning() || m_thread->isFinished();
        return m_hasStarted;
    }
    void cancel() { m_cancel(*m_thread); }

private:
    RunEvents &m_events;
    const std::unique_ptr<QThread> m_thread;
    bool m_hasStarted = false;
    const std::function<void(QThread &)> &m_cancel;
};

} // namespace

int useJob(pellox_job *job, const std::function<int(pellox_job &)> &call) noexcept
{
    if (!job)
        return PELLOX_BAD_ARGUMENT;
    const JobUse use(*job);
    return use.isOurs() ? withoutExceptions([&] { return call(*job); }) : PELLOX_IN_USE;
}

int useJobWith(pellox_job *job, std::initializer_list<const char *> paths,
    const std::function<int(pellox_job &, const QStringList &)> &call) noexcept
{
    return useJob(job, [&](pellox_job &usedJob) {
        QStringList readable;
        return readPaths(paths, &readable) ? call(usedJob, readable) : PELLOX_BAD_ARGUMENT;
    });
}

int startRun(pellox_job *job, std::initializer_list<const char *> paths,
    const std::function<int(pellox_job &, const QStringList &)> &run) noexcept
{
    return useJobWith(job, paths, [&](pellox_job &usedJob, const QStringList &readable) {
        usedJob.figures.clear();
        if (usedJob.isCancelled)
            return static_cast<int>(PELLOX_CANCELLED);
        prepareQt();
        return run(usedJob, readable);
    });
}

int tellUntilEnd(pellox_job &job, RunEvents &events, const std::function<void()> &cancel)
{
    const Teller tell(job);
    LastSteps lastSteps(events, cancel);
    while (true) {
        const RunEvents::Batch batch = events.fetch();
        for (const RunEvent &event : batch.events) {
            std::visit(tell, event);
            if (job.isCancelled)
                cancel();
        }
        if (batch.result) {
            lastSteps.hasEnded = true;
            return *batch.result;
        }
        if (job.isCancelled)
            cancel();
    }
}

int runOnThread(pellox_job &job, RunEvents &events, const std::function<int()> &work,
    const std::function<void(QThread &)> &cancel)
{
    Worker worker(events, work, cancel);
    if (!worker.start())
        return PELLOX_NO_MEMORY;
    return tellUntilEnd(job, events, [&] { worker.cancel(); });
}

void tellFiles(const pellox_job &job, int event, const QStringList &paths)
{
    const Teller tell(job);
    for (const QString &path : paths)
        tell(FileEvent{event, path});
}

UpdateProblem otherProblem(const QString &message)
{
    return {OtherCode, QString(), message};
}

} // namespace Pellox
