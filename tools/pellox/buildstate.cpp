// SPDX-License-Identifier: MIT
#include "buildstate.h"

#include "console.h"
#include "folders.h"

#include <QFile>
#include <QJsonObject>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

const QString Journal = QStringLiteral("/.pellox/journal");
const QString LockFile = QStringLiteral("/.pellox/lock");

struct Locked
{
    int handle; ///< below 0 when nothing is locked
    bool isBusy;
};

/// Without waiting, as @p operation says.
Locked lockOpen(int handle, int operation)
{
    if (handle < 0 || ::flock(handle, operation | LOCK_NB) == 0)
        return {handle, false};
    const int error = errno;
    ::close(handle);
    errno = error;
    return {-1, error == EWOULDBLOCK};
}

int openAt(const QString &path, int flags)
{
    return ::open(QFile::encodeName(path).constData(), flags | O_CLOEXEC);
}

/// On file systems that lock no folders it is a file that is locked, there while that is so.
Locked lock(const QString &build, int operation)
{
    const Locked folder = lockOpen(openAt(build, O_RDONLY | O_DIRECTORY), operation);
    const bool locksNoFolders = folder.handle < 0 && errno == EBADF;
    return locksNoFolders ? lockOpen(openAt(build + LockFile, O_RDWR | O_NOFOLLOW), operation)
                          : folder;
}

BuildState stateOf(const QString &build, const Locked &locked)
{
    if (locked.isBusy)
        return BuildState::Busy;
    return isThere(build + Journal) ? BuildState::Interrupted : BuildState::AtRest;
}

const QString WhenBusy = QStringLiteral("another program is updating this build");
const QString WhenInterrupted
    = QStringLiteral("an update was interrupted here: run \"pellox recover\"");

} // namespace

BuildState stateOf(const QString &build)
{
    const Locked locked = lock(build, LOCK_SH);
    const BuildState state = stateOf(build, locked);
    if (locked.handle >= 0)
        ::close(locked.handle);
    return state;
}

void noteState(Console &console, const QString &build)
{
    const BuildState state = stateOf(build);
    if (state == BuildState::AtRest)
        return;
    const bool isBusy = state == BuildState::Busy;
    console.event(QStringLiteral("build-state"),
        {{QStringLiteral("state"), isBusy ? QStringLiteral("busy") : QStringLiteral("interrupted")},
            {QStringLiteral("file"), build}});
    console.note(build + QLatin1String(": ") + (isBusy ? WhenBusy : WhenInterrupted));
}

BuildLock::BuildLock(const QString &build)
{
    const Locked locked = lock(build, LOCK_EX);
    m_handle = locked.handle;
    const BuildState state = stateOf(build, locked);
    if (state == BuildState::AtRest)
        return;
    if (m_handle >= 0)
        ::close(m_handle);
    throw Refusal(build,
        state == BuildState::Busy ? WhenBusy + QLatin1String("; run the same again once it is done")
                                  : WhenInterrupted);
}

BuildLock::~BuildLock()
{
    if (m_handle >= 0)
        ::close(m_handle);
}
