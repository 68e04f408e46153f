// SPDX-License-Identifier: MIT
#pragma once

#include <Pellox/PatchInspector>

#include <QString>
#include <QVector>

/// Sums over files of a patch.
struct PatchSums
{
    qint64 files = 0;
    qint64 newSize = 0;
    qint64 patchBytes = 0;
    qint64 copiedBytes = 0;
    qint64 literalBytes = 0;

    void add(const Pellox::InspectedFile &file);
};

/// The sums of all files that have @p rule; of all files where it is empty.
PatchSums sumsOf(const QVector<Pellox::InspectedFile> &files, const QString &rule = QString());

/// @p path of a manifest as people write it: without the separator in front.
QString shownPath(const QString &path);

struct FolderSums
{
    QString path; ///< relative to the patch, without a separator in front
    PatchSums sums;
};

/// Each folder within the patch with what is in it and in the folders below; the heaviest first.
QVector<FolderSums> sumsOfFolders(const QVector<Pellox::InspectedFile> &files);

/// The same without folders of no weight, and without those that hold nothing but one folder.
QVector<FolderSums> heaviestFolders(const QVector<Pellox::InspectedFile> &files);

/// Whether @p file is a new one of which the old build has at least half under other names, as far
/// as that is known.
bool isMoved(const Pellox::InspectedFile &file);

/// The new files of which isMoved() says so: those that cost most first.
QVector<Pellox::InspectedFile> movedFiles(const QVector<Pellox::InspectedFile> &files);

/// How much of @p file the old build has, for people: "all", "86.0 %", "about 40 %".
QString oldShareOf(const Pellox::InspectedFile &file);

/// The files with a delta, the largest delta first.
QVector<Pellox::InspectedFile> largestDeltas(const QVector<Pellox::InspectedFile> &files);
