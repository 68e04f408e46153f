// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"

#include <optional>

namespace Pellox {

/// @p sum and @p more, both not negative, or as much as a number holds.
qint64 saturatedSum(qint64 sum, qint64 more);

/// What a file system has free, and how it counts.
struct DiskRoom
{
    qint64 bytes = 0;
    std::optional<qint64> files; ///< where it says how many more it can hold
    qint64 blockSize = 1;

    /// Of the file system that @p folder is on. Nothing when it does not say.
    static std::optional<DiskRoom> of(const QString &folder);

    /// What a file of @p size bytes takes: whole blocks, and one for what is kept of it besides.
    qint64 taken(qint64 size) const;
};

/// Whether the file system that @p folder is on gives files second names, as far as its kind tells.
bool givesSecondNames(const QString &folder);

/// Whether files can be renamed from one folder to the other: the same file system, seen through
/// the same mount.
bool isOneMount(const QString &folder, const QString &other);

} // namespace Pellox
