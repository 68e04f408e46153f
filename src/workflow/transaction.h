// SPDX-License-Identifier: MIT
#pragma once

#include "commit.h"
#include "staging.h"
#include "updatework.h"

#include <atomic>
#include <functional>
#include <vector>

namespace Pellox {

/// All works or none: stages them, then commits them to the build. The build is locked as long as
/// the object lives.
class Transaction
{
public:
    struct Settings
    {
        UpdateFolders folders; ///< without a patch all content comes from the fallback
        int threadCount = 1;
        bool syncs = true;
        bool keepsPrevious = false;
    };

    /// What the build becomes.
    struct Aim
    {
        bool changesRelease = false;
        std::optional<InstalledRelease> release; ///< where that is known
    };

    enum class Outcome {
        Done,
        NothingToDo,
        Failed,      ///< and nothing is changed
        Interrupted, ///< it will be finished by the next that finishes what is unfinished
        Cancelled,   ///< and nothing is changed
    };

    struct Reports
    {
        Staging::Reports staging;
        std::function<void()> committing; ///< from now on it cannot be cancelled
    };

    Transaction(const Settings &settings, Reports reports, const std::atomic<bool> &cancelled,
        Problems &problems);

    // Whatever ends as Failed or Interrupted has added a problem.

    /// To be called first. False, with a problem, when somebody else works on the build.
    bool lock();
    /// Whether an earlier run has left an unfinished commit, or something that may be one.
    bool hasUnfinished() const;
    /// Finishes it.
    Outcome finishUnfinished();
    /// Stages what is needed and not staged yet, and commits all that is needed.
    Outcome carryOut(std::vector<UpdateWork> &works, const Aim &aim);
    /// Commits steps that need no staging.
    Outcome commit(Journal journal);

private:
    Outcome fail(const FileError &error, Outcome outcome = Outcome::Failed);

    const Settings m_settings;
    const Reports m_reports;
    const std::atomic<bool> &m_cancelled;
    Problems &m_problems;
    WorkFolder m_folder;
    Commit m_commit;
};

/// What a commit does for @p works.
Journal journalOf(const std::vector<UpdateWork> &works);

} // namespace Pellox
