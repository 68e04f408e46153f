// SPDX-License-Identifier: MIT
#include "staging.h"

#include "filesystem.h"
#include "patchedcontent.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>

#include <algorithm>
#include <numeric>

namespace Pellox {

namespace {

bool isLarge(qint64 size)
{
    return size > FilePass::ChunkSize;
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

} // namespace

Staging::Staging(const UpdateFolders &folders, std::vector<UpdateWork> &works, int threadCount,
    const std::atomic<bool> &cancelled, Problems &problems)
    : m_folders(folders)
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
        add(Code::ReadOrWrite, m_folders.build, crew.error());
    return m_problems.isEmpty() && !m_cancelled;
}

bool Staging::decide()
{
    m_done = 0;
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
        [] {});
}

void Staging::decidePatch(UpdateWork &work)
{
    const UpdateRule &rule = work.rule;
    work.isNeeded = true;
    if (isContent(staged(work), rule.size, rule.sha512))
        work.isStaged = true;
    else if (rule.isSealed)
        decideSealedPatch(work);
    else
        decideUnsealedPatch(work);
}

/// The seal tells what the installed file must be.
void Staging::decideSealedPatch(UpdateWork &work)
{
    const auto sha512 = isRegularFile(installed(work)) ? sha512Of(installed(work)) : std::nullopt;
    if (m_crew->isStopped())
        return;
    work.isNeeded = sha512 != work.rule.sha512;
    if (!work.isNeeded || sha512 == work.rule.oldSha512)
        return;
    work.isTakenWhole = true;
    if (m_folders.fallback.isEmpty())
        add(Code::DamagedInstall, installed(work),
            sha512 ? QStringLiteral("is not the file that the patch is for")
                   : QStringLiteral("is missing"));
    else if (QFileInfo(fallback(work)).size() != work.size || !isRegularFile(fallback(work)))
        add(Code::BadFallback, fallback(work),
            QStringLiteral("is not the file that the patch leads to"));
}

void Staging::decideUnsealedPatch(UpdateWork &work)
{
    const UpdateRule &rule = work.rule;
    if (!exists(installed(work))) {
        if (m_folders.fallback.isEmpty())
            add(Code::DamagedInstall, installed(work), QStringLiteral("is missing"));
        return;
    }
    PatchedContent patched;
    if (!patched.open(installed(work), payload(work), rule.size))
        m_problems.add(codeOf(patched.error(), work), patched.error());
    else if (patched.mayBeNewAlready())
        work.isNeeded = !isContent(installed(work), rule.size, rule.sha512);
}

/// Without a seal a copied file has no checksum in the rules: the patch's own file tells it.
void Staging::decideCopy(UpdateWork &work)
{
    work.isNeeded = true;
    const auto sameSize = [&](const QString &path) {
        const QFileInfo info(path);
        return !info.isSymLink() && info.isFile() && info.size() == work.size;
    };
    const bool maybeInstalled = sameSize(installed(work));
    const bool maybeStaged = sameSize(staged(work));
    if (!maybeInstalled && !maybeStaged)
        return;
    const auto sha512
        = work.rule.isSealed ? std::optional(work.rule.sha512) : sha512Of(payload(work));
    if (!sha512)
        return;
    work.isNeeded = !maybeInstalled || !isContent(installed(work), work.size, *sha512);
    work.isStaged = work.isNeeded && maybeStaged && isContent(staged(work), work.size, *sha512);
}

/// Whether a regular file with this content stands at @p path.
bool Staging::isContent(const QString &path, qint64 size, const Sha512 &sha512)
{
    const QFileInfo info(path);
    return !info.isSymLink() && info.isFile() && info.size() == size && sha512Of(path) == sha512;
}

/// Nothing, after an error has stopped the crew or it was stopped.
std::optional<Sha512> Staging::sha512Of(const QString &path)
{
    InputFile file;
    if (!file.open(path)) {
        fail(file.error());
        return {};
    }
    FilePass::Targets targets;
    targets.digest = true;
    std::atomic<qint64> done{0};
    FilePass reading(*m_crew, file, targets, done);
    return pass(reading, file.size()) ? std::optional(reading.sha512()) : std::nullopt;
}

qint64 Staging::bytesToWrite() const
{
    return std::accumulate(
        m_works.cbegin(), m_works.cend(), qint64{0}, [](qint64 sum, const UpdateWork &work) {
            return work.isNeeded && !work.isStaged ? sum + work.size : sum;
        });
}

qint64 Staging::roomNeeded() const
{
    constexpr qint64 Margin = 16LL << 20; // journal, folders, and other programs at work
    const qint64 bytes = bytesToWrite();
    return bytes > 0 ? bytes + Margin : 0;
}

