// SPDX-License-Identifier: MIT
#include "backgroundruns.h"

#include <QtConcurrent>
#include <QThreadPool>

#include <chrono>
#include <exception>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>

#include <sys/syscall.h>
#include <unistd.h>

namespace Pellox {

namespace {

/// Nothing may leave a thread of the pool: it would end the process, or reach whoever waits.
void callSafely(const std::function<void()> &function)
{
    try {
        function();
    } catch (...) { // NOLINT(bugprone-empty-catch): there is nobody left to tell it to
    }
}

pid_t ownThread()
{
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

/// One that was joined counts for the system's limits until it is gone for good, a moment later.
void waitUntilGone(pid_t thread)
{
    constexpr std::chrono::seconds Long(1); // then the number is another thread's by now
    const auto isThere = [thread] { return ::syscall(SYS_tgkill, ::getpid(), thread, 0) == 0; };
    const auto end = std::chrono::steady_clock::now() + Long;
    while (isThere() && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
}

/// The pool does not tell: what it has no thread for waits for ever, and so does whoever waits for
/// its end. Hence one is tried out beforehand.
bool givesThread()
{
    try {
        pid_t number = 0;
        std::thread thread([&number] { number = ownThread(); });
        thread.join();
        waitUntilGone(number);
        return true;
    } catch (const std::exception &) {
        return false;
    }
}

} // namespace

BackgroundRuns::BackgroundRuns(std::function<void()> tellEnd)
    : m_tellEnd(std::move(tellEnd))
{
}

BackgroundRuns::Started BackgroundRuns::start(std::function<void()> run)
{
    const std::lock_guard lock(m_mutex);
    if (isTaken())
        return Started::Taken;
    m_isCancelled = false;
    m_next = std::move(run);
    return m_state == State::Telling ? Started::Yes : startThread();
}

/// Called with the lock held, as isTaken() is. The pool has a thread more while it works: a host
/// that waits on the pool for the end of a run, or for the end of several, is not to wait for ever.
BackgroundRuns::Started BackgroundRuns::startThread()
{
    m_thread.waitForFinished(); // it has nothing left to do but to return
    try {
        if (givesThread()) {
            m_thread = QtConcurrent::run([this] { work(); });
            QThreadPool::globalInstance()->releaseThread(); // until work() has ended
            m_state = State::Working;
            return Started::Yes;
        }
    } catch (const std::exception &) { // NOLINT(bugprone-empty-catch): told by what is returned
    }
    m_next = nullptr;
    return Started::NoThread;
}

bool BackgroundRuns::block(const std::function<void()> &run)
{
    {
        const std::lock_guard lock(m_mutex);
        if (isTaken())
            return false;
        m_isCancelled = false;
        m_isBlocking = true;
    }
    callSafely(run);
    const std::lock_guard lock(m_mutex);
    m_isBlocking = false;
    return true;
}

bool BackgroundRuns::isTaken() const
{
    return m_isStopped || m_isBlocking || m_state == State::Working || m_next;
}

bool BackgroundRuns::isUnderWay() const
{
    const std::lock_guard lock(m_mutex);
    return m_isBlocking || m_state == State::Working || m_next;
}

void BackgroundRuns::stop()
{
    QFuture<void> thread;
    {
        const std::lock_guard lock(m_mutex);
        m_isStopped = true;
        m_isCancelled = true;
        thread = m_thread;
    }
    thread.waitForFinished();
}

/// What the thread does.
void BackgroundRuns::work()
{
    do {
        std::function<void()> run;
        {
            const std::lock_guard lock(m_mutex);
            run.swap(m_next);
            m_state = State::Working;
        }
        callSafely(run);
        enter(State::Telling);
        callSafely(m_tellEnd);
    } while (!isLast());
    QThreadPool::globalInstance()->reserveThread();
}

void BackgroundRuns::enter(State state)
{
    const std::lock_guard lock(m_mutex);
    m_state = state;
}

/// Whether no run has been started meanwhile.
bool BackgroundRuns::isLast()
{
    const std::lock_guard lock(m_mutex);
    if (!m_next)
        m_state = State::Idle;
    return !m_next;
}

UpdateProblem problemOfNoThread(const QString &build)
{
    return {UpdateProblem::Code::NoMemory, build, QStringLiteral("the system gives no thread")};
}

UpdateProblem problemOfException(const QString &build)
{
    using Code = UpdateProblem::Code;
    UpdateProblem noMemory{Code::NoMemory, build, QStringLiteral("out of memory")};
    try {
        throw;
    } catch (const std::bad_alloc &) {
        return noMemory;
    } catch (const std::length_error &) { // of a container that became too large
        return noMemory;
    } catch (const std::exception &exception) {
        return {Code::ReadOrWrite, build, QString::fromLocal8Bit(exception.what())};
    } catch (...) {
        return {Code::ReadOrWrite, build, QStringLiteral("an unknown error has occurred")};
    }
}

} // namespace Pellox
