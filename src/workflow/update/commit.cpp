// SPDX-License-Identifier: MIT
#include "commit.h"

#include "diskfile.h"
#include "filesystem.h"
#include "rulechecks.h"
#include "wholefile.h"

#include <algorithm>
#include <cerrno>

namespace Pellox {

Commit::Commit(BuildFiles &files, bool syncs)
    : m_files(files)
    , m_setAside(files)
    , m_syncs(syncs)
{
}

Commit::Found Commit::findUnfinished()
{
    const Standing own = m_files.look(WorkFolder::Name);
    // A link, say: no run has made it, and the check tells of it, unless there is more behind it.
    if (own.status && !own.isFolder() && !mayStand(m_files.absolute(WorkFolder::Journal)))
        return Found::Nothing;
    Standing standing;
    if (!m_files.look(WorkFolder::Journal, &standing, &m_error))
        return Found::Error;
    if (standing.isNothing())
        return Found::Nothing;
    const auto journal = Journal::read(m_files, WorkFolder::Journal, &m_error);
    if (!journal)
        return Found::Error;
    m_journal = *journal;
    m_isResumed = true;
    return Found::Journal;
}

// On the disk there is first what the journal relies on, then the journal itself, then its name.

bool Commit::prepare(Journal journal, const GoOn &goOn)
{
    m_journal = std::move(journal);
    m_isResumed = false;
    m_spoiled.clear();
    m_error = {};
    if (markDeletions() && setAside(goOn) && sync() && mayGoOn(goOn))
        return true;
    takeBack();
    return false;
}

bool Commit::setAside(const GoOn &goOn)
{
    return (m_journal.keepsPrevious ? m_setAside.begin(m_journal, goOn) : m_setAside.abandon())
        || failAs(m_setAside);
}

bool Commit::abandon()
{
    return (m_files.removeFile(WorkFolder::NewJournal)
               || failBySystem(WorkFolder::NewJournal, "cannot be removed: "))
        && (m_setAside.abandon() || failAs(m_setAside));
}

/// The error that there is already, if any, is the one to tell.
void Commit::takeBack()
{
    const FileError error = m_error;
    if (abandon() || !error.isEmpty())
        m_error = error;
}

Commit::Begun Commit::begin()
{
    if (writeJournal())
        return sync() ? Begun::Yes : Begun::Uncertain;
    if (!m_files.look(WorkFolder::Journal).isNothing())
        return Begun::Uncertain;
    takeBack();
    return Begun::No;
}

/// What stands there now, and nothing else, will be deleted.
bool Commit::markDeletions()
{
    Standing standing;
    for (Journal::Deletion &deletion : m_journal.deletions) {
        if (!m_files.look(deletion.path, &standing, &m_error))
            return false;
        deletion.mark = FileMark::of(standing);
    }
    return true;
}

bool Commit::writeJournal()
{
    if (!m_files.removeFile(WorkFolder::NewJournal))
        return failBySystem(WorkFolder::NewJournal, "cannot be removed: ");
    return writeWhole(m_files, WorkFolder::NewJournal, m_journal.toBytes(), m_syncs, &m_error)
        && (m_files.rename(WorkFolder::NewJournal, WorkFolder::Journal)
            || failBySystem(WorkFolder::Journal, "cannot be written: "));
}

bool Commit::inspect(const StagedReading::Means &means)
{
    StagedReading reading(m_files, means);
    const bool done
        = reading.add(m_journal.first) && reading.add(m_journal.last) && reading.carryOut();
    m_spoiled = reading.spoiled();
    m_error = reading.error();
    return done;
}

bool Commit::carryOut()
{
    m_placed.clear();
    m_lost.clear();
    if (!place(m_journal.first) || !deleteAll())
        return false;
    removeEmptiedFolders();
    return place(m_journal.last) && forgetSpared() && sync() && settleRecords() && clearUp();
}

bool Commit::place(const std::vector<Journal::Placement> &placements)
{
    return std::all_of(placements.cbegin(), placements.cend(),
        [this](const Journal::Placement &placement) { return placeOne(placement); });
}

bool Commit::placeOne(const Journal::Placement &placement)
{
    Standing from;
    if (!m_files.look(placement.from, &from, &m_error))
        return false;
    if (from.isFile() && !m_spoiled.contains(placement.from)) {
        notePlaced(from);
        return rename(placement) || failBySystem(placement.to, "cannot be replaced: ");
    }
    return m_isResumed ? acceptPlaced(placement)
                       : fail(placement.from, QStringLiteral("is not there any more"));
}

bool Commit::rename(const Journal::Placement &placement)
{
    const QString &from = placement.from;
    const QString &to = placement.to;
    const auto tryIt = [&] { return m_files.rename(from, to); };
    const auto makeFolders
        = [&] { return m_files.makeFolders(to.left(to.lastIndexOf(QLatin1Char('/')))); };
    return tryIt() || (errno == ENOENT && makeFolders() && tryIt())
        || (errno == EISDIR && m_files.removeEmptyFolders(to) && tryIt());
}

/// Its new content is gone: because an earlier try has placed it, or else it is lost.
bool Commit::acceptPlaced(const Journal::Placement &placement)
{
    const auto isPlaced = isThere(m_files, placement.to, placement.mark, &m_error);
    Standing standing;
    if (!isPlaced || !m_files.look(placement.to, &standing, &m_error))
        return false;
    if (!*isPlaced)
        m_lost.append(placement.to);
    notePlaced(standing);
    return true;
}

void Commit::notePlaced(const Standing &standing)
{
    if (standing.status)
        m_placed.emplace(standing.status->st_dev, standing.status->st_ino);
}

bool Commit::deleteAll()
{
    return std::all_of(m_journal.deletions.cbegin(), m_journal.deletions.cend(),
        [this](const Journal::Deletion &deletion) { return deleteOne(deletion); });
}

/// A file that has come there since is somebody else's.
bool Commit::deleteOne(const Journal::Deletion &deletion)
{
    const QString &path = deletion.path;
    Standing standing;
    if (!m_files.look(path, &standing, &m_error))
        return false;
    if (!deletion.mark.fits(standing))
        return true;
    // Where the file system takes two names for one, this is the new file.
    if (m_placed.count({standing.status->st_dev, standing.status->st_ino}) > 0)
        return true;
    if (m_journal.keepsPrevious)
        return m_setAside.take(path) || failAs(m_setAside);
    return m_files.removeFile(path) || failBySystem(path, "cannot be removed: ");
}

/// Removes the folders that the deletions have left empty, and those above them, but for those that
/// a file is to come into: they stay as they are, with their permissions and their owner. An
/// earlier try may have removed some.
void Commit::removeEmptiedFolders()
{
    QSet<QString> needed;
    for (const Journal::Placement &placement : m_journal.last) {
        for (const QString &folder : foldersAbove(placement.to))
            needed.insert(folder);
    }
    const auto mayGo
        = [&](const QString &folder) { return !folder.isEmpty() && !needed.contains(folder); };
    const auto folderOf
        = [](const QString &path) { return path.left(path.lastIndexOf(QLatin1Char('/'))); };
    for (const Journal::Deletion &deletion : m_journal.deletions) {
        QString folder = folderOf(deletion.path);
        while (mayGo(folder) && (m_files.removeFolder(folder) || errno == ENOENT))
            folder = folderOf(folder);
    }
}

/// Else the way back would rely on what was never set aside.
bool Commit::forgetSpared()
{
    return !m_journal.keepsPrevious || m_setAside.forgetSpared(m_journal.deletions, m_syncs)
        || failAs(m_setAside);
}

/// What the build's own folder says of it: what can be brought back, and which release it is.
bool Commit::settleRecords()
{
    // What does not fit the build any more, or is used up. A rollback that could not use all of it
    // leaves the rest.
    const bool isOutdated
        = m_journal.isRollback ? m_lost.isEmpty() : m_journal.changesRelease && !m_journal.isRepair;
    const bool forgets = !m_journal.keepsPrevious && isOutdated && !m_setAside.isEmpty();
    const bool changesRelease = m_journal.changesRelease
        && (m_journal.release || !m_files.look(WorkFolder::Release).isNothing());
    if (m_journal.keepsPrevious && !completeKept())
        return false;
    if (forgets && !m_setAside.discard())
        return failAs(m_setAside);
    if (changesRelease && !settleRelease())
        return false;
    return !(m_journal.keepsPrevious || forgets || changesRelease) || sync();
}

bool Commit::completeKept()
{
    return (m_setAside.completeFiles() || failAs(m_setAside)) && sync()
        && (m_setAside.completeRecord() || failAs(m_setAside));
}

/// A build that lacks something is no release.
bool Commit::settleRelease()
{
    FileError error;
    const bool settled = m_journal.release && m_lost.isEmpty()
        ? m_journal.release->write(m_files, false, &error)
        : InstalledRelease::remove(m_files, &error);
    if (!settled)
        m_error = error;
    return settled;
}

bool Commit::clearUp()
{
    if (!m_files.removeFile(WorkFolder::Journal))
        return failBySystem(WorkFolder::Journal, "cannot be removed: ");
    m_files.removeFile(WorkFolder::StagedRecord); // if it is still there, as the build was moved
    m_files.removeAll(WorkFolder::Staged); // what was not placed, too: there it is nobody else's
    m_files.removeFolder(WorkFolder::Name);
    sync(); // if that cannot be, a crash brings the journal back, and that does no harm
    return true;
}

bool Commit::forget()
{
    return sync();
}

bool Commit::sync()
{
    return !m_syncs || m_files.sync() || failBySystem(QString(), "cannot be synced: ");
}

bool Commit::fail(const QString &path, const QString &reason)
{
    m_error = {m_files.absolute(path), reason};
    return false;
}

bool Commit::failBySystem(const QString &path, const char *what)
{
    m_error = m_files.error(path, what);
    return false;
}

bool Commit::failAs(const SetAside &setAside)
{
    m_error = setAside.error();
    return false;
}

} // namespace Pellox
