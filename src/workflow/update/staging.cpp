// SPDX-License-Identifier: MIT
#include "staging.h"

#include "diskroom.h"
#include "filesystem.h"
#include "patchedcontent.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <array>
#include <cerrno>
#include <numeric>
#include <utility>

#include <unistd.h>

namespace Pellox {

namespace {

bool isLarge(qint64 size)
{
    return size > FilePass::ChunkSize;
}

/// Whether a file's content cannot be had, for permissions or a broken disk. It may have to be
/// brought back, while other errors will pass.
bool tellsUnreadable(const FileError &error)
{
    constexpr std::array Errors{EACCES, EPERM, EIO, EBADMSG, EUCLEAN, ENODATA};
    return std::find(Errors.cbegin(), Errors.cend(), error.system) != Errors.cend();
}

bool isFileOfSize(const QString &path, qint64 size)
{
    const auto status = statusOf(path);
    return status && S_ISREG(status->st_mode) && status->st_size == size;
}

bool isToBeMade(const UpdateWork &work)
{
    return work.isNeeded && !work.isStaged && work.rule.kind != UpdateRule::Kind::Delete;
}

bool exists(const QString &path)
{
    return statusOf(path).has_value();
}

mode_t permissionBits(const struct stat &status)
{
    return status.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO);
}

/// As far as the file system keeps owners.
bool giveTo(const FileOwner &owner, const QString &path)
{
    return ::lchown(QFile::encodeName(path).constData(), owner.user, owner.group) == 0
        || FileOwner::areUnknown(errno);
}

const QString NotTheOldFile = QStringLiteral("is not the file that the patch is for");

/// Whether the content of @p path cannot be had as @p error tells, now or later.
bool tellsNoContent(const FileError &error, const QString &path)
{
    constexpr std::array Errors{0, ENOENT, ENOTDIR, ELOOP, ENAMETOOLONG};
    const bool isNone = std::find(Errors.cbegin(), Errors.cend(), error.system) != Errors.cend();
    return error.path == path && (isNone || tellsUnreadable(error));
}

/// Of its source, which is read with @p error or is another file than it was.
QString whyNotMade(const UpdateWork &work, const FileError &error)
{
    const bool isMissing = error.system == ENOENT;
    const QString why = isMissing ? QStringLiteral("is missing")
        : error.isEmpty()         ? NotTheOldFile
                                  : error.reason;
    return QStringLiteral("%1, and %2 is made of it").arg(why, work.rule.relativePath.mid(1));
}

} // namespace

Staging::Staging(UpdateFolders folders, std::vector<UpdateWork> &works, int threadCount,
    const std::atomic<bool> &cancelled, Problems &problems)
    : m_folders(std::move(folders))
    , m_works(works)
    , m_threadCount(threadCount)
    , m_cancelled(cancelled)
    , m_problems(problems)
{
}

/// Calls @p task for each work, the large ones first.
bool Staging::runCrew(
    const std::function<void(UpdateWork &)> &task, const std::function<void()> &report)
{
    std::vector<qint64> sizes(m_works.size());
    std::transform(m_works.cbegin(), m_works.cend(), sizes.begin(),
        [](const UpdateWork &work) { return work.size; });
    Crew crew(m_threadCount, m_cancelled);
    m_crew = &crew;
    crew.run(
        sizes, FilePass::ChunkSize, [&](std::size_t i) { task(m_works[i]); }, report);
    m_crew = nullptr;
    if (m_problems.isEmpty() && !crew.error().isEmpty()) // of the crew itself: no memory, say
        add(Code::NoMemory, m_folders.build, crew.error());
    return m_problems.isEmpty() && !m_cancelled;
}

bool Staging::decide(const std::function<void(qint64 done)> &report)
{
    m_read = 0;
    return runCrew(
        [this](UpdateWork &work) {
            switch (work.rule.kind) {
            case UpdateRule::Kind::Patch:
                return decidePatch(work);
            case UpdateRule::Kind::Copy:
                return decideCopy(work);
            case UpdateRule::Kind::Delete:
                work.isNeeded = isInstalled(work);
            }
        },
        [&] {
            if (report)
                report(m_read);
        });
}

void Staging::decidePatch(UpdateWork &work)
{
    work.isNeeded = true;
    if (isStagedAlready(work, work.rule.sha512))
        work.isStaged = true;
    else if (work.rule.isSealed)
        decideSealedPatch(work);
    else
        decideUnsealedPatch(work);
}

