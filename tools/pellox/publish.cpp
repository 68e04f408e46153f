// SPDX-License-Identifier: MIT
#include "buildcheck.h"
#include "commands.h"
#include "deltaoptions.h"
#include "engine.h"
#include "folders.h"
#include "inspection.h"
#include "manifests.h"
#include "movedfiles.h"
#include "newbuild.h"
#include "packcheck.h"
#include "packing.h"
#include "patchsums.h"
#include "summaries.h"

#include <Pellox/rules.h>

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>

#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

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
    NewBuildOptions newBuildOptions;
    DeltaOptions deltas;
    int threads = 0;
    bool dryRun = false;
    bool force = false;
};

/// What publishing needs to know, all checked.
struct Job
{
    NewBuild newBuild;
    QString oldBuild;      ///< may be empty where there are signatures of it
    QString oldSignatures; ///< empty until it is signed where there are none
    DeltaOptions deltas;
    QString patch;
    QString signatures;
};

struct NamedFolder
{
    QString argument; ///< as --help names it
    QString path;
};

void requireAllApart(const std::vector<NamedFolder> &folders)
{
    for (auto folder = folders.cbegin(); folder != folders.cend(); ++folder) {
        for (auto other = folders.cbegin(); other != folder; ++other) {
            try {
                requireApart(folder->path, other->path);
            } catch (const Refusal &problem) { // two paths may look the same
                throw Refusal(problem.path(),
                    QStringLiteral("%1 (%2 and %3)")
                        .arg(problem.reason(), other->argument, folder->argument));
            }
        }
    }
}

QStringList relativePaths(const QStringList &files, const QString &build)
{
    QStringList paths;
    for (const QString &file : files)
        paths.append(file.mid(build.size()));
    return paths;
}

QStringList signedFilesOf(const Job &job)
{
    requireSignatures(job.oldSignatures, job.newBuild.folder);
    QString error;
    const auto files = PublishController::signedFiles(job.oldSignatures, &error);
    if (!files)
        throw refusalOf(error);
    return *files;
}

QStringList oldFilesOf(const Job &job, bool allowEmpty)
{
    if (!job.oldSignatures.isEmpty())
        return signedFilesOf(job);
    requireListable(job.oldBuild);
    refuseManifestName(job.oldBuild, Pellox::SIGNATURES_FILE, {});
    const QStringList files = filesOfBuild(job.oldBuild);
    if (!allowEmpty)
        refuseEmpty(job.oldBuild, files);
    return relativePaths(files, job.oldBuild);
}

