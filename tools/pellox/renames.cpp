// SPDX-License-Identifier: MIT
#include "renames.h"

#include "console.h"
#include "folders.h"

#include <QFile>
#include <QTemporaryDir>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace {

/// For file systems that cannot rename and replace nothing in one step.
bool renameInSteps(const QByteArray &from, const QByteArray &to)
{
    if (::link(from.constData(), to.constData()) == 0)
        return ::unlink(from.constData()) == 0;
    // A folder, or a file system without hard links.
    return errno != EEXIST && !isThere(QFile::decodeName(to))
        && std::rename(from.constData(), to.constData()) == 0;
}

bool renameNoReplace(const QString &fromPath, const QString &toPath)
{
    const QByteArray from = QFile::encodeName(fromPath);
    const QByteArray to = QFile::encodeName(toPath);
    if (::renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_NOREPLACE) == 0)
        return true;
    const bool isUnknown = errno == EINVAL || errno == ENOSYS;
    return isUnknown && renameInSteps(from, to);
}

} // namespace

Renames::Renames(QTemporaryDir &workFolder, Console &console)
    : m_workFolder(workFolder)
    , m_console(console)
{
}

Renames::~Renames()
{
    for (auto renamed = m_done.crbegin(); renamed != m_done.crend(); ++renamed) {
        const auto &[from, to] = *renamed;
        if (renameNoReplace(to, from) || !isThere(to))
            continue;
        m_workFolder.setAutoRemove(false);
        m_console.error(to, QStringLiteral("cannot be put back as ") + from);
    }
}

bool Renames::rename(const QString &from, const QString &to)
{
    if (!renameNoReplace(from, to))
        return false;
    m_done.emplace_back(from, to);
    return true;
}

void Renames::keep()
{
    m_done.clear();
}
