// SPDX-License-Identifier: MIT
#include "updater.h"

#include <Pellox/ArchiveController>

#include <QFileInfo>

#include <algorithm>

using Pellox::ArchiveController;
using Pellox::IntegrityController;
using Pellox::UpdateController;
using Pellox::UpdateProblem;

Updater::Updater(QObject *parent)
    : QObject(parent)
{
    // The controllers' signals come on other threads; "this" brings them here.
    connect(&m_controller, &UpdateController::phaseChanged, this, &Updater::enterPhase);
    connect(&m_controller, &UpdateController::updateProgress, this, &Updater::progressed);
    connect(&m_controller, &UpdateController::fileStaged, this, &Updater::fileWritten);
    connect(&m_controller, &UpdateController::problemFound, this, &Updater::problemFound);
    connect(&m_controller, &UpdateController::finished, this, &Updater::endRun);
    connect(&m_integrity, &IntegrityController::phaseChanged, this, &Updater::enterPhase);
    connect(&m_integrity, &IntegrityController::progress, this, &Updater::progressed);
    connect(&m_integrity, &IntegrityController::problemFound, this, &Updater::problemFound);
    connect(&m_integrity, &IntegrityController::finished, this, &Updater::endIntegrity);
}

Updater::~Updater()
{
    do // again and again: a call may not have begun yet
        cancel();
    while (m_worker && !m_worker->wait(50));
}

void Updater::setTrustedKeys(const QStringList &publicKeys)
{
    m_controller.setTrustedKeys(publicKeys);
}

void Updater::check(const QString &build, const QString &patch)
{
    forget();
    m_build = build;
    m_patch = patch;
    m_hasFinishedEarlier = false;
    const bool isArchive = QFileInfo(patch).isFile();
    begin(Job::Check, isArchive ? Stage::Unpacking : Stage::Planning);
    if (isArchive)
        unpack();
    else
        plan();
}

void Updater::update()
{
    begin(Job::Update, Stage::Checking);
    requireStarted(m_controller.update(m_build, m_unpacked ? m_unpacked->path() : m_patch));
}

void Updater::verify(const QString &build, const QString &signatures)
{
    begin(Job::Verify, Stage::Checking);
    requireStarted(m_integrity.check(build, signatures));
}

void Updater::repair(const QString &build, const QString &signatures, const QString &source)
{
    forget();
    begin(Job::Repair, Stage::Checking);
    requireStarted(m_integrity.repair(build, signatures, source));
}

void Updater::cancel()
{
    m_isCancelled = true;
    if (m_worker)
        m_worker->quit(); // ends the loop in which the archive is unpacked
    m_controller.cancel();
    m_integrity.cancel();
}

void Updater::forget()
{
    m_canUpdate = false;
    m_unpacked.reset();
}

bool Updater::canCancel() const
{
    return isBusy() && !m_isCancelled && m_stage != Stage::Finishing
        && m_stage != Stage::Committing;
}

void Updater::begin(Job job, Stage stage)
{
    m_job = job;
    m_isCancelled = false;
    enter(stage);
}

/// A run that the system has no thread for does not start, and tells nothing.
void Updater::requireStarted(bool hasStarted)
{
    if (!hasStarted)
        end([this] { Q_EMIT finished(Result::Failed); });
}

void Updater::end(const std::function<void()> &tell)
{
    m_stage = Stage::Idle;
    tell();
    Q_EMIT stageChanged(m_stage);
}

void Updater::enter(Stage stage)
{
    m_stage = stage;
    Q_EMIT stageChanged(stage);
}

void Updater::enterPhase(Phase phase)
{
    switch (phase) {
    case Phase::Finishing:
        return enter(Stage::Finishing);
    case Phase::Checking:
        return enter(Stage::Checking);
    case Phase::Staging:
        return enter(Stage::Writing);
    case Phase::Committing:
        return enter(Stage::Committing);
    }
}