Job checkedJob(const Arguments &arguments)
{
    Job job;
    const QString newBuild = existingFolder(arguments.newBuild);
    job.newBuild.folder = newBuild;
    job.deltas = arguments.deltas;
    std::vector<NamedFolder> folders{{QStringLiteral("NEW_BUILD"), newBuild}};
    if (arguments.oldBuild) {
        job.oldBuild = existingFolder(*arguments.oldBuild);
        folders.push_back({QStringLiteral("--old-build"), job.oldBuild});
    }
    if (arguments.oldSignatures) {
        job.oldSignatures = existingFolder(*arguments.oldSignatures);
        folders.push_back({QStringLiteral("--old-signatures"), job.oldSignatures});
    }
    job.patch = folderToFill(arguments.patch);
    job.signatures = folderToFill(arguments.signatures);
    folders.push_back({QStringLiteral("--patch"), job.patch});
    folders.push_back({QStringLiteral("--signatures"), job.signatures});
    requireAllApart(folders);
    requireReplaceable(job.patch, Pellox::PATCH_RULES_FILE);
    requireReplaceable(job.signatures, Pellox::SIGNATURES_FILE);
    const QStringList oldFiles = oldFilesOf(job, arguments.newBuildOptions.allowEmpty);
    job.newBuild = checkedNewBuild(newBuild, oldFiles, arguments.newBuildOptions);
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
    PackOptions options;
    options.offersForce = true;
    options.force = arguments.force;
    return std::make_optional<Packing>(job.patch, archive, options);
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

/// One thing that a dry run tells.
struct PlannedFile
{
    QString path; ///< relative
    QString kind; ///< the name of a rule, or Ignored
    qint64 size;  ///< of the new file; -1 where there is none
};

const QString Ignored = QStringLiteral("ignore");

void tellPlannedFile(Console &console, const PlannedFile &file)
{
    QJsonObject object{{QStringLiteral("file"), file.path}};
    if (file.size >= 0)
        object.insert(QStringLiteral("size"), file.size);
    if (file.kind != Ignored)
        object.insert(QStringLiteral("rule"), file.kind);
    console.event(file.kind == Ignored ? Ignored : QStringLiteral("rule"), object);
    console.result(plannedFileLine(file.kind, file.size, file.path));
}

/// Sorted by path, so that two plans can be compared.
std::vector<PlannedFile> plannedFiles(const QJsonArray &rules, const NewBuild &newBuild)
{
    std::vector<PlannedFile> files;
    for (const QJsonValue &rule : rules) {
        const QString kind = ruleNameOf(rule);
        const qint64 size = kind == Pellox::DELETE_RULE ? -1 : fileSizeOf(rule);
        files.push_back({relativePathOf(rule).mid(1), kind, size});
    }
    for (const QString &file : newBuild.ignored) {
        files.push_back({file.mid(newBuild.folder.size() + 1), Ignored, QFileInfo(file).size()});
    }
    std::sort(files.begin(), files.end(),
        [](const PlannedFile &one, const PlannedFile &other) { return one.path < other.path; });
    return files;
}

/// What of the new build is not in the patch: ", 1 file ignored (3 bytes), 2 hidden left out"
QString leftOutSummary(const NewBuild &newBuild)
{
    QString text;
    const QStringList &ignored = newBuild.ignored;
    if (!ignored.isEmpty()) {
        text += QStringLiteral(", %1 ignored (%2)")
                    .arg(fileCount(ignored.size()), byteCount(totalSize(ignored)));
    }
    const qint64 hidden = hiddenFileCount(newBuild);
    if (hidden > 0)
        text += QStringLiteral(", %1 left out").arg(counted(hidden, "hidden file"));
    return text;
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
    for (const PlannedFile &file : plannedFiles(rules, newBuild))
        tellPlannedFile(console, file);
    console.result(QStringLiteral("%1%2; %3 to sign (%4). Nothing was written.")
                       .arg(planSummary(rules), leftOutSummary(newBuild),
                           fileCount(newBuild.fileCount), byteCount(newBuild.size)));
    return true;
}

/// Whether the patch has new files with content besides those of @p moved.
bool hasOtherNewFiles(const QString &patch, const QJsonArray &rules,
    const QVector<PublishController::MovedFile> &moved)
{
    QSet<QString> known;
    for (const PublishController::MovedFile &file : moved)
        known.insert(file.relativePath);
    return std::any_of(rules.cbegin(), rules.cend(), [&](const QJsonValue &rule) {
        const QString path = relativePathOf(rule);
        return ruleNameOf(rule) == Pellox::COPY_RULE && !known.contains(path)
            && QFileInfo(patch + path).size() > 0;
    });
}

/// The engine knows of whole files alone. Parts are looked for where the old build was given for
/// the sake of a small patch: that takes another look at the patch. The release is complete; what
/// cannot be looked at is worth a note.
void tellMoved(Console &console, const Job &job, const QJsonArray &rules,
    const QVector<PublishController::MovedFile> &moved)
{
    if (job.oldBuild.isEmpty() || !hasOtherNewFiles(job.patch, rules, moved))
        return tellMovedFiles(console, inspected(moved));
    if (!console.tellsJson()) // whose progress names what is under way
        console.note(QStringLiteral("looking for new files in the old build"));
    const auto files = inspectPatch(console, job.patch, job.oldSignatures, rules.size(),
        [&](const QString &message, const QString &) {
            console.note(
                QLatin1String("what the old build has of new files is not looked for: ") + message);
        });
    tellMovedFiles(console, files ? movedFiles(*files) : inspected(moved));
}

bool makeRelease(Console &console, Engine &engine, const Job &job)
{
    const NewBuild &newBuild = job.newBuild;
    QVector<PublishController::MovedFile> moved;
    const bool made = engine.run(QStringLiteral("publish"), newBuild.size,
        [&](PublishController &controller, const PROGRESS_CALLBACK &progress) {
            job.deltas.applyTo(controller, job.oldBuild);
            const bool published = controller.publish(newBuild.folder, job.oldSignatures, job.patch,
                job.signatures, newBuild.ignored, progress);
            moved = controller.movedFiles();
            return published;
        });
    if (!made)
        return false;
    const auto rules = readWrittenManifest(console, job.patch, Pellox::PATCH_RULES_FILE);
    if (!rules)
        return false;
    console.result(patchSummary(*rules, job.patch));
    console.result(signedSummary(newBuild.fileCount, newBuild.size, job.signatures));
    tellMoved(console, job, *rules, moved);
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

void noteEarlierReleases(Console &console, const Job &job)
{
    const auto note = [&](const QString &folder, const QString &manifest) {
        if (QFileInfo::exists(folder + QLatin1Char('/') + manifest))
            console.note(QLatin1String("replaces the earlier release in ") + folder);
    };
    note(job.patch, Pellox::PATCH_RULES_FILE);
    note(job.signatures, Pellox::SIGNATURES_FILE);
}

bool publish(Console &console, const Arguments &arguments)
{
    Job job = checkedJob(arguments);
    // First, so that it still watches for signals when the others clean up.
    Engine engine(console, arguments.threads);
    std::optional<Packing> packing = checkedPacking(arguments, job);
    noteEarlierReleases(console, job);
    noteUnportableNames(console, job.newBuild.folder, job.newBuild.files);
    job.newBuild.files.clear(); // for many files much memory, which the work has a use for
    if (packing && !arguments.dryRun)
        packing->begin();
    std::unique_ptr<QTemporaryDir> temporary;
    if (job.oldSignatures.isEmpty()) {
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
    command
        .add_option("--old-signatures", arguments.oldSignatures,
            "What \"pellox publish\" or \"pellox sign\" wrote for the build that players have")
        ->type_name("FOLDER");
    CLI::Option *oldBuild = command
                                .add_option("--old-build", arguments.oldBuild,
                                    "That build itself, for much smaller deltas; without "
                                    "--old-signatures it is signed first, into a temporary folder")
                                ->type_name("FOLDER");
    addDeltaOptions(command, arguments.deltas, oldBuild);
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
    addNewBuildOptions(*command, arguments->newBuildOptions);
    addThreadsOption(*command, arguments->threads);
    CLI::Option *pack = command
                            ->add_option("--pack", arguments->archive,
                                "Then pack the patch into this 7z archive, as \"pellox pack\" does")
                            ->type_name("FILE");
    command->add_flag("--force", arguments->force, "Replace an archive that exists")->needs(pack);
    command->add_flag(
        "--dry-run", arguments->dryRun, "Tell what would be done, with sizes, and write nothing");
    command->footer(
        "One of --old-signatures and --old-build is needed; give both where you have both.\n"
        "Hidden files are no part of a build and left out.\n"
        "The folders to write are replaced as a whole; one that holds anything but an "
        "earlier\nrelease is refused.\n\n"
        + exitStatusHelp()
        + "\nExample:\n  pellox publish releases/1.1 --old-signatures signatures/1.0 "
          "--patch patches/1.0-1.1 --signatures signatures/1.1");
    command->callback([arguments, &invocation] {
        if (!arguments->oldSignatures && !arguments->oldBuild)
            throw CLI::RequiredError("--old-signatures or --old-build");
        invocation.run = [arguments](Console &console) { return publish(console, *arguments); };
    });
}
