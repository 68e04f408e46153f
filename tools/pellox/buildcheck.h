// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/**
 * Throws Refusal when the library would leave out a file of @p build or give players another
 * one in its place without a word: a folder that cannot be listed, a name that is not valid
 * in the locale's encoding, a link to a pipe or device, a file "x.temp" beside "x", a file @p
 * manifest at the top. Files in @p ignored do not count.
 */
void requirePublishable(const QString &build, const QString &manifest, const QStringList &ignored);
