// SPDX-License-Identifier: MIT
#include "journal.h"

#include "digest.h"
#include "rulechecks.h"
#include "workfolder.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace Pellox {

namespace {

/*
 * A line of JSON, then a line with its SHA-512 in hexadecimal text, by which a torn journal is
 * known for what it is.
 */
constexpr int Version = 1;
const QString VersionMember = QStringLiteral("version");
const QString FirstMember = QStringLiteral("first");
const QString DeletionsMember = QStringLiteral("delete");
const QString LastMember = QStringLiteral("last");
const QString KeepsMember = QStringLiteral("keep_previous");
const QString ChangesMember = QStringLiteral("changes_release");
const QString ReleaseMember = QStringLiteral("release");
const QString RollbackMember = QStringLiteral("rollback");

QByteArray checksum(const QByteArray &line)
{
    Digest digest(QCryptographicHash::Sha512);
    digest.add(line.constData(), line.size());
    return digest.finish().toHex();
}

QJsonArray toJson(const std::vector<Journal::Placement> &placements)
{
    QJsonArray array;
    for (const Journal::Placement &placement : placements)
        array.append(QJsonArray{placement.from, placement.to});
    return array;
}

bool fromJson(const QJsonValue &value, std::vector<Journal::Placement> *placements)
{
    for (const QJsonValue &entry : value.toArray()) {
        const Journal::Placement placement{entry[0].toString(), entry[1].toString()};
        if (!problemOfPath(placement.from).isEmpty()
            || !problemOfRelativePath(placement.to).isEmpty())
            return false;
        placements->push_back(placement);
    }
    return value.isArray();
}

} // namespace

QByteArray Journal::toBytes() const
{
    const QJsonObject object{
        {VersionMember, Version},
        {FirstMember, toJson(first)},
        {DeletionsMember, QJsonArray::fromStringList(deletions)},
        {LastMember, toJson(last)},
        {KeepsMember, keepsPrevious},
        {RollbackMember, isRollback},
        {ChangesMember, changesRelease},
        {ReleaseMember, release ? QJsonValue(release->toJson()) : QJsonValue()},
    };
    const QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
    return line + checksum(line) + '\n';
}

std::optional<Journal> Journal::fromBytes(const QByteArray &bytes)
{
    const int lineEnd = bytes.indexOf('\n') + 1;
    const QByteArray line = bytes.left(lineEnd);
    if (lineEnd == 0 || bytes.mid(lineEnd) != checksum(line) + '\n')
        return {};
    const QJsonObject object = QJsonDocument::fromJson(line).object();
    if (object.value(VersionMember).toInt() != Version)
        return {};
    Journal journal;
    journal.keepsPrevious = object.value(KeepsMember).toBool();
    journal.isRollback = object.value(RollbackMember).toBool();
    journal.changesRelease = object.value(ChangesMember).toBool();
    journal.release = InstalledRelease::fromJson(object.value(ReleaseMember).toObject());
    for (const QJsonValue &path : object.value(DeletionsMember).toArray()) {
        if (!problemOfRelativePath(path.toString()).isEmpty())
            return {};
        journal.deletions.append(path.toString());
    }
    if (!fromJson(object.value(FirstMember), &journal.first)
        || !fromJson(object.value(LastMember), &journal.last))
        return {};
    return journal;
}

std::optional<Journal> Journal::read(const QString &path, FileError *error)
{
    constexpr qint64 Largest = 1LL << 30;
    InputFile file;
    QByteArray bytes;
    bool isRead = file.open(path);
    if (isRead && file.size() <= Largest) {
        bytes.resize(static_cast<int>(file.size()));
        isRead = file.readAt(0, reinterpret_cast<uchar *>(bytes.data()), bytes.size());
    }
    const auto journal = isRead ? fromBytes(bytes) : std::nullopt;
    if (!isRead)
        *error = file.error();
    else if (!journal)
        *error = {path, QStringLiteral("is damaged; if the build is whole, remove it")};
    return journal;
}

} // namespace Pellox
