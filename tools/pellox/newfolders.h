// SPDX-License-Identifier: MIT
#pragma once

#include <QSet>
#include <QString>

/// Remembers which folders were not there before a run, and takes away those that it left empty.
class NewFolders
{
public:
    NewFolders() = default;
    ~NewFolders();
    NewFolders(const NewFolders &) = delete;
    NewFolders &operator=(const NewFolders &) = delete;

    /// Call it before @p folder is made: remembers it, and those above it, if they are missing.
    void expect(const QString &folder);
    /// The run went well: they stay.
    void keep();

private:
    QSet<QString> m_paths;
};
