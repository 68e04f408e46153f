// SPDX-License-Identifier: MIT
#include "transaction.h"

#include "diskroom.h"
#include "earlysync.h"
#include "filesystem.h"
#include "setaside.h"

#include <QHash>

#include <algorithm>
#include <cerrno>

namespace Pellox {

Transaction::Transaction(const Settings &settings, Reports reports,
    const std::atomic<bool> &cancelled, Problems &problems)
    : m_settings(settings)
    , m_reports(std::move(reports))
    , m_cancelled(cancelled)
    , m_problems(problems)
    , m_folder(settings.folders.build)
    , m_files(m_folder)
    , m_commit(m_files, settings.syncs)
    , m_record(settings.folders.build)
{
}

bool Transaction::lock()
{
    if (m_folder.lock())
        return true;
    m_problems.add(m_folder.isBusy() ? UpdateProblem::Code::Busy : UpdateProblem::Code::BadFolder,
        m_folder.error());
    return false;
}

bool Transaction::hasUnfinished() const
{
    return mayStand(m_folder.absolute(WorkFolder::Journal));
}

Transaction::Outcome Transaction::finishUnfinished()
{
    switch (m_commit.findUnfinished()) {
    case Commit::Found::Nothing:
        return Outcome::NothingToDo;
    case Commit::Found::Error:
        m_problems.add(m_commit.error().system == 0 ? UpdateProblem::Code::DamagedJournal
                                                    : UpdateProblem::Code::ReadOrWrite,
            m_commit.error());
        return Outcome::Interrupted;
    case Commit::Found::Journal:
        break;
    }
    if (!m_commit.inspect({m_settings.threadCount, m_cancelled, m_reports.staging.progress}))
        return m_commit.error().isEmpty() ? Outcome::Interrupted
                                          : fail(m_commit.error(), Outcome::Interrupted);
    if (!forgetRecord())
        return Outcome::Interrupted;
    return m_commit.carryOut() ? Outcome::Done : fail(m_commit.error(), Outcome::Interrupted);
}

Transaction::Outcome Transaction::carryOut(std::vector<UpdateWork> &works, const Aim &aim)
{
    if (!m_folder.make())
        return fail(m_folder.error());
    if (!m_record.read()) {
        m_folder.removeIfEmpty();
        return fail(m_record.errors().front());
    }
    Outcome outcome = Outcome::Failed;
    try {
        outcome = stageAndCommit(works, aim);
    } catch (...) { // there is no more memory, or it comes from a host's slot
        if (!hasUnfinished()) {
            m_commit.abandon();
            takeBack(works, aim.otherFiles);
        }
        throw;
    }
    const bool isUnchanged = outcome == Outcome::Failed || outcome == Outcome::Cancelled;
    if (isUnchanged && mayHaveBegun())
        outcome = Outcome::Interrupted;
    else if (isUnchanged && !takeBack(works, aim.otherFiles))
        outcome = Outcome::Failed;
    return outcome;
}

Transaction::Outcome Transaction::stageAndCommit(std::vector<UpdateWork> &works, const Aim &aim)
{
    if (!recordStaged(works, aim.otherFiles))
        return Outcome::Failed;
    const Outcome staged = stage(works);
    if (staged != Outcome::Done)
        return staged;
    Journal journal = journalOf(works);
    journal.changesRelease = aim.changesRelease;
    journal.isRepair = aim.isRepair;
    journal.release = aim.release;
    return commitStaged(std::move(journal));
}

Transaction::Outcome Transaction::stage(std::vector<UpdateWork> &works)
{
    Staging staging(m_settings.folders, works, m_settings.threadCount, m_cancelled, m_problems);
    EarlySync early(m_files);
    Staging::Reports reports = m_reports.staging;
    reports.progress = [&](qint64 done, qint64 total) {
        if (m_settings.syncs)
            early.staged(done);
        m_reports.staging.progress(done, total);
    };
    if (!staging.carryOut(reports))
        return m_problems.isEmpty() ? Outcome::Cancelled : Outcome::Failed;
    return early.finish() ? Outcome::Done : fail(m_files.error(QString(), "cannot be synced: "));
}

/// Where a journal may stand, what is staged may be the only copy of new content. Then there is a
/// problem.
bool Transaction::mayHaveBegun()
{
    const Standing journal = m_files.look(WorkFolder::Journal);
    if (journal.isNothing())
        return false;
    errno = journal.error;
    if (m_problems.isEmpty())
        fail(m_files.error(WorkFolder::Journal, "may stand there already: "));
    return true;
}

/// Puts on record what @p works stage, and removes what earlier runs have staged besides. False
/// with a problem.
bool Transaction::recordStaged(
    const std::vector<UpdateWork> &works, const QSet<QString> &otherFiles)
{
    QSet<QString> kept = targetsOf(works) + otherFiles;
    QSet<QString> standing;
    for (const UpdateWork &work : works) {
        if (!work.isNeeded || work.rule.kind == UpdateRule::Kind::Delete)
            continue;
        kept.insert(work.staged);
        m_record.add(work.staged);
        recordFoldersAbove(work.staged, &standing);
    }
    if (!m_record.write(m_settings.syncs))
        return tellErrorsOfRecord();
    // Of the record, and as an old journal that came back would take what is staged for its own.
    if (!m_commit.forget()) {
        fail(m_commit.error());
        return false;
    }
    return m_record.removeFiles(kept) || tellErrorsOfRecord();
}

void Transaction::recordFoldersAbove(const QString &path, QSet<QString> *standing)
{
    if (WorkFolder::isInside(path))
        return;
    for (const QString &folder : foldersAbove(path)) {
        if (standing->contains(folder))
            continue;
        if (statusOf(m_folder.absolute(folder)))
            standing->insert(folder);
        else
            m_record.addFolder(folder);
    }
}

/// False with a problem when something that is staged stays.
bool Transaction::takeBack(const std::vector<UpdateWork> &works, const QSet<QString> &kept)
{
    for (const UpdateWork &work : works) {
        if (!work.isOwnStaged) // then whatever stands there is somebody's
            m_record.drop(work.staged);
    }
    return clear(kept) || tellErrorsOfRecord();
}

bool Transaction::tellErrorsOfRecord()
{
    for (const FileError &error : m_record.errors())
        m_problems.add(UpdateProblem::Code::ReadOrWrite, error);
    return false;
}

/// The record goes last, as it is by that alone that a later run knows the rest.
bool Transaction::clear(const QSet<QString> &kept)
{
    bool cleared = m_record.removeFiles(kept);
    if (cleared) {
        m_commit.forget(); // should that fail, a crash may leave files, but they harm nobody
        cleared = m_record.remove();
    }
    m_folder.removeIfEmpty();
    return cleared;
}

bool Transaction::clearLeftovers(const QSet<QString> &kept)
{
    if (!clearUncertain())
        return false;
    return hasUnfinished() || !m_record.isThere() || (m_record.read() && clear(kept))
        || tellErrorsOfRecord();
}

bool Transaction::clearUncertain()
{
    if (hasUnfinished() || !hasUncertain())
        return true;
    if (!m_commit.abandon()) {
        fail(m_commit.error());
        return false;
    }
    m_folder.removeIfEmpty();
    return true;
}

/// Whether a commit has begun whose journal was never in place.
bool Transaction::hasUncertain() const
{
    const auto stands
        = [this](const QString &path) { return statusOf(m_folder.absolute(path)).has_value(); };
    return stands(WorkFolder::NewJournal) || stands(WorkFolder::KeepingRecord)
        || stands(WorkFolder::Keeping);
}

/// Once there is a journal, that tells of all that is staged. False with a problem.
bool Transaction::forgetRecord()
{
    return m_record.remove() || tellErrorsOfRecord();
}

Transaction::Outcome Transaction::commit(Journal journal)
{
    return clearLeftovers() ? commitStaged(std::move(journal)) : Outcome::Failed;
}

Transaction::Outcome Transaction::commitStaged(Journal journal)
{
    journal.keepsPrevious = m_settings.keepsPrevious && !journal.isRollback;
    if (!m_commit.prepare(std::move(journal), [this] { return !m_cancelled; }))
        return m_commit.error().isEmpty() ? Outcome::Cancelled : fail(m_commit.error());
    m_reports.committing();
    switch (m_commit.begin()) {
    case Commit::Begun::No:
        return fail(m_commit.error());
    case Commit::Begun::Uncertain:
        return fail(m_commit.error(), Outcome::Interrupted);
    case Commit::Begun::Yes:
        break;
    }
    if (!forgetRecord())
        return Outcome::Interrupted;
    return m_commit.carryOut() ? Outcome::Done : fail(m_commit.error(), Outcome::Interrupted);
}

qint64 Transaction::roomToKeep(const std::vector<UpdateWork> &works)
{
    if (!m_settings.keepsPrevious || !copiesWhatIsKept())
        return 0;
    const DiskRoom room = DiskRoom::of(m_settings.folders.build).value_or(DiskRoom());
    qint64 bytes = 0;
    for (const UpdateWork &work : works) {
        const bool replaces = work.isNeeded && work.rule.kind != UpdateRule::Kind::Delete;
        const auto status = statusOf(m_folder.absolute(work.rule.relativePath));
        if (replaces && status && S_ISREG(status->st_mode))
            bytes = saturatedSum(bytes, room.taken(status->st_size));
    }
    return bytes;
}

bool Transaction::copiesWhatIsKept()
{
    if (!isLocked())
        return !givesSecondNames(m_settings.folders.build);
    const bool copies = SetAside(m_files).copies();
    m_files.removeFolder(WorkFolder::Name); // if it is empty
    return copies;
}

bool Transaction::hasRoomToKeep(const std::vector<UpdateWork> &works, qint64 staged)
{
    const qint64 kept = roomToKeep(works);
    const auto room = DiskRoom::of(m_settings.folders.build);
    const qint64 needed = saturatedSum(staged, kept);
    if (kept == 0 || !room || needed <= room->bytes)
        return true;
    m_problems.add(UpdateProblem::Code::NoSpace, m_settings.folders.build,
        QStringLiteral("has not enough room to keep what is replaced: %1 bytes are needed, %2 are "
                       "free")
            .arg(QString::number(needed), QString::number(room->bytes)));
    return false;
}

Transaction::Outcome Transaction::fail(const FileError &error, Outcome outcome)
{
    m_problems.add(UpdateProblem::Code::ReadOrWrite, error);
    return outcome;
}

QSet<QString> targetsOf(const std::vector<UpdateWork> &works)
{
    QSet<QString> targets;
    for (const UpdateWork &work : works)
        targets.insert(work.rule.relativePath);
    return targets;
}

namespace {

bool isSameFile(const QString &path, const QString &other)
{
    const auto status = statusOf(path);
    const auto otherStatus = statusOf(other);
    return status && otherStatus && status->st_dev == otherStatus->st_dev
        && status->st_ino == otherStatus->st_ino;
}

/// Of what is staged.
FileMark markOf(const UpdateWork &work)
{
    const bool isCopy = work.rule.kind == UpdateRule::Kind::Copy;
    return {work.size, isCopy ? work.sha512 : work.rule.sha512, std::nullopt};
}

} // namespace

void spareNewFiles(const QString &build, std::vector<UpdateWork> &works)
{
    constexpr NameSense Broad{true, true};
    const auto isDeletion
        = [](const UpdateWork &work) { return work.rule.kind == UpdateRule::Kind::Delete; };
    const auto goes = [&](const UpdateWork &work) { return work.isNeeded && isDeletion(work); };
    if (std::none_of(works.cbegin(), works.cend(), goes))
        return;
    QHash<QString, QString> newFiles;
    for (const UpdateWork &work : works) {
        if (!work.isNeeded && !isDeletion(work))
            newFiles.insert(Broad.key(work.rule.relativePath), build + work.rule.relativePath);
    }
    for (UpdateWork &work : works) {
        const QString path = build + work.rule.relativePath;
        const QString other
            = goes(work) ? newFiles.value(Broad.key(work.rule.relativePath)) : QString();
        if (!other.isEmpty() && isSameFile(path, other))
            work.isNeeded = false;
    }
}

Journal journalOf(const std::vector<UpdateWork> &works)
{
    Journal journal;
    for (const UpdateWork &work : works) {
        if (!work.isNeeded)
            continue;
        if (work.rule.kind == UpdateRule::Kind::Delete)
            journal.deletions.push_back({work.rule.relativePath});
        else
            (work.comesLast ? journal.last : journal.first)
                .push_back({work.staged, work.rule.relativePath, markOf(work)});
    }
    // What lies deeper goes first, so that folders are empty when their turn comes.
    std::stable_sort(journal.deletions.begin(), journal.deletions.end(),
        [](const Journal::Deletion &one, const Journal::Deletion &other) {
            return one.path.count(QLatin1Char('/')) > other.path.count(QLatin1Char('/'));
        });
    return journal;
}

} // namespace Pellox
