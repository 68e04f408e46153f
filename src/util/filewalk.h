// SPDX-License-Identifier: MIT
#pragma once

#include <QStringList>

namespace Pellox {

/**
 * The files of a build: absolute paths of all regular files and links to files under
 * @p folder, in the order of the directory. Hidden files, special files and what lies
 * behind links to folders are no part of a build.
 */
QStringList filesUnder(const QString &folder);

} // namespace Pellox
