// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "goon.h"

#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

namespace Pellox {

struct BuildFile
{
    QString relativePath; ///< begins with a separator
    qint64 size = 0;
};

/**
 * The files of the build in folder @p build, the same as filesUnder() finds and in the same order.
 * Nothing, after @p error, when a folder cannot be listed to its end, or when a name cannot be
 * told in the locale's encoding; filesUnder() would leave those out. Nothing without an error when
 * @p goOn says no.
 *
 * Where @p odd is given, the relative paths of such folders and names, as far as they can be told,
 * are appended to it, and the walk goes on without them: only the build's own folder must be
 * listed. Folders that disappear meanwhile are gone.
 */
std::optional<std::vector<BuildFile>> walkBuild(
    const QString &build, FileError *error, const GoOn &goOn = GoOn(), QStringList *odd = nullptr);

} // namespace Pellox
