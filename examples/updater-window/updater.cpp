// SPDX-License-Identifier: MIT
#include "updater.h"

#include <Pellox/ArchiveController>

#include <QFileInfo>
#include <QTimer>

using Pellox::ArchiveController;
using Pellox::IntegrityController;
using Pellox::UpdateController;
using Code = Pellox::UpdateProblem::Code;

Updater::Updater(QObject *parent)
    : QObject(parent)
{
    // The controllers' signals come on other threads; "this" brings them here.
    connect(&m_controller, &UpdateController::phaseChanged, this, &Updater::enter);
    connect(&m_controller, &UpdateController::updateProgress, this, &Updater::progressed);
    connect(&m_controller, &UpdateController::fileStaged, this, &Updater::fileWritten);
    connect(&m_controller, &UpdateController::problemFound, this, &Updater::problemFound);
    connect(&m_controller, &UpdateController::finished, this, &Updater::endRun);
    connect(&m_integrity, &IntegrityController::phaseChanged, this, &Updater::enter);
    connect(&m_integrity, &IntegrityController::progress, this, &Updater::progressed);
    connect(&m_integrity, &IntegrityController::problemFound, this, &Updater::problemFound);
    connect(&m_integrity, &IntegrityController::finished, this, &Updater::endIntegrityRun);
}

Updater::~Updater()
{
    do // again and again: a call may not have begun yet
        cancel();
    while (m_worker && !m_worker->wait(50));
}

void Updater::check(const QString &build, const QString &patch)
{
    forget();
    begin(Job::Check);
    m_build = build;
    m_patch = patch;
    requireStarted(m_controller.recover(build)); // a patch counts from a build that is whole
}

void Updater::update()
{
    begin(Job::Update);
    requireStarted(m_controller.update(m_build, m_unpacked ? m_unpacked->path() : m_patch));
}

void Updater::verify(const QString &build, const QString &signatures)
{
    begin(Job::Verify);
    requireStarted(m_integrity.check(build, signatures));
}

void Updater::repair(const QString &build, const QString &signatures, const QString &source)
{
    forget();
    begin(Job::Repair);
    requireStarted(m_integrity.repair(build, signatures, source));
}

void Updater::cancel()
{
    m_isCancelled = true;
    m_controller.cancel();
    m_integrity.cancel();
    if (!m_worker)
        return;
    m_worker->quit(); // ends the loop in which the archive is unpacked
    QTimer::singleShot(50, m_worker.get(), [this] {
        if (m_worker->isRunning()) // on a plan that had not begun yet it was lost
            cancel();
    });
}

void Updater::forget()
{
    m_canUpdate = false;
    if (m_unpacked) // maybe many files: not on this thread
        m_removal = std::async([folder = std::move(m_unpacked)] { folder->remove(); });
}

bool Updater::canCancel() const
{
    return m_isBusy && !m_isCancelled && m_phase != Phase::Finishing
        && m_phase != Phase::Committing;
}

void Updater::begin(Job job)
{
    m_job = job;
    m_isCancelled = false;
    setBusy(true);
    enter(Phase::Checking);
}

void Updater::setBusy(bool isBusy)
{
    m_isBusy = isBusy;
    Q_EMIT busyChanged(isBusy);
}

/// A run that the system has no thread for does not start, and does not end either.
void Updater::requireStarted(bool isStarted)
{
    if (!isStarted)
        end(Result::Failed);
}

void Updater::enter(Phase phase)
{
    m_phase = phase;
    Q_EMIT phaseChanged(phase);
}

/// Unpacks the patch where it is an archive, and makes the plan. Both block: not on this thread.
void Updater::prepare()
{
    m_plan = {};
    const bool isArchive = QFileInfo(m_patch).isFile();
    if (isArchive) // beside it: the system's folder for temporary files may be in memory
        m_unpacked = std::make_unique<QTemporaryDir>(m_patch + QLatin1String(".XXXXXX"));
    m_worker.reset(QThread::create([this, isArchive] {
        if (isArchive && !unpack())
            return;
        if (!m_isCancelled)
            m_plan = m_controller.plan(m_build, isArchive ? m_unpacked->path() : m_patch);
    }));
    connect(m_worker.get(), &QThread::finished, this, &Updater::endCheck);
    m_worker->start();
    if (isArchive)
        Q_EMIT unpacking(0);
}

/// On the worker's thread. False: it was stopped, or m_plan has the refusal.
bool Updater::unpack()
{
    const auto refuse = [this](const QString &error) {
        const bool isFull = error.contains(QLatin1String("no space"), Qt::CaseInsensitive);
        m_plan.refusals.append({isFull ? Code::NoSpace : Code::BadPatch, m_patch,
            tr("cannot be unpacked: %1").arg(error.simplified())});
    };
    if (!m_unpacked->isValid()) {
        refuse(m_unpacked->errorString());
        return false;
    }
    if (m_removal.valid())
        m_removal.wait(); // there may not be room for both
    ArchiveController controller;
    controller.setSilentEndIsError(true);
    connect(&controller, &ArchiveController::extractError, &controller,
        [&](const QStringList &errors) { refuse(errors.last()); });
    // What is told goes to the thread of this, by "this" as the context.
    const bool isUnpacked = controller.extractArchive(QFileInfo(m_patch).absoluteFilePath(),
        QFileInfo(m_unpacked->path()).absoluteFilePath(), QString(), [this](double percent) {
            if (percent > 0) // lines without a figure count as 0
                QMetaObject::invokeMethod(
                    this, [this, percent] { Q_EMIT unpacking(int(percent)); });
        });
    QMetaObject::invokeMethod(this, [this] { enter(Phase::Checking); });
    return isUnpacked;
}

void Updater::endCheck()
{
    if (m_isCancelled || m_plan.isCancelled)
        return end(Result::Cancelled);
    for (const Pellox::UpdateProblem &problem : m_plan.refusals)
        Q_EMIT problemFound(problem);
    if (!m_plan.refusals.isEmpty())
        return end(Result::Refused);
    m_canUpdate = m_plan.filesToPatch + m_plan.filesToCopy + m_plan.deletions.size() > 0;
    setBusy(false);
    Q_EMIT checked(m_plan);
}

/// Of an update, or of the recovery before a check.
void Updater::endRun(Result result)
{
    const bool isWhole = result == Result::Updated || result == Result::AlreadyUpToDate;
    if (m_job != Job::Check || !isWhole)
        return end(result);
    enter(Phase::Checking); // what was cut off is finished: from here on it can be stopped
    if (m_isCancelled)
        return end(Result::Cancelled);
    prepare();
}

void Updater::endIntegrityRun(bool success)
{
    if (m_job == Job::Repair)
        return end(m_integrity.repairResult());
    if (!success)
        return end(m_isCancelled ? Result::Cancelled : Result::Refused);
    setBusy(false);
    Q_EMIT verified(m_integrity.report());
}

void Updater::end(Result result)
{
    if (m_job != Job::Verify && (m_job != Job::Update || result != Result::Cancelled))
        forget();
    setBusy(false);
    Q_EMIT finished(result);
}
