// SPDX-License-Identifier: MIT
#include "buildcheck.h"
#include "commands.h"
#include "engine.h"
#include "folders.h"
#include "manifests.h"
#include "newbuild.h"
#include "packcheck.h"
#include "packing.h"
#include "summaries.h"

#include <Pellox/rules.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>

#include <memory>
#include <optional>

namespace {

using Pellox::PublishController;

struct Arguments
{
    std::string newBuild;
    std::optional<std::string> oldSignatures;
    std::optional<std::string> oldBuild;
    std::string patch;
    std::string signatures;
    std::optional<std::string> archive;
    IgnoreOptions ignore;
    int threads = 0;
    bool dryRun = false;
};

/// What publishing needs to know, all checked.
struct Job
{
    NewBuild newBuild;
    QString oldBuild;      ///< empty where there are signatures of it
    QString oldSignatures; ///< else empty until it is signed
    QString patch;
    QString signatures;
};

void requireAllApart(const QStringList &folders)
{
    for (int i = 0; i < folders.size(); ++i) {
        for (int other = 0; other < i; ++other)
            requireApart(folders.at(i), folders.at(other));
    }
}

QStringList relativePaths(const QStringList &files, const QString &build)
{
    QStringList paths;
    for (const QString &file : files)
        paths.append(file.mid(build.size()));
    return paths;
}

QStringList oldFilesOf(const Job &job)
{
    if (job.oldBuild.isEmpty())
        return relativePathsOf(readManifest(job.oldSignatures, Pellox::SIGNATURES_FILE));
    requireListable(job.oldBuild);
    refuseManifestName(job.oldBuild, Pellox::SIGNATURES_FILE, {});
    return relativePaths(filesOfBuild(job.oldBuild), job.oldBuild);
}

Job checkedJob(Console &console, const Arguments &arguments)
{
    Job job;
    const QString newBuild = existingFolder(arguments.newBuild);
    if (arguments.oldBuild)
        job.oldBuild = existingFolder(*arguments.oldBuild);
    else
        job.oldSignatures = existingFolder(arguments.oldSignatures.value());
    job.patch = folderToFill(arguments.patch);
    job.signatures = folderToFill(arguments.signatures);
    requireAllApart({newBuild, arguments.oldBuild ? job.oldBuild : job.oldSignatures, job.patch,
        job.signatures});
    requireReplaceable(job.patch, Pellox::PATCH_RULES_FILE);
    requireReplaceable(job.signatures, Pellox::SIGNATURES_FILE);
    const QStringList oldFiles = oldFilesOf(job);
    job.newBuild = checkedNewBuild(console, newBuild, oldFiles, arguments.ignore);
    // Ignored files are signed too.
    refuseManifestName(newBuild, Pellox::SIGNATURES_FILE, {});
    return job;
}

/// Packing that nothing which is known before the patch is made can prevent.
std::optional<Packing> checkedPacking(const Arguments &arguments, const Job &job)
{
    if (!arguments.archive)
        return {};
    const QString archive = absoluteFile(*arguments.archive);
    for (const QString &folder :
        {job.newBuild.folder, job.oldBuild, job.oldSignatures, job.signatures}) {
        if (!folder.isEmpty())
            requireOutside(archive, folder);
    }
    const QStringList &ignored = job.newBuild.ignored;
    const QSet<QString> leftOut(ignored.cbegin(), ignored.cend());
    for (const QString &file : job.newBuild.files) {
        if (!leftOut.contains(file))
            refuseNameForSevenZip(file, job.newBuild.folder);
    }
    return std::make_optional<Packing>(job.patch, archive, PackOptions());
}

/// A folder for the signatures of the old build, which go when it does.
std::unique_ptr<QTemporaryDir> temporarySignatures(const Job &job)
{
    auto folder = std::make_unique<QTemporaryDir>();
    if (!folder->isValid())
        throw Refusal(
            folder->path(), QStringLiteral("cannot be created: ") + folder->errorString());
    for (const QString &other : {job.newBuild.folder, job.oldBuild, job.patch, job.signatures})
        requireApart(folder->path(), other);
    return folder;
}

QString kindAndSize(const QJsonValue &rule)
{
    const QString kind = ruleNameOf(rule);
    const QString size = kind == Pellox::DELETE_RULE ? QString() : byteCount(fileSizeOf(rule));
    constexpr int KindWidth = 6;
    constexpr int SizeWidth = 10;
    return kind.leftJustified(KindWidth) + QLatin1Char(' ') + size.rightJustified(SizeWidth);
}

void tellRule(Console &console, const QJsonValue &rule)
{
    const QString path = relativePathOf(rule).mid(1);
    QJsonObject object{{QStringLiteral("rule"), ruleNameOf(rule)}, {QStringLiteral("file"), path}};
    if (ruleNameOf(rule) != Pellox::DELETE_RULE)
        object.insert(QStringLiteral("size"), fileSizeOf(rule));
    console.event(QStringLiteral("rule"), object);
    console.result(kindAndSize(rule) + QLatin1String("  ") + path);
}

bool tellPlan(Console &console, Engine &engine, const Job &job)
{
    const NewBuild &newBuild = job.newBuild;
    QJsonArray rules;
    const bool planned = engine.run(QStringLiteral("plan"), newBuild.size,
        [&](PublishController &controller, const PROGRESS_CALLBACK &progress) {
            const auto plan
                = controller.plan(newBuild.folder, job.oldSignatures, newBuild.ignored, progress);
            rules = QJsonArray::fromVariantList(plan.value_or(QVariantList()));
            return plan.has_value();
        });
    if (!planned)
        return false;
    for (const QJsonValue &rule : qAsConst(rules))
        tellRule(console, rule);
    console.result(
        QStringLiteral("%1; %2 to sign (%3). Nothing was written.")
            .arg(planSummary(rules), fileCount(newBuild.files.size()), byteCount(newBuild.size)));
    return true;
}

bool makeRelease(Console &console, Engine &engine, const Job &job)
{
    const NewBuild &newBuild = job.newBuild;
    const bool made = engine.run(QStringLiteral("publish"), newBuild.size,
        [&](PublishController &controller, const PROGRESS_CALLBACK &progress) {
            return controller.publish(newBuild.folder, job.oldSignatures, job.patch, job.signatures,
                newBuild.ignored, progress);
        });
    if (!made)
        return false;
    const auto rules = readWrittenManifest(console, job.patch, Pellox::PATCH_RULES_FILE);
    if (!rules)
        return false;
    console.result(patchSummary(*rules, job.patch));
    console.result(signedSummary(newBuild.files.size(), newBuild.size, job.signatures));
    return true;
}

bool packPatch(Console &console, Packing &packing)
{
    Interrupt::throwIfStopped();
    try {
        return packing.run(console, packing.content());
    } catch (const Refusal &problem) { // too late to be one
        console.error(problem.path(), problem.reason());
        return false;
    }
}

bool publish(Console &console, const Arguments &arguments)
{
    Job job = checkedJob(console, arguments);
    // First, so that it still watches for signals when the others clean up.
    Engine engine(console, arguments.threads);
    std::optional<Packing> packing = checkedPacking(arguments, job);
    if (packing && !arguments.dryRun)
        packing->begin();
    std::unique_ptr<QTemporaryDir> temporary;
    if (!job.oldBuild.isEmpty()) {
        temporary = temporarySignatures(job);
        job.oldSignatures = temporary->path();
        const qint64 size = totalSize(filesOfBuild(job.oldBuild));
        if (!engine.sign(job.oldBuild, size, job.oldSignatures))
            return false;
    }
    if (arguments.dryRun)
        return tellPlan(console, engine, job);
    return makeRelease(console, engine, job) && (!packing || packPatch(console, *packing));
}

void addFolders(CLI::App &command, Arguments &arguments)
{
    command.add_option("NEW_BUILD", arguments.newBuild, "The build to bring players to")
        ->type_name("FOLDER")
        ->required();
    CLI::Option *oldSignatures = command
                                     .add_option("--old-signatures", arguments.oldSignatures,
                                         "What \"pellox publish\" or \"pellox sign\" wrote for the "
                                         "build that players have")
                                     ->type_name("FOLDER");
    command
        .add_option("--old-build", arguments.oldBuild,
            "That build itself, for a first release: it is signed into a temporary folder")
        ->type_name("FOLDER")
        ->excludes(oldSignatures);
    command
        .add_option("--patch", arguments.patch,
            "The folder to write: deltas, new files and patchRules.json")
        ->type_name("FOLDER")
        ->required();
    command
        .add_option("--signatures", arguments.signatures,
            "The folder to write: the signatures of NEW_BUILD, for the release after it")
        ->type_name("FOLDER")
        ->required();
}

} // namespace

void addPublishCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "publish",
        "Publish a release: make the patch and sign the new build in one pass, on all cores");
    const auto arguments = std::make_shared<Arguments>();
    addFolders(*command, *arguments);
    addIgnoreOptions(*command, arguments->ignore);
    addThreadsOption(*command, arguments->threads);
    command
        ->add_option("--pack", arguments->archive,
            "Then pack the patch into this 7z archive, as \"pellox pack\" does")
        ->type_name("FILE");
    command->add_flag(
        "--dry-run", arguments->dryRun, "Tell what would be done, with sizes, and write nothing");
    command->footer("The folders to write are replaced as a whole; one that holds anything but an "
                    "earlier\nrelease is refused.\n\n"
                    "Example:\n  pellox publish releases/1.1 --old-signatures signatures/1.0 "
                    "--patch patches/1.0-1.1 --signatures signatures/1.1");
    command->callback([arguments, &invocation] {
        if (!arguments->oldSignatures && !arguments->oldBuild)
            throw CLI::RequiredError("--old-signatures or --old-build");
        invocation.run = [arguments](Console &console) { return publish(console, *arguments); };
    });
}
