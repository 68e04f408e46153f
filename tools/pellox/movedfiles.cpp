// SPDX-License-Identifier: MIT
#include "movedfiles.h"

#include "console.h"
#include "manifests.h"

#include <QJsonObject>

#include <numeric>

using MovedFile = Pellox::PublishController::MovedFile;

void tellMovedFiles(Console &console, const QVector<MovedFile> &moved)
{
    constexpr int Most = 10; // that a person reads
    constexpr int SizeWidth = 10;
    const auto sizeFrom = [&](int first) {
        return std::accumulate(moved.cbegin() + first, moved.cend(), qint64(0),
            [](qint64 sum, const MovedFile &file) { return sum + file.size; });
    };
    if (moved.isEmpty())
        return;
    console.result(QStringLiteral("%1 (%2) that the old build has under other names:")
                       .arg(counted(moved.size(), "new file"), byteCount(sizeFrom(0))));
    for (int i = 0; i < moved.size(); ++i) {
        const MovedFile &file = moved.at(i);
        console.event(QStringLiteral("moved"),
            {{QStringLiteral("file"), file.relativePath.mid(1)},
                {QStringLiteral("old_file"), file.oldRelativePath.mid(1)},
                {QStringLiteral("size"), file.size}});
        if (i < Most)
            console.result(QStringLiteral("  %1  %2, as %3")
                               .arg(byteCount(file.size).rightJustified(SizeWidth),
                                   file.relativePath.mid(1), file.oldRelativePath.mid(1)));
    }
    if (moved.size() > Most)
        console.result(QStringLiteral("  and %1 more (%2)")
                           .arg(QString::number(moved.size() - Most), byteCount(sizeFrom(Most))));
}
