// SPDX-License-Identifier: MIT
#include "updaterun.h"

#include "diskfile.h"
#include "filesystem.h"
#include "setaside.h"
#include "staging.h"
#include "updatecheck.h"

#include <QFileInfo>

#include <algorithm>

namespace Pellox {

UpdateRun::UpdateRun(Settings settings, Reports reports, const std::atomic<bool> &cancelled)
    : m_settings(std::move(settings))
    , m_reports(std::move(reports))
    , m_cancelled(cancelled)
    , m_transaction(m_settings.transaction,
          {{m_reports.progress, m_reports.staged},
              [this] { m_reports.phase(UpdateController::UpdatePhase::Committing); }},
          m_cancelled, m_problems)
{
}

UpdateRun::UpdateResult UpdateRun::update()
{
    if (!m_transaction.lock())
        return end(UpdateResult::Refused);
    const auto unfinished = finishUnfinished();
    return unfinished == Transaction::Outcome::Interrupted
        ? end(unfinished)
        : carryOutUpdate(unfinished == Transaction::Outcome::Done);
}

/// @p resumed: whether a commit that was under way has been finished just now.
UpdateRun::UpdateResult UpdateRun::carryOutUpdate(bool resumed)
{
    m_reports.phase(UpdateController::UpdatePhase::Checking);
    Transaction::Aim aim;
    std::vector<UpdateWork> works = check(&aim);
    if (!m_problems.isEmpty())
        return end(UpdateResult::Refused);
    if (m_cancelled)
        return end(UpdateResult::Cancelled);
    Staging staging(folders(), works, m_settings.transaction.threadCount, m_cancelled, m_problems);
    if (!staging.decide())
        return end(m_problems.isEmpty() ? UpdateResult::Cancelled : UpdateResult::Refused);
    const bool anyNeeded = std::any_of(
        works.cbegin(), works.cend(), [](const UpdateWork &work) { return work.isNeeded; });
    if (!anyNeeded)
        return resumed ? UpdateResult::Updated : UpdateResult::AlreadyUpToDate;
    if (!staging.hasRoom())
        return end(UpdateResult::Refused);
    m_reports.phase(UpdateController::UpdatePhase::Staging);
    return end(m_transaction.carryOut(works, aim));
}

/// The works that bring the build to @p aim; complete only without a problem and uncancelled.
std::vector<UpdateWork> UpdateRun::check(Transaction::Aim *aim)
{
    aim->changesRelease = true;
    UpdateCheck check(folders(), m_problems);
    if (m_settings.trust.keys.isEmpty())
        return check.carryOut([](std::vector<UpdateRule> *) { return true; });
    TrustCheck trust(m_settings.transaction, m_settings.trust, m_cancelled, m_problems);
    const auto sealed = trust.carryOut();
    if (!sealed)
        return {};
    aim->release = InstalledRelease{sealed->release, sealed->to};
    return check.carryOut(
        [&](std::vector<UpdateRule> *rules) { return trust.seal(*sealed, rules); });
}

Transaction::Outcome UpdateRun::finishUnfinished()
{
    if (m_transaction.hasUnfinished())
        m_reports.phase(UpdateController::UpdatePhase::Finishing);
    return m_transaction.finishUnfinished();
}

UpdateRun::UpdateResult UpdateRun::recover()
{
    if (!m_transaction.lock())
        return end(UpdateResult::Refused);
    return end(finishUnfinished());
}

UpdateRun::UpdateResult UpdateRun::rollback()
{
    if (!m_transaction.lock())
        return end(UpdateResult::Refused);
    const auto unfinished = finishUnfinished();
    return unfinished == Transaction::Outcome::Interrupted ? end(unfinished) : carryOutRollback();
}

UpdateRun::UpdateResult UpdateRun::carryOutRollback()
{
    SetAside previous(folders().build);
    const auto record = previous.wayBack();
    if (!record)
        m_problems.add(
            previous.isEmpty() ? Code::NothingKept : Code::DamagedJournal, previous.error());
    const std::vector<UpdateWork> works = record ? worksBack(*record) : std::vector<UpdateWork>();
    if (!m_problems.isEmpty())
        return end(UpdateResult::Refused);
    Journal journal = journalOf(works);
    journal.isRollback = true;
    journal.changesRelease = record->changesRelease;
    journal.release = record->release;
    return end(m_transaction.commit(std::move(journal)));
}

/// The steps of @p record, as what stands in the build now requires.
std::vector<UpdateWork> UpdateRun::worksBack(const Journal &record)
{
    std::vector<UpdateRule> rules;
    const auto add = [&](UpdateRule::Kind kind, const QString &path) {
        UpdateRule rule;
        rule.kind = kind;
        rule.relativePath = path;
        rules.push_back(rule);
    };
    for (const Journal::Placement &placement : record.first) {
        const QString kept = folders().build + placement.from;
        if (!isRegularFile(kept))
            m_problems.add(Code::NothingKept, kept, QStringLiteral("is missing"));
        add(UpdateRule::Kind::Copy, placement.to);
    }
    for (const QString &path : record.deletions)
        add(UpdateRule::Kind::Delete, path);
    UpdateFolders build;
    build.build = folders().build;
    std::vector<UpdateWork> works = UpdateCheck(build, m_problems).worksFor(rules);
    for (UpdateWork &work : works) {
        work.isNeeded = true;
        work.staged = WorkFolder::Previous + work.rule.relativePath;
    }
    return works;
}

bool UpdateRun::discardPrevious()
{
    bool discarded = false;
    const bool ready
        = m_transaction.lock() && finishUnfinished() != Transaction::Outcome::Interrupted;
    if (ready) {
        SetAside previous(folders().build);
        discarded = previous.discard();
        if (!discarded)
            m_problems.add(Code::ReadOrWrite, previous.error());
        WorkFolder(folders().build).removeIfEmpty();
    }
    end(UpdateResult::Failed);
    return discarded;
}

UpdatePlan UpdateRun::plan()
{
    UpdatePlan plan;
    Transaction::Aim aim;
    std::vector<UpdateWork> works = check(&aim);
    Staging staging(folders(), works, m_settings.transaction.threadCount, m_cancelled, m_problems);
    if (m_problems.isEmpty() && staging.decide())
        staging.hasRoom();
    for (const UpdateProblem &problem : m_problems.all())
        plan.refusals.append(problem);
    for (const UpdateWork &work : works) {
        if (!work.isNeeded)
            continue;
        if (work.rule.kind == UpdateRule::Kind::Delete) {
            plan.deletions.append(work.rule.relativePath);
            continue;
        }
        const bool isPatch = work.rule.kind == UpdateRule::Kind::Patch;
        ++(isPatch ? plan.filesToPatch : plan.filesToCopy);
        plan.bytesToRead += QFileInfo(folders().patch + work.rule.relativePath).size();
        if (isPatch)
            plan.bytesToRead += QFileInfo(folders().build + work.rule.relativePath).size();
    }
    plan.bytesToWrite = staging.bytesToWrite();
    plan.peakExtraDisk = staging.roomNeeded();
    return plan;
}

/// Tells what went wrong.
UpdateRun::UpdateResult UpdateRun::end(UpdateResult result)
{
    for (const UpdateProblem &problem : m_problems.all())
        m_reports.problem(problem);
    return result;
}

UpdateRun::UpdateResult UpdateRun::end(Transaction::Outcome outcome)
{
    switch (outcome) {
    case Transaction::Outcome::Done:
        return end(UpdateResult::Updated);
    case Transaction::Outcome::NothingToDo:
        return end(UpdateResult::AlreadyUpToDate);
    case Transaction::Outcome::Failed:
        return end(UpdateResult::Failed);
    case Transaction::Outcome::Interrupted:
        return end(UpdateResult::Interrupted);
    case Transaction::Outcome::Cancelled:
        break;
    }
    return end(UpdateResult::Cancelled);
}

} // namespace Pellox