/// Calls @p work on a thread of its own and then @p then here.
void Updater::doBeside(const std::function<void()> &work, void (Updater::*then)())
{
    m_worker.reset(QThread::create(work));
    connect(m_worker.get(), &QThread::finished, this, then);
    m_worker->start();
}

void Updater::unpack()
{
    // Not in the system's folder for temporary files, which may be in memory: patches are large.
    m_unpacked = std::make_unique<QTemporaryDir>(m_patch + QLatin1String(".XXXXXX"));
    m_unpackError = m_unpacked->isValid() ? QString() : m_unpacked->errorString();
    const QString archive = QFileInfo(m_patch).absoluteFilePath();
    const QString folder = QFileInfo(m_unpacked->path()).absoluteFilePath();
    doBeside(
        [this, archive, folder] {
            if (!m_unpackError.isEmpty())
                return;
            ArchiveController controller;
            controller.setSilentEndIsError(true);
            connect(&controller, &ArchiveController::extractError, &controller,
                [this](const QStringList &errors) { m_unpackError = errors.last(); });
            double highest = 0; // lines without a figure count as 0
            controller.extractArchive(archive, folder, QString(), [&](double percent) {
                highest = std::max(highest, percent);
                Q_EMIT progressed(static_cast<qint64>(highest), 100);
            });
        },
        &Updater::endUnpacking);
}

void Updater::endUnpacking()
{
    if (m_isCancelled)
        return endCancelled();
    if (m_unpackError.isEmpty()) {
        enter(Stage::Planning);
        return plan();
    }
    const bool isFull = m_unpackError.contains(QLatin1String("no space"), Qt::CaseInsensitive);
    refuse({{isFull ? UpdateProblem::Code::NoSpace : UpdateProblem::Code::BadPatch, m_patch,
        tr("cannot be unpacked: %1").arg(m_unpackError.simplified())}});
}

void Updater::plan()
{
    const QString patch = m_unpacked ? m_unpacked->path() : m_patch;
    doBeside([this, patch] { m_plan = m_controller.plan(m_build, patch); }, &Updater::endPlanning);
}

void Updater::endPlanning()
{
    if (m_isCancelled || m_plan.isCancelled)
        return endCancelled();
    const bool isUnfinished = std::any_of(
        m_plan.refusals.cbegin(), m_plan.refusals.cend(), [](const UpdateProblem &problem) {
            return problem.code == UpdateProblem::Code::Unfinished;
        });
    if (isUnfinished && !m_hasFinishedEarlier) {
        m_hasFinishedEarlier = true;
        enter(Stage::Finishing);
        return requireStarted(m_controller.recover(m_build)); // and then the plan once more
    }
    if (!m_plan.refusals.isEmpty())
        return refuse(m_plan.refusals);
    m_canUpdate = m_plan.filesToPatch + m_plan.filesToCopy + m_plan.deletions.size() > 0;
    end([this] { Q_EMIT checked(m_plan); });
}

/// Of an update or a recovery.
void Updater::endRun(Result result)
{
    const bool isDone = result == Result::Updated || result == Result::AlreadyUpToDate;
    if (m_job == Job::Check && isDone) {
        enter(Stage::Planning);
        return plan();
    }
    if (isDone || result == Result::Refused)
        forget();
    end([&] { Q_EMIT finished(result); });
}

void Updater::endIntegrity(bool success)
{
    end([&] {
        if (m_job == Job::Repair)
            Q_EMIT finished(m_integrity.repairResult());
        else if (success)
            Q_EMIT verified(m_integrity.report());
        else
            Q_EMIT finished(m_isCancelled ? Result::Cancelled : Result::Refused);
    });
}

/// Of a check.
void Updater::endCancelled()
{
    forget();
    end([this] { Q_EMIT finished(Result::Cancelled); });
}

void Updater::refuse(const QVector<UpdateProblem> &problems)
{
    forget();
    for (const UpdateProblem &problem : problems)
        Q_EMIT problemFound(problem);
    end([this] { Q_EMIT finished(Result::Refused); });
}
