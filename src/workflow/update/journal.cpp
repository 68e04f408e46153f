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
 * known for what it is. Both lines stay as they are in every version, so that an earlier library
 * can tell one that it does not know. Members that it does not know it passes over: what it would
 * do wrongly without them takes another number. What 1.0 has written is read for ever.
 */
constexpr int Version = 2;
const QString VersionMember = QStringLiteral("version");
const QString FirstMember = QStringLiteral("first");
const QString DeletionsMember = QStringLiteral("delete");
const QString LastMember = QStringLiteral("last");
const QString KeepsMember = QStringLiteral("keep_previous");
const QString ChangesMember = QStringLiteral("changes_release");
const QString ReleaseMember = QStringLiteral("release");
const QString RollbackMember = QStringLiteral("rollback");
const QString RepairMember = QStringLiteral("repair");

QByteArray checksum(const QByteArray &line)
{
    return digestOf(line, QCryptographicHash::Sha512).toHex();
}

QJsonArray toJson(const Journal::Placement &placement)
{
    return {placement.from, placement.to, placement.mark.toJson()};
}

QJsonArray toJson(const Journal::Deletion &deletion)
{
    return {deletion.path, deletion.mark.toJson()};
}

/// One by one: a document of all steps of a large build would take a multiple of the memory.
template <typename Step>
void append(const QString &member, const std::vector<Step> &steps, QByteArray *json)
{
    *json += ",\"" + member.toLatin1() + "\":[";
    for (const Step &step : steps) {
        if (&step != &steps.front())
            *json += ',';
        *json += QJsonDocument(toJson(step)).toJson(QJsonDocument::Compact);
    }
    *json += ']';
}

bool fromJson(const QJsonValue &value, std::vector<Journal::Placement> *placements)
{
    const QJsonArray array = value.toArray();
    for (const QJsonValue entry : array) {
        const auto mark = FileMark::fromJson(entry[2].toObject());
        const Journal::Placement placement{
            entry[0].toString(), entry[1].toString(), mark.value_or(FileMark())};
        if (!problemOfPath(placement.from).isEmpty()
            || !problemOfRelativePath(placement.to).isEmpty() || placement.mark.size < 0)
            return false;
        placements->push_back(placement);
    }
    return value.isArray();
}

bool fromJson(const QJsonValue &value, std::vector<Journal::Deletion> *deletions)
{
    const QJsonArray array = value.toArray();
    for (const QJsonValue entry : array) {
        const auto mark = FileMark::fromJson(entry[1].toObject());
        const QString path = entry[0].toString();
        if (!problemOfRelativePath(path).isEmpty() || !mark)
            return false;
        deletions->push_back({path, *mark});
    }
    return value.isArray();
}

/// Of a whole journal, the line of JSON; empty of any other.
QByteArray lineOf(const QByteArray &bytes)
{
    const auto lineEnd = bytes.indexOf('\n') + 1;
    const QByteArray line = bytes.left(lineEnd);
    return lineEnd > 0 && bytes.mid(lineEnd) == checksum(line) + '\n' ? line : QByteArray();
}

int versionOf(const QJsonObject &object)
{
    return object.value(VersionMember).toInt();
}

/// Why @p bytes, of a file at @p path, are refused. That of what is kept is no file to be removed
/// by itself.
QString problemOf(const QByteArray &bytes, const QString &path)
{
    const int version = versionOf(QJsonDocument::fromJson(lineOf(bytes)).object());
    return version != 0 && version != Version
        ? QStringLiteral("is of version %1, which this library cannot read; the one that has begun "
                         "can finish")
              .arg(version)
        : path == WorkFolder::PreviousRecord
        ? QStringLiteral("is damaged")
        : QStringLiteral("is damaged; if the build is whole, remove it");
}

} // namespace

QByteArray Journal::toBytes() const
{
    const QJsonObject object{
        {VersionMember, Version},
        {KeepsMember, keepsPrevious},
        {RollbackMember, isRollback},
        {RepairMember, isRepair},
        {ChangesMember, changesRelease},
        {ReleaseMember, release ? QJsonValue(release->toJson()) : QJsonValue()},
    };
    QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact);
    line.chop(1); // what closes the object
    append(FirstMember, first, &line);
    append(DeletionsMember, deletions, &line);
    append(LastMember, last, &line);
    line += "}\n";
    return line + checksum(line) + '\n';
}

std::optional<Journal> Journal::fromBytes(const QByteArray &bytes)
{
    const QJsonObject object = QJsonDocument::fromJson(lineOf(bytes)).object();
    if (versionOf(object) != Version)
        return {};
    Journal journal;
    journal.keepsPrevious = object.value(KeepsMember).toBool();
    journal.isRollback = object.value(RollbackMember).toBool();
    journal.isRepair = object.value(RepairMember).toBool();
    journal.changesRelease = object.value(ChangesMember).toBool();
    journal.release = InstalledRelease::fromJson(object.value(ReleaseMember).toObject());
    if (!fromJson(object.value(FirstMember), &journal.first)
        || !fromJson(object.value(DeletionsMember), &journal.deletions)
        || !fromJson(object.value(LastMember), &journal.last))
        return {};
    return journal;
}

std::optional<Journal> Journal::read(BuildFiles &files, const QString &path, FileError *error)
{
    constexpr qint64 Largest = 1LL << 30;
    InputFile file;
    QByteArray bytes;
    bool isRead = files.open(path, &file);
    if (isRead && file.size() <= Largest) {
        bytes.resize(static_cast<int>(file.size()));
        isRead = file.readAt(0, reinterpret_cast<uchar *>(bytes.data()), bytes.size());
    }
    auto journal = isRead ? fromBytes(bytes) : std::nullopt;
    if (!isRead)
        *error = file.error();
    else if (!journal)
        *error = {file.path(), problemOf(bytes, path)};
    return journal;
}

} // namespace Pellox
