// SPDX-License-Identifier: MIT
#include "patchsums.h"

#include "manifests.h"

#include <Pellox/rules.h>

#include <QHash>
#include <QSet>

#include <algorithm>
#include <utility>

using Pellox::InspectedFile;

namespace {

const QLatin1Char Separator('/');

/// Empty where there is none but the patch itself.
QString folderOf(const QString &path)
{
    const auto end = path.lastIndexOf(Separator);
    return path.left(end < 0 ? 0 : end);
}

} // namespace

void PatchSums::add(const InspectedFile &file)
{
    ++files;
    newSize += file.newSize;
    patchBytes += file.patchBytes;
    copiedBytes += file.copiedBytes;
    literalBytes += file.literalBytes;
}

PatchSums sumsOf(const QVector<InspectedFile> &files, const QString &rule)
{
    PatchSums sums;
    for (const InspectedFile &file : files) {
        if (rule.isEmpty() || file.rule == rule)
            sums.add(file);
    }
    return sums;
}

QString shownPath(const QString &path)
{
    return path.mid(1);
}

QVector<FolderSums> sumsOfFolders(const QVector<InspectedFile> &files)
{
    QHash<QString, PatchSums> byPath;
    for (const InspectedFile &file : files) {
        QString folder = folderOf(shownPath(file.relativePath));
        for (; !folder.isEmpty(); folder = folderOf(folder))
            byPath[folder].add(file);
    }
    QVector<FolderSums> folders;
    folders.reserve(byPath.size());
    for (auto entry = byPath.cbegin(); entry != byPath.cend(); ++entry)
        folders.append({entry.key(), entry.value()});
    std::sort(folders.begin(), folders.end(), [](const FolderSums &left, const FolderSums &right) {
        return left.sums.patchBytes != right.sums.patchBytes
            ? left.sums.patchBytes > right.sums.patchBytes
            : left.path < right.path;
    });
    return folders;
}

QVector<FolderSums> heaviestFolders(const QVector<InspectedFile> &files)
{
    QVector<FolderSums> folders = sumsOfFolders(files);
    QHash<QString, qint64> filesOf;
    for (const FolderSums &folder : std::as_const(folders))
        filesOf.insert(folder.path, folder.sums.files);
    QSet<QString> merePaths; // folders with one folder in them and nothing else
    for (const FolderSums &folder : std::as_const(folders)) {
        const QString above = folderOf(folder.path);
        if (filesOf.value(above) == folder.sums.files)
            merePaths.insert(above);
    }
    const auto unwanted = [&](const FolderSums &folder) {
        return folder.sums.patchBytes == 0 || merePaths.contains(folder.path);
    };
    folders.erase(std::remove_if(folders.begin(), folders.end(), unwanted), folders.end());
    return folders;
}

bool isMoved(const InspectedFile &file)
{
    return !file.oldPath.isEmpty() && file.oldBytes >= file.newSize - file.oldBytes;
}

QVector<InspectedFile> movedFiles(const QVector<InspectedFile> &files)
{
    QVector<InspectedFile> moved;
    std::copy_if(files.cbegin(), files.cend(), std::back_inserter(moved), isMoved);
    std::sort(moved.begin(), moved.end(), [](const InspectedFile &one, const InspectedFile &other) {
        return one.patchBytes != other.patchBytes ? one.patchBytes > other.patchBytes
                                                  : one.relativePath < other.relativePath;
    });
    return moved;
}

QString oldShareOf(const InspectedFile &file)
{
    if (file.isMoved)
        return QStringLiteral("all");
    const double share
        = 100 * static_cast<double>(file.oldBytes) / static_cast<double>(file.newSize);
    return file.isOldEstimated ? QStringLiteral("about %1 %").arg(share, 0, 'f', 0)
                               : percentage(file.oldBytes, file.newSize);
}

QVector<InspectedFile> largestDeltas(const QVector<InspectedFile> &files)
{
    QVector<InspectedFile> deltas;
    std::copy_if(files.cbegin(), files.cend(), std::back_inserter(deltas),
        [](const InspectedFile &file) { return file.rule == Pellox::PATCH_RULE; });
    std::stable_sort(
        deltas.begin(), deltas.end(), [](const InspectedFile &left, const InspectedFile &right) {
            return left.patchBytes > right.patchBytes;
        });
    return deltas;
}
