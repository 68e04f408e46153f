// SPDX-License-Identifier: MIT
#pragma once

#include "updatecontroller.h"
#include "updateproblem.h"

#include <QString>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <variant>
#include <vector>

namespace Pellox {

/// Of progress that is not told in bytes; promised to hosts.
constexpr qint64 WholeProgress = 10000;

struct RunProgress
{
    qint64 done = 0;
    qint64 total = 0;
};

/// What a run tells of a file.
struct FileEvent
{
    int event = 0; ///< one of PELLOX_FILE_...
    QString path;
};

using RunEvent = std::variant<RunProgress, UpdateController::UpdatePhase, UpdateProblem, FileEvent>;

/// Brings what a run tells on threads of its own to the one that waits for its end, in order.
class RunEvents
{
public:
    // Any thread. An event that there is no memory for is lost.

    /// Returns when the host has been told, and so could cancel the run.
    void tell(RunEvent event) noexcept;
    /// Does not wait for that: for what may come very often.
    void post(RunEvent event) noexcept;
    /// The last of all, with one of the results of pellox.h.
    void end(int result) noexcept;

    // The thread that waits.

    struct Batch
    {
        std::vector<RunEvent> events;
        std::optional<int> result; ///< when these are the last
    };
    /// What there is. Waits for it, but not for long. What was fetched before has been told.
    Batch fetch();
    /// Nobody fetches any more.
    void abandon() noexcept;
    /// Whether the end has come. Waits for it, but not for long.
    bool waitForEnd();

private:
    std::mutex m_mutex; ///< guards all below
    std::condition_variable m_filled;
    std::condition_variable m_told;
    Batch m_batch;
    qint64 m_postedEvents = 0;
    qint64 m_fetchedEvents = 0;
    qint64 m_toldEvents = 0;
    bool m_isAbandoned = false;
    bool m_hasEnded = false;
};

} // namespace Pellox
