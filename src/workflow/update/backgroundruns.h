// SPDX-License-Identifier: MIT
#pragma once

#include "updateproblem.h"

#include <QFuture>

#include <atomic>
#include <functional>
#include <mutex>

namespace Pellox {

/**
 * The runs of a controller on the global thread pool, one at a time. What tells the end of a run is
 * part of it: whoever waits, waits for that too. The next run may be started meanwhile, from any
 * thread, and begins when all have been told.
 */
class BackgroundRuns
{
public:
    /// @p tellEnd is called at the end of each run, on the run's thread.
    explicit BackgroundRuns(std::function<void()> tellEnd);
    /// Cancels and waits.
    ~BackgroundRuns() { stop(); }
    BackgroundRuns(const BackgroundRuns &) = delete;
    BackgroundRuns &operator=(const BackgroundRuns &) = delete;

    enum class Started {
        Yes,
        Taken,    ///< no: a run is under way, or it is after stop()
        NoThread, ///< no: the system gives no thread
    };

    /// What @p run throws is lost.
    Started start(std::function<void()> run);
    /// Does @p run on this thread, without tellEnd. False, without it, when a run is under way.
    bool block(const std::function<void()> &run);

    /// Whether a run is under way, its telling of the end apart.
    bool isUnderWay() const;
    void cancel() { m_isCancelled = true; }
    /// Of the run that was started last.
    const std::atomic<bool> &isCancelled() const { return m_isCancelled; }

    /// Cancels, waits until all is told, and lets no run start any more.
    void stop();

private:
    enum class State { Idle, Working, Telling };

    bool isTaken() const;
    Started startThread();
    void work();
    void enter(State state);
    bool isLast();

    const std::function<void()> m_tellEnd;
    std::atomic<bool> m_isCancelled{false};
    mutable std::mutex m_mutex; ///< guards all below
    State m_state = State::Idle;
    bool m_isBlocking = false;
    bool m_isStopped = false;
    std::function<void()> m_next; ///< waits for the thread
    QFuture<void> m_thread;
};

/// What a host is told of Started::NoThread, about folder @p build.
UpdateProblem problemOfNoThread(const QString &build);

/// To be called while an exception is handled: what a host is told of it, about folder @p build.
UpdateProblem problemOfException(const QString &build);

} // namespace Pellox
