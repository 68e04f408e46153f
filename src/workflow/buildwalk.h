// SPDX-License-Identifier: MIT
#pragma once

#include "goon.h"

#include <QString>

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
 */
std::optional<std::vector<BuildFile>> walkBuild(
    const QString &build, QString *error, const GoOn &goOn = GoOn());

} // namespace Pellox
