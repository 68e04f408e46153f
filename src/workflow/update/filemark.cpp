// SPDX-License-Identifier: MIT
#include "filemark.h"

#include "filedigest.h"

#include <QJsonValue>

namespace Pellox {

namespace {

const QString SizeMember = QStringLiteral("size");
const QString Sha512Member = QStringLiteral("sha512");
const QString ModifiedMember = QStringLiteral("modified");

qint64 modifiedOf(const struct stat &status)
{
    constexpr qint64 NanosecondsPerSecond = 1000LL * 1000 * 1000;
    return status.st_mtim.tv_sec * NanosecondsPerSecond + status.st_mtim.tv_nsec;
}

} // namespace

FileMark FileMark::of(const Standing &standing)
{
    if (!standing.isFile())
        return {};
    return {standing.status->st_size, std::nullopt, modifiedOf(*standing.status)};
}

bool FileMark::fits(const Standing &standing) const
{
    return standing.isFile() && standing.status->st_size == size
        && (!modified || modifiedOf(*standing.status) == *modified);
}

/// The time is a text: numbers in JSON are not exact to the nanosecond.
QJsonObject FileMark::toJson() const
{
    QJsonObject object{{SizeMember, size}};
    if (sha512)
        object.insert(Sha512Member, sha512->toText());
    if (modified)
        object.insert(ModifiedMember, QString::number(*modified));
    return object;
}

std::optional<FileMark> FileMark::fromJson(const QJsonObject &object)
{
    constexpr double NoSize = -2;
    constexpr double LargestSize = 1LL << 53;
    const double size = object.value(SizeMember).toDouble(NoSize);
    if (!(size >= -1 && size <= LargestSize))
        return {};
    FileMark mark;
    mark.size = static_cast<qint64>(size);
    bool isGood = true;
    if (object.contains(Sha512Member)) {
        mark.sha512 = Sha512::fromText(object.value(Sha512Member).toString());
        isGood = mark.sha512.has_value();
    }
    bool isNumber = true;
    if (object.contains(ModifiedMember))
        mark.modified = object.value(ModifiedMember).toString().toLongLong(&isNumber);
    return isGood && isNumber ? std::optional(mark) : std::nullopt;
}

std::optional<bool> isThere(
    BuildFiles &files, const QString &path, const FileMark &mark, FileError *error)
{
    Standing standing;
    if (!files.look(path, &standing, error))
        return {};
    if (!mark.fits(standing) || !mark.sha512)
        return mark.fits(standing);
    InputFile file;
    if (!files.open(path, &file)) {
        *error = file.error();
        return {};
    }
    const auto sha512 = sha512OfWhole(file);
    if (sha512 || file.error().system == 0)
        return sha512 == mark.sha512; // else it is changed this very moment
    *error = file.error();
    return {};
}

} // namespace Pellox
