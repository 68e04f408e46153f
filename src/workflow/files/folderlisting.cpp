// SPDX-License-Identifier: MIT
#include "folderlisting.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/stat.h>

namespace Pellox {

namespace {

using Kind = FolderListing::Kind;

Kind kindOfMode(mode_t mode)
{
    return S_ISREG(mode) ? Kind::File
        : S_ISDIR(mode)  ? Kind::Folder
        : S_ISLNK(mode)  ? Kind::Link
                         : Kind::Other;
}

bool isNoEntry(const char *name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

} // namespace

FolderListing::FolderListing(QByteArray folder)
    : m_path(std::move(folder))
    , m_folder(::opendir(m_path.constData()))
{
    if (!m_folder)
        fail();
}

std::optional<FolderListing::Entry> FolderListing::next()
{
    while (m_folder && m_error.isEmpty()) {
        errno = 0;
        const dirent *const found = ::readdir(m_folder.get());
        if (!found) {
            if (errno != 0)
                fail();
            m_folder.reset();
            break;
        }
        if (isNoEntry(found->d_name))
            continue;
        Entry entry{m_path + '/' + found->d_name, Kind::Other};
        if (tellKind(*found, &entry))
            return entry;
    }
    return {};
}

/// Some file systems do not tell it with the name. False when it is gone, and with error().
bool FolderListing::tellKind(const dirent &found, Entry *entry)
{
    if (found.d_type != DT_UNKNOWN) {
        entry->kind = kindOfMode(static_cast<mode_t>(DTTOIF(found.d_type)));
        return true;
    }
    struct stat status = {};
    if (::lstat(entry->path.constData(), &status) != 0) {
        if (errno != ENOENT)
            fail();
        return false;
    }
    entry->kind = kindOfMode(status.st_mode);
    return true;
}

void FolderListing::fail()
{
    m_error = FileError::ofSystem(QFile::decodeName(m_path), "cannot be listed: ");
}

} // namespace Pellox
