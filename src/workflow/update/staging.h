// SPDX-License-Identifier: MIT
#pragma once

#include "workpass.h"

namespace Pellox {

/**
 * Makes the new content of a build's files beside them, on all threads. The installed files are
 * only read. Without a patch folder all content comes from the fallback.
 */
class Staging : private WorkPass
{
public:
    using WorkPass::WorkPass;

    /// Called on the thread that stages.
    struct Reports
    {
        std::function<void(qint64 done, qint64 total)> progress;
        std::function<void(const QString &relativePath)> staged;
    };

    /// Stages what is needed. What stands where a work is staged must be an update's own. False
    /// when cancelled or with a problem.
    bool carryOut(const Reports &reports);

private:
    void adopt(const UpdateWork &work);
    mode_t permissionsFor(const UpdateWork &work, const QString &source);
    mode_t permissionsOf(const QString &path);
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
    std::atomic<qint64> &doneOf(const UpdateWork &work);
    QString contentOf(const UpdateWork &work) const;

    std::vector<std::atomic<qint64>> m_done; ///< bytes of each work that are staged
    std::mutex m_foldersMutex;               ///< of folders that are made
    std::mutex m_stagedMutex;
    QStringList m_staged; ///< relative paths that are to be reported
};

} // namespace Pellox
