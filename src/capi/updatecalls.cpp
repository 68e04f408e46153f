// SPDX-License-Identifier: MIT
#include "job.h"

#include "integritycontroller.h"
#include "updatecontroller.h"

#include <thread>

using namespace Pellox;

namespace {

using Result = UpdateController::UpdateResult;

int resultOf(Result result)
{
    switch (result) {
    case Result::Updated:
        return PELLOX_DONE;
    case Result::AlreadyUpToDate:
        return PELLOX_NOTHING_TO_DO;
    case Result::Refused:
        return PELLOX_REFUSED;
    case Result::Failed:
        break;
    case Result::Interrupted:
        return PELLOX_INTERRUPTED;
    case Result::Cancelled:
        return PELLOX_CANCELLED;
    }
    return PELLOX_FAILED;
}

/// A controller and what it tells. The connections have no context: their slots run on the threads
/// that tell.
template <typename Controller> class Listened
{
public:
    explicit Listened(pellox_job &job)
        : m_job(job)
    {
        controller.setThreadCount(job.settings.threads);
        QObject::connect(&controller, &Controller::phaseChanged,
            [this](UpdateController::UpdatePhase phase) { events.tell(phase); });
        QObject::connect(&controller, &Controller::problemFound,
            [this](const UpdateProblem &problem) { tellProblem(problem); });
    }

    void tellProblem(const UpdateProblem &problem)
    {
        if (std::this_thread::get_id() == m_waiting)
            events.post(problem); // of a run that did not start; nobody is there to wait for
        else
            events.tell(problem);
    }
    void tellProgress(qint64 done, qint64 total) { events.tell(RunProgress{done, total}); }
    /// For the end of a run, if it has @p started.
    int wait(bool started)
    {
        if (!started)
            events.end(PELLOX_NO_MEMORY);
        return tellUntilEnd(m_job, events, [this] { controller.cancel(); });
    }
    int work(const std::function<int()> &work)
    {
        return runOnThread(m_job, events, work, [this](QThread &) { controller.cancel(); });
    }

private:
    pellox_job &m_job;
    const std::thread::id m_waiting = std::this_thread::get_id();

public:
    RunEvents events; // outlives the controller, which waits for its run
    Controller controller;
};

class Updater : public Listened<UpdateController>
{
public:
    explicit Updater(pellox_job &job)
        : Listened(job)
    {
        controller.setFallbackSource(job.settings.fallback);
        controller.setTrustedKeys(job.settings.trustedKeys);
        controller.setOlderAllowed(job.settings.isOlderAllowed);
        controller.setKeepPrevious(job.settings.keepsPrevious);
        QObject::connect(&controller, &UpdateController::updateProgress,
            [this](qint64 done, qint64 total) { tellProgress(done, total); });
        if (job.onFile.function) { // there may be very many
            QObject::connect(
                &controller, &UpdateController::fileStaged, [this](const QString &path) {
                    events.post(FileEvent{PELLOX_FILE_STAGED, path});
                });
        }
        QObject::connect(&controller, &UpdateController::finished,
            [this](Result result) { events.end(resultOf(result)); });
    }
};

class Checker : public Listened<IntegrityController>
{
public:
    explicit Checker(pellox_job &job)
        : Listened(job)
    {
        QObject::connect(&controller, &IntegrityController::progress,
            [this](qint64 done, qint64 total) { tellProgress(done, total); });
        QObject::connect(&controller, &IntegrityController::finished, [this](bool success) {
            const int result = resultOf(controller.repairResult());
            // That of a check which was carried out says nothing.
            events.end(success && result == PELLOX_FAILED ? PELLOX_DONE : result);
        });
    }
};

void tellReport(pellox_job &job, const IntegrityReport &report)
{
    job.figures[PELLOX_FIGURE_INTACT_FILES] = report.intactFiles;
    tellFiles(job, PELLOX_FILE_CHANGED, report.changed);
    tellFiles(job, PELLOX_FILE_MISSING, report.missing);
    tellFiles(job, PELLOX_FILE_UNREADABLE, report.unreadable);
    tellFiles(job, PELLOX_FILE_EXTRA, report.extra);
}

int tellPlan(pellox_job &job, const UpdatePlan &plan)
{
    if (plan.isCancelled)
        return PELLOX_CANCELLED;
    tellFiles(job, PELLOX_FILE_TO_PATCH, plan.patches);
    tellFiles(job, PELLOX_FILE_TO_COPY, plan.copies);
    tellFiles(job, PELLOX_FILE_TO_DELETE, plan.deletions);
    if (!plan.refusals.isEmpty())
        return PELLOX_REFUSED;
    job.figures[PELLOX_FIGURE_BYTES_TO_READ] = plan.bytesToRead;
    job.figures[PELLOX_FIGURE_BYTES_TO_WRITE] = plan.bytesToWrite;
    job.figures[PELLOX_FIGURE_PEAK_EXTRA_DISK] = plan.peakExtraDisk;
    const bool hasNothing
        = plan.patches.isEmpty() && plan.copies.isEmpty() && plan.deletions.isEmpty();
    return hasNothing ? PELLOX_NOTHING_TO_DO : PELLOX_DONE;
}

} // namespace

