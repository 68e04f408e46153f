// SPDX-License-Identifier: MIT
#include "setaside.h"

#include "diskfile.h"
#include "wholefile.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Pellox {

namespace {

QString folderOf(const QString &path)
{
    return path.left(path.lastIndexOf(QLatin1Char('/')));
}

} // namespace

bool SetAside::begin(const Journal &journal)
{
    if (!abandon())
        return false;
    if (!m_files.makeFolders(WorkFolder::Keeping))
        return failBySystem(WorkFolder::Keeping, "cannot be made: ");
    Journal wayBack;
    wayBack.isRollback = true;
    wayBack.changesRelease = journal.changesRelease;
    FileError unknown; // what cannot be read is not worth keeping
    wayBack.release = InstalledRelease::read(m_files, &unknown);
    for (const auto *placements : {&journal.first, &journal.last}) {
        for (const Journal::Placement &placement : *placements) {
            if (!addReplaced(placement.to, &wayBack))
                return false;
        }
    }
    for (const auto &[path, mark] : journal.deletions) {
        if (mark.size >= 0) // else it is gone already
            wayBack.first.push_back({WorkFolder::Previous + path, path, mark});
    }
    return writeWhole(m_files, WorkFolder::KeepingRecord, wayBack.toBytes(), false, &m_error);
}

bool SetAside::addReplaced(const QString &path, Journal *wayBack)
{
    const Standing standing = m_files.look(path);
    errno = standing.error;
    if (standing.error != 0)
        return failBySystem(path, "cannot be looked at: ");
    if (!standing.isFile()) {
        wayBack->deletions.push_back({path});
        return true;
    }
    if (!keep(path))
        return false;
    const FileMark mark = FileMark::of(m_files.look(WorkFolder::Keeping + path));
    wayBack->first.push_back({WorkFolder::Previous + path, path, mark});
    return mark.size >= 0 || fail(path, QStringLiteral("disappeared while it was set aside"));
}

/// Where the file system knows no second names, the content is copied.
bool SetAside::keep(const QString &path)
{
    const QString to = WorkFolder::Keeping + path;
    if (!m_files.makeFolders(folderOf(to)))
        return failBySystem(to, "cannot be made: ");
    if (m_files.link(path, to))
        return true;
    const bool isUnknown = errno == EPERM || errno == EOPNOTSUPP || errno == EMLINK;
    return isUnknown ? copy(path, to) : failBySystem(path, "cannot be set aside: ");
}

bool SetAside::copy(const QString &from, const QString &to)
{
    constexpr qint64 PartSize = 1 << 20;
    InputFile source;
    OutputFile output;
    if (!m_files.open(from, &source)) {
        m_error = source.error();
        return false;
    }
    std::vector<uchar> part(static_cast<std::size_t>(std::min(PartSize, source.size())));
    bool isRead = true;
    if (m_files.make(to, &output)) {
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
    const QString to = WorkFolder::Keeping + path;
    return (m_files.makeFolders(folderOf(to)) && m_files.rename(path, to))
        || failBySystem(path, "cannot be set aside: ");
}

/// An earlier try may have been cut off anywhere.
bool SetAside::completeFiles()
{
    if (m_files.look(WorkFolder::KeepingRecord).isNothing())
        return true;
    if (!m_files.removeFile(WorkFolder::PreviousRecord))
        return failBySystem(WorkFolder::PreviousRecord, "cannot be removed: ");
    const Standing files = m_files.look(WorkFolder::Keeping);
    errno = files.error;
    if (files.error != 0)
        return failBySystem(WorkFolder::Keeping, "cannot be looked at: ");
    return files.isNothing()
        || (removeFolder(WorkFolder::Previous)
            && (m_files.rename(WorkFolder::Keeping, WorkFolder::Previous)
                || failBySystem(WorkFolder::Previous, "cannot be made: ")));
}

bool SetAside::completeRecord()
{
    return m_files.look(WorkFolder::KeepingRecord).isNothing()
        || m_files.rename(WorkFolder::KeepingRecord, WorkFolder::PreviousRecord)
        || failBySystem(WorkFolder::PreviousRecord, "cannot be made: ");
}

bool SetAside::isEmpty()
{
    return m_files.look(WorkFolder::PreviousRecord).isNothing()
        && m_files.look(WorkFolder::Previous).isNothing();
}

std::optional<Journal> SetAside::wayBack()
{
    if (m_files.look(WorkFolder::PreviousRecord).isNothing()) {
        fail(QString(), QStringLiteral("nothing of an earlier build is kept"));
        return {};
    }
    return Journal::read(m_files, WorkFolder::PreviousRecord, &m_error);
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
    return (m_files.removeFile(record) || failBySystem(record, "cannot be removed: "))
        && removeFolder(folder);
}

bool SetAside::removeFolder(const QString &path)
{
    return m_files.removeAll(path) || failBySystem(path, "cannot be removed: ");
}

bool SetAside::fail(const QString &path, const QString &reason)
{
    m_error = {m_files.absolute(path), reason};
    return false;
}

bool SetAside::failBySystem(const QString &path, const char *what)
{
    m_error = m_files.error(path, what);
    return false;
}

} // namespace Pellox
