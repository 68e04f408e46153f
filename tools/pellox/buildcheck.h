// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/*
 * What the library would leave out of a build, or give players in another file's place,
 * without a word. All throw Refusal.
 */

/// Refuses a folder of @p build that cannot be listed, a name that is not valid in the locale's
/// encoding, and a link to a pipe or device.
void requireListable(const QString &build);

/// Refuses a file @p manifest at the top of @p build, unless it is one of @p ignored.
void refuseManifestName(const QString &build, const QString &manifest, const QStringList &ignored);

/**
 * Refuses a file "x.temp" of either build beside a file "x" of both: patching "x" on players'
 * machines would take its place. @p files are those of @p newBuild, @p ignored some of them;
 * @p oldFiles are relative paths as manifests hold them.
 */
void refuseTemporaryNames(const QString &newBuild, const QStringList &files,
    const QStringList &ignored, const QStringList &oldFiles);
