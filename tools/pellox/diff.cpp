// SPDX-License-Identifier: MIT
#include "commands.h"
#include "deltaoptions.h"
#include "diskroom.h"
#include "engine.h"
#include "failedrules.h"
#include "folders.h"
#include "manifests.h"
#include "newbuild.h"
#include "summaries.h"

#include <Pellox/DeltaController>
#include <Pellox/rules.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QSet>
#include <QtEndian>

#include <memory>
#include <optional>

namespace {

struct Arguments
{
    std::string newBuild;
    std::string signatures;
    std::string patch;
    NewBuildOptions newBuildOptions;
    bool fast = false;
    int threads = 0;
    std::optional<std::string> oldBuild;
    DeltaOptions deltas;
};

/// Whether a delta can be made by it, as far as its head and size tell.
bool isWholeSignature(const QString &path)
{
    constexpr int HeadSize = 12; // magic number, block length, length of the strong checksums
    constexpr int WeakSize = 4;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray head = file.read(HeadSize);
    if (head.size() < HeadSize || !head.startsWith("rs\x01"))
        return false;
    const qint64 strongSize = qFromBigEndian<quint32>(head.constData() + HeadSize - WeakSize);
    return (file.size() - HeadSize) % (WeakSize + strongSize) == 0;
}

/// The disk, where the signature and the new file are well; else nothing.
QString reasonOfFailure(const QJsonObject &rule, const QString &newBuild, const QString &signatures,
    const QString &patch)
{
    const QString path = relativePathOf(rule);
    const QFileInfo file(newBuild + path);
    if (ruleNameOf(rule) != Pellox::PATCH_RULE || !file.isReadable()
        || !isWholeSignature(signatures + path))
        return {};
    const QString delta = patch + path;
    return QStringLiteral("its delta %1 ").arg(delta) + reasonNotWritten(file.size(), delta);
}

bool makePatch(
    Console &console, const NewBuild &newBuild, const QString &signatures, const QString &patch)
{
    const FailedRules failedRules(console, newBuild.folder, [&](const QJsonObject &rule) {
        return reasonOfFailure(rule, newBuild.folder, signatures, patch);
    });
    Pellox::DeltaController controller;
    QObject::connect(&controller, &Pellox::DeltaController::createPatchError,
        [&](const QString &text) { console.error(patch, text); });

    // Without it a run that fails or is interrupted cannot pass for a whole one.
    QFile::remove(patch + QLatin1Char('/') + Pellox::PATCH_RULES_FILE);
    const qint64 size = newBuild.size;
    console.startProgress(QStringLiteral("diff"), Progress::Unit::EstimatedBytes, size);
    const bool made = controller.createPatch(newBuild.folder, signatures, patch, newBuild.ignored,
        [&](double percent) { console.advanceTo(shareOf(size, percent)); });
    if (made)
        console.advanceTo(size);
    console.stopProgress();
    return made;
}

/// A patch that is passed on with files of an earlier one in it is larger than it need be.
void noteStrayFiles(Console &console, const QString &patch, const QJsonArray &rules)
{
    QStringList files = filesOfBuild(patch);
    QSet<QString> stray(files.cbegin(), files.cend());
    stray.remove(patch + QLatin1Char('/') + Pellox::PATCH_RULES_FILE);
    for (const QJsonValue &rule : rules) {
        if (ruleNameOf(rule) != Pellox::DELETE_RULE)
            stray.remove(patch + relativePathOf(rule));
    }
    if (stray.isEmpty())
        return;
    console.note(
        QStringLiteral("%1: holds %2 of something else than this patch: use a new folder or --fast")
            .arg(patch, fileCount(stray.size())));
}

bool makePatchFast(Console &console, const NewBuild &newBuild, const QString &signatures,
    const QString &patch, const QString &oldBuild, const Arguments &arguments)
{
    return Engine(console, arguments.threads)
        .run(QStringLiteral("diff"), newBuild.size,
            [&](Pellox::PublishController &controller, const PROGRESS_CALLBACK &progress) {
                arguments.deltas.applyTo(controller, oldBuild);
                return controller.createPatch(
                    newBuild.folder, signatures, patch, newBuild.ignored, progress);
            });
}

bool diff(Console &console, const Arguments &arguments)
{
    const QString folder = existingFolder(arguments.newBuild);
    const QString signatures = existingFolder(arguments.signatures);
    const QString patch = folderToFill(arguments.patch);
    const QStringList oldFiles = relativePathsOf(readSignatures(signatures, folder));
    requireApart(patch, folder);
    requireApart(signatures, folder);
    requireApart(patch, signatures);
    QString oldBuild;
    if (arguments.oldBuild) {
        oldBuild = existingFolder(*arguments.oldBuild);
        for (const QString &other : {folder, signatures, patch})
            requireApart(other, oldBuild);
    }
    if (arguments.fast)
        requireReplaceable(patch, Pellox::PATCH_RULES_FILE);
    const NewBuild newBuild = checkedNewBuild(folder, oldFiles, arguments.newBuildOptions);

    const bool made = arguments.fast
        ? makePatchFast(console, newBuild, signatures, patch, oldBuild, arguments)
        : makePatch(console, newBuild, signatures, patch);
    if (!made)
        return false;
    const auto rules = readWrittenManifest(console, patch, Pellox::PATCH_RULES_FILE);
    if (!rules)
        return false;
    console.result(patchSummary(*rules, patch));
    noteStrayFiles(console, patch, *rules);
    return true;
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
            "What \"pellox publish\" or \"pellox sign\" wrote for the build that players have")
        ->type_name("FOLDER")
        ->required();
    command
        ->add_option(
            "PATCH", arguments->patch, "The folder to write: deltas, new files and patchRules.json")
        ->type_name("FOLDER")
        ->required();
    addNewBuildOptions(*command, arguments->newBuildOptions);
    CLI::Option *fast = addFastOptions(*command, arguments->fast, arguments->threads);
    CLI::Option *oldBuild = command
                                ->add_option("--old-build", arguments->oldBuild,
                                    "The build that players have, for much smaller deltas")
                                ->type_name("FOLDER")
                                ->needs(fast);
    addDeltaOptions(*command, arguments->deltas, oldBuild);
    command->footer(
        "Use a new or empty folder for PATCH: files of an earlier patch stay in it, but "
        "with --fast\nit is replaced as a whole, and refused when it holds more than a release.\n\n"
        + exitStatusHelp()
        + "\nExample:\n  pellox diff releases/1.1 signatures/1.0 patches/1.0-1.1 "
          "--ignore settings.ini");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return diff(console, *arguments); };
    });
}
