// SPDX-License-Identifier: MIT
#include "workpass.h"

#include "filesystem.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

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

} // namespace

const QString NotTheOldFile = QStringLiteral("is not the file that the patch is for");

WorkPass::WorkPass(UpdateFolders folders, std::vector<UpdateWork> &works, int threadCount,
    const std::atomic<bool> &cancelled, Problems &problems)
    : m_folders(std::move(folders))
    , m_works(works)
    , m_threadCount(threadCount)
    , m_cancelled(cancelled)
    , m_problems(problems)
{
}

bool WorkPass::runCrew(
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

void WorkPass::add(Code code, const QString &path, const QString &reason)
{
    m_problems.add(code, path, reason);
}

void WorkPass::fail(const FileError &error, Code code)
{
    m_problems.add(code, error);
    m_crew->fail(error);
}

bool WorkPass::pass(FilePass &pass, qint64 size, FileError *error)
{
    const bool done = isLarge(size) ? m_crew->share(pass) : m_crew->doAlone(pass);
    if (done)
        *error = pass.error();
    return done && pass.error().isEmpty();
}

std::optional<Sha512> WorkPass::sha512Of(
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

std::optional<struct stat> WorkPass::statusOfInstalled(const UpdateWork &work)
{
    FileError error;
    const auto status = statusOf(installed(work), &error);
    if (!error.isEmpty())
        fail(error);
    return status;
}

bool WorkPass::isUnreadableInstalled(const FileError &error, UpdateWork &work) const
{
    if (error.path != installed(work) || !tellsUnreadable(error))
        return false;
    work.isUnreadable = true;
    return true;
}

WorkPass::Code WorkPass::codeOf(const FileError &error, const UpdateWork &work) const
{
    return error.path == payload(work) && error.system == 0 ? Code::BadPatch : Code::ReadOrWrite;
}

QString whyNotMade(const UpdateWork &work, const FileError &error)
{
    const bool isMissing = error.system == ENOENT;
    const QString why = isMissing ? QStringLiteral("is missing")
        : error.isEmpty()         ? NotTheOldFile
                                  : error.reason;
    return QStringLiteral("%1, and %2 is made of it").arg(why, work.rule.relativePath.mid(1));
}

bool tellsNoContent(const FileError &error, const QString &path)
{
    constexpr std::array Errors{0, ENOENT, ENOTDIR, ELOOP, ENAMETOOLONG};
    const bool isNone = std::find(Errors.cbegin(), Errors.cend(), error.system) != Errors.cend();
    return error.path == path && (isNone || tellsUnreadable(error));
}

} // namespace Pellox
