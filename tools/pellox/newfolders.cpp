// SPDX-License-Identifier: MIT
#include "newfolders.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

#include <algorithm>

NewFolders::~NewFolders()
{
    QStringList deepestFirst = m_paths.values();
    std::sort(deepestFirst.begin(), deepestFirst.end(),
        [](const QString &left, const QString &right) { return left.size() > right.size(); });
    for (const QString &path : deepestFirst)
        QDir().rmdir(path); // none that holds something
}

void NewFolders::expect(const QString &folder)
{
    for (QFileInfo info(folder); !info.exists() && !m_paths.contains(info.filePath());
         info.setFile(info.path()))
        m_paths.insert(info.filePath());
}

void NewFolders::keep()
{
    m_paths.clear();
}
