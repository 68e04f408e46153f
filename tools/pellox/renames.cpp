// SPDX-License-Identifier: MIT
#include "renames.h"

#include "console.h"
#include "folders.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
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
    if (errno == EEXIST || isThere(QFile::decodeName(to))) {
        errno = EEXIST;
        return false;
    }
    return std::rename(from.constData(), to.constData()) == 0;
}

bool renameWith(unsigned flag, const QString &from, const QString &to)
{
    return ::renameat2(AT_FDCWD, QFile::encodeName(from).constData(), AT_FDCWD,
               QFile::encodeName(to).constData(), flag)
        == 0;
}

/// Whether the last rename failed as its flag means nothing to the file system or the kernel.
bool isFlagUnknown()
{
    return errno == EINVAL || errno == ENOSYS;
}

bool renameNoReplace(const QString &from, const QString &to)
{
    if (renameWith(RENAME_NOREPLACE, from, to))
        return true;
    return isFlagUnknown() && renameInSteps(QFile::encodeName(from), QFile::encodeName(to));
}

} // namespace

Renames::Renames(QTemporaryDir &workFolder, Console &console)
    : m_workFolder(workFolder)
    , m_console(console)
{
}

Renames::~Renames()
{
    for (auto done = m_done.crbegin(); done != m_done.crend(); ++done) {
        const QString &path = done->isExchange ? done->from : done->to;
        const QString &place = done->isExchange ? done->to : done->from;
        if (takeBack(*done) || !isThere(path))
            continue;
        m_workFolder.setAutoRemove(false);
        m_console.error(path, QStringLiteral("cannot be put back as ") + place);
    }
}

bool Renames::takeBack(const Done &done)
{
    if (!done.isExchange)
        return renameNoReplace(done.to, done.from);
    // Nothing may be there any more to exchange it with.
    return renameWith(RENAME_EXCHANGE, done.to, done.from) || renameNoReplace(done.from, done.to);
}

bool Renames::rename(const QString &from, const QString &to)
{
    if (!renameNoReplace(from, to)) {
        m_error = errno;
        return false;
    }
    m_done.push_back({from, to, false});
    return true;
}

bool Renames::replace(const QString &from, const QString &to, const QString &aside)
{
    if (!QDir().mkpath(QFileInfo(aside).path())) {
        m_error = errno;
        return false;
    }
    if (exchange(from, to))
        return rename(from, aside);
    const bool isPossibleInSteps = m_error == EINVAL || m_error == ENOSYS;
    return isPossibleInSteps && rename(to, aside) && rename(from, to);
}

bool Renames::exchange(const QString &from, const QString &to)
{
    if (!renameWith(RENAME_EXCHANGE, from, to)) {
        m_error = errno;
        return false;
    }
    m_done.push_back({from, to, true});
    if (!isRealFolder(from))
        return true;
    // It took the file's place just now. With the work folder it would go.
    m_error = EISDIR;
    return false;
}

QString Renames::reason() const
{
    switch (m_error) {
    case EEXIST:
        return QStringLiteral("exists");
    case EISDIR:
        return QStringLiteral("is a folder, and a file belongs there");
    case EXDEV:
        return QStringLiteral("lies on another disk than what is moved there");
    default:
        return QStringLiteral("cannot be created (%1)").arg(qt_error_string(m_error));
    }
}

void Renames::keep()
{
    m_done.clear();
}
