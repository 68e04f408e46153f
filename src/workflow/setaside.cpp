// SPDX-License-Identifier: MIT
#include "setaside.h"

#include "diskfile.h"
#include "filesystem.h"
#include "wholefile.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>

#include <unistd.h>

namespace Pellox {

bool SetAside::begin(const Journal &journal)
{
    if (!abandon())
        return false;
    const QString folder = absolute(WorkFolder::Keeping);
    if (!makeFolders(folder))
        return failBySystem(folder, "cannot be made: ");
    Journal wayBack;
    wayBack.isRollback = true;
    wayBack.changesRelease = journal.changesRelease;
    FileError unknown; // what cannot be read is not worth keeping
    wayBack.release = InstalledRelease::read(m_build, &unknown);
    for (const auto *placements : {&journal.first, &journal.last}) {
        for (const Journal::Placement &placement : *placements) {
            if (!isRegularFile(absolute(placement.to)))
                wayBack.deletions.append(placement.to);
            else if (keep(placement.to))
                wayBack.first.push_back({WorkFolder::Previous + placement.to, placement.to});
            else
                return false;
        }
    }
    for (const QString &path : journal.deletions)
        wayBack.first.push_back({WorkFolder::Previous + path, path});
    return writeWhole(absolute(WorkFolder::KeepingRecord), wayBack.toBytes(), false, &m_error);
}

/// Where the file system knows no second names, the content is copied.
bool SetAside::keep(const QString &path)
{
    const QString from = absolute(path);
    const QString to = absolute(WorkFolder::Keeping + path);
    if (!makeFolders(QFileInfo(to).path()))
        return failBySystem(to, "cannot be made: ");
    if (::link(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0)
        return true;
    const bool isUnknown = errno == EPERM || errno == EOPNOTSUPP || errno == EMLINK;
    return isUnknown ? copy(from, to) : failBySystem(from, "cannot be set aside: ");
}

bool SetAside::copy(const QString &from, const QString &to)
{
    constexpr qint64 PartSize = 1 << 20;
    InputFile source;
    OutputFile output;
    if (!source.open(from)) {
        m_error = source.error();
        return false;
    }
    std::vector<uchar> part(static_cast<std::size_t>(std::min(PartSize, source.size())));
    bool isRead = true;
    if (output.open(to)) {
        for (qint64 at = 0; at < source.size() && isRead; at += PartSize) {
            const qint64 size = std::min(PartSize, source.size() - at);
            isRead = source.readAt(at, part.data(), size);
            output.write(part.data(), static_cast<std::size_t>(size));
        }
        output.setPermissions(source.permissions());
    }
    if (output.close() && isRead)
        return true;
    m_error = isRead ? output.error() : source.error();
    return false;
}

bool SetAside::take(const QString &path)
{
    const QString from = absolute(path);
    const QString to = absolute(WorkFolder::Keeping + path);
    return (makeFolders(QFileInfo(to).path()) && renameFile(from, to))
        || failBySystem(from, "cannot be set aside: ");
}

/// An earlier try may have been cut off anywhere, and of its last two renames either may be lost.
bool SetAside::complete()
{
    const QString record = absolute(WorkFolder::KeepingRecord);
    const QString folder = absolute(WorkFolder::Keeping);
    const QString previousRecord = absolute(WorkFolder::PreviousRecord);
    const QString previous = absolute(WorkFolder::Previous);
    const bool hasRecord = statusOf(record).has_value();
    if (hasRecord && !removeFile(previousRecord))
        return failBySystem(previousRecord, "cannot be removed: ");
    if (statusOf(folder)) {
        if (!removeFolder(previous))
            return false;
        if (!renameFile(folder, previous))
            return failBySystem(previous, "cannot be made: ");
    }
    return !hasRecord || renameFile(record, previousRecord)
        || failBySystem(previousRecord, "cannot be made: ");
}

bool SetAside::isEmpty() const
{
    return !statusOf(absolute(WorkFolder::PreviousRecord))
        && !statusOf(absolute(WorkFolder::Previous));
}

std::optional<Journal> SetAside::wayBack()
{
    const QString record = absolute(WorkFolder::PreviousRecord);
    if (!statusOf(record)) {
        fail(m_build, QStringLiteral("nothing of an earlier build is kept"));
        return {};
    }
    return Journal::read(record, &m_error);
}

bool SetAside::discard()
{
    return remove(WorkFolder::PreviousRecord, WorkFolder::Previous);
}

bool SetAside::abandon()
{
    return remove(WorkFolder::KeepingRecord, WorkFolder::Keeping);
}

/// The record first: what has one is whole.
bool SetAside::remove(const QString &record, const QString &folder)
{
    return (removeFile(absolute(record)) || failBySystem(absolute(record), "cannot be removed: "))
        && removeFolder(absolute(folder));
}

bool SetAside::removeFolder(const QString &path)
{
    return !statusOf(path) || QDir(path).removeRecursively()
        || fail(path, QStringLiteral("cannot be removed"));
}

bool SetAside::fail(const QString &path, const QString &reason)
{
    m_error = {path, reason};
    return false;
}

bool SetAside::failBySystem(const QString &path, const char *what)
{
    m_error = FileError::ofSystem(path, what);
    return false;
}

} // namespace Pellox
