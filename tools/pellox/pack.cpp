// SPDX-License-Identifier: MIT
#include "commands.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "newfolders.h"
#include "packcheck.h"
#include "renames.h"
#include "sevenzip.h"
#include "sizeoption.h"

#include <Pellox/ArchiveController>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <memory>
#include <utility>

namespace {

const QString ArchiveName = QStringLiteral("archive.7z");

struct Arguments
{
    std::string folder;
    std::string archive;
    qint64 volumeSize = 500LL * 1024 * 1024;
    bool force = false;
};

/// What packing needs to know, all checked.
struct Job
{
    QString folder;
    Volumes target;
    PackedContent content;
    qint64 volumeSize;
    bool force;
};

void requireFree(const Volumes &target, bool force)
{
    for (const QString &path : target.pathsToReplace()) {
        if (QFileInfo(path).isDir())
            throw Refusal(path, QStringLiteral("is a folder"));
        if (!force)
            throw Refusal(path, QStringLiteral("exists; --force replaces it"));
    }
}

Job checkedJob(const Arguments &arguments)
{
    const QString folder = existingFolder(arguments.folder);
    Volumes target(absoluteFile(arguments.archive));
    requireSevenZip();
    refuseWildcards(folder);
    requireOutside(target.name(), folder);
    requireFree(target, arguments.force);
    const PackedContent content = requirePackable(folder);
    if (QDir(folder).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot))
        throw Refusal(folder, QStringLiteral("is empty: there is nothing to pack"));
    return {folder, std::move(target), content, arguments.volumeSize, arguments.force};
}

bool runSevenZip(Console &console, const Job &job, const QString &workFolder)
{
    const qint64 size = job.content.size;
    QString problem;
    auto controller = std::make_unique<Pellox::ArchiveController>();
    controller->setSilentEndIsError(true);
    controller->setChunkSize(job.volumeSize);
    QObject::connect(controller.get(), &Pellox::ArchiveController::createArchiveError,
        [&](const QStringList &errors) { problem = errors.last(); });

    console.startProgress(QStringLiteral("pack"), Progress::Unit::EstimatedBytes, size);
    const bool packed
        = controller->createArchive(workFolder, ArchiveName, job.folder, [&](double percent) {
              if (percent < 100) // the last report comes whatever the outcome
                  console.advanceTo(static_cast<qint64>(percent / 100 * static_cast<double>(size)));
          });
    if (packed)
        console.advanceTo(size);
    console.stopProgress();
    controller.reset(); // ends a 7-Zip that still runs
    if (packed)
        return true;
    Interrupt::throwIfStoppedLately();
    console.error(job.target.name(), problem);
    return false;
}

/// Each volume but the last must be full, or one of them was not written to its end.
void reportShortVolumes(Console &console, const Job &job, const QStringList &volumes)
{
    // Whole GiB above one: the library rounds down.
    constexpr qint64 GiB = 1LL << 30;
    const qint64 fullSize = job.volumeSize > GiB ? job.volumeSize / GiB * GiB : job.volumeSize;
    for (int number = 1; number < volumes.size(); ++number) {
        if (QFileInfo(volumes.at(number - 1)).size() != fullSize)
            console.error(job.target.path(number), QStringLiteral("is not a whole volume"));
    }
}

void reportMissingFiles(Console &console, const Job &job, const Volumes &made)
{
    try {
        made.requireComplete();
        const int archived = countFiles(entriesOfArchive(made.paths().first()));
        if (archived != job.content.files) {
            console.error(job.target.name(),
                QStringLiteral("would hold %1, not the %2 of the folder")
                    .arg(fileCount(archived), fileCount(job.content.files)));
        }
    } catch (const Refusal &problem) {
        console.error(job.target.name(), problem.reason());
    }
}

/// Puts the volumes in place of those that are there, if they may be replaced: all or none.
bool putInPlace(Console &console, const Job &job, const Volumes &made, const QString &workFolder)
{
    Renames renames;
    if (job.force) {
        for (const QString &path : Volumes(job.target.name()).pathsToReplace()) {
            const QString away
                = workFolder + QLatin1String("/replaced-") + QFileInfo(path).fileName();
            if (!renames.rename(path, away)) {
                console.error(path, QStringLiteral("cannot be replaced"));
                return false;
            }
        }
    }
    const int count = made.paths().size();
    for (int number = 1; number <= count; ++number) {
        const QString path = job.target.path(number);
        if (!renames.rename(made.paths().at(number - 1), path)) {
            console.error(path,
                QFileInfo::exists(path) ? QStringLiteral("is in the way")
                                        : QStringLiteral("cannot be created"));
            return false;
        }
    }
    const QString next = job.target.path(count + 1);
    if (QFileInfo::exists(next)) {
        console.error(next, QStringLiteral("is in the way: it would pass for one more volume"));
        return false;
    }
    renames.keep();
    return true;
}

bool pack(Console &console, const Arguments &arguments)
{
    const Job job = checkedJob(arguments);
    const QString targetFolder = QFileInfo(job.target.name()).path();
    const Interrupt::Watch watch([] { QCoreApplication::exit(); });
    NewFolders newFolders;
    newFolders.expect(targetFolder);
    // Until all is well the archive stands under a plain name in a folder of its own, where it is
    // in nobody's way and 7-Zip cannot take its name for a switch or a pattern.
    if (!QDir().mkpath(targetFolder))
        throw Refusal(targetFolder, QStringLiteral("cannot be created"));
    const QTemporaryDir workFolder(targetFolder + QLatin1String("/.pellox-XXXXXX"));
    if (!workFolder.isValid())
        throw Refusal(targetFolder, QStringLiteral("cannot be written to"));

    if (!runSevenZip(console, job, workFolder.path()))
        return false;
    const Volumes made(workFolder.filePath(ArchiveName));
    reportShortVolumes(console, job, made.paths());
    reportMissingFiles(console, job, made);
    Interrupt::throwIfStopped();
    const qint64 archiveSize = made.size();
    if (console.errorCount() > 0 || !putInPlace(console, job, made, workFolder.path()))
        return false;
    console.result(QStringLiteral("Packed %1 (%2) into %3 (%4): %5")
                       .arg(fileCount(job.content.files), byteCount(job.content.size),
                           counted(made.paths().size(), "volume"), byteCount(archiveSize),
                           job.target.path(1)));
    return true;
}

} // namespace

void addPackCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command
        = addCommand(app, invocation, "pack", "Pack a folder into a 7z archive in volumes");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("FOLDER", arguments->folder, "The folder whose contents are packed")
        ->type_name("FOLDER")
        ->required();
    command
        ->add_option("ARCHIVE", arguments->archive,
            "The archive to write: its volumes are ARCHIVE.001, ARCHIVE.002 and so on")
        ->type_name("FILE")
        ->required();
    addSizeOption(*command, "--volume-size", arguments->volumeSize,
        "The size of a volume, with K, M or G; cut to whole G above 1G. 500M where not given");
    command->add_flag("--force", arguments->force, "Replace an archive that exists");
    command->footer("Hidden files are packed too.\n\n"
                    "Example:\n  pellox pack patches/1.0-1.1 upload/1.0-1.1.7z --volume-size 100M");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return pack(console, *arguments); };
    });
}
