// SPDX-License-Identifier: MIT
#pragma once

#include "buildfiles.h"
#include "crew.h"
#include "journal.h"

#include <QSet>

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

namespace Pellox {

/**
 * Looks, on several threads, whether what an earlier run has staged still has the content that its
 * journal tells. Changes nothing.
 */
class StagedReading
{
public:
    struct Means
    {
        int threadCount;
        const std::atomic<bool> &cancelled;
        /// Bytes; called on the thread that waits.
        std::function<void(qint64 done, qint64 total)> progress;
    };

    StagedReading(BuildFiles &files, Means means)
        : m_files(files)
        , m_means(std::move(means))
    {
    }

    /// Takes in what stands of @p placements. False with error().
    bool add(const std::vector<Journal::Placement> &placements);
    /// Reads it. False with error(), and without one when it was cancelled.
    bool carryOut();

    /// Where other content stands, as relative paths.
    const QSet<QString> &spoiled() const { return m_spoiled; }
    const FileError &error() const { return m_error; }

private:
    bool readHere();
    void read(Crew &crew, const Journal::Placement &placement);
    void report(qint64 total) const;
    void fail(Crew &crew, const FileError &error);

    BuildFiles &m_files;
    const Means m_means;
    std::vector<Journal::Placement> m_toRead;
    std::vector<qint64> m_sizes; ///< of these
    std::atomic<qint64> m_done{0};
    std::mutex m_mutex; ///< guards all below, and the build's files
    QSet<QString> m_spoiled;
    FileError m_error;
};

} // namespace Pellox
