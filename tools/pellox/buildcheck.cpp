// SPDX-License-Identifier: MIT
#include "buildcheck.h"

#include "folders.h"
#include "listing.h"

#include <QFileInfo>
#include <QSet>

#include <system_error>

void requireListable(const QString &build)
{
    std::error_code ignored;
    visitEntries(build, Hidden::LeftOut,
        [&](const std::filesystem::directory_entry &entry, const QString &path) {
            if (entry.is_symlink(ignored) && entry.is_other(ignored))
                throw Refusal(path, QStringLiteral("is a link to something that is no file"));
        });
}

void refuseManifestName(const QString &build, const QString &manifest, const QStringList &ignored)
{
    const QString path = build + QLatin1Char('/') + manifest;
    if (QFileInfo(path).isFile() && !ignored.contains(path)) {
        throw Refusal(
            path, QStringLiteral("has the name of the manifest and would be taken for it"));
    }
}

void refuseTemporaryNames(const QString &newBuild, const QStringList &files,
    const QStringList &ignored, const QStringList &oldFiles)
{
    const QLatin1String temporary(".temp");
    QSet<QString> taken; // by the file of another name
    const auto take = [&](const QString &path) {
        if (path.endsWith(temporary))
            taken.insert(path.chopped(temporary.size()));
    };
    const QSet<QString> leftOut(ignored.cbegin(), ignored.cend());
    for (const QString &file : files) {
        if (!leftOut.contains(file))
            take(file.mid(newBuild.size()));
    }
    for (const QString &file : oldFiles)
        take(file);

    QSet<QString> takenInNew;
    for (const QString &file : files) {
        const QString path = file.mid(newBuild.size());
        if (taken.contains(path) && !leftOut.contains(file))
            takenInNew.insert(path);
    }
    for (const QString &path : oldFiles) {
        if (takenInNew.contains(path)) {
            throw Refusal(newBuild + path + temporary,
                QStringLiteral("would be lost when players patch the file without .temp"));
        }
    }
}
