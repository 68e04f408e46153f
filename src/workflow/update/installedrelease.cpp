// SPDX-License-Identifier: MIT
#include "installedrelease.h"

#include "sealedpatch.h"
#include "wholefile.h"
#include "workfolder.h"

#include <QJsonDocument>

#include <cerrno>
#include <cmath>

namespace Pellox {

namespace {

const QString NumberMember = QStringLiteral("release");
const QString BuildMember = QStringLiteral("build");

} // namespace

QJsonObject InstalledRelease::toJson() const
{
    return {{NumberMember, number}, {BuildMember, build.toText()}};
}

std::optional<InstalledRelease> InstalledRelease::fromJson(const QJsonObject &object)
{
    const double number = object.value(NumberMember).toDouble();
    const auto build = Sha512::fromText(object.value(BuildMember).toString());
    constexpr auto Largest = static_cast<double>(LargestRelease);
    if (!(number >= 1 && number <= Largest && std::floor(number) == number) || !build)
        return {};
    return InstalledRelease{static_cast<qint64>(number), *build};
}

std::optional<InstalledRelease> InstalledRelease::read(const QString &folder, FileError *error)
{
    InputFile file;
    return take(file, file.open(folder + WorkFolder::Release), error);
}

std::optional<InstalledRelease> InstalledRelease::read(BuildFiles &files, FileError *error)
{
    InputFile file;
    return take(file, files.open(WorkFolder::Release, &file), error);
}

std::optional<InstalledRelease> InstalledRelease::take(
    InputFile &file, bool isOpen, FileError *error)
{
    constexpr qint64 Largest = 4096;
    const int system = file.error().system;
    if (!isOpen && (system == ENOENT || system == ENOTDIR))
        return {};
    QByteArray bytes;
    bool isRead = isOpen;
    if (isRead && file.size() <= Largest) {
        bytes.resize(static_cast<int>(file.size()));
        isRead = file.readAt(0, reinterpret_cast<uchar *>(bytes.data()), bytes.size());
    }
    const auto release = isRead ? fromJson(QJsonDocument::fromJson(bytes).object()) : std::nullopt;
    if (!isRead)
        *error = file.error();
    else if (!release)
        *error = {file.path(), QStringLiteral("is damaged")};
    return release;
}

bool InstalledRelease::write(BuildFiles &files, bool syncs, FileError *error) const
{
    const QByteArray json = QJsonDocument(toJson()).toJson(QJsonDocument::Compact);
    if (!files.removeFile(WorkFolder::NewRelease)) {
        *error = files.error(WorkFolder::NewRelease, "cannot be removed: ");
    } else if (writeWhole(files, WorkFolder::NewRelease, json, syncs, error)) {
        if (!files.rename(WorkFolder::NewRelease, WorkFolder::Release))
            *error = files.error(WorkFolder::Release, "cannot be written: ");
        else if (syncs && !files.sync())
            *error = files.error(WorkFolder::Release, "cannot be synced: ");
    }
    if (!error->isEmpty())
        files.removeFile(WorkFolder::NewRelease);
    return error->isEmpty();
}

bool InstalledRelease::remove(BuildFiles &files, FileError *error)
{
    if (!files.removeFile(WorkFolder::Release))
        *error = files.error(WorkFolder::Release, "cannot be removed: ");
    return error->isEmpty();
}

} // namespace Pellox
