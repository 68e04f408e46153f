// SPDX-License-Identifier: MIT
#include "folders.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

namespace {

/// The path with ".." followed as the system does it, which counts behind a link.
QString withoutClimbs(const QString &path)
{
    static const QRegularExpression UpToLastClimb(QStringLiteral("^.*/\\.\\.(?=/|$)"));
    const QString climb = UpToLastClimb.match(path).captured();
    const QString resolved = QFileInfo(climb).canonicalFilePath(); // nothing where that is missing
    return climb.isEmpty() || resolved.isEmpty() ? path : resolved + path.mid(climb.size());
}

QString absolutePath(const std::string &argument)
{
    if (argument.empty())
        throw Refusal(QStringLiteral("\"\""), QStringLiteral("is no name of a file or folder"));
    QString path = QFile::decodeName(argument.c_str());
    if (path.startsWith(QLatin1Char(':'))) // to Qt the path of a resource
        path.prepend(QLatin1String("./"));
    return QDir::cleanPath(withoutClimbs(QDir::current().absoluteFilePath(path)));
}

/// The path with all links resolved; its last parts need not exist yet.
QString resolved(const QString &folder)
{
    const QString ancestor = existingAncestor(folder);
    return QDir::cleanPath(QFileInfo(ancestor).canonicalFilePath()
        + folder.mid(ancestor.size()).prepend(QLatin1Char('/')));
}

/// False with errno.
bool mayMakeIn(const QString &folder)
{
    return ::access(QFile::encodeName(folder).constData(), W_OK | X_OK) == 0;
}

bool isWithin(const QString &path, const QString &folder)
{
    const QString prefix = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
    return path == folder || path.startsWith(prefix);
}

} // namespace

QString existingFolder(const std::string &argument)
{
    QString folder = absolutePath(argument);
    requireFolder(folder);
    return folder;
}

void requireFolder(const QString &folder)
{
    const QFileInfo info(folder);
    if (!info.exists())
        throw Refusal(folder, QStringLiteral("there is no such folder"));
    if (!info.isDir())
        throw Refusal(folder, QStringLiteral("is not a folder"));
}

QString folderToFill(const std::string &argument)
{
    QString folder = absolutePath(argument);
    const QFileInfo info(folder);
    if (info.exists() && !info.isDir())
        throw Refusal(folder, QStringLiteral("is not a folder"));
    requireWritable(folder);
    return folder;
}

void requireWritable(const QString &folder)
{
    const QString ancestor = existingAncestor(folder);
    if (QFileInfo(ancestor).isDir() && !mayMakeIn(ancestor))
        throw Refusal(ancestor, QLatin1String("cannot be written: ") + qt_error_string(errno));
}

void makeFolder(const QString &folder)
{
    std::error_code problem;
    std::filesystem::create_directories(QFile::encodeName(folder).toStdString(), problem);
    if (problem)
        throw Refusal(
            folder, QLatin1String("cannot be created: ") + qt_error_string(problem.value()));
}

QString systemReason(const QString &path)
{
    struct stat standing = {};
    int error = 0;
    if (!mayMakeIn(QFileInfo(path).path())
        || (::lstat(QFile::encodeName(path).constData(), &standing) != 0 && errno != ENOENT))
        error = errno;
    return error == 0 ? QString() : QLatin1String(": ") + qt_error_string(error);
}

QString absoluteFile(const std::string &argument)
{
    return absolutePath(argument);
}

void requireApart(const QString &folder, const QString &other)
{
    requireOutside(folder, other);
    requireOutside(other, folder);
}

void requireOutside(const QString &path, const QString &folder)
{
    const QString resolvedPath = resolved(path);
    const QString resolvedFolder = resolved(folder);
    if (resolvedPath == resolvedFolder)
        throw Refusal(path, QStringLiteral("is the same folder as ") + folder);
    if (isWithin(resolvedPath, resolvedFolder)) {
        throw Refusal(path, QStringLiteral("lies inside %1; the two must lie apart").arg(folder));
    }
}

bool isThere(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

bool standsThere(const QString &path)
{
    struct stat standing = {};
    if (::lstat(QFile::encodeName(path).constData(), &standing) == 0)
        return true;
    if (errno != ENOENT && errno != ENOTDIR && errno != ENAMETOOLONG)
        throw Refusal(path, QLatin1String("cannot be looked at: ") + qt_error_string(errno));
    return false;
}

bool isRealFolder(const QString &path)
{
    const QFileInfo info(path);
    return info.isDir() && !info.isSymLink();
}

QString pathIn(const QString &folder, const QString &name)
{
    const QLatin1Char separator('/');
    return folder.endsWith(separator) ? folder + name : folder + separator + name;
}

QString existingAncestor(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() || info.isRoot() ? path : existingAncestor(info.path());
}
