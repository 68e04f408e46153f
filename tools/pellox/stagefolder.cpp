// SPDX-License-Identifier: MIT
#include "stagefolder.h"

#include "folders.h"

#include <QDir>
#include <QFile>

#include <sys/stat.h>

namespace {

/// Of a link itself, not of where it leads.
std::optional<struct stat> statusOf(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return {};
    return status;
}

/// Of where a link leads.
std::optional<dev_t> diskOf(const QString &path)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return {};
    return status.st_dev;
}

} // namespace

StageFolder::StageFolder(const QString &folder)
{
    m_newFolders.expect(folder);
    makeFolder(folder);
    m_dir.emplace(pathIn(folder, QStringLiteral(".pellox-XXXXXX")));
    if (!m_dir->isValid())
        throw Refusal(folder, QLatin1String("cannot be written to: ") + m_dir->errorString());
}

void StageFolder::finish()
{
    m_newFolders.keep();
    m_dir.reset();
}

void requireOwnFolders(const QString &folder, const QString &path)
{
    const std::optional<dev_t> disk = diskOf(folder);
    for (auto end = path.indexOf(QLatin1Char('/'), folder.size() + 1); end >= 0;
         end = path.indexOf(QLatin1Char('/'), end + 1)) {
        const QString parent = path.left(end);
        const auto status = statusOf(parent);
        if (!status)
            return; // it will be made, with all below it
        if (S_ISLNK(status->st_mode))
            throw Refusal(parent, QStringLiteral("is a link, and a folder belongs there"));
        if (!S_ISDIR(status->st_mode))
            throw Refusal(parent, QStringLiteral("is a file, and a folder belongs there"));
        if (status->st_dev != disk) {
            throw Refusal(parent,
                QStringLiteral("lies on another disk than %1; one that is filled as a whole must "
                               "lie on one disk")
                    .arg(folder));
        }
    }
}
