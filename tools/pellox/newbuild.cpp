// SPDX-License-Identifier: MIT
#include "newbuild.h"

#include "buildcheck.h"
#include "console.h"
#include "folders.h"
#include "manifests.h"

#include <Pellox/rules.h>

#include <QDirIterator>
#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>

namespace {

/// Whether a part of @p path is no name on some of the systems that players have.
bool isRefusedName(const QString &path)
{
    static const QRegularExpression Refused(
        QStringLiteral(
            "[:\\\\]|[. "
            "](/|$)|(^|/)(con|conin[$]|conout[$]|prn|aux|nul|(com|lpt)[0-9\u00b9\u00b2\u00b3]) "
            "*([.][^/]*)?(/|$)"),
        QRegularExpression::CaseInsensitiveOption);
    return Refused.match(path).hasMatch();
}

} // namespace

void addAllowEmptyOption(CLI::App &command, bool &allowEmpty)
{
    command.add_flag(
        "--allow-empty", allowEmpty, "Take a build without any file, which is refused otherwise");
}

void addNewBuildOptions(CLI::App &command, NewBuildOptions &options)
{
    addIgnoreOptions(command, options.ignore);
    addAllowEmptyOption(command, options.allowEmpty);
}

void refuseEmpty(const QString &build, const QStringList &files)
{
    if (files.isEmpty()) {
        throw Refusal(build,
            QStringLiteral("holds no files (hidden ones do not count): is it the right folder? "
                           "--allow-empty takes it all the same"));
    }
}

void noteUnportableNames(Console &console, const QString &build, const QStringList &files)
{
    QStringList refused;
    QStringList alike;
    QHash<QString, QString> known; // paths of files and folders, by what they are without case
    for (const QString &file : files) {
        const QString path = file.mid(build.size() + 1);
        if (isRefusedName(path))
            refused.append(path);
        const int parts = path.count(QLatin1Char('/')) + 1;
        for (int part = 0; part < parts; ++part) {
            const QString beginning = path.section(QLatin1Char('/'), 0, part);
            QString &other = known[beginning.toCaseFolded()];
            if (other.isEmpty()) {
                other = beginning;
            } else if (other != beginning) {
                alike.append(other + QLatin1String(" and ") + beginning);
                break;
            }
        }
    }
    refused.sort();
    if (!refused.isEmpty()) {
        console.note(
            QStringLiteral("%1 with a name that \"pellox update\" refuses, as some systems "
                           "cannot have it: %2")
                .arg(fileCount(refused.size()), refused.first()));
    }
    if (!alike.isEmpty()) {
        console.note(QStringLiteral("%1 with a name that differs in case alone from another, which "
                                    "some systems take for the same: %2")
                         .arg(fileCount(alike.size()), alike.first()));
    }
}

qint64 hiddenFileCount(const NewBuild &build)
{
    qint64 all = 0;
    QDirIterator walk(build.folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    for (; walk.hasNext(); walk.next())
        ++all;
    return all - build.fileCount;
}

void requireSignatures(const QString &signatures, const QString &newBuild)
{
    const QString manifest = Pellox::SIGNATURES_FILE;
    const QLatin1Char separator('/');
    if (QFileInfo::exists(signatures + separator + manifest))
        return;
    const bool areSwapped = QFileInfo::exists(newBuild + separator + manifest);
    throw Refusal(signatures,
        QStringLiteral("holds no %1; ").arg(manifest)
            + (areSwapped ? newBuild + QLatin1String(" does: are the two folders swapped?")
                          : QStringLiteral("make it from the old build with \"pellox sign\"")));
}

QJsonArray readSignatures(const QString &signatures, const QString &newBuild)
{
    requireSignatures(signatures, newBuild);
    return readManifest(signatures, Pellox::SIGNATURES_FILE);
}

NewBuild checkedNewBuild(
    const QString &folder, const QStringList &oldFiles, const NewBuildOptions &options)
{
    requireListable(folder);
    NewBuild build;
    build.folder = folder;
    build.files = filesOfBuild(folder);
    build.fileCount = build.files.size();
    if (!options.allowEmpty)
        refuseEmpty(folder, build.files);
    build.ignored = ignoredFiles(options.ignore, folder, build.files);
    refuseManifestName(folder, Pellox::PATCH_RULES_FILE, build.ignored);
    refuseTemporaryNames(folder, build.files, build.ignored, oldFiles);
    build.size = totalSize(build.files);
    return build;
}
