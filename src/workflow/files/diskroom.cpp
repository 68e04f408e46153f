// SPDX-License-Identifier: MIT
#include "diskroom.h"

#include <QFile>

#include <algorithm>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

namespace Pellox {

namespace {

constexpr qint64 Most = std::numeric_limits<qint64>::max();

qint64 saturatedProduct(quint64 count, qint64 size)
{
    return count > static_cast<quint64>(Most / size) ? Most : static_cast<qint64>(count) * size;
}

#ifdef STATX_MNT_ID

constexpr unsigned MountMask = STATX_MNT_ID;

quint64 mountOf(const struct statx &status)
{
    return status.stx_mask & STATX_MNT_ID ? status.stx_mnt_id : 0;
}

#else

constexpr unsigned MountMask = 0;

quint64 mountOf(const struct statx &)
{
    return 0;
}

#endif

/// Of the folder that @p path leads to.
std::optional<struct statx> statusOfFolder(const QString &path)
{
    struct statx status = {};
    const QByteArray name = QFile::encodeName(path) + "/.";
    if (::statx(AT_FDCWD, name.constData(), 0, MountMask, &status) != 0)
        return {};
    return status;
}

} // namespace

qint64 saturatedSum(qint64 sum, qint64 more)
{
    return sum > Most - more ? Most : sum + more;
}

std::optional<DiskRoom> DiskRoom::of(const QString &folder)
{
    struct statvfs status = {};
    if (::statvfs(QFile::encodeName(folder).constData(), &status) != 0)
        return {};
    DiskRoom room;
    room.blockSize = std::max<qint64>(1, static_cast<qint64>(status.f_frsize));
    room.bytes = saturatedProduct(status.f_bavail, room.blockSize);
    // Where files are made as long as there are blocks, there is no number of them.
    if (status.f_files != 0 && status.f_favail != 0)
        room.files = saturatedProduct(status.f_favail, 1);
    return room;
}

qint64 DiskRoom::taken(qint64 size) const
{
    const qint64 blocks = size / blockSize + (size % blockSize == 0 ? 0 : 1) + 1;
    return saturatedProduct(static_cast<quint64>(blocks), blockSize);
}

bool givesSecondNames(const QString &folder)
{
    constexpr quint32 Fat = 0x4d44;
    constexpr quint32 ExFat = 0x2011bab0;
    struct statfs status = {};
    if (::statfs(QFile::encodeName(folder).constData(), &status) != 0)
        return true;
    const auto kind = static_cast<quint32>(status.f_type);
    return kind != Fat && kind != ExFat;
}

bool isOneMount(const QString &folder, const QString &other)
{
    const auto one = statusOfFolder(folder);
    const auto two = statusOfFolder(other);
    // A system that cannot say it keeps nobody from a try.
    return !one || !two
        || (one->stx_dev_major == two->stx_dev_major && one->stx_dev_minor == two->stx_dev_minor
            && mountOf(*one) == mountOf(*two));
}

} // namespace Pellox
