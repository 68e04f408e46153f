// SPDX-License-Identifier: MIT
#include "diskfile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace Pellox {

namespace {

/// Small writes are held back up to this.
constexpr std::size_t HeldBack = 1 << 16; // 64 KiB

constexpr mode_t ReadableAndWritable = 0666; // less what the user's mask takes away
// A pipe without a writer would otherwise hold up the open until one comes.
constexpr int ToRead = O_RDONLY | O_NONBLOCK;
constexpr int ToMake = O_WRONLY | O_CREAT | O_EXCL;

bool sameTime(const timespec &time, const timespec &other)
{
    return time.tv_sec == other.tv_sec && time.tv_nsec == other.tv_nsec;
}

} // namespace

QString aboutFile(const QString &path, const QString &reason)
{
    return path + QLatin1String(": ") + reason;
}

QString lastSystemError()
{
    return QString::fromStdString(std::generic_category().message(errno));
}

FileError FileError::ofSystem(const QString &path, const char *what)
{
    const int system = errno;
    return {path, QLatin1String(what) + lastSystemError(), system};
}

bool FileHandle::open(const QString &path, int flags)
{
    const QByteArray name = QFile::encodeName(path);
    do {
        m_handle = ::open(name.constData(), flags | O_CLOEXEC, ReadableAndWritable);
    } while (m_handle < 0 && errno == EINTR);
    return m_handle >= 0;
}

bool FileHandle::openIn(int folder, const QString &name, int flags)
{
    if (folder == -1)
        return false;
    const QByteArray encoded = QFile::encodeName(name);
    int handle = -1;
    do {
        handle = ::openat(folder, encoded.constData(), flags | O_CLOEXEC, ReadableAndWritable);
    } while (handle < 0 && errno == EINTR);
    if (handle < 0)
        return false;
    close();
    m_handle = handle;
    return true;
}

bool FileHandle::close()
{
    return m_handle < 0 || ::close(std::exchange(m_handle, -1)) == 0;
}

bool Content::fail(const QString &reason)
{
    m_error = {m_path, reason};
    return false;
}

bool Content::failBySystem(const char *what)
{
    m_error = FileError::ofSystem(m_path, what);
    return false;
}

bool Content::failAs(const Content &other)
{
    m_error = other.error();
    return false;
}

bool InputFile::open(const QString &path)
{
    setPath(path);
    return begin(m_file.open(path, ToRead));
}

bool InputFile::openIn(int folder, const QString &name, const QString &path)
{
    setPath(path);
    return begin(m_file.openIn(folder, name, ToRead | O_NOFOLLOW));
}

bool InputFile::begin(bool isOpen)
{
    if (!isOpen)
        return failBySystem("cannot be opened: ");
    if (::fstat(m_file.get(), &m_status) != 0)
        return failBySystem("cannot be read: ");
    return S_ISREG(m_status.st_mode) || fail(QStringLiteral("is no regular file"));
}

mode_t InputFile::permissions() const
{
    return m_status.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO);
}

bool InputFile::readAt(qint64 position, uchar *data, qint64 size)
{
    while (size > 0) {
        const ssize_t got = ::pread(m_file.get(), data, static_cast<std::size_t>(size), position);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return failBySystem("cannot be read: ");
        if (got == 0)
            return fail(QStringLiteral("changed while it was read"));
        data += got;
        position += got;
        size -= got;
    }
    return true;
}

bool InputFile::isUnchanged()
{
    char more = 0;
    const ssize_t got = ::pread(m_file.get(), &more, 1, m_status.st_size);
    if (got < 0)
        return failBySystem("cannot be read: ");
    struct stat now = {};
    if (::stat(QFile::encodeName(path()).constData(), &now) != 0) {
        return errno == ENOENT || errno == ENOTDIR
            ? fail(QStringLiteral("disappeared while it was read"))
            : failBySystem("cannot be read: ");
    }
    return (got == 0 && now.st_dev == m_status.st_dev && now.st_ino == m_status.st_ino
               && now.st_size == m_status.st_size && sameTime(now.st_mtim, m_status.st_mtim))
        || fail(QStringLiteral("changed while it was read"));
}

bool OutputFile::openIn(int folder, const QString &name, const QString &path)
{
    m_path = path;
    return m_file.openIn(folder, name, ToMake) || fail();
}

bool OutputFile::open(const QString &path)
{
    m_path = path;
    if (m_file.open(path, ToMake))
        return true;
    const bool folderIsMissing = errno == ENOENT;
    if (folderIsMissing && QDir().mkpath(QFileInfo(path).path()) && m_file.open(path, ToMake))
        return true;
    return fail();
}

bool FileOwner::areUnknown(int error)
{
    return error == EPERM || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP;
}

void OutputFile::setOwner(const FileOwner &owner)
{
    if (::fchown(m_file.get(), owner.user, owner.group) != 0 && !FileOwner::areUnknown(errno))
        fail();
}

void OutputFile::setPermissions(mode_t permissions)
{
    if (::fchmod(m_file.get(), permissions) != 0)
        fail();
}

void OutputFile::write(const void *data, std::size_t size)
{
    const auto *bytes = static_cast<const char *>(data);
    if (size >= HeldBack) {
        flush();
        writeNow(bytes, size);
        return;
    }
    if (m_held.size() + size > HeldBack)
        flush();
    m_held.insert(m_held.end(), bytes, bytes + size);
}

bool OutputFile::sync()
{
    flush();
    if (::fsync(m_file.get()) != 0)
        fail();
    return m_error.isEmpty();
}

bool OutputFile::close()
{
    flush();
    if (!m_file.close())
        fail();
    return m_error.isEmpty();
}

void OutputFile::flush()
{
    writeNow(m_held.data(), m_held.size());
    m_held.clear();
}

void OutputFile::writeNow(const char *data, std::size_t size)
{
    while (size > 0 && m_error.isEmpty()) {
        const ssize_t written = ::write(m_file.get(), data, size);
        if (written < 0) {
            if (errno != EINTR)
                fail();
            continue;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

/// Keeps the system's last error, unless there was one before.
bool OutputFile::fail()
{
    if (m_error.isEmpty())
        m_error = FileError::ofSystem(m_path, "cannot be written: ");
    return false;
}

} // namespace Pellox
