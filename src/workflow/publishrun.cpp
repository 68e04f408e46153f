// SPDX-License-Identifier: MIT
#include "publishrun.h"

#include "filewalk.h"
#include "manifest.h"
#include "releasefolder.h"
#include "rules.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <algorithm>
#include <limits>
#include <numeric>

namespace Pellox {

namespace {

constexpr double Percent = 100;

/// @p path with links followed as far as it exists.
QString canonical(const QString &path)
{
    const QFileInfo info(path);
    if (info.exists())
        return info.canonicalFilePath();
    const QString parent = info.path();
    return parent == path
        ? path
        : QDir(canonical(parent)).filePath(info.fileName()); // "/" needs no second separator
}

bool overlap(const QString &folder, const QString &other)
{
    const auto withSeparator = [](const QString &path) {
        return path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
    };
    const QString first = withSeparator(canonical(folder));
    const QString second = withSeparator(canonical(other));
    return first.startsWith(second) || second.startsWith(first);
}

/// A folder under @p build that cannot be listed, so that the walk would leave it out; or nothing.
QString unlistableFolder(const QString &build)
{
    const auto isListable
        = [](const QFileInfo &info) { return info.isReadable() && info.isExecutable(); };
    if (!isListable(QFileInfo(build)))
        return build;
    QDirIterator walk(
        build, QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        walk.next();
        if (!isListable(walk.fileInfo()))
            return walk.filePath();
    }
    return {};
}

bool isSha512(const QByteArray &text)
{
    constexpr int Digits = 128;
    return text.size() == Digits && std::all_of(text.cbegin(), text.cend(), [](char digit) {
        return (digit >= '0' && digit <= '9') || (digit >= 'a' && digit <= 'f');
    });
}

/// Whether @p path, from a manifest, names a file below a folder that it is appended to.
bool isRelativePath(const QString &path)
{
    return path.startsWith(QLatin1Char('/')) && path.size() > 1 && QDir::cleanPath(path) == path
        && !path.startsWith(QLatin1String("/.."));
}

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
        && forAll(
            outputs, [this](ReleaseFolder &folder) { return folder.prepare(manifestOf(folder)); })
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
    const QString unlistable = unlistableFolder(m_folders.newBuild);
    return unlistable.isEmpty() || fail(unlistable, QStringLiteral("cannot be listed"));
}

bool PublishRun::readOldFiles()
{
    if (m_folders.oldSignatures.isEmpty())
        return true;
    const QString path = Manifest::pathIn(m_folders.oldSignatures, SIGNATURES_FILE);
    InputFile file;
    if (!file.open(path))
        return fail(file.error());
    if (file.size() > std::numeric_limits<int>::max())
        return fail(path, QStringLiteral("is no manifest"));
    QByteArray json(static_cast<int>(file.size()), Qt::Uninitialized);
    if (!file.readAt(0, reinterpret_cast<uchar *>(json.data()), json.size()))
        return fail(file.error());
    const QJsonDocument document = QJsonDocument::fromJson(json);
    if (!document.isArray())
        return fail(path, QStringLiteral("is no manifest"));

    const QJsonArray records = document.array();
    for (int i = 0; i < records.size(); ++i) {
        const QJsonObject record = records.at(i).toObject();
        const OldFile old{record.value(Manifest::RelativePath).toString(),
            record.value(Manifest::Sha512).toString().toLatin1()};
        const auto failRecord = [&](const QString &reason) {
            return fail(path, QStringLiteral("record %1 %2").arg(i + 1).arg(reason));
        };
        if (!isRelativePath(old.relativePath))
            return failRecord(QStringLiteral("names no path that begins with a separator"));
        if (m_oldByPath.contains(old.relativePath))
            return failRecord(QLatin1String("repeats ") + old.relativePath);
        m_oldByPath.insert(old.relativePath, m_oldFiles.size());
        m_oldFiles.push_back(old);
    }
    return true;
}

bool PublishRun::findNewFiles()
{
    const QDir build(m_folders.newBuild);
    QSet<QString> ignored;
    for (const QString &path : m_ignoreFiles)
        ignored.insert(QDir::cleanPath(build.absoluteFilePath(path)));

    for (const QFileInfo &info : fileInfosUnder(m_folders.newBuild)) {
        const QString path = info.filePath();
        NewFile file;
        file.relativePath = path.mid(m_folders.newBuild.size());
        file.size = info.size();
        file.isIgnored = ignored.contains(path);
        const auto old = m_oldByPath.constFind(file.relativePath);
        if (old != m_oldByPath.constEnd()) {
            file.isKnown = true;
            file.oldSha512 = m_oldFiles[*old].sha512;
            m_oldFiles[*old].isKept = true;
            if (!isSha512(file.oldSha512))
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

QByteArray PublishRun::manifestOf(const ReleaseFolder &folder) const
{
    return Manifest::toJson(folder.path() == m_folders.patch ? rules(false) : signatureRecords());
}

QVariantList PublishRun::rules(bool copySizes) const
{
    QVariantList rules;
    // The deletions come first, the last of them at the front.
    std::for_each(m_oldFiles.crbegin(), m_oldFiles.crend(), [&](const OldFile &old) {
        if (!old.isKept) {
            rules.append(QVariantMap{
                {Manifest::Rule, DELETE_RULE},
                {Manifest::RelativePath, old.relativePath},
            });
        }
    });
    for (const NewFile &file : m_newFiles) {
        if (file.rule == NewFile::Rule::None)
            continue;
        const bool isPatch = file.rule == NewFile::Rule::Patch;
        QVariantMap rule{
            {Manifest::Rule, isPatch ? PATCH_RULE : COPY_RULE},
            {Manifest::RelativePath, file.relativePath},
        };
        if (isPatch)
            rule.insert(Manifest::Sha512, QString::fromLatin1(file.sha512));
        if (isPatch || copySizes)
            rule.insert(Manifest::FileSize, file.size);
        rules.append(rule);
    }
    return rules;
}

QVariantList PublishRun::signatureRecords() const
{
    QVariantList records;
    for (const NewFile &file : m_newFiles) {
        records.append(QVariantMap{
            {Manifest::RelativePath, file.relativePath},
            {Manifest::Suffix, QFileInfo(file.relativePath).suffix()},
            {Manifest::Sha512, QString::fromLatin1(file.sha512)},
        });
    }
    return records;
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
