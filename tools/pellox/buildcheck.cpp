// SPDX-License-Identifier: MIT
#include "buildcheck.h"

#include "folders.h"
#include "manifests.h"

#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <filesystem>
#include <system_error>

namespace {

namespace fs = std::filesystem;

QString decoded(const fs::path &path)
{
    return QFile::decodeName(QByteArray::fromStdString(path.string()));
}

bool isHidden(const fs::path &path)
{
    return path.filename().string().front() == '.';
}

void requireListableFolder(const fs::path &folder);

void requireNameable(const fs::directory_entry &entry)
{
    const std::string bytes = entry.path().string();
    if (QFile::encodeName(QFile::decodeName(bytes.c_str())).toStdString() != bytes) {
        throw Refusal(decoded(entry.path()),
            QStringLiteral("has a name that is not valid in the encoding of the locale"));
    }
    std::error_code ignored;
    if (entry.is_symlink(ignored) && entry.is_other(ignored)) {
        throw Refusal(
            decoded(entry.path()), QStringLiteral("is a link to something that is no file"));
    }
    if (entry.is_directory(ignored) && !entry.is_symlink(ignored))
        requireListableFolder(entry.path());
}

void requireListableFolder(const fs::path &folder)
{
    std::error_code problem;
    for (fs::directory_iterator entry(folder, problem), end; !problem && entry != end;
         entry.increment(problem)) {
        if (!isHidden(entry->path()))
            requireNameable(*entry);
    }
    if (problem)
        throw Refusal(decoded(folder), QStringLiteral("cannot be listed"));
}

} // namespace

void requireListable(const QString &build)
{
    requireListableFolder(QFile::encodeName(build).toStdString());
}

void refuseManifestName(const QString &build, const QString &manifest, const QStringList &ignored)
{
    const QString path = build + QLatin1Char('/') + manifest;
    if (QFileInfo(path).isFile() && !ignored.contains(path)) {
        throw Refusal(
            path, QStringLiteral("has the name of the manifest and would be taken for it"));
    }
}

void refuseTemporaryNames(
    const QString &newBuild, const QJsonArray &oldFiles, const QStringList &ignored)
{
    const QStringList files = filesOfBuild(newBuild);
    QSet<QString> newPaths(files.cbegin(), files.cend());
    newPaths -= QSet<QString>(ignored.cbegin(), ignored.cend());
    QSet<QString> oldPaths;
    for (const QJsonValue &record : oldFiles)
        oldPaths.insert(newBuild + relativePathOf(record));

    for (const QString &path : newPaths &oldPaths) {
        const QString temporary = path + QLatin1String(".temp");
        if (newPaths.contains(temporary) || oldPaths.contains(temporary)) {
            throw Refusal(temporary,
                QStringLiteral("would be lost when players patch the file without .temp"));
        }
    }
}
