// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <utility>
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
    void keep();

private:
    QTemporaryDir &m_workFolder;
    Console &m_console;
    std::vector<std::pair<QString, QString>> m_done;
};
