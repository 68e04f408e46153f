// SPDX-License-Identifier: MIT
#include "publishrun.h"

#include "buildwalk.h"
#include "canonicalpath.h"
#include "manifest.h"
#include "movesources.h"
#include "releasefolder.h"
#include "rules.h"
#include "signaturefile.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QSet>

#include <algorithm>
#include <set>
#include <tuple>
#include <utility>

namespace Pellox {

namespace {

constexpr double Percent = 100;

} // namespace

PublishRun::PublishRun(
    PublishFolders folders, Settings settings, const std::atomic<bool> &cancelled)
    : m_folders(std::move(folders))
    , m_settings(std::move(settings))
    , m_cancelled(cancelled)
{
}

bool PublishRun::carryOut(const PROGRESS_CALLBACK &progress)
{
    m_progress = progress;
    report();
    if (m_cancelled || !checkFolders() || !readOldFiles() || !findNewFiles() || !checkSignatures())
        return false;

    const Outputs outputs = makeOutputs();
    const GoOn goOn = [this] { return this->goOn(); };
    return forAll(outputs, [&](ReleaseFolder &folder) { return folder.check(goOn); })
        && forAll(outputs, [this](ReleaseFolder &folder) { return begin(folder); }) && workOnFiles()
        && forAll(outputs,
            [this](ReleaseFolder &folder) {
                return folder.prepare(
                    [&](QIODevice &device) { return writeManifest(folder.path(), device); });
            })
        && forAll(outputs, [](ReleaseFolder &folder) { return folder.sync(); })
        && complete(outputs);
}

/// Called in all that may take long on the calling thread; what works on others reports by itself.
bool PublishRun::goOn()
{
    constexpr std::chrono::milliseconds ReportEvery(50);
    if (std::chrono::steady_clock::now() - m_lastReport >= ReportEvery)
        report();
    return !m_cancelled;
}

void PublishRun::report()
{
    if (m_progress) {
        const auto total = static_cast<double>(std::max<qint64>(m_bytes.total, 1));
        const double percent = static_cast<double>(m_bytes.done) / total * Percent;
        m_reported = std::max(m_reported, std::min(Percent, percent));
        m_progress(m_reported);
    }
    m_lastReport = std::chrono::steady_clock::now();
}

PublishRun::Outputs PublishRun::makeOutputs() const
{
    Outputs outputs;
    if (!m_folders.newSignatures.isEmpty())
        outputs.push_back(
            std::make_unique<ReleaseFolder>(m_folders.newSignatures, SIGNATURES_FILE));
    if (!m_folders.patch.isEmpty())
        outputs.push_back(std::make_unique<ReleaseFolder>(m_folders.patch, PATCH_RULES_FILE));
    return outputs;
}

bool PublishRun::begin(ReleaseFolder &folder)
{
    const bool isPatch = folder.path() == m_folders.patch;
    return folder.begin(
        [&](const std::function<void(const QString &)> &take) {
            for (const NewFile &file : m_newFiles) {
                if (!isPatch || !file.isIgnored)
                    take(file.relativePath);
            }
        },
        [this] { return goOn(); });
}

/// Takes @p step with each folder until one fails or the run is cancelled.
bool PublishRun::forAll(const Outputs &folders, const std::function<bool(ReleaseFolder &)> &step)
{
    return std::all_of(folders.cbegin(), folders.cend(), [&](const auto &folder) {
        const bool taken = step(*folder);
        if (!taken)
            m_error = folder->error();
        return taken && goOn();
    });
}

/// Completes all folders or none.
bool PublishRun::complete(const Outputs &folders)
{
    for (const auto &folder : folders) {
        if (folder->commit())
            continue;
        m_error = folder->error();
        for (const auto &one : folders)
            one->revoke();
        return false;
    }
    for (const auto &folder : folders)
        folder->finish();
    return true;
}

bool PublishRun::checkFolders()
{
    for (const QString &input : {m_folders.newBuild, m_folders.oldSignatures, m_folders.oldBuild}) {
        if (!input.isEmpty() && !QFileInfo(input).isDir())
            return fail(input, QStringLiteral("there is no such folder"));
    }
    QStringList folders{m_folders.newBuild, m_folders.oldSignatures, m_folders.oldBuild,
        m_folders.patch, m_folders.newSignatures};
    folders.removeAll(QString());
    for (int i = 0; i < folders.size(); ++i) {
        for (int j = 0; j < i; ++j) {
            if (overlap(folders.at(i), folders.at(j)))
                return fail(folders.at(i),
                    QLatin1String("must not be, hold or lie inside of ") + folders.at(j));
        }
    }
    return true;
}

bool PublishRun::readOldFiles()
{
    if (m_folders.oldSignatures.isEmpty())
        return true;
    FileError error;
    const auto files = readSignedFiles(m_folders.oldSignatures, &error, [this] { return goOn(); });
    if (!files)
        return fail(error);
    m_oldFiles.reserve(files->size());
    for (const SignedFile &file : *files) {
        m_oldByPath.insert(file.relativePath, m_oldFiles.size());
        m_oldFiles.push_back({file, false});
    }
    return true;
}

bool PublishRun::findNewFiles()
{
    const QDir build(m_folders.newBuild);
    QSet<QString> ignored;
    for (const QString &path : m_settings.ignoreFiles)
        ignored.insert(QDir::cleanPath(build.absoluteFilePath(path)));

    FileError error;
    auto found = walkBuild(m_folders.newBuild, &error, [this] { return goOn(); });
    if (!found)
        return fail(error);
    m_newFiles.reserve(found->size());
    for (BuildFile &foundFile : *found) {
        NewFile file;
        file.relativePath = std::move(foundFile.relativePath);
        file.size = foundFile.size;
        file.isIgnored = ignored.contains(m_folders.newBuild + file.relativePath);
        if (!addNewFile(file))
            return false;
    }
    m_oldByPath = {}; // its memory is for the work
    return true;
}

bool PublishRun::addNewFile(NewFile file)
{
    const auto old = m_oldByPath.constFind(file.relativePath);
    if (old != m_oldByPath.constEnd()) {
        file.relativePath = old.key(); // one text for both
        OldFile &oldFile = m_oldFiles[*old];
        file.oldSha512 = oldFile.file.sha512 ? &*oldFile.file.sha512 : nullptr;
        oldFile.isKept = true;
        if (!file.oldSha512 && !file.isIgnored)
            return fail(Manifest::pathIn(m_folders.oldSignatures, SIGNATURES_FILE),
                QLatin1String("holds no checksum of ") + file.relativePath);
    }
    if (isNamedLikeManifest(file))
        return fail(
            m_folders.newBuild + file.relativePath, QStringLiteral("has the name of a manifest"));
    m_newFiles.push_back(file);
    return true;
}

/// Whether @p file would be written where a manifest goes.
bool PublishRun::isNamedLikeManifest(const NewFile &file) const
{
    const auto takes = [&](const QString &folder, const QString &manifest) {
        return !folder.isEmpty() && file.relativePath == QLatin1Char('/') + manifest;
    };
    return takes(m_folders.newSignatures, SIGNATURES_FILE)
        || (!file.isIgnored && takes(m_folders.patch, PATCH_RULES_FILE));
}

/**
 * Whether each old signature that is needed is there, before a folder is emptied for a release that
 * could not be made. Where it depends on the content of a file, that is looked at beforehand.
 */
bool PublishRun::checkSignatures()
{
    if (m_folders.patch.isEmpty())
        return true;
    std::vector<NewFile *> doubtful;
    for (NewFile &file : m_newFiles) {
        if (!goOn())
            return false;
        if (!file.oldSha512 || file.isIgnored)
            continue;
        const QString old = m_folders.oldBuild + file.relativePath;
        if (!m_folders.oldBuild.isEmpty() && !QFileInfo(old).isFile())
            return fail(old, QStringLiteral("is missing from the old build"));
        const QString path = m_folders.oldSignatures + file.relativePath;
        SignatureFile signature;
        if (SignatureFile::looksWhole(path) || signature.open(path))
            continue;
        if (!m_folders.newSignatures.isEmpty())
            return fail(signature.error());
        doubtful.push_back(&file);
    }
    return doubtful.empty() || decideBeforehand(doubtful);
}

/// @p files have no signature, and may have none as long as they have not changed.
bool PublishRun::decideBeforehand(const std::vector<NewFile *> &files)
{
    FileTask::Progress aside;
    PublishFolders inputs;
    inputs.newBuild = m_folders.newBuild;
    inputs.oldSignatures = m_folders.oldSignatures;
    if (!work(inputs, files, aside))
        return false;
    for (NewFile *file : files) {
        SignatureFile signature;
        if (file->rule == NewFile::Rule::Patch
            && !signature.open(m_folders.oldSignatures + file->relativePath))
            return fail(signature.error());
    }
    return true;
}

bool PublishRun::workOnFiles()
{
    std::vector<NewFile *> files;
    files.reserve(m_newFiles.size());
    for (NewFile &file : m_newFiles) {
        files.push_back(&file);
        m_bytes.total += file.size;
    }
    return work(m_folders, files, m_bytes);
}

/// Does for @p files what @p folders ask for.
bool PublishRun::work(
    const PublishFolders &folders, const std::vector<NewFile *> &files, FileTask::Progress &bytes)
{
    std::vector<qint64> sizes(files.size());
    std::transform(files.cbegin(), files.cend(), sizes.begin(),
        [](const NewFile *file) { return file->size; });
    const int threadCount = folders.oldBuild.isEmpty()
        ? m_settings.threadCount
        : m_settings.deltas.threads(m_settings.threadCount);
    Crew crew(threadCount, m_cancelled);
    const bool done = crew.run(
        sizes, FilePass::ChunkSize,
        [&](std::size_t i) {
            FileTask(crew, folders, m_settings.deltas, *files[i], bytes).carryOut();
        },
        [this] { report(); });
    if (done)
        return true;
    return crew.hasFailedItself() ? fail(m_folders.newBuild, crew.error()) : fail(crew.error());
}

bool PublishRun::writeManifest(const QString &folder, QIODevice &device)
{
    ManifestWriter writer(device);
    bool written = true;
    const auto add = [&](const QJsonObject &record) {
        written = written && writer.add(record);
        goOn();
    };
    if (folder == m_folders.patch)
        forEachRule(add);
    else
        forEachSignature(add);
    return written && writer.finish();
}

/// The deletions first, the last of them at the front.
void PublishRun::forEachRule(const std::function<void(const QJsonObject &)> &take) const
{
    std::for_each(m_oldFiles.crbegin(), m_oldFiles.crend(), [&](const OldFile &old) {
        if (!old.isKept) {
            take({
                {Manifest::Rule, DELETE_RULE},
                {Manifest::RelativePath, old.file.relativePath},
            });
        }
    });
    for (const NewFile &file : m_newFiles) {
        if (file.rule == NewFile::Rule::Copy) {
            take({
                {Manifest::Rule, COPY_RULE},
                {Manifest::RelativePath, file.relativePath},
            });
        } else if (file.rule == NewFile::Rule::Patch) {
            take({
                {Manifest::Rule, PATCH_RULE},
                {Manifest::RelativePath, file.relativePath},
                {Manifest::Sha512, file.sha512.toText()},
                {Manifest::FileSize, file.size},
            });
        }
    }
}

QVariantList PublishRun::rulesWithSizes() const
{
    QHash<QString, qint64> sizes;
    for (const NewFile &file : m_newFiles)
        sizes.insert(file.relativePath, file.size);
    QVariantList rules;
    forEachRule([&](QJsonObject rule) {
        if (rule.value(Manifest::Rule) == COPY_RULE)
            rule.insert(
                Manifest::FileSize, sizes.value(rule.value(Manifest::RelativePath).toString()));
        rules.append(rule.toVariantMap());
    });
    return rules;
}

QVector<PublishController::MovedFile> PublishRun::movedFiles() const
{
    if (m_folders.patch.isEmpty() || m_folders.newSignatures.isEmpty())
        return {}; // then it is not known of all files what they hold
    std::vector<const NewFile *> copied;
    std::set<Sha512> contents;
    for (const NewFile &file : m_newFiles) {
        if (file.rule == NewFile::Rule::Copy && file.size > 0) {
            copied.push_back(&file);
            contents.insert(file.sha512);
        }
    }
    if (copied.empty())
        return {};
    MoveSources sources;
    forEachRule([&](const QJsonObject &rule) {
        sources.noteRule(rule.value(Manifest::RelativePath).toString());
    });
    for (const OldFile &old : m_oldFiles) {
        if (old.file.sha512 && contents.count(*old.file.sha512) > 0)
            sources.offer(old.file.relativePath, *old.file.sha512);
    }
    QVector<PublishController::MovedFile> moved;
    for (const NewFile *file : copied) {
        const QString source = sources.sourceOf(file->relativePath, file->sha512);
        if (!source.isEmpty())
            moved.push_back({file->relativePath, source, file->size});
    }
    std::sort(moved.begin(), moved.end(), [](const auto &one, const auto &other) {
        return std::make_tuple(-one.size, one.relativePath)
            < std::make_tuple(-other.size, other.relativePath);
    });
    return moved;
}

void PublishRun::forEachSignature(const std::function<void(const QJsonObject &)> &take) const
{
    for (const NewFile &file : m_newFiles) {
        take({
            {Manifest::RelativePath, file.relativePath},
            {Manifest::Suffix, QFileInfo(file.relativePath).suffix()},
            {Manifest::Sha512, file.sha512.toText()},
        });
    }
}

bool PublishRun::fail(const QString &error)
{
    m_error = error;
    return false;
}

bool PublishRun::fail(const QString &path, const QString &reason)
{
    return fail(aboutFile(path, reason));
}

} // namespace Pellox
