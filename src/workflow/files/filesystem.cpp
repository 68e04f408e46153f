// SPDX-License-Identifier: MIT
#include "filesystem.h"

#include "diskfile.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace Pellox {

bool tellsNothing(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG;
}

namespace {

bool giveToOwnerOf(int above, const QByteArray &name)
{
    struct stat status = {};
    if (::geteuid() != 0)
        return true;
    if (::fstat(above, &status) != 0)
        return false;
    const bool isOurs = status.st_uid == 0 && status.st_gid == ::getegid();
    return isOurs
        || ::fchownat(above, name.constData(), status.st_uid, status.st_gid, AT_SYMLINK_NOFOLLOW)
        == 0
        || FileOwner::areUnknown(errno);
}

} // namespace

std::optional<struct stat> statusOf(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) == 0)
        return status;
    return {};
}

std::optional<struct stat> statusOf(const QString &path, FileError *error)
{
    const auto status = statusOf(path);
    if (!status && !tellsNothing(errno))
        *error = FileError::ofSystem(path, "cannot be looked at: ");
    return status;
}

bool mayStand(const QString &path)
{
    return statusOf(path) || !tellsNothing(errno);
}

bool isRegularFile(const QString &path)
{
    const auto status = statusOf(path);
    return status && S_ISREG(status->st_mode);
}

bool isFolder(const QString &path)
{
    const auto status = statusOf(path);
    return status && S_ISDIR(status->st_mode);
}

bool makeFolderIn(int above, const QByteArray &name)
{
    constexpr mode_t All = 0777; // less what the user's mask takes away
    return ::mkdirat(above, name.constData(), All) == 0 && giveToOwnerOf(above, name);
}

bool makeFolder(const QString &path)
{
    const QFileInfo info(path);
    FileHandle above;
    return above.open(info.path(), O_RDONLY | O_DIRECTORY)
        && makeFolderIn(above.get(), QFile::encodeName(info.fileName()));
}

bool makeFolders(const QString &path)
{
    return isFolder(path) || makeFolder(path) || errno == EEXIST
        || (errno == ENOENT && makeFolders(QFileInfo(path).path())
            && (makeFolder(path) || errno == EEXIST));
}

bool renameFile(const QString &from, const QString &to)
{
    return ::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

bool removeFile(const QString &path)
{
    return ::unlink(QFile::encodeName(path).constData()) == 0 || errno == ENOENT;
}

} // namespace Pellox
