// SPDX-License-Identifier: MIT
#include "folders.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

QString absoluteFolder(const std::string &argument)
{
    if (argument.empty())
        throw Refusal(QStringLiteral("\"\""), QStringLiteral("is no folder name"));
    return QDir(QFile::decodeName(argument.c_str())).absolutePath();
}

/// The path with all links resolved, of a folder that need not exist yet.
QString resolved(const QString &folder)
{
    const QFileInfo info(folder);
    if (info.exists() || info.isRoot())
        return info.canonicalFilePath();
    return QDir::cleanPath(resolved(info.path()) + QLatin1Char('/') + info.fileName());
}

bool isWithin(const QString &path, const QString &folder)
{
    const QString prefix = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
    return path == folder || path.startsWith(prefix);
}

} // namespace

QString existingFolder(const std::string &argument)
{
    QString folder = absoluteFolder(argument);
    const QFileInfo info(folder);
    if (!info.exists())
        throw Refusal(folder, QStringLiteral("there is no such folder"));
    if (!info.isDir())
        throw Refusal(folder, QStringLiteral("is not a folder"));
    return folder;
}

QString folderToFill(const std::string &argument)
{
    QString folder = absoluteFolder(argument);
    const QFileInfo info(folder);
    if (info.exists() && !info.isDir())
        throw Refusal(folder, QStringLiteral("is not a folder"));
    return folder;
}

void requireApart(const QString &folder, const QString &other)
{
    const QString path = resolved(folder);
    const QString otherPath = resolved(other);
    if (path == otherPath)
        throw Refusal(folder, QStringLiteral("is the same folder as ") + other);
    const auto refuseInside = [](const QString &inner, const QString &outer) {
        throw Refusal(inner, QStringLiteral("lies inside %1; the two must lie apart").arg(outer));
    };
    if (isWithin(path, otherPath))
        refuseInside(folder, other);
    if (isWithin(otherPath, path))
        refuseInside(other, folder);
}
