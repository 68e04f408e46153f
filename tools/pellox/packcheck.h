// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/// What 7-Zip will find in a folder; a link counts as a file with its target's name in it.
struct PackedContent
{
    int files = 0;
    qint64 size = 0;
};

/// Throws Refusal when @p path, in its part below @p folder, has a control character, which 7-Zip
/// does not keep, or reads like 7-Zip's own messages, by which a run is judged.
void refuseNameForSevenZip(const QString &path, const QString &folder);

/**
 * Measures what is in @p folder, hidden entries too. Throws Refusal for files that cannot be read
 * and for what 7-Zip would pack but could not bring back: names as above, pipes, sockets and
 * devices, links whose target is absolute, ".", leads through ".." or another link, or has "//".
 * Throws Interrupt::Stopped.
 */
PackedContent requirePackable(const QString &folder);
