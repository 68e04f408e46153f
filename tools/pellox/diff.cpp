// SPDX-License-Identifier: MIT
#include "commands.h"
#include "engine.h"
#include "failedrules.h"
#include "folders.h"
#include "manifests.h"
#include "newbuild.h"
#include "summaries.h"

#include <Pellox/DeltaController>
#include <Pellox/rules.h>

#include <QFile>

#include <memory>

namespace {

struct Arguments
{
    std::string newBuild;
    std::string signatures;
    std::string patch;
    IgnoreOptions ignore;
    bool fast = false;
    int threads = 0;
};

bool makePatch(
    Console &console, const NewBuild &newBuild, const QString &signatures, const QString &patch)
{
    const FailedRules failedRules(console, newBuild.folder);
    Pellox::DeltaController controller;
    QObject::connect(&controller, &Pellox::DeltaController::createPatchError,
        [&](const QString &text) { console.error(patch, text); });

    // Without it a run that fails or is interrupted cannot pass for a whole one.
    QFile::remove(patch + QLatin1Char('/') + Pellox::PATCH_RULES_FILE);
    const qint64 size = newBuild.size;
    console.startProgress(QStringLiteral("diff"), Progress::Unit::EstimatedBytes, size);
    const bool made = controller.createPatch(
        newBuild.folder, signatures, patch, newBuild.ignored, [&](double percent) {
            console.advanceTo(static_cast<qint64>(percent / 100 * static_cast<double>(size)));
        });
    if (made)
        console.advanceTo(size);
    console.stopProgress();
    return made;
}

bool makePatchFast(Console &console, const NewBuild &newBuild, const QString &signatures,
    const QString &patch, int threads)
{
    return Engine(console, threads)
        .run(QStringLiteral("diff"), newBuild.size,
            [&](Pellox::PublishController &controller, const PROGRESS_CALLBACK &progress) {
                return controller.createPatch(
                    newBuild.folder, signatures, patch, newBuild.ignored, progress);
            });
}

bool diff(Console &console, const Arguments &arguments)
{
    const QString folder = existingFolder(arguments.newBuild);
    const QString signatures = existingFolder(arguments.signatures);
    const QString patch = folderToFill(arguments.patch);
    const QStringList oldFiles = relativePathsOf(readManifest(signatures, Pellox::SIGNATURES_FILE));
    requireApart(patch, folder);
    requireApart(signatures, folder);
    requireApart(patch, signatures);
    if (arguments.fast)
        requireReplaceable(patch, Pellox::PATCH_RULES_FILE);
    const NewBuild newBuild = checkedNewBuild(console, folder, oldFiles, arguments.ignore);

    const bool made = arguments.fast
        ? makePatchFast(console, newBuild, signatures, patch, arguments.threads)
        : makePatch(console, newBuild, signatures, patch);
    if (!made)
        return false;
    const auto rules = readWrittenManifest(console, patch, Pellox::PATCH_RULES_FILE);
    if (rules)
        console.result(patchSummary(*rules, patch));
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
    addIgnoreOptions(*command, arguments->ignore);
    addFastOptions(*command, arguments->fast, arguments->threads);
    command->footer(
        "Use a new or empty folder for PATCH: files of an earlier patch stay in it, but "
        "with --fast\nit is replaced as a whole, and refused when it holds more than a release.\n\n"
        "Example:\n  pellox diff releases/1.1 signatures/1.0 patches/1.0-1.1 "
        "--ignore settings.ini");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return diff(console, *arguments); };
    });
}