int pellox_update(pellox_job *job, const char *build, const char *patch)
{
    return startRun(job, {build, patch}, [](pellox_job &usedJob, const QStringList &paths) {
        Updater updater(usedJob);
        return updater.wait(updater.controller.update(paths[0], paths[1]));
    });
}

int pellox_plan(pellox_job *job, const char *build, const char *patch)
{
    return startRun(job, {build, patch}, [](pellox_job &usedJob, const QStringList &paths) {
        UpdatePlan plan;
        Updater updater(usedJob);
        const int result = updater.work([&] {
            plan = updater.controller.plan(paths[0], paths[1]);
            for (const UpdateProblem &problem : plan.refusals)
                updater.events.tell(problem);
            return PELLOX_DONE;
        });
        return result == PELLOX_DONE ? tellPlan(usedJob, plan) : result;
    });
}

int pellox_recover(pellox_job *job, const char *build)
{
    return startRun(job, {build}, [](pellox_job &usedJob, const QStringList &paths) {
        Updater updater(usedJob);
        return updater.wait(updater.controller.recover(paths[0]));
    });
}

int pellox_rollback(pellox_job *job, const char *build)
{
    return startRun(job, {build}, [](pellox_job &usedJob, const QStringList &paths) {
        Updater updater(usedJob);
        return updater.wait(updater.controller.rollback(paths[0]));
    });
}

int pellox_discard_previous(pellox_job *job, const char *build)
{
    return startRun(job, {build}, [](pellox_job &usedJob, const QStringList &paths) {
        Updater updater(usedJob);
        return updater.work([&] {
            return updater.controller.discardPrevious(paths[0]) ? PELLOX_DONE : PELLOX_FAILED;
        });
    });
}

int pellox_check(pellox_job *job, const char *build, const char *signatures)
{
    return startRun(job, {build, signatures}, [](pellox_job &usedJob, const QStringList &paths) {
        Checker checker(usedJob);
        const int result = checker.wait(checker.controller.check(paths[0], paths[1]));
        if (result != PELLOX_DONE)
            return result;
        const IntegrityReport report = checker.controller.report();
        tellReport(usedJob, report);
        return static_cast<int>(report.isIntact() ? PELLOX_DONE : PELLOX_NOT_INTACT);
    });
}

int pellox_repair(pellox_job *job, const char *build, const char *signatures, const char *source)
{
    return startRun(
        job, {build, signatures, source}, [](pellox_job &usedJob, const QStringList &paths) {
            Checker checker(usedJob);
            const bool started = checker.controller.repair(paths[0], paths[1], paths[2]);
            const int result = checker.wait(started);
            if (started)
                tellReport(usedJob, checker.controller.report());
            return result;
        });
}

int pellox_record_release(
    pellox_job *job, const char *build, const char *signatures, const char *patch)
{
    return startRun(
        job, {build, signatures, patch}, [](pellox_job &usedJob, const QStringList &paths) {
            Checker checker(usedJob);
            const bool started = checker.controller.recordRelease(
                paths[0], paths[1], paths[2], usedJob.settings.trustedKeys);
            return checker.wait(started);
        });
}
