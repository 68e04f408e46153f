// SPDX-License-Identifier: MIT
#pragma once

#include "newfolders.h"

#include <QString>
#include <QTemporaryDir>

#include <optional>

/**
 * A hidden folder in the one to fill, so on the same disk: what was made in it gets its place by
 * renaming. It goes with this object, and with it the folders that had to be made for it.
 */
class StageFolder
{
public:
    /// Throws Refusal when it cannot be made.
    explicit StageFolder(const QString &folder);

    QTemporaryDir &dir() { return *m_dir; }
    QString path() const { return m_dir->path(); }
    /// All has its place: the folder to fill stays, and this one goes at once.
    void finish();

private:
    NewFolders m_newFolders; // goes after what is in them has
    std::optional<QTemporaryDir> m_dir;
};

/**
 * Throws Refusal when one of the folders between @p folder and @p path, which lies below it, is
 * there as something that no file can be renamed into, or must not: a file, a link, or a folder on
 * another disk.
 */
void requireOwnFolders(const QString &folder, const QString &path);
