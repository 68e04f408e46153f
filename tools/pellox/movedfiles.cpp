// SPDX-License-Identifier: MIT
#include "movedfiles.h"

#include "console.h"
#include "manifests.h"

#include <Pellox/rules.h>

#include <QFileInfo>
#include <QHash>
#include <QJsonObject>
#include <QSet>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <tuple>
#include <vector>

namespace {

struct MovedFile
{
    QString path; ///< relative, as all here
    QString oldPath;
    qint64 size = 0;
};

QString sha512Of(const QJsonValue &record)
{
    return record.toObject().value(QLatin1String("sha512")).toString();
}

/// What the rules say of the two builds.
struct RuledFiles
{
    QSet<QString> touched;
    QHash<QString, qint64> copied; ///< with their sizes, those that are not empty
};

RuledFiles ruledFiles(const QJsonArray &rules, const QString &patch)
{
    RuledFiles files;
    for (const QJsonValue &rule : rules) {
        const QString path = relativePathOf(rule);
        files.touched.insert(path);
        const bool isCopied = ruleNameOf(rule) == Pellox::COPY_RULE;
        const qint64 size = isCopied ? QFileInfo(patch + path).size() : 0;
        if (size > 0)
            files.copied.insert(path, size);
    }
    return files;
}

/// Files of the new build by their SHA-512, without names of the old one.
using NewFiles = QMultiHash<QString, MovedFile>;

NewFiles newFilesBySha512(const QJsonArray &newFiles, const RuledFiles &ruled)
{
    NewFiles files;
    for (const QJsonValue &record : newFiles) {
        const QString path = relativePathOf(record);
        const auto size = ruled.copied.constFind(path);
        if (size != ruled.copied.constEnd())
            files.insert(sha512Of(record), {path, QString(), *size});
    }
    return files;
}

/// Of several old files it is the one that a seal names as a source: one that no rule touches, and
/// of these the first in the order of bytes.
void addOldPaths(const QJsonArray &oldFiles, const RuledFiles &ruled, NewFiles *files)
{
    const auto rank = [&](const QString &path) {
        return std::make_tuple(ruled.touched.contains(path), path.toUtf8());
    };
    QHash<QString, QString> oldPaths; // by SHA-512
    for (const QJsonValue &record : oldFiles) {
        const QString path = relativePathOf(record);
        const QString sha512 = sha512Of(record);
        if (!files->contains(sha512))
            continue;
        QString &known = oldPaths[sha512];
        if (known.isEmpty() || rank(path) < rank(known))
            known = path;
    }
    for (auto file = files->begin(); file != files->end(); ++file)
        file->oldPath = oldPaths.value(file.key());
}

/// Those that the old build has, the largest first.
std::vector<MovedFile> sorted(const NewFiles &files)
{
    std::vector<MovedFile> moved;
    std::copy_if(files.cbegin(), files.cend(), std::back_inserter(moved),
        [](const MovedFile &file) { return !file.oldPath.isEmpty(); });
    std::sort(moved.begin(), moved.end(), [](const MovedFile &one, const MovedFile &other) {
        return one.size != other.size ? one.size > other.size : one.path < other.path;
    });
    return moved;
}

void tell(Console &console, const std::vector<MovedFile> &moved)
{
    constexpr std::size_t Most = 10; // that a person reads
    constexpr int SizeWidth = 10;
    const auto sizeFrom = [&](std::size_t first) {
        return std::accumulate(moved.cbegin() + static_cast<std::ptrdiff_t>(first), moved.cend(),
            qint64(0), [](qint64 sum, const MovedFile &file) { return sum + file.size; });
    };
    console.result(
        QStringLiteral("%1 (%2) that the old build has under other names:")
            .arg(counted(static_cast<qint64>(moved.size()), "new file"), byteCount(sizeFrom(0))));
    for (std::size_t i = 0; i < moved.size(); ++i) {
        const MovedFile &file = moved[i];
        console.event(QStringLiteral("moved"),
            {{QStringLiteral("file"), file.path.mid(1)},
                {QStringLiteral("old_file"), file.oldPath.mid(1)},
                {QStringLiteral("size"), file.size}});
        if (i < Most)
            console.result(QStringLiteral("  %1  %2, as %3")
                               .arg(byteCount(file.size).rightJustified(SizeWidth),
                                   file.path.mid(1), file.oldPath.mid(1)));
    }
    if (moved.size() > Most)
        console.result(QStringLiteral("  and %1 more (%2)")
                           .arg(QString::number(moved.size() - Most), byteCount(sizeFrom(Most))));
}

} // namespace

bool tellMovedFiles(Console &console, const QJsonArray &rules, const QString &patch,
    const QString &oldSignatures, const QString &newSignatures)
{
    const RuledFiles ruled = ruledFiles(rules, patch);
    if (ruled.copied.isEmpty())
        return true;
    // One after the other, as both may be large.
    auto manifest = readWrittenManifest(console, newSignatures, Pellox::SIGNATURES_FILE);
    if (!manifest)
        return false;
    NewFiles files = newFilesBySha512(*manifest, ruled);
    manifest = readWrittenManifest(console, oldSignatures, Pellox::SIGNATURES_FILE);
    if (!manifest)
        return false;
    addOldPaths(*manifest, ruled, &files);
    const std::vector<MovedFile> moved = sorted(files);
    if (!moved.empty())
        tell(console, moved);
    return true;
}
