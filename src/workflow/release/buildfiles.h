// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "workfolder.h"

#include <QStringList>

#include <array>
#include <optional>

#include <sys/stat.h>

namespace Pellox {

/// What stands at a path itself, were it a link.
struct Standing
{
    std::optional<struct stat> status;
    int error = 0; ///< errno where the system does not tell; then there may be something

    bool isNothing() const { return !status && error == 0; }
    bool isFile() const { return status && S_ISREG(status->st_mode); }
    bool isFolder() const { return status && S_ISDIR(status->st_mode); }
};

/**
 * The files of a locked build for those who change them. Each is reached from the descriptor of the
 * build's folder, one folder after the other, so that nothing outside is met: a symbolic link on
 * the way is an error (ELOOP), and a build that is moved meanwhile is worked on at its new place.
 *
 * Paths are relative to the build and begin with a separator; that of the build is empty. Calls
 * that fail leave the reason in errno.
 */
class BuildFiles
{
public:
    explicit BuildFiles(const WorkFolder &folder)
        : m_folder(folder)
    {
    }

    /// For people.
    QString absolute(const QString &path) const { return m_folder.absolute(path); }
    /// From errno; @p what is put in front of what it says.
    FileError error(const QString &path, const char *what) const;

    Standing look(const QString &path);
    /// For those who cannot go on where the system does not tell: then false, with @p error.
    bool look(const QString &path, Standing *standing, FileError *error);
    /// Replaces what stands at @p to, in one step.
    bool rename(const QString &from, const QString &to);
    /// Gives a file a second name.
    bool link(const QString &from, const QString &to);
    /// True also when there was none.
    bool removeFile(const QString &path);
    /// An empty one.
    bool removeFolder(const QString &path);
    /// Removes @p path when it holds nothing but folders, down to the last.
    bool removeEmptyFolders(const QString &path);
    /// With all that is in it. True also when there was none.
    bool removeAll(const QString &path);
    /// @p path and those above it, as far as they are missing.
    bool makeFolders(const QString &path);
    /// For all on the build's file system at once: quicker than a call for each of many files.
    bool sync();

    // False with the file's own error.
    bool open(const QString &path, InputFile *file);
    /// Where nothing may stand.
    bool make(const QString &path, OutputFile *file);

private:
    struct OpenFolder
    {
        QString path;
        FileHandle handle;
    };

    int folder(const QString &path);
    int folderAbove(const QString &path) { return folder(parentOf(path)); }
    bool walk(const QString &path, FileHandle *handle) const;
    bool list(const QString &path, QStringList *names);
    void forget(const QString &path);
    static QString parentOf(const QString &path);
    static QString nameOf(const QString &path);
    static QByteArray encodedNameOf(const QString &path);

    const WorkFolder &m_folder;
    std::array<OpenFolder, 2> m_open; ///< the last ones; a rename has two
    std::size_t m_lastUsed = 0;       ///< of these
};

} // namespace Pellox
