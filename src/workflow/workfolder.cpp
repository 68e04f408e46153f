// SPDX-License-Identifier: MIT
#include "workfolder.h"

#include <QDir>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/file.h>

namespace Pellox {

const QString WorkFolder::Name = QStringLiteral("/.pellox");
const QString WorkFolder::TemporarySuffix = QStringLiteral(".temp");
const QString WorkFolder::Journal = QStringLiteral("/.pellox/journal");
const QString WorkFolder::NewJournal = QStringLiteral("/.pellox/journal.new");
const QString WorkFolder::Staged = QStringLiteral("/.pellox/staged");
const QString WorkFolder::Keeping = QStringLiteral("/.pellox/keeping");
const QString WorkFolder::KeepingRecord = QStringLiteral("/.pellox/keeping.json");
const QString WorkFolder::Previous = QStringLiteral("/.pellox/previous");
const QString WorkFolder::PreviousRecord = QStringLiteral("/.pellox/previous.json");
const QString WorkFolder::Release = QStringLiteral("/.pellox/release");
const QString WorkFolder::NewRelease = QStringLiteral("/.pellox/release.new");

bool WorkFolder::isInside(const QString &relativePath)
{
    // Some file systems would take the name in capitals for the same.
    const QString folded = relativePath.toCaseFolded();
    return folded == Name || folded.startsWith(Name + QLatin1Char('/'));
}

bool WorkFolder::lock()
{
    if (!m_lock.open(m_build, O_RDONLY | O_DIRECTORY))
        return fail(m_build, QLatin1String("cannot be opened: ") + lastSystemError());
    if (::flock(m_lock.get(), LOCK_EX | LOCK_NB) == 0)
        return true;
    m_lock.close();
    m_isBusy = true;
    return fail(m_build, QStringLiteral("is being updated by another process"));
}

bool WorkFolder::make()
{
    const QFileInfo info(m_build + Name);
    if (!info.isSymLink() && (info.isDir() || (!info.exists() && QDir().mkdir(m_build + Name))))
        return true;
    return fail(info.filePath(), QStringLiteral("cannot be made"));
}

void WorkFolder::removeIfEmpty()
{
    QDir().rmdir(m_build + Staged);
    QDir().rmdir(m_build + Name);
}

bool WorkFolder::fail(const QString &path, const QString &reason)
{
    m_error = {path, reason};
    return false;
}

} // namespace Pellox
