// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

namespace Pellox {

/// Whether one folder is the other or lies inside of it, links followed; either may be missing.
bool overlap(const QString &folder, const QString &other);

} // namespace Pellox
