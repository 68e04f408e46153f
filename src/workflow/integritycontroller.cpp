// SPDX-License-Identifier: MIT
#include "integritycontroller.h"

#include "canonicalpath.h"
#include "integrityrun.h"

#include <QtConcurrent>
#include <QThread>

#include <algorithm>

namespace Pellox {

class IntegrityController::Private
{
public:
    explicit Private(IntegrityController &controller)
        : q(controller)
    {
    }

    bool start(const IntegrityRun::Settings &settings, bool (IntegrityRun::*job)())
    {
        if (isRunning.exchange(true))
            return false;
        isCancelled = false;
        future = QtConcurrent::run([this, settings, job] {
            bool success = false;
            {
                IntegrityRun run(settings, reports(), isCancelled); // may hold the build's lock
                success = (run.*job)();
                report = run.report();
                result = run.result();
            }
            isRunning = false;
            Q_EMIT q.finished(success);
        });
        return true;
    }

    IntegrityRun::Reports reports()
    {
        return {[this](qint64 done, qint64 total) { Q_EMIT q.progress(done, total); },
            [this](UpdateController::UpdatePhase phase) { Q_EMIT q.phaseChanged(phase); },
            [this](const UpdateProblem &problem) {
                Q_EMIT q.problemFound(problem);
                Q_EMIT q.integrityError(problem.message());
            }};
    }

    IntegrityController &q;
    int threadCount = 0;
    std::atomic<bool> isCancelled{false};
    std::atomic<bool> isRunning{false};
    IntegrityReport report;
    UpdateController::UpdateResult result = UpdateController::UpdateResult::Failed;
    QFuture<void> future;
};

IntegrityController::IntegrityController(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(*this))
{
    qRegisterMetaType<Pellox::UpdateController::UpdatePhase>();
    qRegisterMetaType<Pellox::UpdateProblem>();
}

IntegrityController::~IntegrityController()
{
    cancel();
    d->future.waitForFinished();
}

void IntegrityController::setThreadCount(int count)
{
    d->threadCount = std::max(0, count);
}

bool IntegrityController::check(const QString &build, const QString &signatures)
{
    const int threads = d->threadCount > 0 ? d->threadCount : QThread::idealThreadCount();
    return d->start({absoluteFolder(build), absoluteFolder(signatures), QString(), threads},
        &IntegrityRun::check);
}

bool IntegrityController::repair(
    const QString &build, const QString &signatures, const QString &source)
{
    const int threads = d->threadCount > 0 ? d->threadCount : QThread::idealThreadCount();
    return d->start(
        {absoluteFolder(build), absoluteFolder(signatures), absoluteFolder(source), threads},
        &IntegrityRun::repair);
}

void IntegrityController::cancel()
{
    d->isCancelled = true;
}

bool IntegrityController::isRunning() const
{
    return d->isRunning;
}

IntegrityReport IntegrityController::report() const
{
    return d->report;
}

UpdateController::UpdateResult IntegrityController::repairResult() const
{
    return d->result;
}

} // namespace Pellox
