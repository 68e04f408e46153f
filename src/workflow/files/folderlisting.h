// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"

#include <QByteArray>

#include <memory>
#include <optional>

#include <dirent.h>

namespace Pellox {

/**
 * What a folder holds, in the file system's own order. By the system's calls, as those of the
 * standard library end the process where there is no memory for a name.
 */
class FolderListing
{
public:
    enum class Kind { File, Folder, Link, Other };

    struct Entry
    {
        QByteArray path; ///< of the folder, a separator and the name, as the system has them
        Kind kind;

        bool isHidden() const { return path.at(path.lastIndexOf('/') + 1) == '.'; }
    };

    explicit FolderListing(QByteArray folder);

    /// Nothing behind the last one, and with error(). What disappears meanwhile may be left out.
    std::optional<Entry> next();
    /// Where the folder cannot be listed, or not to its end.
    const FileError &error() const { return m_error; }

private:
    struct Close
    {
        void operator()(DIR *folder) const { ::closedir(folder); }
    };

    bool tellKind(const dirent &found, Entry *entry);
    void fail();

    const QByteArray m_path;
    std::unique_ptr<DIR, Close> m_folder;
    FileError m_error;
};

} // namespace Pellox