/// The seal tells what the installed file must be.
void Staging::decideSealedPatch(UpdateWork &work)
{
    const bool isThere = isInstalled(work);
    if (isStopped())
        return;
    if (!isThere)
        return takeWhole(work, QStringLiteral("is missing"));
    QString why;
    const auto sha512 = sha512OfInstalled(work, &why);
    if (m_crew->isStopped())
        return;
    work.isNeeded = sha512 != work.rule.sha512;
    if (work.isNeeded && sha512 != work.rule.oldSha512)
        takeWhole(work, sha512 ? NotTheOldFile : why);
}

void Staging::decideUnsealedPatch(UpdateWork &work)
{
    const bool isThere = statusOfInstalled(work).has_value();
    if (isStopped())
        return;
    if (!isThere)
        return takeWhole(work, QStringLiteral("is missing"));
    PatchedContent patched;
    if (!patched.open(installed(work), payload(work), work.size, [this] { return isStopped(); })) {
        if (isUnreadableInstalled(patched.error(), work))
            takeWhole(work, patched.error().reason);
        else if (!isStopped())
            m_problems.add(codeOf(patched.error(), work), patched.error());
        return;
    }
    if (!patched.mayBeNewAlready())
        return;
    QString why;
    work.isNeeded = sha512OfInstalled(work, &why) != work.rule.sha512;
    if (!why.isEmpty())
        takeWhole(work, why);
}

/// The installed file is something else than the patch is for: @p why.
void Staging::takeWhole(UpdateWork &work, const QString &why)
{
    takeWhole(work, installed(work), why);
}

/// The same of @p path, an installed file that another is made of.
void Staging::takeWhole(UpdateWork &work, const QString &path, const QString &why)
{
    work.isTakenWhole = true;
    const QFileInfo source(fallback(work));
    if (m_folders.fallback.isEmpty())
        add(Code::DamagedInstall, path, why);
    else if (!source.isFile() || source.size() != work.size)
        add(Code::BadFallback, fallback(work),
            QStringLiteral("is not the file that the patch leads to"));
}

void Staging::decideCopy(UpdateWork &work)
{
    work.isNeeded = true;
    if (work.rule.isSealed)
        work.sha512 = work.rule.sha512;
    if (isCopyToBeMade(work) && work.isMoved)
        decideSource(work);
}

/// Without a seal a copied file has no checksum in the rules: the patch's own file tells it. False
/// also when the crew was stopped.
bool Staging::isCopyToBeMade(UpdateWork &work)
{
    const bool maybeInstalled = isFileOfSize(installed(work), work.size);
    const bool maybeStaged = work.isOwnStaged && isFileOfSize(staged(work), work.size);
    if (!maybeInstalled && !maybeStaged)
        return true;
    FileError error;
    std::atomic<qint64> done{0};
    const auto sha512 = work.rule.isSealed ? std::optional(work.rule.sha512)
                                           : sha512Of(payload(work), done, &error);
    if (!error.isEmpty())
        fail(error);
    if (!sha512)
        return false;
    QString why; // does not matter, as the file is replaced whole
    work.isNeeded = !maybeInstalled || sha512OfInstalled(work, &why) != *sha512;
    work.isStaged = work.isNeeded && isStagedAlready(work, *sha512);
    work.sha512 = *sha512;
    return work.isNeeded && !work.isStaged && !isStopped();
}

/// What stands in for a file that the patch lacks. It may be a link, and another rule may change or
/// delete it, as nothing is put in place before all is staged.
void Staging::decideSource(UpdateWork &work)
{
    FileError error;
    InputFile file;
    std::optional<Sha512> sha512;
    if (!file.open(source(work)))
        error = file.error();
    else if (file.size() == work.size)
        sha512 = sha512Of(source(work), m_read, &error);
    if (isStopped() || sha512 == work.rule.sha512)
        return;
    if (error.isEmpty() || tellsNoContent(error, source(work)))
        takeWhole(work, source(work), whyNotMade(work, error));
    else
        fail(error);
}

/// What cannot be read is made anew.
bool Staging::isStagedAlready(const UpdateWork &work, const Sha512 &sha512)
{
    FileError error;
    std::atomic<qint64> done{0};
    return work.isOwnStaged && isFileOfSize(staged(work), work.size)
        && sha512Of(staged(work), done, &error) == sha512;
}

