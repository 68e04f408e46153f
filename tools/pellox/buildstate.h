// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <utility>

class Console;

/*
 * What an update may be about in an installed build. It holds a lock (flock) on the build's folder
 * itself while it works, and has .pellox/journal there from the moment that files are put in place
 * until that is done.
 */

/// Whether an installed build may be read and changed.
enum class BuildState {
    AtRest,
    Busy,        ///< another program works on it
    Interrupted, ///< an update, a rollback or a repair was, while it put files in place
};

/// Throws Refusal where the system does not tell.
BuildState stateOf(const QString &build);

/// Tells when @p build is not, or perhaps not, at rest, so that what is said of its files may not
/// be the last word.
void noteState(Console &console, const QString &build);

/// An open file or folder; closed, and so unlocked, with this object.
class LockHandle
{
public:
    LockHandle() = default;
    explicit LockHandle(int handle)
        : m_handle(handle)
    {
    }
    ~LockHandle();
    LockHandle(LockHandle &&other) noexcept
        : m_handle(std::exchange(other.m_handle, -1))
    {
    }
    LockHandle &operator=(LockHandle &&other) noexcept
    {
        std::swap(m_handle, other.m_handle);
        return *this;
    }

    int get() const { return m_handle; }

private:
    int m_handle = -1; ///< none where below 0
};

/// Keeps updates out of a build while it lives, and is kept out by them.
class BuildLock
{
public:
    /// Throws Refusal when @p build is not at rest, or when the system does not tell.
    explicit BuildLock(const QString &build);

private:
    LockHandle m_handle;
};
