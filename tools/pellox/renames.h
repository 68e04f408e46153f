// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <vector>

class Console;
class QTemporaryDir;

/**
 * Renames to and from a work folder that all count or none: what was renamed goes back unless
 * keep() was called. What cannot go back is told on the console, and the work folder is kept then.
 */
class Renames
{
public:
    Renames(QTemporaryDir &workFolder, Console &console);
    ~Renames();
    Renames(const Renames &) = delete;
    Renames &operator=(const Renames &) = delete;

    /// Replaces nothing, not even a link that leads nowhere. Returns false when it cannot.
    bool rename(const QString &from, const QString &to);
    /// Puts the file @p from in the place of @p to, which is kept as @p aside, in a folder made
    /// for it, and must be no folder itself. The place is never empty where the file system can
    /// exchange two files. Returns false when it cannot.
    bool replace(const QString &from, const QString &to, const QString &aside);
    /// Why the last of these that failed did, to follow the path of what was to be made.
    QString reason() const;
    void keep();

private:
    struct Done
    {
        QString from;
        QString to;
        bool isExchange;
    };

    bool exchange(const QString &from, const QString &to);
    static bool takeBack(const Done &done);

    QTemporaryDir &m_workFolder;
    Console &m_console;
    std::vector<Done> m_done;
    int m_error = 0; ///< errno of the last that failed
};
