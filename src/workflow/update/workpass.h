// SPDX-License-Identifier: MIT
#pragma once

#include "filepass.h"
#include "updatework.h"

#include <functional>
#include <optional>
#include <vector>

#include <sys/stat.h>

namespace Pellox {

/// Goes over all works of a run on several threads, and tells what is wrong. Changes nothing by
/// itself.
class WorkPass
{
public:
    WorkPass(UpdateFolders folders, std::vector<UpdateWork> &works, int threadCount,
        const std::atomic<bool> &cancelled, Problems &problems);

protected:
    using Code = UpdateProblem::Code;

    ~WorkPass() = default;

    /// Calls @p task for each work, the large ones first, and @p report now and then on this
    /// thread. False when cancelled or with a problem.
    bool runCrew(
        const std::function<void(UpdateWork &)> &task, const std::function<void()> &report);

    // For tasks.

    Crew &crew() { return *m_crew; }
    bool isStopped() const { return m_crew->isStopped(); }
    void add(Code code, const QString &path, const QString &reason);
    void add(Code code, const FileError &error) { m_problems.add(code, error); }
    /// Stops the others.
    void fail(const FileError &error, Code code = Code::ReadOrWrite);

    /// Reads what is of @p size. False after @p error, and when the crew was stopped.
    bool pass(FilePass &pass, qint64 size, FileError *error);
    /// Nothing after @p error, and when the crew was stopped.
    std::optional<Sha512> sha512Of(
        const QString &path, std::atomic<qint64> &done, FileError *error);

    /// Of the installed file. Nothing, with a problem, where the system does not tell what stands
    /// there.
    std::optional<struct stat> statusOfInstalled(const UpdateWork &work);
    /// Whether @p error tells that its content cannot be had; notes it in @p work.
    bool isUnreadableInstalled(const FileError &error, UpdateWork &work) const;
    /// A delta that is broken is told as what the patch brings.
    Code codeOf(const FileError &error, const UpdateWork &work) const;

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
    QString staged(const UpdateWork &work) const { return m_folders.build + work.staged; }

    const UpdateFolders m_folders;
    std::vector<UpdateWork> &m_works;

private:
    const int m_threadCount;
    const std::atomic<bool> &m_cancelled;
    Problems &m_problems;
    Crew *m_crew = nullptr; ///< at work
};

/// Why an installed file is not taken.
extern const QString NotTheOldFile;

/// Why a file is not made of its source, which is read with @p error or is another file than it
/// was.
QString whyNotMade(const UpdateWork &work, const FileError &error);

/// Whether the content of @p path cannot be had as @p error tells, now or later.
bool tellsNoContent(const FileError &error, const QString &path);

} // namespace Pellox
