// SPDX-License-Identifier: MIT
#include "updatecontroller.h"

#include "canonicalpath.h"
#include "updaterun.h"

#include <QtConcurrent>
#include <QThread>

#include <algorithm>

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
            [this](UpdatePhase phase) { Q_EMIT q.phaseChanged(phase); },
            [this](const QString &path) { Q_EMIT q.fileStaged(path); },
            [this](const UpdateProblem &problem) {
                Q_EMIT q.problemFound(problem);
                Q_EMIT q.updateError(problem.message());
            }};
    }

    bool start(const UpdateRun::Settings &settings, UpdateResult (UpdateRun::*job)())
    {
        if (isRunning.exchange(true))
            return false;
        isCancelled = false;
        reported = 0;
        future = QtConcurrent::run([this, settings, job] {
            UpdateResult result = UpdateResult::Failed;
            {
                UpdateRun run(settings, reports(), isCancelled); // holds the build's lock
                result = (run.*job)();
            }
            isRunning = false;
            Q_EMIT q.finished(result);
        });
        return true;
    }

    /// Runs @p job here; false, without it, when a run is under way.
    bool block(const UpdateRun::Settings &settings, const std::function<void(UpdateRun &)> &job)
    {
        if (isRunning.exchange(true))
            return false;
        isCancelled = false;
        UpdateRun run(settings, reports(), isCancelled);
        job(run);
        isRunning = false;
        return true;
    }

    UpdateController &q;
    int threadCount = 0;
    QString fallback;
    bool keepsPrevious = false;
    Trust trust;
    bool syncs = true;
    std::atomic<bool> isCancelled{false};
    std::atomic<bool> isRunning{false};
    qint64 reported = 0;
    QFuture<void> future;
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
    cancel();
    d->future.waitForFinished();
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
    d->block(d->settings(build), [&](UpdateRun &run) { discarded = run.discardPrevious(); });
    return discarded;
}

UpdatePlan UpdateController::plan(const QString &build, const QString &patch)
{
    UpdatePlan plan;
    if (!d->block(d->settings(build, patch), [&](UpdateRun &run) { plan = run.plan(); }))
        plan.refusals.append({UpdateProblem::Code::Busy, build,
            QStringLiteral("is being worked on by this object")});
    return plan;
}

void UpdateController::cancel()
{
    d->isCancelled = true;
}

bool UpdateController::isRunning() const
{
    return d->isRunning;
}

} // namespace Pellox