/// Nothing after @p why, when the file cannot be read, and when the crew was stopped.
std::optional<Sha512> Staging::sha512OfInstalled(UpdateWork &work, QString *why)
{
    FileError error;
    const auto sha512 = sha512Of(installed(work), m_read, &error);
    if (isUnreadableInstalled(error, work))
        *why = error.reason;
    else if (!error.isEmpty())
        fail(error);
    return sha512;
}

bool Staging::isUnreadableInstalled(const FileError &error, UpdateWork &work) const
{
    if (error.path != installed(work) || !tellsUnreadable(error))
        return false;
    work.isUnreadable = true;
    return true;
}

/// Nothing after @p error, and when the crew was stopped.
std::optional<Sha512> Staging::sha512Of(
    const QString &path, std::atomic<qint64> &done, FileError *error)
{
    InputFile file;
    if (!file.open(path)) {
        *error = file.error();
        return {};
    }
    FilePass::Targets targets;
    targets.digest = true;
    FilePass reading(*m_crew, file, targets, done);
    return pass(reading, file.size(), error) ? std::optional(reading.sha512()) : std::nullopt;
}

qint64 Staging::bytesToWrite() const
{
    qint64 bytes = 0;
    for (const UpdateWork &work : m_works)
        bytes = saturatedSum(bytes, isToBeMade(work) ? work.size : 0);
    return bytes;
}

qint64 Staging::roomNeeded() const
{
    constexpr qint64 Margin = 16LL << 20; // journal, folders, and other programs at work
    const DiskRoom room = DiskRoom::of(m_folders.build).value_or(DiskRoom());
    qint64 bytes = 0;
    for (const UpdateWork &work : m_works)
        bytes = saturatedSum(bytes, isToBeMade(work) ? room.taken(work.size) : 0);
    return bytes > 0 ? saturatedSum(bytes, Margin) : 0;
}

bool Staging::hasRoom()
{
    constexpr qint64 OwnFiles = 8; // journal, records and their folders
    const auto room = DiskRoom::of(m_folders.build);
    if (!room)
        return true;
    const auto refuse = [this](const QString &text, qint64 needed, qint64 free) {
        add(Code::NoSpace, m_folders.build,
            text.arg(QString::number(needed), QString::number(free)));
        return false;
    };
    const qint64 bytes = roomNeeded();
    if (bytes > room->bytes)
        return refuse(QStringLiteral("has not enough room: %1 bytes are needed, %2 are free"),
            bytes, room->bytes);
    const qint64 files = OwnFiles + std::count_if(m_works.cbegin(), m_works.cend(), isToBeMade);
    if (bytes > 0 && room->files && files > *room->files)
        return refuse(
            QStringLiteral("has not enough room: %1 files are to be made, there is room for %2"),
            files, *room->files);
    return true;
}

bool Staging::carryOut(const Reports &reports)
{
    const qint64 total = bytesToWrite();
    m_done = std::vector<std::atomic<qint64>>(m_works.size());
    return runCrew(
        [this](UpdateWork &work) {
            if (work.isNeeded && work.rule.kind != UpdateRule::Kind::Delete)
                stage(work);
        },
        [&] { report(reports, total); });
}

void Staging::report(const Reports &reports, qint64 total)
{
    QStringList staged;
    {
        const std::lock_guard lock(m_stagedMutex);
        staged.swap(m_staged);
    }
    for (const QString &path : std::as_const(staged))
        reports.staged(path);
    reports.progress(std::min(done(), total), total);
}

qint64 Staging::done() const
{
    return std::accumulate(m_done.cbegin(), m_done.cend(), qint64{0});
}

std::atomic<qint64> &Staging::doneOf(const UpdateWork &work)
{
    return m_done[static_cast<std::size_t>(&work - m_works.data())];
}

void Staging::stage(UpdateWork &work)
{
    work.isStaged ? adopt(work) : stageAnew(work);
    if (!work.isStaged || m_crew->isStopped())
        return;
    const std::lock_guard lock(m_stagedMutex);
    m_staged.append(work.rule.relativePath);
}

/// Where a file's content would come from whole.
QString Staging::contentOf(const UpdateWork &work) const
{
    if (work.isMoved)
        return isRegularFile(source(work)) ? source(work) : fallback(work);
    return work.rule.kind == UpdateRule::Kind::Copy ? payload(work) : fallback(work);
}

