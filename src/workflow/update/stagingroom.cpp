// SPDX-License-Identifier: MIT
#include "stagingroom.h"

#include "diskroom.h"

#include <algorithm>

namespace Pellox {

namespace {

bool isToBeMade(const UpdateWork &work)
{
    return work.isNeeded && !work.isStaged && work.rule.kind != UpdateRule::Kind::Delete;
}

} // namespace

qint64 bytesToStage(const std::vector<UpdateWork> &works)
{
    qint64 bytes = 0;
    for (const UpdateWork &work : works)
        bytes = saturatedSum(bytes, isToBeMade(work) ? work.size : 0);
    return bytes;
}

qint64 roomToStage(const QString &build, const std::vector<UpdateWork> &works)
{
    constexpr qint64 Margin = 16LL << 20; // journal, folders, and other programs at work
    const DiskRoom room = DiskRoom::of(build).value_or(DiskRoom());
    qint64 bytes = 0;
    for (const UpdateWork &work : works)
        bytes = saturatedSum(bytes, isToBeMade(work) ? room.taken(work.size) : 0);
    return bytes > 0 ? saturatedSum(bytes, Margin) : 0;
}

bool hasRoomToStage(const QString &build, const std::vector<UpdateWork> &works, Problems &problems)
{
    constexpr qint64 OwnFiles = 8; // journal, records and their folders
    const auto room = DiskRoom::of(build);
    if (!room)
        return true;
    const auto refuse = [&](const QString &text, qint64 needed, qint64 free) {
        problems.add(UpdateProblem::Code::NoSpace, build,
            text.arg(QString::number(needed), QString::number(free)));
        return false;
    };
    const qint64 bytes = roomToStage(build, works);
    if (bytes > room->bytes)
        return refuse(QStringLiteral("has not enough room: %1 bytes are needed, %2 are free"),
            bytes, room->bytes);
    const qint64 files = OwnFiles + std::count_if(works.cbegin(), works.cend(), isToBeMade);
    if (bytes > 0 && room->files && files > *room->files)
        return refuse(
            QStringLiteral("has not enough room: %1 files are to be made, there is room for %2"),
            files, *room->files);
    return true;
}

} // namespace Pellox
