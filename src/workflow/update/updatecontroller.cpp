// SPDX-License-Identifier: MIT
#include "updatecontroller.h"

#include "backgroundruns.h"
#include "canonicalpath.h"
#include "updaterun.h"

#include <QThread>

#include <algorithm>
#include <optional>

namespace Pellox {

class UpdateController::Private
{
public:
    explicit Private(UpdateController &controller)
        : q(controller)
    {
    }

    UpdateRun::Settings settings(const QString &build, const QString &patch = QString()) const
    {
        return {
            {{absoluteFolder(build), absoluteFolder(patch), absoluteFolder(fallback)},
                threadCount > 0 ? threadCount : QThread::idealThreadCount(), syncs, keepsPrevious},
            trust};
    }

    UpdateRun::Reports reports()
    {
        using UpdatePhase = UpdateController::UpdatePhase;
        return {[this](qint64 done, qint64 total) {
                    reported = std::max(reported, done);
                    Q_EMIT q.updateProgress(reported, total);
                },
            [this](UpdatePhase phase) {
                reported = 0;
                Q_EMIT q.phaseChanged(phase);
            },
            [this](const QString &path) { Q_EMIT q.fileStaged(path); },
            [this](const UpdateProblem &problem) { tell(problem); }};
    }

    static UpdateRun::Reports silence()
    {
        return {[](qint64, qint64) {}, [](UpdateController::UpdatePhase) {}, [](const QString &) {},
            [](const UpdateProblem &) {}};
    }

    void tell(const UpdateProblem &problem)
    {
        Q_EMIT q.problemFound(problem);
        Q_EMIT q.updateError(problem.message());
    }

    bool start(const UpdateRun::Settings &settings, UpdateResult (UpdateRun::*job)())
    {
        const auto started = runs.start([this, settings, job] { carryOut(settings, job); });
        if (started == BackgroundRuns::Started::NoThread)
            tell(problemOfNoThread(settings.transaction.folders.build));
        return started == BackgroundRuns::Started::Yes;
    }

    void carryOut(const UpdateRun::Settings &settings, UpdateResult (UpdateRun::*job)())
    {
        result = UpdateResult::Failed;
        std::optional<UpdateRun> run; // holds the build's lock
        try {
            run.emplace(settings, reports(), runs.isCancelled());
            result = ((*run).*job)();
        } catch (...) {
            const QString &build = settings.transaction.folders.build;
            if (hasJournal(build))
                result = UpdateResult::Interrupted;
            tell(problemOfException(build));
        }
    }

    /// Runs @p job here. Nothing, without it, when a run is under way; else whether it came to its
    /// end, and @p problem when it did not.
    std::optional<bool> block(const UpdateRun::Settings &settings,
        const UpdateRun::Reports &reports, const std::function<void(UpdateRun &)> &job,
        UpdateProblem *problem)
    {
        bool done = false;
        const bool wasFree = runs.block([&] {
            try {
                UpdateRun run(settings, reports, runs.isCancelled());
                job(run);
                done = true;
            } catch (...) {
                *problem = problemOfException(settings.transaction.folders.build);
            }
        });
        return wasFree ? std::optional(done) : std::nullopt;
    }

    UpdateController &q;
    int threadCount = 0;
    QString fallback;
    bool keepsPrevious = false;
    Trust trust;
    bool syncs = true;
    qint64 reported = 0; ///< in this phase
    UpdateResult result = UpdateResult::Failed;
    BackgroundRuns runs{[this] { Q_EMIT q.finished(result); }}; // ends before what it uses
};

UpdateController::UpdateController(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(*this))
{
    qRegisterMetaType<Pellox::UpdateController::UpdateResult>();
    qRegisterMetaType<Pellox::UpdateController::UpdatePhase>();
    qRegisterMetaType<Pellox::UpdateProblem>();
}

UpdateController::~UpdateController()
{
    d->runs.stop();
}

void UpdateController::setThreadCount(int count)
{
    d->threadCount = std::max(0, count);
}

void UpdateController::setFallbackSource(const QString &folder)
{
    d->fallback = folder;
}

void UpdateController::setTrustedKeys(const QStringList &publicKeys)
{
    d->trust.keys = publicKeys;
}

void UpdateController::setOlderAllowed(bool allowed)
{
    d->trust.allowsOlder = allowed;
}

void UpdateController::setKeepPrevious(bool keep)
{
    d->keepsPrevious = keep;
}

void UpdateController::setSynced(bool synced)
{
    d->syncs = synced;
}

bool UpdateController::update(const QString &build, const QString &patch)
{
    return d->start(d->settings(build, patch), &UpdateRun::update);
}

bool UpdateController::recover(const QString &build)
{
    return d->start(d->settings(build), &UpdateRun::recover);
}

bool UpdateController::rollback(const QString &build)
{
    return d->start(d->settings(build), &UpdateRun::rollback);
}

bool UpdateController::discardPrevious(const QString &build)
{
    bool discarded = false;
    UpdateProblem problem;
    const auto done = d->block(
        d->settings(build), d->reports(),
        [&](UpdateRun &run) { discarded = run.discardPrevious(); }, &problem);
    if (done == false)
        d->tell(problem);
    return discarded && done == true;
}

UpdatePlan UpdateController::plan(const QString &build, const QString &patch)
{
    UpdatePlan plan;
    UpdateProblem problem;
    const auto done = d->block(
        d->settings(build, patch), Private::silence(), [&](UpdateRun &run) { plan = run.plan(); },
        &problem);
    if (!done)
        problem = {
            UpdateProblem::Code::Busy, build, QStringLiteral("is being worked on by this object")};
    if (done != true)
        plan.refusals = {problem};
    return plan;
}

void UpdateController::cancel()
{
    d->runs.cancel();
}

bool UpdateController::isRunning() const
{
    return d->runs.isUnderWay();
}

} // namespace Pellox
