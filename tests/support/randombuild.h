// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

struct RandomFile
{
    QByteArray content;
    uint permissions = 0644; ///< the bits of chmod
    QString linkTarget;      ///< of a symbolic link; content is that of the file it leads to
};

/// Files by relative path, "data/x.pak"; some are hidden ones.
using RandomBuild = QMap<QString, RandomFile>;

/// Whether any part of @p relativePath is hidden, so that no build contains the file.
bool isHidden(const QString &relativePath);

/// Writes @p build into @p folder, which must not hold any of its files. Ends the test program
/// on an error.
void layBuild(const RandomBuild &build, const QString &folder);

/// A build and the one after it, with all that may happen between two: files are edited, moved,
/// emptied, swapped, made executable, replaced by folders.
struct RandomRelease
{
    RandomBuild before;
    RandomBuild after;
    QStringList ignored; ///< relative paths, of files of either build or of none
};

enum class RandomSizes {
    Small, ///< up to some 200 KiB, mostly around the borders of blocks
    Large, ///< some files around the borders of MiB as well, up to 7 MiB
};

/// The same for the same @p seed on every machine.
RandomRelease randomRelease(quint64 seed, RandomSizes sizes);
