// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/*
 * Whether there is room on a disk. Paths need not exist yet: the disk is that of the nearest
 * folder above that does.
 */

/// Throws Refusal when @p size bytes do not fit into @p folder.
void requireRoom(qint64 size, const QString &folder);

/// Why @p size bytes could not be written to @p path, as far as one can see afterwards.
QString reasonNotWritten(qint64 size, const QString &path);
