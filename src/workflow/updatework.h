// SPDX-License-Identifier: MIT
#pragma once

#include "rulechecks.h"

#include <QStringList>

#include <mutex>

namespace Pellox {

/// Absolute, without a separator at the end; a rule's path is appended to them as it is.
struct UpdateFolders
{
    QString build;
    QString patch;
    QString fallback; ///< may be empty
};

/// What an update does for one rule.
struct UpdateWork
{
    UpdateRule rule;
    bool comesLast = false; ///< something that is deleted stands in its place or above it
    bool isNeeded = false;  ///< the build does not have the outcome already
    bool isStaged = false;
    QString staged;  ///< where the new content goes first; relative to the build
    qint64 size = 0; ///< of the new content
};

/// What is wrong, from any thread.
class Problems
{
public:
    void add(const QString &text)
    {
        const std::lock_guard lock(m_mutex);
        m_texts.append(text);
    }
    bool isEmpty() const { return m_texts.isEmpty(); }
    const QStringList &texts() const { return m_texts; }

private:
    std::mutex m_mutex;
    QStringList m_texts;
};

} // namespace Pellox
