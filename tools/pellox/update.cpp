// SPDX-License-Identifier: MIT
#include "buildrun.h"
#include "commands.h"
#include "engine.h"
#include "folders.h"
#include "keyfiles.h"
#include "manifests.h"
#include "sealview.h"
#include "summaries.h"

#include <Pellox/rules.h>
#include <Pellox/UpdateController>

#include <QFileInfo>
#include <QHash>
#include <QJsonObject>
#include <QSet>

#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

namespace {

using Pellox::UpdateController;
using Pellox::UpdatePlan;

struct Arguments
{
    std::string build;
    std::string patch;
    std::optional<std::string> fallback;
    std::vector<std::string> trustedKeys;
    int threads = 0;
    bool allowsOlder = false;
    bool keepsPrevious = false;
    bool dryRun = false;
    bool doesNotSync = false;
};

struct Folders
{
    QString build;
    QString patch;
    QString fallback; ///< may be empty
};

Folders checkedFolders(const Arguments &arguments)
{
    Folders folders{existingFolder(arguments.build), existingFolder(arguments.patch), QString()};
    requireApart(folders.patch, folders.build);
    if (arguments.fallback) {
        folders.fallback = existingFolder(*arguments.fallback);
        requireApart(folders.fallback, folders.build);
    }
    return folders;
}

/// Whether none of the old files that the patch names is in the build, or what it should be. One
/// alone proves nothing.
bool isOtherBuild(const QVector<Pellox::UpdateProblem> &problems, const Folders &folders)
{
    QSet<QString> damaged;
    for (const Pellox::UpdateProblem &problem : problems) {
        if (problem.code == Pellox::UpdateProblem::Code::DamagedInstall)
            damaged.insert(problem.file);
    }
    if (damaged.isEmpty())
        return false;
    int named = 0;
    for (const QJsonValue rule : readManifest(folders.patch, Pellox::PATCH_RULES_FILE)) {
        if (ruleNameOf(rule) == Pellox::COPY_RULE)
            continue;
        ++named;
        const QString path = folders.build + relativePathOf(rule);
        if (!damaged.contains(path) && (ruleNameOf(rule) == Pellox::PATCH_RULE || isThere(path)))
            return false;
    }
    return named > 1;
}

void explainOtherBuild(BuildRun &run, const Folders &folders)
{
    if (isOtherBuild(run.problems(), folders))
        run.explain(QStringLiteral("%1: this is not the build that the patch is for: none of the "
                                   "files that the patch names fits")
                        .arg(folders.build),
            QStringLiteral("nothing was changed: give the build that the patch is for"));
}

QString upToDate(const QString &build)
{
    return QStringLiteral("Nothing to do, it is up to date already: ") + build;
}

struct PlannedFile
{
    QString path; ///< relative to the build
    QString rule;
    qint64 size; ///< of the new file; -1 where there is none
};

/// By path, so that two plans can be compared. Without keys nothing is made of a seal.
std::vector<PlannedFile> filesOf(const UpdatePlan &plan, const QString &patch, bool hasKeys)
{
    QHash<QString, qint64> sizes; // of patched files
    for (const QJsonValue rule : readManifest(patch, Pellox::PATCH_RULES_FILE))
        sizes.insert(relativePathOf(rule), fileSizeOf(rule));
    std::vector<PlannedFile> files;
    for (const QString &path : plan.patches)
        files.push_back({withoutSeparator(path), Pellox::PATCH_RULE, sizes.value(path)});
    const auto seal = hasKeys ? SealView::read(patch) : std::nullopt;
    for (const QString &path : plan.copies) {
        const QFileInfo payload(patch + path);
        const bool isLeftOut = seal && !payload.exists(); // of a slim patch
        files.push_back({withoutSeparator(path), Pellox::COPY_RULE,
            isLeftOut ? seal->sizeOf(path) : payload.size()});
    }
    for (const QString &path : plan.deletions)
        files.push_back({withoutSeparator(path), Pellox::DELETE_RULE, -1});
    std::sort(files.begin(), files.end(),
        [](const PlannedFile &one, const PlannedFile &other) { return one.path < other.path; });
    return files;
}

void tellFiles(Console &console, const UpdatePlan &plan, const QString &patch, bool hasKeys)
{
    for (const PlannedFile &file : filesOf(plan, patch, hasKeys)) {
        QJsonObject members{
            {QStringLiteral("rule"), file.rule}, {QStringLiteral("file"), file.path}};
        if (file.size >= 0)
            members.insert(QStringLiteral("size"), file.size);
        console.event(QStringLiteral("rule"), members);
        console.result(plannedFileLine(file.rule, file.size, file.path));
    }
}

QString summaryOf(const UpdatePlan &plan)
{
    return QStringLiteral(
        "%1 to patch, %2 to copy, %3 to delete; %4 to read, %5 to write; the disk "
        "needs %6 free. Nothing was written.")
        .arg(fileCount(plan.filesToPatch), fileCount(plan.filesToCopy),
            fileCount(plan.deletions.size()), byteCount(plan.bytesToRead),
            byteCount(plan.bytesToWrite), byteCount(plan.peakExtraDisk));
}

Ending tellPlan(
    Console &console, UpdateController &controller, const Folders &folders, bool hasKeys)
{
    // No signal is watched for: nothing needs to be cleaned up.
    BuildRun run(console, "update");
    console.note(QStringLiteral("checking"));
    const UpdatePlan plan = controller.plan(folders.build, folders.patch);
    for (const Pellox::UpdateProblem &problem : plan.refusals)
        run.problem(problem);
    explainOtherBuild(run, folders);
    if (!plan.refusals.isEmpty())
        return run.end(BuildRun::Result::Refused, QString(), QString());

    tellFiles(console, plan, folders.patch, hasKeys);
    console.event(QStringLiteral("plan"),
        {{QStringLiteral("patch"), plan.filesToPatch}, {QStringLiteral("copy"), plan.filesToCopy},
            {QStringLiteral("delete"), plan.deletions.size()},
            {QStringLiteral("bytes_to_read"), plan.bytesToRead},
            {QStringLiteral("bytes_to_write"), plan.bytesToWrite},
            {QStringLiteral("peak_extra_disk"), plan.peakExtraDisk}});
    const bool isNeeded = plan.filesToPatch + plan.filesToCopy + plan.deletions.size() > 0;
    return run.end(isNeeded ? BuildRun::Result::Updated : BuildRun::Result::AlreadyUpToDate,
        summaryOf(plan), upToDate(folders.build));
}

QString updated(const BuildRun &run, const Arguments &arguments, const QString &build)
{
    if (run.hasFinishedEarlier() && run.stagedFiles() == 0)
        return QStringLiteral("Updated, what an interrupted run had begun is finished: ") + build;
    const QString wayBack = arguments.keepsPrevious
        ? QStringLiteral(" (to bring the build before back: pellox rollback)")
        : QString();
    const QString files = fileCount(run.stagedFiles());
    // An interrupted run may have written all of them.
    const QString work = run.stagedBytes() == 0
        ? files + QLatin1String(" put in place")
        : QStringLiteral("%1 written (%2)").arg(files, byteCount(run.stagedBytes()));
    return QStringLiteral("Updated, %1: %2%3").arg(work, build, wayBack);
}

Ending update(Console &console, const Arguments &arguments)
{
    const Folders folders = checkedFolders(arguments);
    UpdateController controller;
    controller.setThreadCount(arguments.threads);
    controller.setFallbackSource(folders.fallback);
    controller.setTrustedKeys(existingPublicKeys(arguments.trustedKeys));
    controller.setOlderAllowed(arguments.allowsOlder);
    controller.setKeepPrevious(arguments.keepsPrevious);
    controller.setSynced(!arguments.doesNotSync);
    if (arguments.dryRun)
        return tellPlan(console, controller, folders, !arguments.trustedKeys.empty());

    BuildRun run(console, "update");
    const auto result
        = run.carryOut(controller, [&] { return controller.update(folders.build, folders.patch); });
    explainOtherBuild(run, folders);
    return run.end(result, updated(run, arguments, folders.build), upToDate(folders.build));
}

void addOptions(CLI::App &command, Arguments &arguments)
{
    command
        .add_option("--fallback", arguments.fallback,
            "A folder with the files of the new build: what is missing or changed in BUILD is "
            "taken whole from there")
        ->type_name("FOLDER");
    CLI::Option *trustedKeys = addKeysOption(command, "--trusted-key", arguments.trustedKeys,
        "A public key: only a patch that one of those given has sealed is taken");
    command
        .add_flag("--allow-older", arguments.allowsOlder,
            "Let a sealed patch lead to an older release than the one that is installed")
        ->needs(trustedKeys);
    command.add_flag("--keep-previous", arguments.keepsPrevious,
        "Keep what is replaced and deleted, for \"pellox rollback\"");
    command.add_flag(
        "--dry-run", arguments.dryRun, "Tell what would be done, with sizes, and write nothing");
    addThreadsOption(command, arguments.threads);
    command
        .add_flag("--no-sync", arguments.doesNotSync,
            "For measurements only: a power cut may then harm the build")
        ->group(""); // hidden
}

} // namespace

void addUpdateCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "update",
        "Bring an installed build up to date: checked first, all or nothing, safe at any instant");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("BUILD", arguments->build, "The installed build, changed in place")
        ->type_name("FOLDER")
        ->required();
    command->add_option("PATCH", arguments->patch, "What \"pellox publish\" wrote")
        ->type_name("FOLDER")
        ->required();
    addOptions(*command, *arguments);
    command->footer("Until all new content is written and checked the build stays as it is, and "
                    "Ctrl-C takes back\nwhat was written. A run that was killed is finished by "
                    "the next one, or by \"pellox recover\".\n\n"
        + exitStatusHelp({NothingToDo, Unchanged, Unfinished, DamagedInstall, NoSpace, RefusedPatch,
                             InTheWay, Busy, DamagedJournal},
            {{RefusedPatch, "the patch is missing, broken or refused"},
                {InTheWay, "something else of the build, or of --fallback, is not as it must be"}})
        + "\nExample:\n  pellox update installed/game patches/1.0-1.1 --keep-previous");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return update(console, *arguments); };
    });
}
