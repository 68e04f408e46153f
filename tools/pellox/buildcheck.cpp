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
    QSet<QString> newPaths(files.cbegin(), files.cend());
    newPaths -= QSet<QString>(ignored.cbegin(), ignored.cend());
    QSet<QString> oldPaths;
    for (const QString &file : oldFiles)
        oldPaths.insert(newBuild + file);

    for (const QString &path : newPaths &oldPaths) {
        const QString temporary = path + QLatin1String(".temp");
        if (newPaths.contains(temporary) || oldPaths.contains(temporary)) {
            throw Refusal(temporary,
                QStringLiteral("would be lost when players patch the file without .temp"));
        }
    }
}
