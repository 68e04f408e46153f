// SPDX-License-Identifier: MIT
#include "runevents.h"

#include <chrono>
#include <exception>
#include <utility>

namespace Pellox {

namespace {

constexpr std::chrono::milliseconds NotLong(50);

} // namespace

void RunEvents::tell(RunEvent event) noexcept
{
    post(std::move(event));
    std::unique_lock lock(m_mutex);
    const qint64 last = m_postedEvents;
    m_told.wait(lock, [this, last] { return m_isAbandoned || m_toldEvents >= last; });
}

void RunEvents::post(RunEvent event) noexcept
{
    const std::lock_guard lock(m_mutex);
    try {
        m_batch.events.push_back(std::move(event));
        ++m_postedEvents;
    } catch (const std::exception &) { // NOLINT(bugprone-empty-catch): the run is to go on
    }
    m_filled.notify_one();
}

void RunEvents::end(int result) noexcept
{
    const std::lock_guard lock(m_mutex);
    m_batch.result = result;
    m_hasEnded = true;
    m_filled.notify_one();
}

RunEvents::Batch RunEvents::fetch()
{
    std::unique_lock lock(m_mutex);
    m_toldEvents = m_fetchedEvents;
    m_told.notify_all();
    m_filled.wait_for(lock, NotLong, [this] { return m_batch.result || !m_batch.events.empty(); });
    m_fetchedEvents = m_postedEvents;
    return std::exchange(m_batch, {});
}

void RunEvents::abandon() noexcept
{
    const std::lock_guard lock(m_mutex);
    m_isAbandoned = true;
    m_told.notify_all();
}

bool RunEvents::waitForEnd()
{
    std::unique_lock lock(m_mutex);
    return m_filled.wait_for(lock, NotLong, [this] { return m_hasEnded; });
}

} // namespace Pellox
