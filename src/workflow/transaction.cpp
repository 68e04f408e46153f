// SPDX-License-Identifier: MIT
#include "transaction.h"

#include "filesystem.h"

#include <algorithm>

namespace Pellox {

Transaction::Transaction(const Settings &settings, Reports reports,
    const std::atomic<bool> &cancelled, Problems &problems)
    : m_settings(settings)
    , m_reports(std::move(reports))
    , m_cancelled(cancelled)
    , m_problems(problems)
    , m_folder(settings.folders.build)
    , m_commit(m_folder, settings.syncs)
{
}

bool Transaction::lock()
{
    if (m_folder.lock())
        return true;
    m_problems.add(m_folder.isBusy() ? UpdateProblem::Code::Busy : UpdateProblem::Code::BadFolder,
        m_folder.error());
    return false;
}

bool Transaction::hasUnfinished() const
{
    return statusOf(m_folder.absolute(WorkFolder::Journal)).has_value();
}

Transaction::Outcome Transaction::finishUnfinished()
{
    switch (m_commit.findUnfinished()) {
    case Commit::Found::Nothing:
        return Outcome::NothingToDo;
    case Commit::Found::Error:
        m_problems.add(m_commit.error().system == 0 ? UpdateProblem::Code::DamagedJournal
                                                    : UpdateProblem::Code::ReadOrWrite,
            m_commit.error());
        return Outcome::Interrupted;
    case Commit::Found::Journal:
        break;
    }
    return m_commit.carryOut() ? Outcome::Done : fail(m_commit.error(), Outcome::Interrupted);
}

Transaction::Outcome Transaction::carryOut(std::vector<UpdateWork> &works, const Aim &aim)
{
    Staging staging(m_settings.folders, works, m_settings.threadCount, m_cancelled, m_problems);
    // An old journal that came back would take what is staged now for its own.
    if (!m_commit.forget())
        return fail(m_commit.error());
    if (!m_folder.make())
        return fail(m_folder.error());
    Outcome outcome = Outcome::Cancelled;
    if (staging.carryOut(m_reports.staging)) {
        Journal journal = journalOf(works);
        journal.changesRelease = aim.changesRelease;
        journal.release = aim.release;
        outcome = commit(std::move(journal));
    } else if (!m_problems.isEmpty())
        outcome = Outcome::Failed;
    if (outcome == Outcome::Failed || outcome == Outcome::Cancelled) {
        staging.remove();
        m_folder.removeIfEmpty();
    }
    return outcome;
}

Transaction::Outcome Transaction::commit(Journal journal)
{
    journal.keepsPrevious = m_settings.keepsPrevious && !journal.isRollback;
    m_reports.committing();
    switch (m_commit.begin(std::move(journal))) {
    case Commit::Begun::No:
        return fail(m_commit.error());
    case Commit::Begun::Uncertain:
        return fail(m_commit.error(), Outcome::Interrupted);
    case Commit::Begun::Yes:
        break;
    }
    return m_commit.carryOut() ? Outcome::Done : fail(m_commit.error(), Outcome::Interrupted);
}

Transaction::Outcome Transaction::fail(const FileError &error, Outcome outcome)
{
    m_problems.add(UpdateProblem::Code::ReadOrWrite, error);
    return outcome;
}

Journal journalOf(const std::vector<UpdateWork> &works)
{
    Journal journal;
    for (const UpdateWork &work : works) {
        if (!work.isNeeded)
            continue;
        if (work.rule.kind == UpdateRule::Kind::Delete)
            journal.deletions.append(work.rule.relativePath);
        else
            (work.comesLast ? journal.last : journal.first)
                .push_back({work.staged, work.rule.relativePath});
    }
    // What lies deeper goes first, so that folders are empty when their turn comes.
    std::stable_sort(journal.deletions.begin(), journal.deletions.end(),
        [](const QString &one, const QString &other) {
            return one.count(QLatin1Char('/')) > other.count(QLatin1Char('/'));
        });
    return journal;
}

} // namespace Pellox