bool Staging::hasRoom()
{
    const qint64 bytes = roomNeeded();
    const qint64 available = QStorageInfo(m_folders.build).bytesAvailable();
    if (available < 0 || available >= bytes)
        return true;
    add(Code::NoSpace, m_folders.build,
        QStringLiteral("has not enough room: %1 bytes are needed, %2 are free")
            .arg(QString::number(bytes), QString::number(available)));
    return false;
}

bool Staging::carryOut(const Reports &reports)
{
    const qint64 total = bytesToWrite();
    m_done = 0;
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
    reports.progress(std::min<qint64>(m_done, total), total);
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

/// A file that is replaced keeps its permissions; a new one has those of @p source.
mode_t Staging::permissionsFor(const UpdateWork &work, const QString &source) const
{
    const bool replaces = isRegularFile(installed(work)) && !work.comesLast;
    return permissionsOf(replaces ? installed(work) : source);
}

void Staging::stageAnew(UpdateWork &work)
{
    if (!removeFile(staged(work)))
        return fail(FileError::ofSystem(staged(work), "cannot be removed: "));
    noteMissingFolders(staged(work));
    if (work.rule.kind == UpdateRule::Kind::Copy)
        return stageCopy(work);
    if (m_folders.patch.isEmpty() || work.isTakenWhole) {
        stageFallback(work);
        return;
    }
    if (stagePatched(work) || m_crew->isStopped())
        return;
    if (m_folders.fallback.isEmpty())
        add(Code::DamagedInstall, installed(work),
            QStringLiteral("is not the file that the patch is for"));
    else
        stageFallback(work);
}

/// Remembers the folders that will be made above @p path, so that they can be removed again.
void Staging::noteMissingFolders(const QString &path)
{
    QStringList missing;
    for (QString folder = QFileInfo(path).path(); !exists(folder);
         folder = QFileInfo(folder).path())
        missing.prepend(folder);
    const std::lock_guard lock(m_madeFoldersMutex);
    m_madeFolders += missing;
}

/// False when the installed file is not the one that the delta is for.
bool Staging::stagePatched(UpdateWork &work)
{
    PatchedContent content;
    if (!exists(installed(work)))
        return false;
    if (!content.open(installed(work), payload(work), work.size)) {
        fail(content.error(), codeOf(content.error(), work));
        return false;
    }
    if (!content.fits())
        return false;
    const auto sha512 = write(work, content, content.oldPermissions());
    work.isStaged = sha512 == work.rule.sha512;
    if (sha512 && !work.isStaged) {
        QFile::remove(staged(work));
        m_done -= work.size;
    }
    return work.isStaged;
}

bool Staging::stageFallback(UpdateWork &work)
{
    const QString path = fallback(work);
    InputFile source;
    if (!source.open(path)) {
        m_problems.add(Code::BadFallback, source.error());
        return false;
    }
    const bool sizeFits = source.size() == work.size;
    const auto sha512 = sizeFits ? write(work, source, permissionsFor(work, path)) : std::nullopt;
    work.isStaged = sha512 == work.rule.sha512;
    if (!work.isStaged && !m_crew->isStopped()) {
        QFile::remove(staged(work));
        add(Code::BadFallback, path, QStringLiteral("is not the file that the patch leads to"));
    }
    return work.isStaged;
}

void Staging::stageCopy(UpdateWork &work)
{
    InputFile source;
    if (!source.open(payload(work)))
        return fail(source.error());
    if (source.size() != work.size)
        return fail({source.path(), QStringLiteral("changed while it was read")});
    const auto sha512 = write(work, source, permissionsFor(work, source.path()));
    if (sha512 && work.rule.isSealed && sha512 != work.rule.sha512)
        return fail({source.path(), QStringLiteral("changed since it was checked")});
    work.isStaged = sha512.has_value();
}

/// Writes @p content where the work is staged. Its SHA-512; nothing when the crew was stopped.
std::optional<Sha512> Staging::write(UpdateWork &work, Content &content, mode_t permissions)
{
    OutputFile output;
    FilePass::Targets targets;
    targets.digest = true;
    targets.copy = &output;
    const auto failOutput = [&] {
        fail(output.error());
        return std::nullopt;
    };
    if (!output.open(staged(work)))
        return failOutput();
    FilePass writing(*m_crew, content, targets, m_done);
    if (!pass(writing, content.size()))
        return {};
    output.setPermissions(permissions);
    if (!output.close())
        return failOutput();
    return writing.sha512();
}

bool Staging::pass(FilePass &pass, qint64 size)
{
    const bool done = isLarge(size) ? m_crew->share(pass) : m_crew->doAlone(pass);
    if (done && !pass.error().isEmpty())
        fail(pass.error());
    return done && pass.error().isEmpty();
}

void Staging::remove()
{
    for (UpdateWork &work : m_works) {
        if (!work.staged.isEmpty() && work.isNeeded)
            QFile::remove(staged(work));
        work.isStaged = false;
    }
    for (auto folder = m_madeFolders.crbegin(); folder != m_madeFolders.crend(); ++folder)
        QDir().rmdir(*folder);
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
