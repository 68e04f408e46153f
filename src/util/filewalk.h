// SPDX-License-Identifier: MIT
#pragma once

#include <QFileInfo>
#include <QStringList>
#include <QVector>

namespace Pellox {

/**
 * The files of a build: absolute paths of all regular files and links to files under
 * @p folder, in the order of the directory. Hidden files, special files and what lies
 * behind links to folders are no part of a build.
 */
QStringList filesUnder(const QString &folder);

/// The same files with what the walk has learned of them.
QVector<QFileInfo> fileInfosUnder(const QString &folder);

} // namespace Pellox
