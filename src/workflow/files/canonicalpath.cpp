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

/// The length of @p path up to its last part ".." and with that; 0 when there is none.
auto lengthToLastClimb(const QString &path)
{
    const QString climb = QStringLiteral("/..");
    const QString withEnd = path + QLatin1Char('/');
    const auto at = withEnd.lastIndexOf(climb + QLatin1Char('/'));
    return at < 0 ? 0 : at + climb.size();
}

} // namespace

QString absoluteFolder(const QString &path)
{
    const QLatin1Char separator('/');
    if (path.isEmpty())
        return path;
    const QString absolute
        = path.startsWith(separator) ? path : QDir::currentPath() + separator + path;
    const auto climbs = lengthToLastClimb(absolute);
    // Nothing where a part is missing, and so no link.
    const QString resolved = QFileInfo(absolute.left(climbs)).canonicalFilePath();
    return QDir::cleanPath(
        climbs == 0 || resolved.isEmpty() ? absolute : resolved + absolute.mid(climbs));
}

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
