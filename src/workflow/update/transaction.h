// SPDX-License-Identifier: MIT
#pragma once

#include "commit.h"
#include "stagedrecord.h"
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
        bool isRepair = false;                   ///< what is kept is still the build before
        std::optional<InstalledRelease> release; ///< where that is known
        QSet<QString> otherFiles;                ///< of the build; never taken for staged ones
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

    // Whatever ends as Failed or Interrupted has added a problem, unless it was cancelled.

    /// To be called first. False, with a problem, when somebody else works on the build.
    bool lock();
    bool isLocked() const { return m_folder.handle() >= 0; }
    /// Whether an earlier run has left an unfinished commit, or something that may be one.
    bool hasUnfinished() const;
    /// Finishes it. Done also when content was lost; there is no problem for that yet. Interrupted,
    /// and nothing has changed, when it is cancelled before anything is placed.
    Outcome finishUnfinished();
    /// Files that have no new content for that, as relative paths: it was not there any more.
    const QStringList &lost() const { return m_commit.lost(); }
    /// Whether what was finished has taken an update back.
    bool hasFinishedRollback() const { return m_commit.isRollback(); }
    /// Stages what is needed and not staged yet, and commits all that is needed.
    Outcome carryOut(std::vector<UpdateWork> &works, const Aim &aim);
    /// Where no commit is unfinished: removes what an earlier run has staged, but for @p kept.
    /// False with a problem when something of it stays.
    bool clearLeftovers(const QSet<QString> &kept = {});
    /// The same of what a commit has left that was never certain, and of nothing else.
    bool clearUncertain();
    /// Commits steps that need no staging.
    Outcome commit(Journal journal);
    /// Bytes that copies of what @p works replace take, where it is kept and the file system knows
    /// no second names. That is tried out when the build is locked.
    qint64 roomToKeep(const std::vector<UpdateWork> &works);
    /// Whether there is room for that, and for @p staged bytes. False with a problem.
    bool hasRoomToKeep(const std::vector<UpdateWork> &works, qint64 staged);

    /// Once it is locked.
    BuildFiles &files() { return m_files; }

private:
    bool copiesWhatIsKept();
    bool hasUncertain() const;
    bool mayHaveBegun();
    Outcome stageAndCommit(std::vector<UpdateWork> &works, const Aim &aim);
    Outcome stage(std::vector<UpdateWork> &works);
    bool recordStaged(const std::vector<UpdateWork> &works, const QSet<QString> &otherFiles);
    void recordFoldersAbove(const QString &path, QSet<QString> *standing);
    bool takeBack(const std::vector<UpdateWork> &works, const QSet<QString> &kept);
    bool clear(const QSet<QString> &kept);
    bool forgetRecord();
    bool tellErrorsOfRecord();
    Outcome commitStaged(Journal journal);
    Outcome fail(const FileError &error, Outcome outcome = Outcome::Failed);

    const Settings m_settings;
    const Reports m_reports;
    const std::atomic<bool> &m_cancelled;
    Problems &m_problems;
    WorkFolder m_folder;
    BuildFiles m_files;
    Commit m_commit;
    StagedRecord m_record;
};

/// The files that @p works are about, as relative paths.
QSet<QString> targetsOf(const std::vector<UpdateWork> &works);

/// Once it is decided which of @p works are needed: where the file system of @p build takes two
/// names for one, the file that is to go under one may be the new one under the other, and stays.
void spareNewFiles(const QString &build, std::vector<UpdateWork> &works);

/// What a commit does for @p works.
Journal journalOf(const std::vector<UpdateWork> &works);

} // namespace Pellox
