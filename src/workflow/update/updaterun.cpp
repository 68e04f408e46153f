// SPDX-License-Identifier: MIT
#include "updaterun.h"

#include "diskfile.h"
#include "diskroom.h"
#include "filesystem.h"
#include "setaside.h"
#include "stagingroom.h"
#include "updatecheck.h"
#include "workdecision.h"

#include <QFileInfo>
#include <QHash>

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
    , m_trust(m_settings.transaction, m_settings.trust, m_cancelled, m_problems, m_reports.progress)
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
    tellLost(works);
    if (!m_problems.isEmpty())
        return end(UpdateResult::Refused);
    if (m_cancelled)
        return end(UpdateResult::Cancelled);
    if (!decide(works))
        return end(m_problems.isEmpty() ? UpdateResult::Cancelled : UpdateResult::Refused);
    const bool anyNeeded = std::any_of(
        works.cbegin(), works.cend(), [](const UpdateWork &work) { return work.isNeeded; });
    if (!anyNeeded) {
        return m_transaction.clearLeftovers(targetsOf(works)) ? endUpToDate(resumed)
                                                              : end(UpdateResult::Failed);
    }
    if (!hasRoom(works))
        return end(UpdateResult::Refused);
    m_reports.phase(UpdateController::UpdatePhase::Staging);
    return end(m_transaction.carryOut(works, aim));
}

/// Whoever has a newer release must not be brought to an older one, however it came about.
UpdateRun::UpdateResult UpdateRun::endUpToDate(bool resumed)
{
    if (m_sealed && !m_trust.record(*m_sealed, m_transaction.files()))
        return end(UpdateResult::Failed);
    return resumed ? UpdateResult::Updated : UpdateResult::AlreadyUpToDate;
}

/// The works that bring the build to @p aim; complete only without a problem and uncancelled.
std::vector<UpdateWork> UpdateRun::check(Transaction::Aim *aim)
{
    aim->changesRelease = true;
    UpdateCheck check(folders(), m_problems,
        m_transaction.isLocked() ? UpdateCheck::Names::TriedOut : UpdateCheck::Names::Seen);
    if (!check.checkFolders())
        return {};
    const GoOn goOn = [this] { return !m_cancelled; };
    if (m_settings.trust.keys.isEmpty())
        return check.carryOut([](std::vector<UpdateRule> *) { return true; }, goOn);
    m_sealed = m_trust.carryOut();
    if (!m_sealed)
        return {};
    aim->release = m_trust.releaseFor(*m_sealed);
    return check.carryOut(
        [&](std::vector<UpdateRule> *rules) { return m_trust.seal(*m_sealed, rules); }, goOn);
}

/// Under a seal all that is read to decide is known, and told.
bool UpdateRun::decide(std::vector<UpdateWork> &works)
{
    WorkDecision decision(
        folders(), works, m_settings.transaction.threadCount, m_cancelled, m_problems);
    const auto tell = [this](qint64 done) { m_trust.tellInstalled(done); };
    if (!(m_sealed ? decision.carryOut(tell) : decision.carryOut()))
        return false;
    spareNewFiles(folders().build, works);
    return true;
}

/// For new content, and for old where it is kept as a copy. False with a problem.
bool UpdateRun::hasRoom(const std::vector<UpdateWork> &works)
{
    const QString &build = folders().build;
    return hasRoomToStage(build, works, m_problems)
        && m_transaction.hasRoomToKeep(works, roomToStage(build, works));
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
    const auto unfinished = finishUnfinished();
    // What is staged waits for the next update.
    return endRecovery(m_transaction.clearUncertain() ? unfinished : Transaction::Outcome::Failed);
}

/// What could not be finished makes the build less than what was aimed at.
UpdateRun::UpdateResult UpdateRun::endRecovery(Transaction::Outcome outcome)
{
    tellLost({});
    const bool isWhole = m_transaction.lost().isEmpty();
    return isWhole ? end(outcome) : end(UpdateResult::Failed);
}

/// Those that stayed as they were when an earlier run's commit was finished. What @p works bring is
/// no loss.
void UpdateRun::tellLost(const std::vector<UpdateWork> &works)
{
    const QSet<QString> brought = targetsOf(works);
    for (const QString &path : m_transaction.lost()) {
        if (!brought.contains(path))
            m_problems.add(Code::DamagedInstall, folders().build + path,
                QStringLiteral("has not become what an interrupted run was to make of it: its new "
                               "content is gone or damaged"));
    }
}

UpdateRun::UpdateResult UpdateRun::rollback()
{
    if (!m_transaction.lock())
        return end(UpdateResult::Refused);
    const auto unfinished = finishUnfinished();
    const bool isBack
        = unfinished == Transaction::Outcome::Done && m_transaction.hasFinishedRollback();
    return isBack || unfinished == Transaction::Outcome::Interrupted ? endRecovery(unfinished)
                                                                     : carryOutRollback();
}

