// SPDX-License-Identifier: MIT
#include "movedfiles.h"

#include "console.h"
#include "manifests.h"
#include "patchsums.h"

#include <Pellox/rules.h>

#include <QJsonObject>

#include <algorithm>

using Pellox::InspectedFile;

namespace {

constexpr int Most = 10; // that a person reads

QString lineOf(const InspectedFile &file)
{
    constexpr int SizeWidth = 10;
    const QString old = shownPath(file.oldPath);
    return QStringLiteral("  %1  %2, %3")
        .arg(byteCount(file.patchBytes).rightJustified(SizeWidth), shownPath(file.relativePath),
            file.isMoved ? QLatin1String("as ") + old
                         : QStringLiteral("%1, most of it in %2").arg(oldShareOf(file), old));
}

void tellEvent(Console &console, const InspectedFile &file)
{
    console.event(QStringLiteral("moved"),
        {{QStringLiteral("file"), shownPath(file.relativePath)},
            {QStringLiteral("old_file"), shownPath(file.oldPath)},
            {QStringLiteral("size"), file.newSize}, {QStringLiteral("old_bytes"), file.oldBytes},
            {QStringLiteral("moved"), file.isMoved},
            {QStringLiteral("estimated"), file.isOldEstimated}});
}

} // namespace

QVector<InspectedFile> inspected(const QVector<Pellox::PublishController::MovedFile> &moved)
{
    QVector<InspectedFile> files;
    for (const auto &file : moved) {
        InspectedFile known;
        known.rule = Pellox::COPY_RULE;
        known.relativePath = file.relativePath;
        known.newSize = known.patchBytes = known.literalBytes = known.oldBytes = file.size;
        known.oldPath = file.oldRelativePath;
        known.isMoved = true;
        files.append(known);
    }
    return files;
}

void tellMovedFiles(Console &console, const QVector<InspectedFile> &moved)
{
    if (moved.isEmpty())
        return;
    const bool allWhole = std::all_of(
        moved.cbegin(), moved.cend(), [](const InspectedFile &file) { return file.isMoved; });
    console.result(QStringLiteral("%1 (%2) that the old build has%3 under other names:")
                       .arg(counted(moved.size(), "new file"), byteCount(sumsOf(moved).patchBytes),
                           allWhole ? QString() : QStringLiteral(", or at least half of which,")));
    for (int i = 0; i < moved.size(); ++i) {
        tellEvent(console, moved.at(i));
        if (i < Most)
            console.result(lineOf(moved.at(i)));
    }
    if (moved.size() > Most)
        console.result(QStringLiteral("  and %1 more (%2)")
                           .arg(QString::number(moved.size() - Most),
                               byteCount(sumsOf(moved.mid(Most)).patchBytes)));
}
