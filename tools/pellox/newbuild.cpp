// SPDX-License-Identifier: MIT
#include "newbuild.h"

#include "buildcheck.h"
#include "console.h"
#include "folders.h"
#include "manifests.h"

#include <Pellox/rules.h>

#include <QDirIterator>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <optional>

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

/// The first parts of two paths that differ, if they differ in case alone: "a/B and a/b"
std::optional<QString> namesAlike(const QString &path, const QString &other)
{
    int end = 0;
    while (end < path.size() && end < other.size() && path.at(end) == other.at(end))
        ++end;
    const QLatin1Char separator('/');
    const QString beginning = path.section(separator, 0, path.left(end).count(separator));
    const QString otherBeginning = other.section(separator, 0, other.left(end).count(separator));
    if (beginning == otherBeginning || beginning.compare(otherBeginning, Qt::CaseInsensitive) != 0)
        return {};
    return beginning + QLatin1String(" and ") + otherBeginning;
}

/// Without case, and what is in a folder right behind what has its name.
bool isBefore(const QString &path, const QString &other)
{
    const auto rank = [](QChar letter) -> ushort {
        constexpr ushort AsciiEnd = 0x80;
        const ushort code = letter.unicode();
        if (code >= AsciiEnd)
            return letter.toCaseFolded().unicode();
        if (code == '/')
            return 0;
        return code >= 'A' && code <= 'Z' ? ushort(code + ('a' - 'A')) : code;
    };
    return std::lexicographical_compare(path.cbegin(), path.cend(), other.cbegin(), other.cend(),
        [&](QChar one, QChar two) { return rank(one) < rank(two); });
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
    const auto relative = [&](const QString &file) { return file.mid(build.size() + 1); };
    QStringList refused;
    for (const QString &file : files) {
        if (isRefusedName(relative(file)))
            refused.append(relative(file));
    }
    refused.sort();
    if (!refused.isEmpty()) {
        console.note(
            QStringLiteral("%1 with a name that \"pellox update\" refuses, as some systems "
                           "cannot have it: %2")
                .arg(fileCount(refused.size()), refused.first()));
    }

    // Side by side when sorted so; a table of all folders and files would take much memory.
    QStringList sorted = files;
    std::sort(sorted.begin(), sorted.end(), isBefore);
    QStringList alike;
    for (int i = 1; i < sorted.size(); ++i) {
        const auto names = namesAlike(relative(sorted.at(i - 1)), relative(sorted.at(i)));
        if (names)
            alike.append(*names);
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
    build.fileCount = static_cast<int>(build.files.size());
    if (!options.allowEmpty)
        refuseEmpty(folder, build.files);
    build.ignored = ignoredFiles(options.ignore, folder, build.files);
    refuseManifestName(folder, Pellox::PATCH_RULES_FILE, build.ignored);
    refuseTemporaryNames(folder, build.files, build.ignored, oldFiles);
    build.size = totalSize(build.files);
    return build;
}
