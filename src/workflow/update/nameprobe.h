// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "rulechecks.h"

#include <optional>
#include <vector>

namespace Pellox {

// How the file system of the build in folder @p build tells names apart.

/// What can be seen without a change: on the files of @p rules that are there, and on what lies at
/// the top of the build. A folder in it may have a sense of its own; what folds anywhere counts.
NameSense seenNameSense(const QString &build, const std::vector<UpdateRule> &rules);

/// For certain, by a file in the build's hidden folder, which must be there; it is removed again.
/// Nothing after @p error.
std::optional<NameSense> triedNameSense(const QString &build, FileError *error);

} // namespace Pellox
