// SPDX-License-Identifier: MIT
#include "integritycontroller.h"

#include "backgroundruns.h"
#include "canonicalpath.h"
#include "integrityrun.h"

#include <QThread>

#include <algorithm>
#include <optional>

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
        const auto started = runs.start([this, settings, job] { carryOut(settings, job); });
        if (started == BackgroundRuns::Started::NoThread)
            tell(problemOfNoThread(settings.build));
        return started == BackgroundRuns::Started::Yes;
    }

    void carryOut(const IntegrityRun::Settings &settings, bool (IntegrityRun::*job)())
    {
        success = false;
        report = {};
        result = UpdateController::UpdateResult::Failed;
        std::optional<IntegrityRun> run; // may hold the build's lock
        try {
            run.emplace(settings, reports(), runs.isCancelled());
            success = ((*run).*job)();
            report = run->report();
            result = run->result();
        } catch (...) {
            success = false;
            if (hasJournal(settings.build))
                result = UpdateController::UpdateResult::Interrupted;
            tell(problemOfException(settings.build));
        }
    }

    IntegrityRun::Reports reports()
    {
        return {[this](qint64 done, qint64 total) { Q_EMIT q.progress(done, total); },
            [this](UpdateController::UpdatePhase phase) { Q_EMIT q.phaseChanged(phase); },
            [this](const UpdateProblem &problem) { tell(problem); }};
    }

    void tell(const UpdateProblem &problem)
    {
        Q_EMIT q.problemFound(problem);
        Q_EMIT q.integrityError(problem.message());
    }

    IntegrityController &q;
    int threadCount = 0;
    bool success = false;
    IntegrityReport report;
    UpdateController::UpdateResult result = UpdateController::UpdateResult::Failed;
    BackgroundRuns runs{[this] { Q_EMIT q.finished(success); }}; // ends before what it uses
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
    d->runs.stop();
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

bool IntegrityController::recordRelease(const QString &build, const QString &signatures,
    const QString &patch, const QStringList &trustedKeys)
{
    const int threads = d->threadCount > 0 ? d->threadCount : QThread::idealThreadCount();
    return d->start({absoluteFolder(build), absoluteFolder(signatures), QString(), threads,
                        absoluteFolder(patch), trustedKeys},
        &IntegrityRun::recordRelease);
}

void IntegrityController::cancel()
{
    d->runs.cancel();
}

bool IntegrityController::isRunning() const
{
    return d->runs.isUnderWay();
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
