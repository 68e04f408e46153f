// SPDX-License-Identifier: MIT
#include "buildcheck.h"
#include "commands.h"
#include "failedrules.h"
#include "folders.h"
#include "manifests.h"

#include <Pellox/DeltaController>
#include <Pellox/rules.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>

#include <memory>
#include <vector>

namespace {

struct Arguments
{
    std::string newBuild;
    std::string signatures;
    std::string patch;
    std::vector<std::string> ignore;
};

/// The paths to ignore in the form of the library's walk; a folder stands for its files.
QStringList ignoredFiles(
    Console &console, const QString &newBuild, const std::vector<std::string> &arguments)
{
    QStringList files;
    for (const std::string &argument : arguments) {
        const QString path
            = QDir::cleanPath(QDir(newBuild).absoluteFilePath(QFile::decodeName(argument.c_str())));
        const QFileInfo info(path);
        if (info.isDir())
            files += filesOfBuild(path);
        else if (info.exists())
            files.append(path);
        else
            console.note(QStringLiteral("--ignore: %1 is not there and ignores nothing").arg(path));
    }
    return files;
}

struct Share
{
    qint64 files = 0;
    qint64 bytes = 0;
};

Share shareOf(const QString &ruleName, const QJsonArray &rules, const QString &patch)
{
    Share share;
    for (const QJsonValue &rule : rules) {
        if (ruleNameOf(rule) != ruleName)
            continue;
        ++share.files;
        share.bytes += QFileInfo(patch + relativePathOf(rule)).size();
    }
    return share;
}

void summarise(Console &console, const QJsonArray &rules, const QString &patch)
{
    const Share patched = shareOf(Pellox::PATCH_RULE, rules, patch);
    const Share copied = shareOf(Pellox::COPY_RULE, rules, patch);
    const Share deleted = shareOf(Pellox::DELETE_RULE, rules, patch);
    console.result(
        QStringLiteral("%1 to patch (%2 of deltas), %3 to copy (%4), %5 to delete: %6")
            .arg(fileCount(patched.files), byteCount(patched.bytes), fileCount(copied.files),
                byteCount(copied.bytes), fileCount(deleted.files), patch));
}

bool diff(Console &console, const Arguments &arguments)
{
    const QString newBuild = existingFolder(arguments.newBuild);
    const QString signatures = existingFolder(arguments.signatures);
    const QString patch = folderToFill(arguments.patch);
    const QJsonArray oldFiles = readManifest(signatures, Pellox::SIGNATURES_FILE);
    requireApart(patch, newBuild);
    requireApart(signatures, newBuild);
    requireApart(patch, signatures);
    const QStringList ignored = ignoredFiles(console, newBuild, arguments.ignore);

    requireListable(newBuild);
    refuseManifestName(newBuild, Pellox::PATCH_RULES_FILE, ignored);
    refuseTemporaryNames(newBuild, oldFiles, ignored);

    const qint64 size = totalSize(filesOfBuild(newBuild));
    const FailedRules failedRules(console, newBuild);
    Pellox::DeltaController controller;
    QObject::connect(&controller, &Pellox::DeltaController::createPatchError,
        [&](const QString &text) { console.error(patch, text); });

    // Without it a run that fails or is interrupted cannot pass for a whole one.
    QFile::remove(patch + QLatin1Char('/') + Pellox::PATCH_RULES_FILE);
    console.startProgress(QStringLiteral("diff"), Progress::Unit::EstimatedBytes, size);
    const bool made
        = controller.createPatch(newBuild, signatures, patch, ignored, [&](double percent) {
              console.advanceTo(static_cast<qint64>(percent / 100 * static_cast<double>(size)));
          });
    if (made)
        console.advanceTo(size);
    console.stopProgress();
    if (!made)
        return false;
    const auto rules = readWrittenManifest(console, patch, Pellox::PATCH_RULES_FILE);
    if (rules)
        summarise(console, *rules, patch);
    return rules.has_value();
}

} // namespace

void addDiffCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "diff", "Make the patch to a new build");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("NEW_BUILD", arguments->newBuild, "The build to bring players to")
        ->type_name("FOLDER")
        ->required();
    command
        ->add_option("SIGNATURES", arguments->signatures,
            "What \"pellox sign\" wrote for the build that players have")
        ->type_name("FOLDER")
        ->required();
    command
        ->add_option(
            "PATCH", arguments->patch, "The folder to write: deltas, new files and patchRules.json")
        ->type_name("FOLDER")
        ->required();
    command
        ->add_option("--ignore", arguments->ignore,
            "A file or folder of NEW_BUILD to leave out of the patch, relative to NEW_BUILD or "
            "absolute. What only players have is deleted all the same. May be given several times")
        ->type_name("PATH")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    command->footer("Use a new or empty folder for PATCH: files of an earlier patch stay in it.\n\n"
                    "Example:\n  pellox diff releases/1.1 signatures/1.0 patches/1.0-1.1 "
                    "--ignore settings.ini");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return diff(console, *arguments); };
    });
}