/// Of the installed file. Nothing, with a problem, where the system does not tell what stands
/// there.
std::optional<struct stat> Staging::statusOfInstalled(const UpdateWork &work)
{
    FileError error;
    const auto status = statusOf(installed(work), &error);
    if (!error.isEmpty())
        fail(error);
    return status;
}

/// Adds a problem where the system does not tell.
mode_t Staging::permissionsOf(const QString &path)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        fail(FileError::ofSystem(path, "cannot be looked at: "));
    return permissionBits(status);
}

bool Staging::isInstalled(const UpdateWork &work)
{
    const auto status = statusOfInstalled(work);
    return status && S_ISREG(status->st_mode);
}

/// That of a file that is replaced, where it must be given: what root makes is root's otherwise,
/// and the player could not write his own file.
std::optional<FileOwner> Staging::ownerToGive(const UpdateWork &work)
{
    if (::geteuid() != 0 || work.comesLast)
        return {};
    const auto status = statusOfInstalled(work);
    const bool isReplaced = status && S_ISREG(status->st_mode);
    const bool isOurs = isReplaced && status->st_uid == 0 && status->st_gid == ::getegid();
    return isReplaced && !isOurs ? std::optional(FileOwner{status->st_uid, status->st_gid})
                                 : std::nullopt;
}

/// What an earlier run has staged gets the owner and permissions that this one would give it.
void Staging::adopt(const UpdateWork &work)
{
    const QString path = staged(work);
    const QString content = contentOf(work);
    const mode_t permissions = permissionsFor(work, exists(content) ? content : path);
    if (const auto owner = ownerToGive(work); owner && !giveTo(*owner, path))
        return fail(FileError::ofSystem(path, "cannot be written: "));
    if (permissionsOf(path) != permissions
        && ::chmod(QFile::encodeName(path).constData(), permissions) != 0)
        fail(FileError::ofSystem(path, "cannot be written: "));
}

/// A file that is replaced keeps its permissions; a new one has those of @p source, and so has one
/// that its owner could not read.
mode_t Staging::permissionsFor(const UpdateWork &work, const QString &source)
{
    const auto status = statusOfInstalled(work);
    if (!status || !S_ISREG(status->st_mode) || work.comesLast)
        return permissionsOf(source);
    const mode_t own = permissionBits(*status);
    const bool isUnreadable
        = work.isUnreadable || ::access(QFile::encodeName(installed(work)).constData(), R_OK) != 0;
    if ((own & S_IRUSR) == 0 && isUnreadable)
        return permissionsOf(source) | S_IRUSR | S_IWUSR;
    const bool repairs = m_folders.patch.isEmpty();
    return repairs ? own | S_IRUSR : own;
}

void Staging::stageAnew(UpdateWork &work)
{
    if (work.isOwnStaged && !removeFile(staged(work)))
        return fail(FileError::ofSystem(staged(work), "cannot be removed: "));
    if (work.rule.kind == UpdateRule::Kind::Copy && !work.isMoved)
        return stageCopy(work);
    if (m_folders.patch.isEmpty() || work.isTakenWhole)
        return stageFallback(work);
    if (work.isMoved)
        return stageMoved(work);
    QString why = NotTheOldFile;
    if (stagePatched(work, &why) || isStopped())
        return;
    if (m_folders.fallback.isEmpty())
        add(Code::DamagedInstall, installed(work), why);
    else
        stageFallback(work);
}

/// False, after @p why where it is known, when the installed file is not the one that the delta is
/// for.
bool Staging::stagePatched(UpdateWork &work, QString *why)
{
    PatchedContent content;
    FileError error;
    std::optional<Sha512> sha512;
    if (!statusOfInstalled(work))
        return false;
    if (!content.open(installed(work), payload(work), work.size, [this] { return isStopped(); }))
        error = content.error();
    else if (content.fits())
        sha512 = write(work, content, content.oldPermissions(), &error);
    work.isStaged = sha512 == work.rule.sha512;
    if (work.isStaged || isStopped())
        return work.isStaged;
    if (isUnreadableInstalled(error, work))
        *why = error.reason;
    else if (!error.isEmpty())
        fail(error, codeOf(error, work));
    discard(work);
    return false;
}

