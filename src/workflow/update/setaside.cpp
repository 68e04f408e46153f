// SPDX-License-Identifier: MIT
#include "setaside.h"

#include "diskfile.h"
#include "rulechecks.h"
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

/// The same of all names that some file system takes for one.
QString broadKey(const QString &path)
{
    return NameSense{true, true}.key(path);
}

bool isSameFile(const Standing &one, const Standing &other)
{
    return one.isFile() && other.isFile() && one.status->st_dev == other.status->st_dev
        && one.status->st_ino == other.status->st_ino;
}

/// After a link was refused: whether this file system gives a file, or this one, no second name.
bool givesNoLink(int error)
{
    return error == EPERM || error == EOPNOTSUPP || error == ENOSYS || error == EMLINK;
}

} // namespace

bool SetAside::begin(const Journal &journal, const GoOn &goOn)
{
    m_error = {};
    m_goOn = goOn;
    m_otherNames.clear();
    if (!abandon())
        return false;
    if (!m_files.makeFolders(WorkFolder::Keeping))
        return failBySystem(WorkFolder::Keeping, "cannot be made: ");
    Journal wayBack;
    wayBack.isRollback = true;
    wayBack.changesRelease = journal.changesRelease;
    FileError unknown; // what cannot be read is not worth keeping
    wayBack.release = InstalledRelease::read(m_files, &unknown);
    if (!addAllReplaced(journal, &wayBack))
        return false;
    addDeleted(journal, &wayBack);
    return writeWhole(m_files, WorkFolder::KeepingRecord, wayBack.toBytes(), false, &m_error);
}

bool SetAside::addAllReplaced(const Journal &journal, Journal *wayBack)
{
    Names deleted;
    for (const Journal::Deletion &deletion : journal.deletions)
        deleted.insert(broadKey(deletion.path), deletion.path);
    for (const auto *placements : {&journal.first, &journal.last}) {
        for (const Journal::Placement &placement : *placements) {
            if (!mayGoOn(m_goOn) || !addReplaced(placement.to, deleted, wayBack))
                return false;
        }
    }
    return true;
}

bool SetAside::addReplaced(const QString &path, const Names &deleted, Journal *wayBack)
{
    Standing standing;
    if (!m_files.look(path, &standing, &m_error))
        return false;
    if (!standing.isFile()) {
        wayBack->deletions.push_back({path});
        return true;
    }
    const QString name = nameOf(path, standing, deleted);
    if (!keep(path, name))
        return false;
    if (!m_files.look(WorkFolder::Keeping + name, &standing, &m_error))
        return false;
    const FileMark mark = FileMark::of(standing);
    wayBack->first.push_back({WorkFolder::Previous + name, name, mark});
    return mark.size >= 0 || fail(path, QStringLiteral("disappeared while it was set aside"));
}

/// Under which it is brought back. Where names fold, the file that is replaced may be the one that
/// is deleted under the name that it has had.
QString SetAside::nameOf(const QString &path, const Standing &standing, const Names &deleted)
{
    QString other = deleted.value(broadKey(path));
    if (other.isEmpty() || !isSameFile(standing, m_files.look(other)))
        return path;
    m_otherNames.insert(other);
    return other;
}

void SetAside::addDeleted(const Journal &journal, Journal *wayBack) const
{
    for (const auto &[path, mark] : journal.deletions) {
        const bool isGone = mark.size < 0;
        if (!isGone && !m_otherNames.contains(path))
            wayBack->first.push_back({WorkFolder::Previous + path, path, mark});
    }
}

/// Where the file system knows no second names, the content is copied.
bool SetAside::keep(const QString &path, const QString &name)
{
    const QString to = WorkFolder::Keeping + name;
    if (!m_files.makeFolders(folderOf(to)))
        return failBySystem(to, "cannot be made: ");
    if (m_files.link(path, to))
        return true;
    return givesNoLink(errno) ? copy(path, to) : failBySystem(path, "cannot be set aside: ");
}

