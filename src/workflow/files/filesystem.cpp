// SPDX-License-Identifier: MIT
#include "filesystem.h"

#include "diskfile.h"

#include <QFile>

#include <cerrno>
#include <cstdio>

#include <unistd.h>

namespace Pellox {

namespace {

/// Of a call that looks: whether nothing can stand there.
bool tellsNothing(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG;
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

bool renameFile(const QString &from, const QString &to)
{
    return ::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

bool removeFile(const QString &path)
{
    return ::unlink(QFile::encodeName(path).constData()) == 0 || errno == ENOENT;
}

} // namespace Pellox
