// SPDX-License-Identifier: MIT
#include "filewalk.h"

#include <QDir>
#include <QDirIterator>

namespace Pellox {

namespace {

template <typename Visitor> void visitFiles(const QString &folder, const Visitor &visit)
{
    QDirIterator walk(
        QDir(folder).absolutePath(), QStringList(), QDir::Files, QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        walk.next();
        visit(walk);
    }
}

} // namespace

QStringList filesUnder(const QString &folder)
{
    QStringList files;
    visitFiles(folder, [&](const QDirIterator &walk) { files.append(walk.filePath()); });
    return files;
}

QVector<QFileInfo> fileInfosUnder(const QString &folder)
{
    QVector<QFileInfo> files;
    visitFiles(folder, [&](const QDirIterator &walk) { files.append(walk.fileInfo()); });
    return files;
}

} // namespace Pellox
