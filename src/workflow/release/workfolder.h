// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"

namespace Pellox {

/**
 * The hidden folder ".pellox" at the top of an installed build, and what an update keeps there:
 *
 *   journal    what a commit does, there from the moment it is certain until it is done
 *   staged/    new files that cannot stand beside their targets yet
 *   staging    which files a run stages, wherever they stand
 *   keeping/   what the commit under way sets aside, and its record, keeping.json
 *   previous/  what the last update has set aside, and its record, previous.json
 *   release    which release is installed, where that is known
 *   lock       on file systems that lock no folders, while an update is at work
 *
 * Everything is on the build's file system, so that renames are atomic.
 */
class WorkFolder
{
public:
    /// Of staged files, beside their targets.
    static const QString TemporarySuffix;

    // Paths relative to the build, as those of rules.
    static const QString Name; ///< of the folder itself
    static const QString Journal;
    static const QString NewJournal; ///< on the way to be one
    static const QString Staged;
    static const QString StagedRecord;
    static const QString NewStagedRecord; ///< on the way to be one
    static const QString Keeping;
    static const QString KeepingRecord;
    static const QString NewKeepingRecord; ///< on the way to be one
    static const QString Previous;
    static const QString PreviousRecord;
    static const QString Release;
    static const QString NewRelease; ///< on the way to be one
    static const QString Lock;

    /// Whether @p relativePath leads into such a folder on some file system.
    static bool isInside(const QString &relativePath);

    explicit WorkFolder(QString build)
        : m_build(std::move(build))
    {
    }

    ~WorkFolder();
    WorkFolder(const WorkFolder &) = delete;
    WorkFolder &operator=(const WorkFolder &) = delete;

    /// Whether somebody else holds the lock.
    bool isBusy() const { return m_isBusy; }

    QString build() const { return m_build; }
    /// Of a path relative to the build.
    QString absolute(const QString &path) const { return m_build + path; }

    /**
     * Takes the build's lock, which lasts until this object ends or the process does: one on the
     * build's folder itself, so that a crash leaves nothing. Where the file system locks no
     * folders, as NFS, one on a file in the hidden folder, which a crash leaves behind without
     * harm. False with error() when somebody else holds it, or when there is no locking.
     */
    bool lock();
    /**
     * Finds out whether somebody works on the build, makes nothing, and until this object ends
     * keeps out who wants to. False with error() when somebody does, or when there is no locking.
     */
    bool look();
    /// The build's folder, open while it is locked.
    int handle() const { return m_lock.get(); }
    /// Makes the folder. False with error().
    bool make();
    /// Removes the folder and that of staged files when nothing is left in them.
    void removeIfEmpty();

    const FileError &error() const { return m_error; }

private:
    bool failBySystem(const QString &path, const char *what);
    bool lockFile();
    bool failToLock(const QString &path);
    bool isInPlace();

    const QString m_build;
    FileHandle m_lock; ///< the build's folder
    FileHandle m_lockFile;
    bool m_hasLockFile = false;
    bool m_isBusy = false;
    FileError m_error;
};

/// Whether an unfinished commit stands in the build in folder @p build, or something that may be
/// one.
bool hasJournal(const QString &build);

} // namespace Pellox
