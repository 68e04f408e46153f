// SPDX-License-Identifier: MIT
#include "workfolder.h"

#include "filesystem.h"
#include "rulechecks.h"

#include <QDir>
#include <QFile>
#include <QThread>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace Pellox {

const QString WorkFolder::Name = QStringLiteral("/.pellox");
const QString WorkFolder::TemporarySuffix = QStringLiteral(".temp");
const QString WorkFolder::Journal = QStringLiteral("/.pellox/journal");
const QString WorkFolder::NewJournal = QStringLiteral("/.pellox/journal.new");
const QString WorkFolder::Staged = QStringLiteral("/.pellox/staged");
const QString WorkFolder::StagedRecord = QStringLiteral("/.pellox/staging");
const QString WorkFolder::NewStagedRecord = QStringLiteral("/.pellox/staging.new");
const QString WorkFolder::Keeping = QStringLiteral("/.pellox/keeping");
const QString WorkFolder::KeepingRecord = QStringLiteral("/.pellox/keeping.json");
const QString WorkFolder::NewKeepingRecord = QStringLiteral("/.pellox/keeping.json.new");
const QString WorkFolder::Previous = QStringLiteral("/.pellox/previous");
const QString WorkFolder::PreviousRecord = QStringLiteral("/.pellox/previous.json");
const QString WorkFolder::Release = QStringLiteral("/.pellox/release");
const QString WorkFolder::NewRelease = QStringLiteral("/.pellox/release.new");
const QString WorkFolder::Lock = QStringLiteral("/.pellox/lock");

namespace {

/// Without waiting but for signals, as @p operation says.
bool tryLock(const FileHandle &file, int operation)
{
    int locked = -1;
    do {
        locked = ::flock(file.get(), operation | LOCK_NB);
    } while (locked != 0 && errno == EINTR);
    return locked == 0;
}

/// Whoever only looks holds a lock for a moment, too, so this tries for a tenth of a second.
bool lockOpen(const FileHandle &file)
{
    constexpr int Tries = 20;
    constexpr unsigned long Pause = 5; // milliseconds
    for (int i = 1; i < Tries; ++i) {
        if (tryLock(file, LOCK_EX))
            return true;
        if (errno != EWOULDBLOCK)
            return false;
        QThread::msleep(Pause);
    }
    return tryLock(file, LOCK_EX);
}

} // namespace

WorkFolder::~WorkFolder()
{
    if (!m_hasLockFile)
        return;
    removeFile(m_build + Lock); // still locked, so nobody else's
    removeIfEmpty();
}

bool WorkFolder::isInside(const QString &relativePath)
{
    // Some file systems would take the name in capitals for the same, or look over some characters.
    const QString folded = NameSense{true, true}.key(relativePath);
    return folded == Name || folded.startsWith(Name + QLatin1Char('/'));
}

bool WorkFolder::lock()
{
    if (!m_lock.open(m_build, O_RDONLY | O_DIRECTORY))
        return failBySystem(m_build, "cannot be opened: ");
    if (lockOpen(m_lock))
        return true;
    // What is locked must be open for writing on some file systems, and no folder ever is.
    return errno == EBADF ? lockFile() : failToLock(m_build);
}

bool WorkFolder::look()
{
    if (!m_lock.open(m_build, O_RDONLY | O_DIRECTORY))
        return failBySystem(m_build, "cannot be opened: ");
    if (tryLock(m_lock, LOCK_SH))
        return true;
    if (errno != EBADF)
        return failToLock(m_build);
    // As in lock(); but where there is no such file, nobody is at work.
    const QString path = m_build + Lock;
    return !m_lockFile.open(path, O_RDWR | O_NOFOLLOW) || tryLock(m_lockFile, LOCK_SH)
        || failToLock(path);
}

bool WorkFolder::lockFile()
{
    const QString path = m_build + Lock;
    if (!make())
        return false;
    do { // until nobody who had it before has removed it meanwhile
        m_lockFile.close();
        if (!m_lockFile.open(path, O_RDWR | O_CREAT | O_NOFOLLOW))
            return failBySystem(path, "cannot be opened: ");
        if (!lockOpen(m_lockFile))
            return failToLock(path);
        m_hasLockFile = isInPlace();
    } while (!m_hasLockFile && m_error.isEmpty());
    return m_hasLockFile;
}

/// Whether the lock file is the one that others will find. With an error where that is unknown.
bool WorkFolder::isInPlace()
{
    struct stat own = {};
    const auto standing = statusOf(m_build + Lock, &m_error);
    if (::fstat(m_lockFile.get(), &own) != 0)
        return failBySystem(m_build + Lock, "cannot be looked at: ");
    return standing && own.st_dev == standing->st_dev && own.st_ino == standing->st_ino;
}

/// From errno.
bool WorkFolder::failToLock(const QString &path)
{
    m_isBusy = errno == EWOULDBLOCK;
    failBySystem(path, "cannot be locked: ");
    if (m_isBusy)
        m_error = {m_build, QStringLiteral("is being updated by another process")};
    m_lockFile.close();
    m_lock.close();
    return false;
}

bool WorkFolder::make()
{
    const QString path = m_build + Name;
    const auto standing = statusOf(path, &m_error);
    return m_error.isEmpty()
        && ((standing && S_ISDIR(standing->st_mode)) || makeFolder(path)
            || failBySystem(path, "cannot be made: "));
}

void WorkFolder::removeIfEmpty()
{
    QDir().rmdir(m_build + Staged);
    QDir().rmdir(m_build + Name);
}

bool WorkFolder::failBySystem(const QString &path, const char *what)
{
    m_error = FileError::ofSystem(path, what);
    return false;
}

bool hasJournal(const QString &build)
{
    return mayStand(build + WorkFolder::Journal);
}

} // namespace Pellox
