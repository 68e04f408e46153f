// SPDX-License-Identifier: MIT
#include "commit.h"

#include "diskfile.h"
#include "filesystem.h"
#include "wholefile.h"

#include <QFileInfo>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace Pellox {

Commit::Commit(WorkFolder &folder, bool syncs)
    : m_folder(folder)
    , m_setAside(folder.build())
    , m_syncs(syncs)
{
}

Commit::Found Commit::findUnfinished()
{
    const QString path = absolute(WorkFolder::Journal);
    if (!statusOf(path))
        return Found::Nothing;
    const auto journal = Journal::read(path, &m_error);
    if (!journal)
        return Found::Error;
    m_journal = *journal;
    return Found::Journal;
}

Commit::Begun Commit::begin(Journal journal)
{
    m_journal = std::move(journal);
    const QString path = absolute(WorkFolder::Journal);
    const bool prepared = m_journal.keepsPrevious
        ? m_setAside.begin(m_journal) || failAs(m_setAside)
        : m_setAside.abandon() || failAs(m_setAside);
    // First what it relies on, then the journal itself, then its name.
    if (!prepared || !sync() || !writeJournal()) {
        removeFile(absolute(WorkFolder::NewJournal));
        m_setAside.abandon();
        return Begun::No;
    }
    return sync() ? Begun::Yes : Begun::Uncertain;
}

bool Commit::writeJournal()
{
    const QString unfinished = absolute(WorkFolder::NewJournal);
    if (!removeFile(unfinished))
        return failBySystem(unfinished, "cannot be removed: ");
    if (!writeWhole(unfinished, m_journal.toBytes(), m_syncs, &m_error))
        return false;
    const QString path = absolute(WorkFolder::Journal);
    return renameFile(unfinished, path) || failBySystem(path, "cannot be written: ");
}

bool Commit::carryOut()
{
    m_placed.clear();
    if (!place(m_journal.first))
        return false;
    for (const QString &path : qAsConst(m_journal.deletions)) {
        if (!deleteOne(path))
            return false;
    }
    removeEmptiedFolders();
    return place(m_journal.last) && sync() && settleRecords() && clearUp();
}

bool Commit::place(const std::vector<Journal::Placement> &placements)
{
    return std::all_of(placements.cbegin(), placements.cend(),
        [this](const Journal::Placement &placement) { return placeOne(placement); });
}

bool Commit::placeOne(const Journal::Placement &placement)
{
    const QString from = absolute(placement.from);
    const QString to = absolute(placement.to);
    const auto rename = [&] {
        return renameFile(from, to)
            || (errno == ENOENT && makeFolders(QFileInfo(to).path()) && renameFile(from, to))
            || (errno == EISDIR && removeEmptyFolders(to) && renameFile(from, to));
    };
    if (statusOf(from) && !rename()) // else an earlier try has done it
        return failBySystem(to, "cannot be replaced: ");
    const auto status = statusOf(to);
    if (!status)
        return fail(to, QStringLiteral("is missing, and so is its new content"));
    m_placed.emplace(status->st_dev, status->st_ino);
    return true;
}

bool Commit::deleteOne(const QString &path)
{
    const auto status = statusOf(absolute(path));
    if (!status || S_ISDIR(status->st_mode))
        return true;
    // Where the file system takes two names for one, this is the new file.
    if (m_placed.count({status->st_dev, status->st_ino}) > 0)
        return true;
    if (m_journal.keepsPrevious)
        return m_setAside.take(path) || failAs(m_setAside);
    return removeFile(absolute(path)) || failBySystem(absolute(path), "cannot be removed: ");
}

/// Removes the folders that the deletions have left empty, and those above them. An earlier try may
/// have removed some of them.
void Commit::removeEmptiedFolders()
{
    for (const QString &path : qAsConst(m_journal.deletions)) {
        QString folder = QFileInfo(path).path();
        while (folder != QLatin1String("/")
            && (::rmdir(QFile::encodeName(absolute(folder)).constData()) == 0 || errno == ENOENT))
            folder = QFileInfo(folder).path();
    }
}

/// What the build's own folder says of it: what can be brought back, and which release it is.
bool Commit::settleRecords()
{
    const bool forgets = !m_journal.keepsPrevious && !m_setAside.isEmpty();
    const bool changesRelease = m_journal.changesRelease
        && (m_journal.release || statusOf(absolute(WorkFolder::Release)));
    if (m_journal.keepsPrevious && !m_setAside.complete())
        return failAs(m_setAside);
    if (forgets && !m_setAside.discard()) // it does not fit this build any more
        return failAs(m_setAside);
    if (changesRelease && !settleRelease())
        return false;
    return !(m_journal.keepsPrevious || forgets || changesRelease) || sync();
}

bool Commit::settleRelease()
{
    FileError error;
    const bool settled = m_journal.release ? m_journal.release->write(m_folder.build(), &error)
                                           : InstalledRelease::remove(m_folder.build(), &error);
    if (!settled)
        m_error = error;
    return settled;
}

bool Commit::clearUp()
{
    const QString path = absolute(WorkFolder::Journal);
    if (!removeFile(path))
        return failBySystem(path, "cannot be removed: ");
    m_folder.removeIfEmpty();
    sync(); // if that cannot be, a crash brings the journal back, and that does no harm
    return true;
}

bool Commit::forget()
{
    return sync();
}

/// One call for everything on the build's file system: quicker than one for each of many files.
bool Commit::sync()
{
    if (!m_syncs)
        return true;
    FileHandle folder;
    return (folder.open(m_folder.build(), O_RDONLY | O_DIRECTORY) && ::syncfs(folder.get()) == 0)
        || failBySystem(m_folder.build(), "cannot be synced: ");
}

bool Commit::fail(const QString &path, const QString &reason)
{
    m_error = {path, reason};
    return false;
}

bool Commit::failBySystem(const QString &path, const char *what)
{
    m_error = FileError::ofSystem(path, what);
    return false;
}

bool Commit::failAs(const SetAside &setAside)
{
    m_error = setAside.error();
    return false;
}

} // namespace Pellox
