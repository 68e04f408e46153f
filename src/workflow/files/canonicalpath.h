// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

namespace Pellox {

/**
 * @p path absolute and without a separator at its end. ".." counts from where a link leads, as it
 * does to the system. Empty stays empty, which is not the current folder.
 */
QString absoluteFolder(const QString &path);

/// Whether one folder is the other or lies inside of it, links followed; either may be missing.
bool overlap(const QString &folder, const QString &other);

} // namespace Pellox
