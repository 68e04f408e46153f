// SPDX-License-Identifier: MIT
#include "renames.h"

#include <QFile>

Renames::~Renames()
{
    for (auto renamed = m_done.crbegin(); renamed != m_done.crend(); ++renamed)
        QFile::rename(renamed->second, renamed->first);
}

bool Renames::rename(const QString &from, const QString &to)
{
    if (!QFile::rename(from, to))
        return false;
    m_done.emplace_back(from, to);
    return true;
}

void Renames::keep()
{
    m_done.clear();
}