bool SetAside::copies()
{
    const QString one = WorkFolder::Keeping + QLatin1String("/one");
    const QString two = WorkFolder::Keeping + QLatin1String("/two");
    OutputFile file;
    const bool isRefused = m_files.makeFolders(WorkFolder::Keeping) && m_files.make(one, &file)
        && !m_files.link(one, two) && givesNoLink(errno);
    abandon();
    return isRefused;
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
        for (qint64 at = 0; at < source.size() && isRead && mayGoOn(m_goOn); at += PartSize) {
            const qint64 size = std::min(PartSize, source.size() - at);
            isRead = source.readAt(at, part.data(), size);
            output.write(part.data(), static_cast<std::size_t>(size));
        }
        output.setPermissions(source.permissions());
    }
    if (output.close() && isRead)
        return mayGoOn(m_goOn);
    m_error = isRead ? output.error() : source.error();
    return false;
}

bool SetAside::take(const QString &path)
{
    const QString to = WorkFolder::Keeping + path;
    return (m_files.makeFolders(folderOf(to)) && m_files.rename(path, to))
        || failBySystem(path, "cannot be set aside: ");
}

bool SetAside::forgetSpared(const std::vector<Journal::Deletion> &deletions, bool syncs)
{
    QSet<QString> spared;
    if (m_files.look(WorkFolder::KeepingRecord).isNothing()) // an earlier try has completed it
        return true;
    if (!findSpared(deletions, &spared))
        return false;
    if (spared.isEmpty())
        return true;
    FileError error;
    auto wayBack = Journal::read(m_files, WorkFolder::KeepingRecord, &error);
    if (!wayBack) { // a damaged one is told when it is to be used
        m_error = error;
        return error.system == 0;
    }
    auto &files = wayBack->first;
    const auto kept = std::remove_if(files.begin(), files.end(),
        [&](const Journal::Placement &placement) { return spared.contains(placement.to); });
    if (kept == files.end())
        return true;
    files.erase(kept, files.end());
    return replaceRecord(*wayBack, syncs);
}

/// Which of @p deletions have not been taken. An earlier try may have moved all files already.
bool SetAside::findSpared(const std::vector<Journal::Deletion> &deletions, QSet<QString> *spared)
{
    const bool isMoved = m_files.look(WorkFolder::Keeping).isNothing();
    const QString &folder = isMoved ? WorkFolder::Previous : WorkFolder::Keeping;
    Standing standing;
    for (const Journal::Deletion &deletion : deletions) {
        if (!m_files.look(folder + deletion.path, &standing, &m_error))
            return false;
        if (standing.isNothing())
            spared->insert(deletion.path);
    }
    return true;
}

/// In one step.
bool SetAside::replaceRecord(const Journal &wayBack, bool syncs)
{
    return (m_files.removeFile(WorkFolder::NewKeepingRecord) // of a run that was killed
               || failBySystem(WorkFolder::NewKeepingRecord, "cannot be removed: "))
        && writeWhole(m_files, WorkFolder::NewKeepingRecord, wayBack.toBytes(), syncs, &m_error)
        && (m_files.rename(WorkFolder::NewKeepingRecord, WorkFolder::KeepingRecord)
            || failBySystem(WorkFolder::KeepingRecord, "cannot be written: "));
}

/// An earlier try may have been cut off anywhere.
bool SetAside::completeFiles()
{
    if (m_files.look(WorkFolder::KeepingRecord).isNothing())
        return true;
    if (!m_files.removeFile(WorkFolder::PreviousRecord))
        return failBySystem(WorkFolder::PreviousRecord, "cannot be removed: ");
    Standing files;
    if (!m_files.look(WorkFolder::Keeping, &files, &m_error))
        return false;
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
    return (m_files.removeFile(WorkFolder::NewKeepingRecord)
               || failBySystem(WorkFolder::NewKeepingRecord, "cannot be removed: "))
        && remove(WorkFolder::KeepingRecord, WorkFolder::Keeping);
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