void Staging::stageFallback(UpdateWork &work)
{
    const QString path = fallback(work);
    InputFile source;
    if (!source.open(path))
        return m_problems.add(Code::BadFallback, source.error());
    FileError error;
    const bool sizeFits = source.size() == work.size;
    const auto sha512
        = sizeFits ? write(work, source, permissionsFor(work, path), &error) : std::nullopt;
    work.isStaged = sha512 == work.rule.sha512;
    if (!error.isEmpty())
        return fail(error);
    if (work.isStaged || isStopped())
        return;
    discard(work);
    add(Code::BadFallback, path, QStringLiteral("is not the file that the patch leads to"));
}

void Staging::stageCopy(UpdateWork &work)
{
    InputFile source;
    if (!source.open(payload(work)))
        return fail(source.error());
    if (source.size() != work.size)
        return fail({source.path(), QStringLiteral("changed while it was read")});
    FileError error;
    const auto sha512 = write(work, source, permissionsFor(work, source.path()), &error);
    if (!error.isEmpty())
        return fail(error);
    if (sha512 && work.rule.isSealed && sha512 != work.rule.sha512)
        return fail({source.path(), QStringLiteral("changed since it was checked")});
    work.isStaged = sha512.has_value();
    work.sha512 = sha512.value_or(Sha512());
}

/// As decideSource() has found it, unless it was changed since.
void Staging::stageMoved(UpdateWork &work)
{
    InputFile file;
    FileError error;
    std::optional<Sha512> sha512;
    if (!file.open(source(work)))
        error = file.error();
    else if (file.size() == work.size)
        sha512 = write(work, file, permissionsFor(work, file.path()), &error);
    work.isStaged = sha512 == work.rule.sha512;
    if (work.isStaged || isStopped())
        return;
    discard(work);
    if (!error.isEmpty() && !tellsNoContent(error, source(work)))
        fail(error);
    else if (m_folders.fallback.isEmpty())
        add(Code::DamagedInstall, source(work), whyNotMade(work, error));
    else
        stageFallback(work);
}

/// Removes what was written of a work. If it stays, it can neither be made again nor be missed when
/// the run is taken back.
void Staging::discard(UpdateWork &work)
{
    if (work.isOwnStaged)
        removeFile(staged(work));
    doneOf(work) = 0;
}

/// Those that root makes, with their owners. One after the other: none is made in a folder that has
/// not got its own yet.
bool Staging::makeFoldersFor(const UpdateWork &work)
{
    if (::geteuid() != 0)
        return true; // they come with the file
    const std::lock_guard lock(m_foldersMutex);
    return makeFolders(QFileInfo(staged(work)).path());
}

/// Writes @p content where the work is staged. Its SHA-512; nothing after @p error, and when the
/// crew was stopped.
std::optional<Sha512> Staging::write(
    UpdateWork &work, Content &content, mode_t permissions, FileError *error)
{
    OutputFile output;
    FilePass::Targets targets;
    targets.digest = true;
    targets.copy = &output;
    const auto failOutput = [&] {
        *error = output.error();
        return std::nullopt;
    };
    if (!makeFoldersFor(work)) {
        *error = FileError::ofSystem(staged(work), "cannot be made: ");
        return {};
    }
    if (!output.open(staged(work)))
        return failOutput();
    work.isOwnStaged = true;
    FilePass writing(*m_crew, content, targets, doneOf(work));
    if (!pass(writing, content.size(), error))
        return {};
    if (const auto owner = ownerToGive(work))
        output.setOwner(*owner);
    output.setPermissions(permissions);
    if (!output.close())
        return failOutput();
    return writing.sha512();
}

/// False after @p error, and when the crew was stopped.
bool Staging::pass(FilePass &pass, qint64 size, FileError *error)
{
    const bool done = isLarge(size) ? m_crew->share(pass) : m_crew->doAlone(pass);
    if (done)
        *error = pass.error();
    return done && pass.error().isEmpty();
}

/// A delta that is broken is told as what the patch brings.
Staging::Code Staging::codeOf(const FileError &error, const UpdateWork &work) const
{
    return error.path == payload(work) && error.system == 0 ? Code::BadPatch : Code::ReadOrWrite;
}

void Staging::add(Code code, const QString &path, const QString &reason)
{
    m_problems.add(code, path, reason);
}

/// Stops the others.
void Staging::fail(const FileError &error, Code code)
{
    m_problems.add(code, error);
    m_crew->fail(error);
}

} // namespace Pellox
