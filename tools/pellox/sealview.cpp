// SPDX-License-Identifier: MIT
#include "sealview.h"

#include "folders.h"
#include "listing.h"
#include "manifests.h"

#include <Pellox/rules.h>
#include <Pellox/SignaturesController>

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <numeric>

const QString SealFile = QStringLiteral("patchSeal.json");

namespace {

QJsonObject objectIn(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

QString textIn(const QJsonObject &object, const char *name)
{
    return object.value(QLatin1String(name)).toString();
}

qint64 numberIn(const QJsonObject &object, const char *name)
{
    return static_cast<qint64>(object.value(QLatin1String(name)).toDouble());
}

} // namespace

std::optional<SealView> SealView::read(const QString &patch)
{
    const QString path = pathIn(patch, SealFile);
    if (!standsThere(path))
        return {};
    constexpr qint64 Largest = 1LL << 28; // as of the library
    const QJsonObject seal = objectIn(jsonTextOf(path, Largest));
    const QJsonObject text = objectIn(textIn(seal, "sealed").toUtf8());
    if (textIn(text, "format") != QLatin1String("pellox-patch-seal")
        || numberIn(text, "version") != 1)
        throw Refusal(path, QStringLiteral("is damaged, or no seal that this program knows"));

    SealView view;
    view.m_patch = patch;
    view.m_release = numberIn(text, "release");
    view.m_keys = static_cast<int>(seal.value(QLatin1String("signatures")).toArray().size());
    for (const QJsonValue value : text.value(QLatin1String("files")).toArray()) {
        const QJsonObject sealed = value.toObject();
        view.m_files.emplace(textIn(sealed, "path"), fileIn(sealed));
    }
    for (const QJsonValue value : text.value(QLatin1String("rules")).toArray()) {
        const QJsonObject rule = value.toObject();
        const QString sealedPath = textIn(rule, "path");
        if (!textIn(rule, "source").isEmpty() && view.m_files.count(sealedPath) != 0)
            view.m_moved.insert(sealedPath);
    }
    view.m_moved.erase(QLatin1Char('/') + Pellox::PATCH_RULES_FILE);
    return view;
}

SealView::File SealView::fileIn(const QJsonObject &object)
{
    return {numberIn(object, "size"), textIn(object, "sha512").toLatin1()};
}

qint64 SealView::size() const
{
    return std::accumulate(m_files.cbegin(), m_files.cend(), qint64(0),
        [](qint64 sum, const auto &file) { return sum + file.second.size; });
}

QStringList SealView::paths() const
{
    QStringList paths;
    for (const auto &file : m_files) {
        if (!isLeftOut(file.first))
            paths.append(file.first);
    }
    return paths;
}

qint64 SealView::sizeOf(const QString &path) const
{
    const auto file = m_files.find(path);
    return file == m_files.cend() ? 0 : file->second.size;
}

qint64 SealView::movedSize() const
{
    return std::accumulate(m_moved.cbegin(), m_moved.cend(), qint64(0),
        [this](qint64 sum, const QString &path) { return sum + sizeOf(path); });
}

int SealView::leftOutFiles() const
{
    return static_cast<int>(std::count_if(
        m_moved.cbegin(), m_moved.cend(), [this](const QString &path) { return isLeftOut(path); }));
}

bool SealView::isLeftOut(const QString &relativePath) const
{
    return m_moved.count(relativePath) != 0 && !isThere(m_patch + relativePath);
}

QString SealView::reasonOf(const QString &relativePath, const File &file) const
{
    const QFileInfo info(m_patch + relativePath);
    if (!info.exists() && !info.isSymLink())
        return QStringLiteral("is missing, and the patch's seal lists it");
    if (!info.isFile() || info.isSymLink())
        return QStringLiteral("is no regular file");
    return info.size() == file.size ? QString()
                                    : QStringLiteral("has another size than it was sealed with");
}

SealView::Differences SealView::differences() const
{
    Differences differences;
    for (const auto &[relativePath, file] : m_files) {
        const QString reason = isLeftOut(relativePath) ? QString() : reasonOf(relativePath, file);
        if (!reason.isEmpty())
            differences.append({m_patch + relativePath, reason});
    }
    std::error_code ignored;
    visitEntries(m_patch, Hidden::LeftOut,
        [&](const std::filesystem::directory_entry &entry, const QString &path) {
            const bool isFolder = entry.is_directory(ignored) && !entry.is_symlink(ignored);
            if (!isFolder && path != pathIn(m_patch, SealFile)
                && m_files.count(path.mid(m_patch.size())) == 0)
                differences.append(
                    {path, QStringLiteral("is no part of the patch that was sealed")});
        });
    std::sort(differences.begin(), differences.end(),
        [](const Difference &one, const Difference &other) { return one.path < other.path; });
    return differences;
}

SealView::Differences SealView::allDifferences(
    const std::function<void(qint64 done)> &progress) const
{
    Differences found = differences();
    qint64 done = 0;
    for (const auto &[relativePath, file] : m_files) {
        const QString path = m_patch + relativePath;
        if (reasonOf(relativePath, file).isEmpty()
            && Pellox::SignaturesController::calculateCheckSum(path, QCryptographicHash::Sha512)
                    .toHex()
                != file.sha512)
            found.append({path, QStringLiteral("is not what was sealed, or cannot be read")});
        progress(done += file.size);
    }
    std::sort(found.begin(), found.end(),
        [](const Difference &one, const Difference &other) { return one.path < other.path; });
    return found;
}
