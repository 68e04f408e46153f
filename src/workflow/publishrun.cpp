// SPDX-License-Identifier: MIT
#include "publishrun.h"

#include "buildwalk.h"
#include "canonicalpath.h"
#include "manifest.h"
#include "releasefolder.h"
#include "rules.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

#include <algorithm>
#include <numeric>

namespace Pellox {

namespace {

constexpr double Percent = 100;

} // namespace

PublishRun::PublishRun(const PublishFolders &folders, const QStringList &ignoreFiles,
    int threadCount, const std::atomic<bool> &cancelled)
    : m_folders(folders)
    , m_ignoreFiles(ignoreFiles)
    , m_threadCount(threadCount)
    , m_cancelled(cancelled)
{
}

bool PublishRun::carryOut(const PROGRESS_CALLBACK &progress)
{
    if (!checkFolders() || !readOldFiles() || !findNewFiles())
        return false;

    std::vector<std::unique_ptr<ReleaseFolder>> outputs;
    if (!m_folders.newSignatures.isEmpty())
        outputs.push_back(
            std::make_unique<ReleaseFolder>(m_folders.newSignatures, SIGNATURES_FILE));
    if (!m_folders.patch.isEmpty())
        outputs.push_back(std::make_unique<ReleaseFolder>(m_folders.patch, PATCH_RULES_FILE));
    return forAll(outputs, [](ReleaseFolder &folder) { return folder.check(); })
        && forAll(outputs, [](ReleaseFolder &folder) { return folder.begin(); })
        && workOnFiles(progress)
        && forAll(outputs,
            [this](ReleaseFolder &folder) {
                return folder.prepare(
                    [&](QIODevice &device) { return writeManifest(folder.path(), device); });
            })
        && complete(outputs);
}

/// Takes @p step with each folder until one fails.
bool PublishRun::forAll(const Outputs &folders, const std::function<bool(ReleaseFolder &)> &step)
{
    return std::all_of(folders.cbegin(), folders.cend(), [&](const auto &folder) {
        if (!step(*folder))
            m_error = folder->error();
        return m_error.isEmpty();
    });
}

/// Completes all folders or none.
bool PublishRun::complete(const Outputs &folders)
{
    for (auto folder = folders.cbegin(); folder != folders.cend(); ++folder) {
        if ((*folder)->complete())
            continue;
        m_error = (*folder)->error();
        std::for_each(folders.cbegin(), folder, [](const auto &earlier) { earlier->revoke(); });
        return false;
    }
    return true;
}

bool PublishRun::checkFolders()
{
    for (const QString &input : {m_folders.newBuild, m_folders.oldSignatures}) {
        if (!input.isEmpty() && !QFileInfo(input).isDir())
            return fail(input, QStringLiteral("there is no such folder"));
    }
    QStringList folders{
        m_folders.newBuild, m_folders.oldSignatures, m_folders.patch, m_folders.newSignatures};
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
    QString error;
    const auto files = readSignedFiles(m_folders.oldSignatures, &error);
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
    for (const QString &path : m_ignoreFiles)
        ignored.insert(QDir::cleanPath(build.absoluteFilePath(path)));

    QString error;
    const auto found = walkBuild(m_folders.newBuild, &error);
    if (!found)
        return fail(error);
    m_newFiles.reserve(found->size());
    for (const BuildFile &foundFile : *found) {
        const QString path = m_folders.newBuild + foundFile.relativePath;
        NewFile file;
        file.relativePath = foundFile.relativePath;
        file.size = foundFile.size;
        file.isIgnored = ignored.contains(path);
        const auto old = m_oldByPath.constFind(file.relativePath);
        if (old != m_oldByPath.constEnd()) {
            file.relativePath = old.key(); // one text for both
            file.oldSha512 = m_oldFiles[*old].file.sha512;
            m_oldFiles[*old].isKept = true;
            if (!file.oldSha512)
                return fail(Manifest::pathIn(m_folders.oldSignatures, SIGNATURES_FILE),
                    QLatin1String("holds no checksum of ") + file.relativePath);
        }
        if (isNamedLikeManifest(file))
            return fail(path, QStringLiteral("has the name of a manifest"));
        m_newFiles.push_back(file);
    }
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

bool PublishRun::workOnFiles(const PROGRESS_CALLBACK &progress)
{
    // Large files first, the largest at the front: the end of the last one is what all wait for.
    std::vector<std::size_t> order(m_newFiles.size());
    std::iota(order.begin(), order.end(), 0);
    const auto smallOnes = std::stable_partition(order.begin(), order.end(),
        [this](std::size_t i) { return FileTask::isLarge(m_newFiles[i].size); });
    std::stable_sort(order.begin(), smallOnes,
        [this](std::size_t i, std::size_t j) { return m_newFiles[i].size > m_newFiles[j].size; });

    FileTask::Progress bytes;
    for (const NewFile &file : m_newFiles)
        bytes.total += file.size;
    double reported = 0;
    const auto report = [&] {
        if (!progress)
            return;
        const auto total = static_cast<double>(std::max<qint64>(bytes.total, 1));
        const double percent = std::min(Percent, static_cast<double>(bytes.done) / total * Percent);
        reported = std::max(reported, percent);
        progress(reported);
    };

    Crew crew(m_threadCount, m_cancelled);
    const auto task
        = [&](std::size_t i) { FileTask(crew, m_folders, m_newFiles[order[i]], bytes).carryOut(); };
    report();
    const bool done
        = crew.run(order.size(), static_cast<std::size_t>(smallOnes - order.begin()), task, report);
    if (!done)
        return fail(crew.error());
    return true;
}

bool PublishRun::writeManifest(const QString &folder, QIODevice &device) const
{
    ManifestWriter writer(device);
    bool written = true;
    const auto add = [&](const QVariantMap &record) { written = written && writer.add(record); };
    if (folder == m_folders.patch)
        forEachRule(add);
    else
        forEachSignature(add);
    return written && writer.finish();
}

/// The deletions first, the last of them at the front.
void PublishRun::forEachRule(const std::function<void(const QVariantMap &)> &take) const
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
    forEachRule([&](QVariantMap rule) {
        if (rule.value(Manifest::Rule) == COPY_RULE)
            rule.insert(
                Manifest::FileSize, sizes.value(rule.value(Manifest::RelativePath).toString()));
        rules.append(rule);
    });
    return rules;
}

void PublishRun::forEachSignature(const std::function<void(const QVariantMap &)> &take) const
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
