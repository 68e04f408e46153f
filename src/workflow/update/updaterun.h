// SPDX-License-Identifier: MIT
#pragma once

#include "transaction.h"
#include "trustcheck.h"
#include "updatecontroller.h"

#include <atomic>
#include <functional>
#include <vector>

namespace Pellox {

/// One run of UpdateController from beginning to end.
class UpdateRun
{
public:
    using UpdateResult = UpdateController::UpdateResult;

    struct Settings
    {
        Transaction::Settings transaction;
        Trust trust;
    };

    struct Reports
    {
        std::function<void(qint64 done, qint64 total)> progress;
        std::function<void(UpdateController::UpdatePhase phase)> phase;
        std::function<void(const QString &relativePath)> staged;
        std::function<void(const UpdateProblem &problem)> problem;
    };

    UpdateRun(Settings settings, Reports reports, const std::atomic<bool> &cancelled);

    UpdateResult update();
    UpdateResult recover();
    UpdateResult rollback();
    bool discardPrevious();
    UpdatePlan plan();

private:
    using Code = UpdateProblem::Code;

    Transaction::Outcome finishUnfinished();
    UpdateResult carryOutUpdate(bool resumed);
    UpdateResult carryOutRollback();
    UpdateResult endUpToDate(bool resumed);
    std::vector<UpdateWork> check(Transaction::Aim *aim);
    bool decide(std::vector<UpdateWork> &works);
    bool hasRoom(const std::vector<UpdateWork> &works);
    bool mayPlan();
    static void count(const UpdateFolders &folders, const UpdateWork &work, UpdatePlan *plan);
    const UpdateFolders &folders() const { return m_settings.transaction.folders; }
    UpdateResult endRecovery(Transaction::Outcome outcome);
    void tellLost(const std::vector<UpdateWork> &works);
    std::vector<UpdateWork> worksBack(const Journal &record);
    void checkKept(const Journal::Placement &placement);
    static void takeMarks(const Journal &record, std::vector<Journal::Placement> *placements);
    UpdateResult end(UpdateResult result);
    UpdateResult end(Transaction::Outcome outcome);

    const Settings m_settings;
    const Reports m_reports;
    const std::atomic<bool> &m_cancelled;
    Problems m_problems;
    Transaction m_transaction;
    TrustCheck m_trust;
    std::optional<SealedPatch> m_sealed; ///< where a trusted key is asked for
};

} // namespace Pellox
