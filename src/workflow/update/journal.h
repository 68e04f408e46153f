// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "filemark.h"
#include "installedrelease.h"

#include <QString>

#include <optional>
#include <vector>

namespace Pellox {

/**
 * What a commit does to a build, so that any process can finish it. Every step can be repeated.
 * Paths are relative to the build and begin with a separator.
 */
struct Journal
{
    /// A file that goes to its place by one rename.
    struct Placement
    {
        QString from;
        QString to;
        FileMark mark = {}; ///< by which its content is known at either place
    };

    /// A file that goes, unless another one stands there when its turn comes.
    struct Deletion
    {
        QString path;
        FileMark mark = {};
    };

    std::vector<Placement> first; ///< before the deletions
    std::vector<Deletion> deletions;
    std::vector<Placement> last; ///< where a deleted file or a folder that it left empty stood
    /// Whether what is replaced or deleted is set aside.
    bool keepsPrevious = false;
    /// Whether these are the steps back, which use up what was set aside.
    bool isRollback = false;
    /// Whether the build becomes what it was meant to be: then what was set aside is still the
    /// build before.
    bool isRepair = false;
    /// Whether the build becomes another one; then release says which, where that is known.
    bool changesRelease = false;
    std::optional<InstalledRelease> release;

    QByteArray toBytes() const;
    /// Nothing when @p bytes is no whole journal, or one that leads out of the build.
    static std::optional<Journal> fromBytes(const QByteArray &bytes);
    /// The same for the file at @p path; nothing after @p error, which names it.
    static std::optional<Journal> read(BuildFiles &files, const QString &path, FileError *error);
};

} // namespace Pellox
