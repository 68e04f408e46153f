// SPDX-License-Identifier: MIT
#include "filesystem.h"

#include <QFile>

#include <cerrno>
#include <cstdio>

#include <unistd.h>

namespace Pellox {

std::optional<struct stat> statusOf(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) == 0)
        return status;
    return {};
}

bool mayStand(const QString &path)
{
    return statusOf(path) || (errno != ENOENT && errno != ENOTDIR);
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
