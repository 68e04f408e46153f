// SPDX-License-Identifier: MIT
#include "summaries.h"

#include "manifests.h"

#include <Pellox/rules.h>

#include <QFileInfo>

#include <functional>

namespace {

struct Share
{
    qint64 files = 0;
    qint64 bytes = 0;
};

using SizeOf = std::function<qint64(const QJsonValue &rule)>;

Share shareOf(const QString &ruleName, const QJsonArray &rules, const SizeOf &sizeOf)
{
    Share share;
    for (const QJsonValue &rule : rules) {
        if (ruleNameOf(rule) != ruleName)
            continue;
        ++share.files;
        share.bytes += sizeOf(rule);
    }
    return share;
}

QString summary(const QJsonArray &rules, const SizeOf &sizeOf, const QString &ofWhat)
{
    const Share patched = shareOf(Pellox::PATCH_RULE, rules, sizeOf);
    const Share copied = shareOf(Pellox::COPY_RULE, rules, sizeOf);
    const Share deleted = shareOf(Pellox::DELETE_RULE, rules, sizeOf);
    return QStringLiteral("%1 to patch (%2%3), %4 to copy (%5), %6 to delete")
        .arg(fileCount(patched.files), byteCount(patched.bytes), ofWhat, fileCount(copied.files),
            byteCount(copied.bytes), fileCount(deleted.files));
}

} // namespace

QString patchSummary(const QJsonArray &rules, const QString &patch)
{
    const auto sizeOf
        = [&](const QJsonValue &rule) { return QFileInfo(patch + relativePathOf(rule)).size(); };
    return summary(rules, sizeOf, QStringLiteral(" of deltas")) + QLatin1String(": ") + patch;
}

QString planSummary(const QJsonArray &rules)
{
    return summary(rules, fileSizeOf, QString());
}

QString plannedFileLine(const QString &kind, qint64 size, const QString &path)
{
    constexpr int KindWidth = 6;
    constexpr int SizeWidth = 10;
    const QString shownSize = size < 0 ? QString() : byteCount(size);
    return kind.leftJustified(KindWidth) + QLatin1Char(' ') + shownSize.rightJustified(SizeWidth)
        + QLatin1String("  ") + path;
}

QString signedSummary(qint64 files, qint64 bytes, const QString &signatures)
{
    return QStringLiteral("Signed %1 (%2): %3").arg(fileCount(files), byteCount(bytes), signatures);
}