UpdateRun::UpdateResult UpdateRun::carryOutRollback()
{
    m_reports.phase(UpdateController::UpdatePhase::Checking);
    SetAside previous(m_transaction.files());
    const auto record = previous.wayBack();
    if (!record && previous.isEmpty())
        m_problems.add(Code::NothingKept, previous.error());
    else if (!record)
        m_problems.add(codeOf(previous.error(), Code::DamagedKept), previous.error());
    const std::vector<UpdateWork> works = record ? worksBack(*record) : std::vector<UpdateWork>();
    tellLost(works);
    if (!m_problems.isEmpty())
        return end(UpdateResult::Refused);
    Journal journal = journalOf(works);
    journal.isRollback = true;
    journal.changesRelease = record->changesRelease;
    journal.release = record->release;
    takeMarks(*record, &journal.first);
    takeMarks(*record, &journal.last);
    return end(m_transaction.commit(std::move(journal)));
}

/// What was set aside is known by what it was then.
void UpdateRun::takeMarks(const Journal &record, std::vector<Journal::Placement> *placements)
{
    QHash<QString, FileMark> marks;
    for (const Journal::Placement &placement : record.first)
        marks.insert(placement.to, placement.mark);
    for (Journal::Placement &placement : *placements)
        placement.mark = marks.value(placement.to);
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
        checkKept(placement);
        add(UpdateRule::Kind::Copy, placement.to);
    }
    for (const Journal::Deletion &deletion : record.deletions)
        add(UpdateRule::Kind::Delete, deletion.path);
    UpdateFolders build;
    build.build = folders().build;
    std::vector<UpdateWork> works = UpdateCheck(build, m_problems).worksFor(rules);
    for (UpdateWork &work : works) {
        work.isNeeded = true;
        work.staged = WorkFolder::Previous + work.rule.relativePath;
    }
    return works;
}

void UpdateRun::checkKept(const Journal::Placement &placement)
{
    FileError error;
    const auto isKept = isThere(m_transaction.files(), placement.from, placement.mark, &error);
    if (!isKept)
        m_problems.add(Code::ReadOrWrite, error);
    else if (!*isKept)
        m_problems.add(Code::DamagedKept, folders().build + placement.from,
            QStringLiteral("is missing, or has been changed since it was set aside"));
}

bool UpdateRun::discardPrevious()
{
    bool discarded = false;
    const bool ready
        = m_transaction.lock() && finishUnfinished() != Transaction::Outcome::Interrupted;
    tellLost({});
    if (ready && m_transaction.lost().isEmpty()) { // else what is kept may be all that helps
        SetAside previous(m_transaction.files());
        const bool isClear = m_transaction.clearLeftovers();
        discarded = isClear && previous.discard();
        if (isClear && !discarded)
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
    std::vector<UpdateWork> works;
    if (mayPlan())
        works = check(&aim);
    if (m_problems.isEmpty() && decide(works))
        hasRoom(works);
    for (const UpdateProblem &problem : m_problems.all())
        plan.refusals.append(problem);
    for (const UpdateWork &work : works) {
        if (work.isNeeded)
            count(folders(), work, &plan);
    }
    plan.bytesToWrite = bytesToStage(works);
    plan.peakExtraDisk
        = saturatedSum(roomToStage(folders().build, works), m_transaction.roomToKeep(works));
    plan.isCancelled = m_cancelled;
    return plan;
}

/// Whether the build is as an update would find it. False with a problem.
bool UpdateRun::mayPlan()
{
    WorkFolder folder(folders().build); // lets go of it at once
    FileError error;
    if (!folder.look() && folder.isBusy()) {
        m_problems.add(Code::Busy, folder.error());
    } else if (statusOf(folder.absolute(WorkFolder::Journal), &error)) {
        BuildFiles files(folder);
        if (Journal::read(files, WorkFolder::Journal, &error))
            m_problems.add(Code::Unfinished, folder.absolute(WorkFolder::Journal),
                QStringLiteral(
                    "tells of an update that was interrupted and is to be finished first"));
        else
            m_problems.add(error.system == 0 ? Code::DamagedJournal : Code::ReadOrWrite, error);
    } else if (!error.isEmpty()) {
        m_problems.add(Code::ReadOrWrite, error);
    }
    return m_problems.isEmpty();
}

void UpdateRun::count(const UpdateFolders &folders, const UpdateWork &work, UpdatePlan *plan)
{
    const QString &path = work.rule.relativePath;
    if (work.rule.kind == UpdateRule::Kind::Delete) {
        plan->deletions.append(path);
        return;
    }
    const bool isPatch = work.rule.kind == UpdateRule::Kind::Patch;
    ++(isPatch ? plan->filesToPatch : plan->filesToCopy);
    (isPatch ? plan->patches : plan->copies).append(path);
    plan->bytesToRead += work.isMoved ? work.size : QFileInfo(folders.patch + path).size();
    if (isPatch)
        plan->bytesToRead += QFileInfo(folders.build + path).size();
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
