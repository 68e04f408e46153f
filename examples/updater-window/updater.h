// SPDX-License-Identifier: MIT
#pragma once

#include <Pellox/IntegrityController>
#include <Pellox/UpdateController>

#include <QTemporaryDir>
#include <QThread>

#include <atomic>
#include <future>
#include <memory>

/**
 * Drives the library for a window: one job at a time, none of which blocks, with all signals on the
 * thread of this object. The first thing for a launcher to copy.
 */
class Updater : public QObject
{
    Q_OBJECT

public:
    using Phase = Pellox::UpdateController::UpdatePhase;
    using Result = Pellox::UpdateController::UpdateResult;

    enum class Job { Check, Update, Verify, Repair };

    explicit Updater(QObject *parent = nullptr);
    /// Stops what can be stopped and waits for the rest.
    ~Updater() override;

    /// PEM files: only patches that are sealed by one of these are taken. None: any patch is.
    void setTrustedKeys(const QStringList &publicKeys) { m_controller.setTrustedKeys(publicKeys); }

    /// Finishes what an earlier update has left unfinished, and then tells what update() would do.
    /// The patch is a folder or an archive, which is unpacked beside itself. Ends with checked() or
    /// finished().
    void check(const QString &build, const QString &patch);
    /// Does what check() has found. Ends with finished().
    void update();
    /// Ends with verified() or finished().
    void verify(const QString &build, const QString &signatures);
    /// Brings back from folder @p source what is damaged or missing. Ends with finished().
    void repair(const QString &build, const QString &signatures, const QString &source);
    /// Ends the job soon, as long as canCancel() says so.
    void cancel();
    /// What check() has found no longer counts. Not while something is done.
    void forget();

    Job job() const { return m_job; }
    bool isBusy() const { return m_isBusy; }
    bool canCancel() const;
    /// What check() has found is there to be done.
    bool canUpdate() const { return m_canUpdate; }

Q_SIGNALS:
    void busyChanged(bool isBusy);
    void unpacking(int percent);
    void phaseChanged(Pellox::UpdateController::UpdatePhase phase);
    /// In bytes.
    void progressed(qint64 done, qint64 total);
    void fileWritten(const QString &relativePath);
    void problemFound(const Pellox::UpdateProblem &problem);

    // How a job has ended: one of these, after busyChanged().
    void checked(const Pellox::UpdatePlan &plan);
    void verified(const Pellox::IntegrityReport &report);
    void finished(Pellox::UpdateController::UpdateResult result);

private:
    void begin(Job job);
    void setBusy(bool isBusy);
    void requireStarted(bool isStarted);
    void enter(Phase phase);
    void prepare();
    bool unpack();
    void endCheck();
    void endRun(Result result);
    void endIntegrityRun(bool success);
    void end(Result result);

    Job m_job = Job::Check;
    Phase m_phase = Phase::Checking;
    bool m_isBusy = false;
    std::atomic<bool> m_isCancelled{false};
    bool m_canUpdate = false;

    QString m_build;
    QString m_patch;                           ///< as it was given
    std::unique_ptr<QTemporaryDir> m_unpacked; ///< where it is an archive
    std::future<void> m_removal;               ///< of what was unpacked before
    Pellox::UpdatePlan m_plan;

    Pellox::UpdateController m_controller{this};
    Pellox::IntegrityController m_integrity{this};
    std::unique_ptr<QThread> m_worker; ///< for calls that block
};
