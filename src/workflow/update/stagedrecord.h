// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"

#include <QSet>
#include <QString>

#include <optional>
#include <set>
#include <vector>

#include <sys/stat.h>

namespace Pellox {

/**
 * The record, in a build's hidden folder, of the files that a run stages and of the folders that it
 * makes for them. It is on the disk before the first of them is made and goes after the last: what
 * it names is an update's own, and everything else of such a name is somebody's file. Paths are
 * relative to the build. To be used with the build's lock held, but for reading.
 */
class StagedRecord
{
public:
    explicit StagedRecord(QString build)
        : m_build(std::move(build))
    {
    }

    /// Reads what an earlier run has left; a damaged record counts as none. False with an error.
    bool read();
    /// Whether an update has made what stands at @p path. In the folder of staged files that goes
    /// without saying.
    bool isOwn(const QString &path) const;

    void add(const QString &path) { m_files.insert(path); }
    void addFolder(const QString &path) { m_folders.insert(path); }
    /// Of a file that was not made.
    void drop(const QString &path) { m_files.erase(path); }
    /// Puts it in the place of what was read, in one step, where it says more. @p syncs: its
    /// content is on the disk before its name. False with an error.
    bool write(bool syncs);

    /**
     * Removes what it names, and what else is in the folder of staged files, but for the files
     * @p kept; folders only where they are empty. False with errors(), one for each file that could
     * not be removed.
     */
    bool removeFiles(const QSet<QString> &kept);
    /// The record itself. False with an error.
    bool remove();
    /// Whether there is something to remove, or may be where the system does not tell.
    bool isThere() const;

    const std::vector<FileError> &errors() const { return m_errors; }

private:
    QByteArray toBytes() const;
    bool takeBytes(const QByteArray &bytes);
    bool takeLine(const QString &path);
    void addStrays();
    bool isReached(const QString &path);
    bool isPlainFolder(const QString &path);
    std::optional<struct stat> look(const QString &path);
    void removeFile(const QString &path);
    void removeFolders();
    bool fail(const FileError &error);

    const QString m_build;
    std::set<QString> m_files;
    std::set<QString> m_folders;  ///< what lies in another comes after it
    QByteArray m_standing;        ///< as it was read
    QSet<QString> m_plainFolders; ///< relative paths that are known to be folders, no links
    std::vector<FileError> m_errors;
};

} // namespace Pellox
