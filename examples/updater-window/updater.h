// SPDX-License-Identifier: MIT
#pragma once

#include <Pellox/IntegrityController>
#include <Pellox/UpdateController>

#include <QTemporaryDir>
#include <QThread>

#include <functional>
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
    /// What is done just now.
    enum class Stage { Idle, Unpacking, Planning, Finishing, Checking, Writing, Committing };
    Q_ENUM(Stage)

    explicit Updater(QObject *parent = nullptr);
    /// Stops what can be stopped and waits for the rest.
    ~Updater() override;

    /// PEM files: only patches that are sealed by one of these are taken. None: any patch is.
    void setTrustedKeys(const QStringList &publicKeys);

    /// What update() would do. The patch is a folder or an archive, which is unpacked beside
    /// itself. What an earlier update has left unfinished is finished. Ends with checked() or
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
    /// What check() has found no longer counts.
    void forget();

    Job job() const { return m_job; }
    Stage stage() const { return m_stage; }
    bool isBusy() const { return m_stage != Stage::Idle; }
    bool canCancel() const;
    bool canUpdate() const { return m_canUpdate && !isBusy(); }

Q_SIGNALS:
    void stageChanged(Updater::Stage stage);
    /// In bytes; while an archive is unpacked in percent.
    void progressed(qint64 done, qint64 total);
    void fileWritten(const QString &relativePath);
    void problemFound(const Pellox::UpdateProblem &problem);

    // The end of a job: one of these comes, and then stageChanged().
    void checked(const Pellox::UpdatePlan &plan);
    void verified(const Pellox::IntegrityReport &report);
    void finished(Pellox::UpdateController::UpdateResult result);

private:
    void begin(Job job, Stage stage);
    void requireStarted(bool hasStarted);
    void end(const std::function<void()> &tell);
    void enter(Stage stage);
    void enterPhase(Phase phase);
    void doBeside(const std::function<void()> &work, void (Updater::*then)());
    void unpack();
    void endUnpacking();
    void plan();
    void endPlanning();
    void endRun(Result result);
    void endIntegrity(bool success);
    void endCancelled();
    void refuse(const QVector<Pellox::UpdateProblem> &problems);

    Job m_job = Job::Check;
    Stage m_stage = Stage::Idle;
    bool m_isCancelled = false;
    bool m_canUpdate = false;
    bool m_hasFinishedEarlier = false;

    QString m_build;
    QString m_patch; ///< as it was given
    std::unique_ptr<QTemporaryDir> m_unpacked;
    QString m_unpackError;
    Pellox::UpdatePlan m_plan;

    Pellox::UpdateController m_controller{this};
    Pellox::IntegrityController m_integrity{this};
    std::unique_ptr<QThread> m_worker; ///< for calls that block
};
