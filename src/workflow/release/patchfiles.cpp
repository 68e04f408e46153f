// SPDX-License-Identifier: MIT
#include "patchfiles.h"

#include "filepass.h"
#include "filesystem.h"
#include "folderlisting.h"
#include "manifest.h"
#include "workfolder.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <numeric>

namespace Pellox {

namespace {

/// Whether @p relativePath or a folder above it is hidden.
bool isHiddenPath(const QString &relativePath)
{
    return relativePath.contains(QLatin1String("/."));
}

/// The file of @p patch at @p entry, which is no folder; nothing when it has disappeared, and with
/// @p error.
std::optional<PatchFile> fileFor(
    const QString &patch, const FolderListing::Entry &entry, FileError *error)
{
    const QString path = QFile::decodeName(entry.path);
    const auto status = statusOf(path, error);
    if (!status)
        return {};
    PatchFile file;
    file.relativePath = path.mid(patch.size());
    file.isRegular = S_ISREG(status->st_mode);
    file.isHidden = isHiddenPath(file.relativePath);
    if (file.isRegular)
        file.size = status->st_size;
    return file;
}

/// Appends the files in @p folder of @p patch to @p files, and the folders to @p folders.
bool listFolder(const QString &patch, const QByteArray &folder, std::vector<PatchFile> *files,
    std::vector<QByteArray> *folders, FileError *error)
{
    FolderListing listing(folder);
    while (const auto entry = listing.next()) {
        const QString path = QFile::decodeName(entry->path);
        if (QFile::encodeName(path) != entry->path) {
            *error = {path, QStringLiteral("has a name that the locale's encoding cannot tell")};
            return false;
        }
        if (entry->kind == FolderListing::Kind::Folder)
            folders->push_back(entry->path);
        else if (auto file = fileFor(patch, *entry, error))
            files->push_back(std::move(*file));
        if (!error->isEmpty())
            return false;
    }
    *error = listing.error();
    return error->isEmpty();
}

/// Hashes files, each by one task of a crew.
class Hashing
{
public:
    Hashing(QString patch, const std::vector<PatchFile> &files, const HashSettings &settings);

    bool carryOut(FileError *error);
    std::vector<HashedFile> takeOutcome() { return std::move(m_outcome); }

private:
    void hash(std::size_t file);
    void keepError(HashedFile &outcome, const FileError &error);

