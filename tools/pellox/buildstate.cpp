// SPDX-License-Identifier: MIT
#include "buildstate.h"

#include "console.h"
#include "folders.h"

#include <QFile>
#include <QJsonObject>
#include <QThread>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

const QString Journal = QStringLiteral("/.pellox/journal");
const QString LockFile = QStringLiteral("/.pellox/lock");

/// Without waiting but for signals. False with errno.
bool tryLock(int handle, int operation)
{
    int locked = -1;
    do {
        locked = ::flock(handle, operation | LOCK_NB);
    } while (locked != 0 && errno == EINTR);
    return locked == 0;
}

/// Whoever only looks holds a lock for a moment, too, so that keeping others out takes some tries.
bool lockOpen(int handle, int operation)
{
    constexpr int Tries = 20;
    constexpr unsigned long Pause = 5; // milliseconds
    for (int i = 1; operation == LOCK_EX && i < Tries; ++i) {
        if (tryLock(handle, operation))
            return true;
        if (errno != EWOULDBLOCK)
            return false;
        QThread::msleep(Pause);
    }
    return tryLock(handle, operation);
}

/// None leaves the reason in errno.
LockHandle openAt(const QString &path, int flags)
{
    return LockHandle(::open(QFile::encodeName(path).constData(), flags | O_CLOEXEC));
}

struct Locked
{
    LockHandle handle; ///< none where nothing needs to be locked
    bool isBusy = false;
};

/// Throws Refusal from errno.
[[noreturn]] void refuse(const QString &path, const char *what)
{
    throw Refusal(path, QLatin1String(what) + qt_error_string(errno));
}

/// On file systems that lock no folders it is a file that is locked, there while that is so. Throws
/// Refusal where the system does not tell.
Locked lock(const QString &build, int operation)
{
    LockHandle folder = openAt(build, O_RDONLY | O_DIRECTORY);
    if (folder.get() < 0)
        refuse(build, "cannot be opened: ");
    if (lockOpen(folder.get(), operation))
        return {std::move(folder), false};
    if (errno == EWOULDBLOCK)
        return {LockHandle(), true};
    if (errno != EBADF)
        refuse(build, "cannot be locked: ");
    const QString path = build + LockFile;
    LockHandle file = openAt(path, O_RDWR | O_NOFOLLOW);
    if (file.get() < 0 && errno == ENOENT)
        return {};
    if (file.get() < 0)
        refuse(path, "cannot be opened: ");
    if (lockOpen(file.get(), operation))
        return {std::move(file), false};
    if (errno != EWOULDBLOCK)
        refuse(path, "cannot be locked: ");
    return {LockHandle(), true};
}

BuildState stateOf(const QString &build, const Locked &locked)
{
    if (locked.isBusy)
        return BuildState::Busy;
    return standsThere(build + Journal) ? BuildState::Interrupted : BuildState::AtRest;
}

const QString WhenBusy = QStringLiteral("another program is updating this build");
const QString WhenInterrupted
    = QStringLiteral("an update was interrupted here: run \"pellox recover\"");

} // namespace

BuildState stateOf(const QString &build)
{
    return stateOf(build, lock(build, LOCK_SH));
}

void noteState(Console &console, const QString &build)
{
    BuildState state = BuildState::AtRest;
    try {
        state = stateOf(build);
    } catch (const Refusal &unknown) {
        console.note(unknown.path() + QLatin1String(": ") + unknown.reason());
    }
    if (state == BuildState::AtRest)
        return;
    const bool isBusy = state == BuildState::Busy;
    console.event(QStringLiteral("build-state"),
        {{QStringLiteral("state"), isBusy ? QStringLiteral("busy") : QStringLiteral("interrupted")},
            {QStringLiteral("file"), build}});
    console.note(build + QLatin1String(": ") + (isBusy ? WhenBusy : WhenInterrupted));
}

LockHandle::~LockHandle()
{
    if (m_handle >= 0)
        ::close(m_handle);
}

BuildLock::BuildLock(const QString &build)
{
    Locked locked = lock(build, LOCK_EX);
    const BuildState state = stateOf(build, locked);
    if (state != BuildState::AtRest)
        throw Refusal(build,
            state == BuildState::Busy
                ? WhenBusy + QLatin1String("; run the same again once it is done")
                : WhenInterrupted);
    m_handle = std::move(locked.handle);
}
