// SPDX-License-Identifier: MIT
#include "diskroom.h"

#include "folders.h"
#include "manifests.h"

#include <QStorageInfo>

#include <optional>

namespace {

/// "2 GiB are needed, 1 GiB are free" where @p size bytes do not fit.
std::optional<QString> lackOfRoom(qint64 size, const QString &path)
{
    const QStorageInfo disk(existingAncestor(path));
    if (!disk.isValid() || disk.bytesAvailable() >= size)
        return {};
    return QStringLiteral("%1 are needed, %2 are free")
        .arg(byteCount(size), byteCount(disk.bytesAvailable()));
}

} // namespace

void requireRoom(qint64 size, const QString &folder)
{
    if (const auto lack = lackOfRoom(size, folder))
        throw Refusal(folder, QStringLiteral("has no room: ") + *lack);
}

QString reasonNotWritten(qint64 size, const QString &path)
{
    if (const auto lack = lackOfRoom(size, path))
        return QStringLiteral("cannot be written, the disk is full: ") + *lack;
    return QStringLiteral("cannot be written (is the disk full or write-protected?)");
}
