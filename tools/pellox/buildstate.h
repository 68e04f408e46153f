// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

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

BuildState stateOf(const QString &build);

/// Tells when @p build is not at rest, so that what is said of its files may not be the last word.
void noteState(Console &console, const QString &build);

/// Keeps updates out of a build while it lives, and is kept out by them.
class BuildLock
{
public:
    /// Throws Refusal when @p build is not at rest.
    explicit BuildLock(const QString &build);
    ~BuildLock();
    BuildLock(const BuildLock &) = delete;
    BuildLock &operator=(const BuildLock &) = delete;

private:
    int m_handle;
};
