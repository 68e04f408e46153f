// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace Pellox {

/// Work that several threads do together, step by step.
class SharedWork
{
public:
    virtual ~SharedWork() = default;

    /**
     * Takes one step, letting go of @p lock while it works. False, the lock held throughout, when
     * there is none to take now.
     */
    virtual bool step(std::unique_lock<std::mutex> &lock) = 0;
    /// Called with the lock held.
    virtual bool isDone() const = 0;
};

/**
 * The threads of a run. Each takes one task after the other; one that has nothing else to do
 * takes steps of the others' shared works. The first error stops all.
 */
class Crew
{
public:
    /// @p cancelled is looked at before each task and each step.
    Crew(int threadCount, const std::atomic<bool> &cancelled);

    /// May throw, which fails the run.
    using Task = std::function<void(std::size_t)>;

    /**
     * Calls @p task on the crew's threads for the index of each of @p sizes. Those above @p large
     * may share work and come first, the largest at the front, as the end of the last one is what
     * all wait for; any other one may be taken up while a large one waits. Meanwhile calls @p
     * report on the calling thread now and then. True when all has been done, once the threads have
     * ended. What @p report throws stops the crew and is thrown on then.
     */
    bool run(const std::vector<qint64> &sizes, qint64 large, const Task &task,
        const std::function<void()> &report);

    /// For a large task: does all steps of @p work with the help of the other threads. False when
    /// the crew was stopped before its end.
    bool share(SharedWork &work);
    /// For a large task, once at a time: waits until what all have reserved is no more than @p most
    /// with @p amount, or nothing, and does other work meanwhile. False when the crew was stopped.
    bool reserve(qint64 amount, qint64 most);
    void release(qint64 amount);
    /// For any task: does all steps of @p work on this thread.
    bool doAlone(SharedWork &work);

    /// Stops the crew. The first text is kept.
    void fail(const QString &error);
    bool isStopped() const { return m_failed || m_cancelled; }
    /// Why the run failed; empty when it did not.
    QString error() const { return m_error; }
    /// Whether that is no task's own error and names no file: no thread, say, or no memory.
    bool hasFailedItself() const { return m_failedItself; }

    /// How many there are, which may be less than were wanted.
    int threadCount() const { return m_threadCount; }
    /// How many works are being shared.
    int sharedWorks() const { return m_sharedWorks; }

private:
    struct Entry
    {
        SharedWork *work;
        int inStep = 0; ///< threads that are in one of its steps
    };

    std::vector<std::thread> startThreads();
    void setOrder(const std::vector<qint64> &sizes, qint64 large);
    void work();
    void carryOut(std::size_t task);
    std::optional<std::size_t> nextTask();
    void workMeanwhile(std::unique_lock<std::mutex> &lock);
    std::optional<std::size_t> nextSmallTask();
    bool help(std::unique_lock<std::mutex> &lock);
    bool takeStep(Entry &entry, std::unique_lock<std::mutex> &lock);
    void failItself(const char *error);
    void stop();

    std::atomic<int> m_threadCount;
    const std::atomic<bool> &m_cancelled;
    std::atomic<bool> m_failed{false};
    bool m_failedItself = false;
    QString m_error;

    std::mutex m_mutex; ///< guards all below
    std::condition_variable m_changed;
    std::condition_variable m_ended;
    const Task *m_task = nullptr;
    std::vector<std::size_t> m_order; ///< of tasks, the large ones first
    std::size_t m_nextLarge = 0;
    std::size_t m_largeCount = 0;
    std::size_t m_nextSmall = 0;
    int m_largeUnderWay = 0;
    qint64 m_reserved = 0;
    int m_threads = 0; ///< that have not ended
    std::list<Entry> m_works;
    std::atomic<int> m_sharedWorks{0};
};

} // namespace Pellox
