// SPDX-License-Identifier: MIT
#pragma once

#include "filepass.h"
#include "updatework.h"

#include <functional>
#include <optional>
#include <vector>

#include <sys/stat.h>

namespace Pellox {

/**
 * Makes the new content of a build's files beside them, on all threads. The installed files are
 * only read. Without a patch folder all content comes from the fallback.
 */
class Staging
{
public:
    Staging(UpdateFolders folders, std::vector<UpdateWork> &works, int threadCount,
        const std::atomic<bool> &cancelled, Problems &problems);

    /// Called on the thread that stages.
    struct Reports
    {
        std::function<void(qint64 done, qint64 total)> progress;
        std::function<void(const QString &relativePath)> staged;
    };

    /// Finds out which works are needed, and which an earlier run has staged already. False when
    /// cancelled or with a problem. Tells @p report how many bytes of installed files were read.
    bool decide(const std::function<void(qint64 done)> &report = {});
    /// Of the works that are needed and not staged.
    qint64 bytesToWrite() const;
    /// What the build's file system must have free for that, with a margin.
    qint64 roomNeeded() const;
    /// Whether it has, for the content and for as many files. False with a problem.
    bool hasRoom();
    /// Stages what is needed. What stands where a work is staged must be an update's own. False
    /// when cancelled or with a problem.
    bool carryOut(const Reports &reports);

private:
    using Code = UpdateProblem::Code;

    bool runCrew(
        const std::function<void(UpdateWork &)> &task, const std::function<void()> &report);

    void decidePatch(UpdateWork &work);
    void decideSealedPatch(UpdateWork &work);
    void decideUnsealedPatch(UpdateWork &work);
    void decideCopy(UpdateWork &work);
    bool isCopyToBeMade(UpdateWork &work);
    void decideSource(UpdateWork &work);
    void takeWhole(UpdateWork &work, const QString &why);
    void takeWhole(UpdateWork &work, const QString &path, const QString &why);
    bool isStagedAlready(const UpdateWork &work, const Sha512 &sha512);
    std::optional<Sha512> sha512Of(
        const QString &path, std::atomic<qint64> &done, FileError *error);
    std::optional<Sha512> sha512OfInstalled(UpdateWork &work, QString *why);
    bool isUnreadableInstalled(const FileError &error, UpdateWork &work) const;

    void adopt(const UpdateWork &work);
    mode_t permissionsFor(const UpdateWork &work, const QString &source);
    mode_t permissionsOf(const QString &path);
    std::optional<struct stat> statusOfInstalled(const UpdateWork &work);
    bool isInstalled(const UpdateWork &work);
    std::optional<FileOwner> ownerToGive(const UpdateWork &work);
    void stage(UpdateWork &work);
    void stageAnew(UpdateWork &work);
    void report(const Reports &reports, qint64 total);
    qint64 done() const;
    bool stagePatched(UpdateWork &work, QString *why);
    void stageFallback(UpdateWork &work);
    void stageCopy(UpdateWork &work);
    void stageMoved(UpdateWork &work);
    void discard(UpdateWork &work);
    bool makeFoldersFor(const UpdateWork &work);
    std::optional<Sha512> write(
        UpdateWork &work, Content &content, mode_t permissions, FileError *error);
    bool pass(FilePass &pass, qint64 size, FileError *error);
    std::atomic<qint64> &doneOf(const UpdateWork &work);
    Code codeOf(const FileError &error, const UpdateWork &work) const;
    bool isStopped() const { return m_crew->isStopped(); }
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
    /// What a file that the patch lacks is made of.
    QString source(const UpdateWork &work) const { return m_folders.build + work.rule.source; }
    QString contentOf(const UpdateWork &work) const;
    QString staged(const UpdateWork &work) const { return m_folders.build + work.staged; }

    const UpdateFolders m_folders;
    std::vector<UpdateWork> &m_works;
    const int m_threadCount;
    const std::atomic<bool> &m_cancelled;
    Problems &m_problems;
    Crew *m_crew = nullptr;                  ///< at work
    std::vector<std::atomic<qint64>> m_done; ///< bytes of each work that are staged
    std::atomic<qint64> m_read{0};           ///< bytes of installed files
    std::mutex m_foldersMutex;               ///< of folders that are made
    std::mutex m_stagedMutex;
    QStringList m_staged; ///< relative paths that are to be reported
};

} // namespace Pellox
