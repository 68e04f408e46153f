// SPDX-License-Identifier: MIT
#include "sealview.h"

#include "folders.h"
#include "listing.h"

#include <Pellox/SignaturesController>

#include <QFile>
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

qint64 numberIn(const QJsonObject &object, const char *name)
{
    return static_cast<qint64>(object.value(QLatin1String(name)).toDouble());
}

} // namespace

std::optional<SealView> SealView::read(const QString &patch)
{
    const QString path = pathIn(patch, SealFile);
    if (!isThere(path))
        return {};
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly))
        throw Refusal(path, QStringLiteral("cannot be read"));
    const QJsonObject seal = objectIn(file.readAll());
    const QJsonObject text = objectIn(seal.value(QLatin1String("sealed")).toString().toUtf8());
    if (text.value(QLatin1String("format")).toString() != QLatin1String("pellox-patch-seal")
        || numberIn(text, "version") != 1)
        throw Refusal(path, QStringLiteral("is damaged, or no seal that this program knows"));

    SealView view;
    view.m_patch = patch;
    view.m_release = numberIn(text, "release");
    view.m_keys = seal.value(QLatin1String("signatures")).toArray().size();
    for (const QJsonValue &value : text.value(QLatin1String("files")).toArray()) {
        const QJsonObject sealed = value.toObject();
        view.m_files.emplace(sealed.value(QLatin1String("path")).toString(),
            File{numberIn(sealed, "size"),
                sealed.value(QLatin1String("sha512")).toString().toLatin1()});
    }
    return view;
}

qint64 SealView::size() const
{
    return std::accumulate(m_files.cbegin(), m_files.cend(), qint64(0),
        [](qint64 sum, const auto &file) { return sum + file.second.size; });
}

QStringList SealView::paths() const
{
    QStringList paths;
    for (const auto &file : m_files)
        paths.append(file.first);
    return paths;
}

QString SealView::reasonOf(const QString &path, const File &file) const
{
    const QFileInfo info(path);
    if (!info.exists())
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
        const QString path = m_patch + relativePath;
        const QString reason = reasonOf(path, file);
        if (!reason.isEmpty())
            differences.append({path, reason});
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
        if (reasonOf(path, file).isEmpty()
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
