// SPDX-License-Identifier: MIT
#include "buildfiles.h"

#include "filesystem.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace Pellox {

namespace {

constexpr QLatin1Char Separator('/');

bool isNothing(int error)
{
    return error == ENOENT || error == ENOTDIR;
}

bool isLink(int folder, const QString &name)
{
    struct stat status = {};
    return ::fstatat(folder, QFile::encodeName(name).constData(), &status, AT_SYMLINK_NOFOLLOW) == 0
        && S_ISLNK(status.st_mode);
}

struct FolderClose
{
    void operator()(DIR *folder) const { ::closedir(folder); }
};

/// False of a folder that was removed since, in whose place another may stand.
bool stands(const FileHandle &folder)
{
    struct stat status = {};
    return folder.get() >= 0 && ::fstat(folder.get(), &status) == 0 && status.st_nlink > 0;
}

} // namespace

FileError BuildFiles::error(const QString &path, const char *what) const
{
    const int system = errno;
    if (system == ELOOP)
        return {absolute(path), QStringLiteral("is reached through a symbolic link, or is one"),
            system};
    return FileError::ofSystem(absolute(path), what);
}

Standing BuildFiles::look(const QString &path)
{
    struct stat status = {};
    const int parent = folderAbove(path);
    if (parent >= 0
        && ::fstatat(parent, encodedNameOf(path).constData(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return {status, 0};
    return {std::nullopt, isNothing(errno) ? 0 : errno};
}

bool BuildFiles::look(const QString &path, Standing *standing, FileError *error)
{
    *standing = look(path);
    if (standing->error == 0)
        return true;
    errno = standing->error;
    *error = this->error(path, "cannot be looked at: ");
    return false;
}

bool BuildFiles::rename(const QString &from, const QString &to)
{
    const int fromFolder = folderAbove(from);
    const int toFolder = fromFolder >= 0 ? folderAbove(to) : -1;
    if (toFolder < 0
        || ::renameat(
               fromFolder, encodedNameOf(from).constData(), toFolder, encodedNameOf(to).constData())
            != 0)
        return false;
    forget(from);
    forget(to);
    return true;
}

bool BuildFiles::link(const QString &from, const QString &to)
{
    const int fromFolder = folderAbove(from);
    const int toFolder = fromFolder >= 0 ? folderAbove(to) : -1;
    return toFolder >= 0
        && ::linkat(fromFolder, encodedNameOf(from).constData(), toFolder,
               encodedNameOf(to).constData(), 0)
        == 0;
}

bool BuildFiles::removeFile(const QString &path)
{
    const int parent = folderAbove(path);
    return (parent >= 0 && ::unlinkat(parent, encodedNameOf(path).constData(), 0) == 0)
        || isNothing(errno);
}

bool BuildFiles::removeFolder(const QString &path)
{
    const int parent = folderAbove(path);
    forget(path);
    return parent >= 0 && ::unlinkat(parent, encodedNameOf(path).constData(), AT_REMOVEDIR) == 0;
}

bool BuildFiles::removeEmptyFolders(const QString &path)
{
    QStringList names;
    list(path, &names);
    for (const QString &name : std::as_const(names)) {
        const QString entry = path + Separator + name;
        if (look(entry).isFolder())
            removeEmptyFolders(entry);
    }
    return removeFolder(path);
}

bool BuildFiles::removeAll(const QString &path)
{
    const Standing standing = look(path);
    errno = standing.error;
    if (!standing.isFolder())
        return standing.error == 0 && removeFile(path);
    QStringList names;
    return list(path, &names)
        && std::all_of(names.cbegin(), names.cend(),
            [&](const QString &name) { return removeAll(path + Separator + name); })
        && removeFolder(path);
}

bool BuildFiles::makeFolders(const QString &path)
{
    const auto make = [&] {
        const int parent = folderAbove(path);
        const bool isMade = parent >= 0 && makeFolderIn(parent, encodedNameOf(path));
        if (isMade)
            forget(path); // what is still open of it has been removed by another hand
        return isMade || (parent >= 0 && errno == EEXIST);
    };
    const auto makeAbove = [&] {
        const QString above = parentOf(path);
        return errno == ENOENT && !above.isEmpty() && makeFolders(above);
    };
    if (!make() && !(makeAbove() && make()))
        return false;
    return folder(path) >= 0;
}

bool BuildFiles::sync()
{
    return ::syncfs(m_folder.handle()) == 0;
}

bool BuildFiles::open(const QString &path, InputFile *file)
{
    return file->openIn(folderAbove(path), nameOf(path), absolute(path));
}

bool BuildFiles::make(const QString &path, OutputFile *file)
{
    return file->openIn(folderAbove(path), nameOf(path), absolute(path));
}

/// A descriptor of it, for the next two calls at least; -1 when there is none.
int BuildFiles::folder(const QString &path)
{
    if (path.isEmpty())
        return m_folder.handle();
    const auto isIt
        = [&](const OpenFolder &open) { return open.path == path && stands(open.handle); };
    auto *open = std::find_if(m_open.begin(), m_open.end(), isIt);
    if (open == m_open.end()) {
        open = &m_open[(m_lastUsed + 1) % m_open.size()];
        open->handle.close();
        open->path = path;
        if (!walk(path, &open->handle)) {
            open->handle.close();
            return -1;
        }
    }
    m_lastUsed = static_cast<std::size_t>(open - m_open.begin());
    return open->handle.get();
}

bool BuildFiles::walk(const QString &path, FileHandle *handle) const
{
    constexpr int Flags = O_PATH | O_DIRECTORY | O_NOFOLLOW;
    int above = m_folder.handle();
    for (const QString &name : path.split(Separator, Qt::SkipEmptyParts)) {
        if (!handle->openIn(above, name, Flags)) {
            const int system = errno;
            // What is no folder may be, but a link to one leads nobody knows where.
            errno = system == ENOTDIR && isLink(above, name) ? ELOOP : system;
            return false;
        }
        above = handle->get();
    }
    return true;
}

bool BuildFiles::list(const QString &path, QStringList *names)
{
    FileHandle handle;
    const int parent = folderAbove(path);
    if (parent < 0 || !handle.openIn(parent, nameOf(path), O_RDONLY | O_DIRECTORY | O_NOFOLLOW))
        return false;
    const int own = ::fcntl(handle.get(), F_DUPFD_CLOEXEC, 0);
    const std::unique_ptr<DIR, FolderClose> folder(own >= 0 ? ::fdopendir(own) : nullptr);
    if (!folder) {
        if (own >= 0)
            ::close(own);
        return false;
    }
    errno = 0;
    while (const dirent *entry = ::readdir(folder.get())) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names->append(QFile::decodeName(entry->d_name));
    }
    return errno == 0;
}

/// What is open of a folder that is gone or has another path now.
void BuildFiles::forget(const QString &path)
{
    for (OpenFolder &open : m_open) {
        if (open.path == path || open.path.startsWith(path + Separator))
            open.handle.close();
    }
}

QString BuildFiles::parentOf(const QString &path)
{
    return path.left(path.lastIndexOf(Separator));
}

QString BuildFiles::nameOf(const QString &path)
{
    return path.mid(path.lastIndexOf(Separator) + 1);
}

QByteArray BuildFiles::encodedNameOf(const QString &path)
{
    return QFile::encodeName(nameOf(path));
}

} // namespace Pellox
