// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "rulechecks.h"
#include "updateproblem.h"

#include <mutex>
#include <vector>

namespace Pellox {

/// Absolute, without a separator at the end; a rule's path is appended to them as it is.
struct UpdateFolders
{
    QString build;
    QString patch;
    QString fallback; ///< may be empty
};

/// What an update does for one rule.
struct UpdateWork
{
    UpdateRule rule;
    bool comesLast = false; ///< something that is deleted stands in its place or above it
    bool isNeeded = false;  ///< the build does not have the outcome already
    bool isStaged = false;
    bool isTakenWhole
        = false;          ///< from the fallback: the installed file, or source, is not the old one
    bool isMoved = false; ///< made of an installed file, the rule's source: the patch lacks it
    bool isUnreadable = false; ///< the installed file
    bool isOwnStaged = false;  ///< what stands at staged, if anything does, is an update's
    QString staged;            ///< where the new content goes first; relative to the build
    qint64 size = 0;           ///< of the new content
    Sha512 sha512;             ///< likewise, once it is staged
};

/// Of what was found when a file was read: @p ofContent where that is missing or broken, but what
/// the system did is no fault of the file's.
UpdateProblem::Code codeOf(const FileError &error, UpdateProblem::Code ofContent);

/// What is wrong, from any thread.
class Problems
{
public:
    void add(UpdateProblem::Code code, const QString &file, const QString &reason);
    /// A full disk has a code of its own, whatever @p code says.
    void add(UpdateProblem::Code code, const FileError &error);
    bool isEmpty() const { return m_problems.empty(); }
    const std::vector<UpdateProblem> &all() const { return m_problems; }

private:
    std::mutex m_mutex;
    std::vector<UpdateProblem> m_problems;
};

} // namespace Pellox
