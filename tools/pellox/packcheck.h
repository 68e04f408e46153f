// SPDX-License-Identifier: MIT
#pragma once

#include "listing.h"

#include <QString>
#include <QStringList>

class SealView;

/// What 7-Zip will find in a folder; a link counts as a file with its target's name in it.
struct PackedContent
{
    int files = 0;
    qint64 size = 0;
    QStringList leftOut; ///< hidden entries of a sealed patch, which are no part of it
};

/// Throws Refusal when @p path, in its part below @p folder, has a control character, which 7-Zip
/// does not keep, or reads like 7-Zip's own messages, by which a run is judged.
void refuseNameForSevenZip(const QString &path, const QString &folder);

/**
 * Measures what is in @p folder, hidden entries too unless they are left out. Throws Refusal for
 * files that cannot be read and for what 7-Zip would pack but could not bring back: names as above,
 * pipes, sockets and devices, links whose target is absolute, ".", leads through ".." or another
 * link, or has "//". Throws Interrupt::Stopped.
 */
PackedContent requirePackable(const QString &folder, Hidden hidden = Hidden::Visited);

/// The same for a patch with a seal: hidden entries are left out, and the others must be, by name
/// and size, what was sealed, or players would refuse the patch. Throws Refusal.
PackedContent requirePackablePatch(const QString &patch, const SealView &seal);
