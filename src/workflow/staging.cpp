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

mode_t permissionsOf(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0
        ? status.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO)
        : S_IRUSR | S_IWUSR;
}

const QString NotTheOldFile = QStringLiteral("is not the file that the patch is for");

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
                work.isNeeded = isRegularFile(installed(work));
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
    if (!isRegularFile(installed(work)))
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
    if (!exists(installed(work)))
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
    work.isTakenWhole = true;
    const QFileInfo source(fallback(work));
    if (m_folders.fallback.isEmpty())
        add(Code::DamagedInstall, installed(work), why);
    else if (!source.isFile() || source.size() != work.size)
        add(Code::BadFallback, fallback(work),
            QStringLiteral("is not the file that the patch leads to"));
}

/// Without a seal a copied file has no checksum in the rules: the patch's own file tells it.
void Staging::decideCopy(UpdateWork &work)
{
    work.isNeeded = true;
    const bool maybeInstalled = isFileOfSize(installed(work), work.size);
    const bool maybeStaged = work.isOwnStaged && isFileOfSize(staged(work), work.size);
    if (!maybeInstalled && !maybeStaged)
        return;
    FileError error;
    std::atomic<qint64> done{0};
    const auto sha512 = work.rule.isSealed ? std::optional(work.rule.sha512)
                                           : sha512Of(payload(work), done, &error);
    if (!error.isEmpty())
        fail(error);
    if (!sha512)
        return;
    QString why; // does not matter, as the file is replaced whole
    work.isNeeded = !maybeInstalled || sha512OfInstalled(work, &why) != *sha512;
    work.isStaged = work.isNeeded && isStagedAlready(work, *sha512);
    work.sha512 = *sha512;
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
    for (const QString &path : qAsConst(staged))
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

/// What an earlier run has staged gets the permissions that this one would give it.
void Staging::adopt(const UpdateWork &work)
{
    const QString path = staged(work);
    const mode_t permissions = permissionsFor(work, source(work));
    if (permissionsOf(path) != permissions
        && ::chmod(QFile::encodeName(path).constData(), permissions) != 0)
        fail(FileError::ofSystem(path, "cannot be written: "));
}

/// A file that is replaced keeps its permissions; a new one has those of @p source, and so has one
/// that its owner could not read.
mode_t Staging::permissionsFor(const UpdateWork &work, const QString &source) const
{
    if (!isRegularFile(installed(work)) || work.comesLast)
        return permissionsOf(source);
    const mode_t own = permissionsOf(installed(work));
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
    if (work.rule.kind == UpdateRule::Kind::Copy)
        return stageCopy(work);
    if (m_folders.patch.isEmpty() || work.isTakenWhole)
        return stageFallback(work);
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
    if (!exists(installed(work)))
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

/// Removes what was written of a work. If it stays, it can neither be made again nor be missed when
/// the run is taken back.
void Staging::discard(UpdateWork &work)
{
    if (work.isOwnStaged)
        removeFile(staged(work));
    doneOf(work) = 0;
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
    if (!output.open(staged(work)))
        return failOutput();
    work.isOwnStaged = true;
    FilePass writing(*m_crew, content, targets, doneOf(work));
    if (!pass(writing, content.size(), error))
        return {};
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
