// SPDX-License-Identifier: MIT
#pragma once

#include "buildfiles.h"

#include <future>

namespace Pellox {

/**
 * Brings what is staged to the disk while more is staged, one batch after the other and on a thread
 * of its own, so that there is little left to wait for at the end.
 */
class EarlySync
{
public:
    explicit EarlySync(BuildFiles &files)
        : m_files(files)
    {
    }

    /// Tells that @p bytes are staged by now. Does not wait.
    void staged(qint64 bytes);
    /// Waits for what is under way. False, with the reason in errno, when any of it has failed: the
    /// system tells that once, and no later sync would.
    bool finish();

private:
    bool isUnderWay() const;
    void takeResult();

    BuildFiles &m_files;
    qint64 m_synced = 0; ///< of the bytes, when the last one began
    int m_error = 0;     ///< errno of the first that failed
    std::future<int> m_sync;
};

} // namespace Pellox
