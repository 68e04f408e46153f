// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <utility>
#include <vector>

/// Renames that all count or none: what was renamed goes back unless keep() was called.
class Renames
{
public:
    Renames() = default;
    ~Renames();
    Renames(const Renames &) = delete;
    Renames &operator=(const Renames &) = delete;

    /// Replaces nothing. Returns false when it cannot.
    bool rename(const QString &from, const QString &to);
    void keep();

private:
    std::vector<std::pair<QString, QString>> m_done;
};
