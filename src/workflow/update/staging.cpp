// SPDX-License-Identifier: MIT
#include "staging.h"

#include "filesystem.h"
#include "patchedcontent.h"
#include "stagingroom.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <utility>

#include <unistd.h>

namespace Pellox {

namespace {

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

} // namespace

bool Staging::carryOut(const Reports &reports)
{
    const qint64 total = bytesToStage(m_works);
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
    if (!work.isStaged || isStopped())
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

/// Adds a problem where the system does not tell.
mode_t Staging::permissionsOf(const QString &path)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        fail(FileError::ofSystem(path, "cannot be looked at: "));
    return permissionBits(status);
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
        return add(Code::BadFallback, source.error());
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
    FilePass writing(crew(), content, targets, doneOf(work));
    if (!pass(writing, content.size(), error))
        return {};
    if (const auto owner = ownerToGive(work))
        output.setOwner(*owner);
    output.setPermissions(permissions);
    if (!output.close())
        return failOutput();
    return writing.sha512();
}

} // namespace Pellox
