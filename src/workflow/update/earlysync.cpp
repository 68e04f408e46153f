// SPDX-License-Identifier: MIT
#include "earlysync.h"

#include <cerrno>
#include <chrono>
#include <system_error>

namespace Pellox {

void EarlySync::staged(qint64 bytes)
{
    constexpr qint64 Batch = 64LL << 20; // a few seconds of a slow disk
    if (bytes - m_synced < Batch || isUnderWay())
        return;
    takeResult();
    m_synced = bytes;
    try {
        m_sync = std::async(std::launch::async, [this] { return m_files.sync() ? 0 : errno; });
    } catch (const std::system_error &) {
        // The system gives no thread: then all is waited for at the end.
    }
}

bool EarlySync::finish()
{
    takeResult();
    errno = m_error;
    return m_error == 0;
}

bool EarlySync::isUnderWay() const
{
    return m_sync.valid() && m_sync.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

void EarlySync::takeResult()
{
    const int error = m_sync.valid() ? m_sync.get() : 0;
    if (m_error == 0)
        m_error = error;
}

} // namespace Pellox
