// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <vector>

/*
 * What the program checks around the library's archive calls, which judge a run by 7-Zip's
 * console output alone.
 */

/// Throws Refusal when the 7-Zip console program is not where the library looks for it, or does not
/// run, and Interrupt::Stopped.
void requireSevenZip();

/// Throws Refusal when 7-Zip would take @p path, an absolute one, for a pattern.
void refuseWildcards(const QString &path);

/// Whether the library, which reads all that 7-Zip prints, would take @p text for the words that
/// tell success or an error.
bool readsAsVerdict(const QString &text);

/// The line of 7-Zip's @p output that tells what is wrong, or nothing.
QString errorIn(const QString &output);

struct ArchivedEntry
{
    QString path; ///< relative to where it will be unpacked
    qint64 size;
    bool hasAttributes; ///< without them a folder looks like an empty file, and a link like a file
    bool isFolder;
    bool isLink; ///< symbolic
    bool isEncrypted;
};

/// What is in an archive by its own list. Throws Refusal as requireSevenZip() does, when 7-Zip
/// cannot read it or when it is no 7z archive, and Interrupt::Stopped.
std::vector<ArchivedEntry> entriesOfArchive(const QString &firstVolume);

/// How many of them are no folders.
int countFiles(const std::vector<ArchivedEntry> &entries);