    const QString m_patch;
    const std::vector<PatchFile> &m_files;
    const HashSettings &m_settings;
    Crew m_crew;
    std::atomic<qint64> m_done{0};
    std::vector<HashedFile> m_outcome;
    std::mutex m_firstErrorMutex;
    FileError m_firstError; ///< that has stopped the crew
};

Hashing::Hashing(QString patch, const std::vector<PatchFile> &files, const HashSettings &settings)
    : m_patch(std::move(patch))
    , m_files(files)
    , m_settings(settings)
    , m_crew(settings.threadCount, settings.cancelled)
    , m_outcome(files.size())
{
}

bool Hashing::carryOut(FileError *error)
{
    std::vector<qint64> sizes(m_files.size());
    std::transform(m_files.cbegin(), m_files.cend(), sizes.begin(),
        [](const PatchFile &file) { return file.size; });
    const qint64 total = std::accumulate(sizes.cbegin(), sizes.cend(), qint64(0));
    const auto report = [&] {
        if (m_settings.progress)
            m_settings.progress(std::min<qint64>(m_done, total), total);
    };
    report();
    const bool done = m_crew.run(
        sizes, FilePass::ChunkSize, [&](std::size_t i) { hash(i); }, report);
    if (!done)
        *error = m_firstError.isEmpty() ? FileError{m_patch, m_crew.error(), ENOMEM} : m_firstError;
    return done;
}

void Hashing::hash(std::size_t file)
{
    HashedFile &outcome = m_outcome[file];
    InputFile input;
    if (!input.open(m_patch + m_files[file].relativePath)) {
        keepError(outcome, input.error());
        return;
    }
    FilePass::Targets targets;
    targets.digest = true;
    FilePass reading(m_crew, input, targets, m_done);
    const bool isLarge = m_files[file].size > FilePass::ChunkSize;
    const bool isDone = isLarge ? m_crew.share(reading) : m_crew.doAlone(reading);
    if (!isDone)
        return; // the crew was stopped
    if (!reading.error().isEmpty())
        keepError(outcome, reading.error());
    else
        outcome.content = {input.size(), reading.sha512()};
}

void Hashing::keepError(HashedFile &outcome, const FileError &error)
{
    outcome.error = error;
    if (!m_settings.stopsAtError)
        return;
    m_crew.fail(error);
    const std::lock_guard lock(m_firstErrorMutex);
    if (m_firstError.isEmpty())
        m_firstError = error;
}

/// Whether @p file, which the seal does not name, is none of the patch's business.
bool isPassedOver(const PatchFile &file)
{
    return file.relativePath == Manifest::pathIn(QString(), SealFileName)
        || (file.isHidden && !WorkFolder::isInside(file.relativePath));
}

/// Why @p file cannot have the content that the seal says; empty when it may.
QString problemOf(const PatchFile &file, const SealedFile &expected)
{
    if (!file.isRegular)
        return QStringLiteral("is no regular file");
    if (file.size != expected.size)
        return QStringLiteral("has another size than it was sealed with");
    return {};
}

/// Those of @p found that the seal names and that may have its content; @p errors get all others.
std::vector<PatchFile> filesToCompare(const SealedPatch &sealed, const QString &patch,
    const std::vector<PatchFile> &found, std::vector<FileError> *errors)
{
    std::vector<PatchFile> files;
    for (const PatchFile &file : found) {
        const auto expected = sealed.files.find(file.relativePath);
        const bool isKnown = expected != sealed.files.cend();
        if (!isKnown && isPassedOver(file))
            continue;
        const QString problem = isKnown ? problemOf(file, expected->second)
                                        : QStringLiteral("is no part of the patch");
        if (problem.isEmpty())
            files.push_back(file);
        else
            errors->push_back({patch + file.relativePath, problem});
    }
    return files;
}

/// Both are sorted by path.
void addMissing(const SealedPatch &sealed, const QString &patch,
    const std::vector<PatchFile> &found, std::vector<FileError> *errors)
{
    auto file = found.cbegin();
    for (const auto &[path, content] : sealed.files) {
        while (file != found.cend() && InByteOrder()(file->relativePath, path))
            ++file;
        const bool isThere = file != found.cend() && file->relativePath == path;
        if (!isThere && !mayBeLeftOut(sealed, path))
            errors->push_back({patch + path, QStringLiteral("is missing")});
    }
}

} // namespace

std::optional<std::vector<PatchFile>> walkPatch(const QString &patch, FileError *error)
{
    std::vector<PatchFile> files;
    std::vector<QByteArray> folders{QFile::encodeName(patch)};
    while (!folders.empty()) {
        const QByteArray folder = std::move(folders.back());
        folders.pop_back();
        if (!listFolder(patch, folder, &files, &folders, error))
            return {};
    }
    std::sort(files.begin(), files.end(), [](const PatchFile &one, const PatchFile &other) {
        return InByteOrder()(one.relativePath, other.relativePath);
    });
    return files;
}

std::optional<std::vector<HashedFile>> hashFiles(const QString &patch,
    const std::vector<PatchFile> &files, const HashSettings &settings, FileError *error)
{
    Hashing hashing(patch, files, settings);
    if (!hashing.carryOut(error))
        return {};
    return hashing.takeOutcome();
}

std::vector<FileError> differences(
    const SealedPatch &sealed, const QString &patch, const HashSettings &settings)
{
    FileError error;
    const auto found = walkPatch(patch, &error);
    if (!found)
        return {error};
    std::vector<FileError> errors;
    const std::vector<PatchFile> files = filesToCompare(sealed, patch, *found, &errors);
    addMissing(sealed, patch, *found, &errors);
    const auto hashed = hashFiles(patch, files, settings, &error);
    for (std::size_t i = 0; hashed && i < files.size(); ++i) {
        const SealedFile &expected = sealed.files.at(files[i].relativePath);
        const SealedFile &content = hashed->at(i).content;
        if (!hashed->at(i).error.isEmpty())
            errors.push_back(hashed->at(i).error);
        else if (content.size != expected.size || content.sha512 != expected.sha512)
            errors.push_back(
                {patch + files[i].relativePath, QStringLiteral("is not what was sealed")});
    }
    std::sort(errors.begin(), errors.end(),
        [](const FileError &one, const FileError &other) { return one.path < other.path; });
    if (!hashed)
        errors.push_back(error.isEmpty()
                ? FileError{patch, QStringLiteral("was not compared to its end")}
                : error);
    return errors;
}

} // namespace Pellox
