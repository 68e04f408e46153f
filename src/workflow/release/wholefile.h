// SPDX-License-Identifier: MIT
#pragma once

#include "buildfiles.h"
#include "diskfile.h"

#include <QByteArray>

#include <optional>

namespace Pellox {

// Files that are small enough to be held whole.

/**
 * All of @p file, which is open. Nothing, after @p error, when it has more than @p largest bytes,
 * cannot be read, or changes meanwhile.
 */
std::optional<QByteArray> readWhole(InputFile &file, qint64 largest, QString *error);

/// Writes a new file of @p bytes; @p syncs: and waits until they are on the disk. False after
/// @p error, and then something may stand there.
bool writeWhole(const QString &path, const QByteArray &bytes, bool syncs, FileError *error);
/// The same in a build.
bool writeWhole(
    BuildFiles &files, const QString &path, const QByteArray &bytes, bool syncs, FileError *error);

/**
 * Puts a file of @p bytes in the place of @p path in one step and waits until it is on the disk. It
 * is written beside it first, under temporaryNameOf() that path. False after @p error; unless that
 * is about the folder, what stood at @p path is as it was.
 */
bool replaceWhole(const QString &path, const QByteArray &bytes, QString *error);
QString temporaryNameOf(const QString &path);

/// Waits until the entry of @p path in its folder is on the disk. False after @p error.
bool syncFolderOf(const QString &path, QString *error);

} // namespace Pellox
