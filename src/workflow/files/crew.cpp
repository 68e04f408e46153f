// SPDX-License-Identifier: MIT
#include "crew.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <numeric>

namespace Pellox {

namespace {

constexpr char OutOfMemory[] = "out of memory";

} // namespace

Crew::Crew(int threadCount, const std::atomic<bool> &cancelled)
    : m_threadCount(threadCount)
    , m_cancelled(cancelled)
{
}

bool Crew::run(const std::vector<qint64> &sizes, qint64 large, const Task &task,
    const std::function<void()> &report)
{
    std::unique_lock lock(m_mutex);
    m_task = &task;
    setOrder(sizes, large);

    std::vector<std::thread> threads = startThreads();
    std::exception_ptr thrown;
    constexpr std::chrono::milliseconds ReportEvery(50);
    bool ended = false;
    while (!ended) { // so the last report tells of all that was done
        ended = m_ended.wait_for(lock, ReportEvery, [this] { return m_threads == 0; });
        lock.unlock();
        try {
            if (!thrown)
                report();
        } catch (...) {
            thrown = std::current_exception();
            stop();
        }
        lock.lock();
    }
    lock.unlock();
    for (std::thread &thread : threads)
        thread.join();
    if (thrown)
        std::rethrow_exception(thrown);
    return !isStopped();
}

/// Called with the lock held.
void Crew::setOrder(const std::vector<qint64> &sizes, qint64 large)
{
    m_order.resize(sizes.size());
    std::iota(m_order.begin(), m_order.end(), std::size_t(0));
    const auto smallOnes = std::stable_partition(
        m_order.begin(), m_order.end(), [&](std::size_t i) { return sizes[i] > large; });
    std::stable_sort(m_order.begin(), smallOnes,
        [&](std::size_t i, std::size_t j) { return sizes[i] > sizes[j]; });
    m_nextLarge = 0;
    m_largeCount = static_cast<std::size_t>(smallOnes - m_order.begin());
    m_nextSmall = m_largeCount;
}

/// Called with the lock held, so that none begins before all are there.
std::vector<std::thread> Crew::startThreads()
{
    std::vector<std::thread> threads;
    try {
        threads.reserve(static_cast<std::size_t>(m_threadCount));
        for (int i = 0; i < m_threadCount; ++i) {
            threads.emplace_back([this] { work(); });
            ++m_threads;
        }
    } catch (const std::exception &) {
        // The system gives no more: those that are there do it all.
        if (threads.empty()) {
            m_error = QStringLiteral("the system gives no thread");
            m_failedItself = true;
            m_failed = true;
        }
    }
    m_threadCount = m_threads;
    return threads;
}

/// What each thread does.
void Crew::work()
{
    std::unique_lock lock(m_mutex);
    while (!isStopped()) {
        if (const auto task = nextTask()) {
            lock.unlock();
            carryOut(*task);
            lock.lock();
        } else if (!help(lock)) {
            if (m_largeUnderWay == 0)
                break;
            m_changed.wait(lock);
        }
    }
    --m_threads;
    m_ended.notify_all();
}

void Crew::carryOut(std::size_t task)
{
    try {
        (*m_task)(m_order[task]);
    } catch (const std::exception &) {
        failItself(OutOfMemory);
    }
    if (task < m_largeCount) {
        const std::lock_guard lock(m_mutex);
        --m_largeUnderWay;
        m_changed.notify_all();
    }
}

std::optional<std::size_t> Crew::nextTask()
{
    if (m_nextLarge == m_largeCount)
        return nextSmallTask();
    ++m_largeUnderWay;
    return m_nextLarge++;
}

std::optional<std::size_t> Crew::nextSmallTask()
{
    return m_nextSmall < m_order.size() ? std::optional(m_nextSmall++) : std::nullopt;
}

bool Crew::help(std::unique_lock<std::mutex> &lock)
{
    for (Entry &entry : m_works) {
        if (takeStep(entry, lock))
            return true; // the list may have changed
    }
    return false;
}

bool Crew::takeStep(Entry &entry, std::unique_lock<std::mutex> &lock)
{
    bool taken = true;
    ++entry.inStep;
    try {
        taken = entry.work->step(lock);
    } catch (const std::exception &) {
        if (lock.owns_lock())
            lock.unlock();
        failItself(OutOfMemory);
        lock.lock();
    }
    --entry.inStep;
    if (taken)
        m_changed.notify_all();
    return taken;
}

bool Crew::share(SharedWork &work)
{
    std::unique_lock lock(m_mutex);
    const auto entry = m_works.insert(m_works.end(), Entry{&work});
    ++m_sharedWorks;
    while (!work.isDone() && !isStopped()) {
        if (!takeStep(*entry, lock))
            workMeanwhile(lock);
    }
    while (entry->inStep > 0)
        m_changed.wait(lock);
    const bool done = work.isDone();
    m_works.erase(entry);
    --m_sharedWorks;
    return done;
}

/// What a large task does that cannot go on: a step of another one, a small task, or waits.
void Crew::workMeanwhile(std::unique_lock<std::mutex> &lock)
{
    if (help(lock))
        return;
    if (const auto task = nextSmallTask()) {
        lock.unlock();
        carryOut(*task);
        lock.lock();
    } else {
        m_changed.wait(lock);
    }
}

bool Crew::reserve(qint64 amount, qint64 most)
{
    std::unique_lock lock(m_mutex);
    while (m_reserved > 0 && m_reserved + amount > most && !isStopped())
        workMeanwhile(lock);
    m_reserved += amount;
    return !isStopped();
}

void Crew::release(qint64 amount)
{
    const std::lock_guard lock(m_mutex);
    m_reserved -= amount;
    m_changed.notify_all();
}

bool Crew::doAlone(SharedWork &work)
{
    std::mutex ownMutex; // a step wants one, but there is nobody to wait for
    std::unique_lock lock(ownMutex);
    while (!work.isDone() && !isStopped()) {
        if (!work.step(lock))
            break;
    }
    return work.isDone();
}

/// For what no task can be blamed for.
void Crew::failItself(const char *error)
{
    const std::lock_guard lock(m_mutex);
    if (!m_failed) {
        m_error = QLatin1String(error);
        m_failedItself = true;
    }
    m_failed = true;
    m_changed.notify_all();
}

void Crew::stop()
{
    const std::lock_guard lock(m_mutex);
    m_failed = true;
    m_changed.notify_all();
}

void Crew::fail(const QString &error)
{
    const std::lock_guard lock(m_mutex);
    if (!m_failed)
        m_error = error;
    m_failed = true;
    m_changed.notify_all();
}

} // namespace Pellox
