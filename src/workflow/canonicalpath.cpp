// SPDX-License-Identifier: MIT
#include "canonicalpath.h"

#include <QDir>
#include <QFileInfo>

namespace Pellox {

namespace {

/// @p path with links followed as far as it exists.
QString canonical(const QString &path)
{
    const QFileInfo info(path);
    if (info.exists())
        return info.canonicalFilePath();
    const QString parent = info.path();
    return parent == path
        ? path
        : QDir(canonical(parent)).filePath(info.fileName()); // "/" needs no second separator
}

} // namespace

bool overlap(const QString &folder, const QString &other)
{
    const auto withSeparator = [](const QString &path) {
        return path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
    };
    const QString first = withSeparator(canonical(folder));
    const QString second = withSeparator(canonical(other));
    return first.startsWith(second) || second.startsWith(first);
}

} // namespace Pellox
