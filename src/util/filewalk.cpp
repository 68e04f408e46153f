// SPDX-License-Identifier: MIT
#include "filewalk.h"

#include <QDir>
#include <QDirIterator>

namespace Pellox {

QStringList filesUnder(const QString &folder)
{
    QStringList files;
    QDirIterator walk(
        QDir(folder).absolutePath(), QStringList(), QDir::Files, QDirIterator::Subdirectories);
    while (walk.hasNext())
        files.append(walk.next());
    return files;
}

} // namespace Pellox
