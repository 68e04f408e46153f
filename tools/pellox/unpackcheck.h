// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <vector>

class Console;
struct ArchivedEntry;

/**
 * Throws Refusal for an entry of the archive @p firstVolume that must not be unpacked into
 * @p folder: one with a password, with a name that leads out or that 7-Zip alters, and one whose
 * place, or that of a folder above it, is taken.
 */
void refuseEntry(const ArchivedEntry &entry, const QString &firstVolume, const QString &folder);

struct UnpackedContent
{
    int files = 0; ///< links too
    qint64 size = 0;
};

/**
 * Compares what lies in @p workFolder with the archive's own list; 7-Zip's word is not enough.
 * Each difference, and each link that leads out, becomes an error for its place in @p folder.
 */
UnpackedContent checkUnpacked(Console &console, const std::vector<ArchivedEntry> &entries,
    const QString &workFolder, const QString &folder);
