// SPDX-License-Identifier: MIT
#pragma once

#include "filepass.h"
#include "updatework.h"

#include <functional>
#include <optional>
#include <vector>

namespace Pellox {

/**
 * Makes the new content of a build's files beside them, on all threads. The installed files are
 * only read. Without a patch folder all content comes from the fallback.
 */
class Staging
{
public:
    Staging(const UpdateFolders &folders, std::vector<UpdateWork> &works, int threadCount,
        const std::atomic<bool> &cancelled, Problems &problems);

    /// Called on the thread that stages.
    struct Reports
    {
        std::function<void(qint64 done, qint64 total)> progress;
        std::function<void(const QString &relativePath)> staged;
    };

    /// Finds out which works are needed, and which an earlier run has staged already. False when
    /// cancelled or with a problem.
    bool decide();
    /// Of the works that are needed and not staged.
    qint64 bytesToWrite() const;
    /// What the build's file system must have free for that, with a margin.
    qint64 roomNeeded() const;
    /// Whether it has. False with a problem.
    bool hasRoom();
    /// Stages what is needed. False when cancelled or with a problem.
    bool carryOut(const Reports &reports);
    /// Removes what is staged.
    void remove();

private:
    using Code = UpdateProblem::Code;

    bool runCrew(
        const std::function<void(UpdateWork &)> &task, const std::function<void()> &report);

    void decidePatch(UpdateWork &work);
    void decideSealedPatch(UpdateWork &work);
    void decideUnsealedPatch(UpdateWork &work);
    void decideCopy(UpdateWork &work);
    bool isContent(const QString &path, qint64 size, const Sha512 &sha512);
    std::optional<Sha512> sha512Of(const QString &path);

    void adopt(const UpdateWork &work);
    mode_t permissionsFor(const UpdateWork &work, const QString &source) const;
    void stage(UpdateWork &work);
    void stageAnew(UpdateWork &work);
    void report(const Reports &reports, qint64 total);
    void noteMissingFolders(const QString &path);
    bool stagePatched(UpdateWork &work);
    bool stageFallback(UpdateWork &work);
    void stageCopy(UpdateWork &work);
    std::optional<Sha512> write(UpdateWork &work, Content &content, mode_t permissions);
    bool pass(FilePass &pass, qint64 size);
    Code codeOf(const FileError &error, const UpdateWork &work) const;
    void add(Code code, const QString &path, const QString &reason);
    void fail(const FileError &error, Code code = Code::ReadOrWrite);

    QString installed(const UpdateWork &work) const
    {
        return m_folders.build + work.rule.relativePath;
    }
    QString payload(const UpdateWork &work) const
    {
        return m_folders.patch + work.rule.relativePath;
    }
    QString fallback(const UpdateWork &work) const
    {
        return m_folders.fallback + work.rule.relativePath;
    }
    /// Where a file's content may come from whole.
    QString source(const UpdateWork &work) const
    {
        return work.rule.kind == UpdateRule::Kind::Copy ? payload(work) : fallback(work);
    }
    QString staged(const UpdateWork &work) const { return m_folders.build + work.staged; }

    const UpdateFolders m_folders;
    std::vector<UpdateWork> &m_works;
    const int m_threadCount;
    const std::atomic<bool> &m_cancelled;
    Problems &m_problems;
    Crew *m_crew = nullptr; ///< at work
    std::atomic<qint64> m_done{0};
    std::mutex m_stagedMutex;
    QStringList m_staged; ///< relative paths that are to be reported
    std::mutex m_madeFoldersMutex;
    QStringList m_madeFolders; ///< for staged files, each above those that were made in it
};

} // namespace Pellox
