// SPDX-License-Identifier: MIT
#include "commands.h"
#include "diskroom.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "mergefolder.h"
#include "renames.h"
#include "sevenzip.h"
#include "stagefolder.h"
#include "unpackcheck.h"
#include "volumes.h"

#include <Pellox/ArchiveController>

#include <QCoreApplication>
#include <QFileInfo>

#include <algorithm>
#include <limits>
#include <memory>
#include <vector>

namespace {

struct Arguments
{
    std::string archive;
    std::string folder;
};

/// What unpacking needs to know, all checked.
struct Job
{
    QString firstVolume;
    QString folder;
    std::vector<ArchivedEntry> entries;
    qint64 size;
};

/// A file of the very name goes before volumes.
QString firstVolumeOf(const QString &archive)
{
    refuseWrongArchive(archive);
    refuseWildcards(archive);
    const Volumes volumes(archive);
    if (volumes.name() == archive && QFileInfo(archive).isFile())
        return archive;
    volumes.requireComplete();
    return volumes.paths().first();
}

/// An archive may lie about its sizes: the largest number rather than one beyond it.
qint64 sumOf(qint64 size, qint64 other)
{
    return size > std::numeric_limits<qint64>::max() - other ? std::numeric_limits<qint64>::max()
                                                             : size + other;
}

Job checkedJob(const Arguments &arguments)
{
    Job job{firstVolumeOf(absoluteFile(arguments.archive)), folderToFill(arguments.folder), {}, 0};
    refuseWildcards(job.folder);
    if (readsAsVerdict(job.firstVolume)) {
        throw Refusal(
            job.firstVolume, QStringLiteral("has a path that reads like 7-Zip's own messages"));
    }
    job.entries = entriesOfArchive(job.firstVolume);
    for (const ArchivedEntry &entry : job.entries) {
        refuseEntry(entry, job.firstVolume, job.folder);
        job.size = sumOf(job.size, entry.size);
    }
    requireRoom(job.size, job.folder);
    return job;
}

/// The library tells 7-Zip's errors in capitals. An entry's name at the end gets its own form;
/// other paths stay as they are.
QString inPlainLetters(const QString &error, const Job &job)
{
    for (const ArchivedEntry &entry : job.entries) {
        const QString ending = QLatin1String(" : ") + entry.path.toUpper();
        if (error.endsWith(ending))
            return error.chopped(ending.size()).toLower() + QLatin1String(" : ") + entry.path;
    }
    return error.contains(QLatin1Char('/')) ? error : error.toLower();
}

bool tellsOfDamage(const QString &error)
{
    const QStringList signs{QStringLiteral("CRC FAILED"), QStringLiteral("DATA ERROR"),
        QStringLiteral("HEADERS ERROR"), QStringLiteral("UNEXPECTED END"),
        QStringLiteral("UNAVAILABLE DATA"), QStringLiteral("UNSUPPORTED METHOD"),
        QStringLiteral("IS NOT ARCHIVE")};
    return std::any_of(
        signs.cbegin(), signs.cend(), [&](const QString &sign) { return error.startsWith(sign); });
}

/// Which entry is the link that 7-Zip refused; as "entry : target" in capitals in its @p error.
QString refusedLink(const QString &error, const Job &job)
{
    const auto entry
        = std::find_if(job.entries.cbegin(), job.entries.cend(), [&](const ArchivedEntry &link) {
              return link.isLink
                  && error.contains(QStringLiteral(" : %1 : ").arg(link.path.toUpper()));
          });
    return entry == job.entries.cend() ? QStringLiteral("a link")
                                       : entry->path + QLatin1String(", a link");
}

/// What 7-Zip did not manage lies with the archive or with the folder.
void tellFailure(Console &console, const QString &problem, const Job &job)
{
    const QString error = errorIn(problem);
    if (tellsOfDamage(error)) {
        console.error(job.firstVolume,
            QStringLiteral("is damaged (7-Zip: %1); download it again")
                .arg(inPlainLetters(error, job)));
        return;
    }
    if (error.startsWith(QLatin1String("DANGEROUS LINK"))) {
        console.error(job.firstVolume,
            QStringLiteral("holds %1 that 7-Zip does not unpack: it leads through \"..\" or "
                           "another link")
                .arg(refusedLink(error, job)));
        return;
    }
    const QString reason = error.isEmpty() ? problem.section(QLatin1Char('\n'), 0, 0)
                                           : QLatin1String("7-Zip: ") + inPlainLetters(error, job);
    console.error(job.folder, QStringLiteral("cannot be filled (%1)").arg(reason));
}

bool runSevenZip(Console &console, const Job &job, const QString &workFolder)
{
    QString problem;
    Pellox::ArchiveController controller;
    controller.setSilentEndIsError(true);
    QObject::connect(&controller, &Pellox::ArchiveController::extractError,
        [&](const QStringList &errors) { problem = errors.last(); });

    console.startProgress(QStringLiteral("unpack"), Progress::Unit::EstimatedBytes, job.size);
    const bool unpacked
        = controller.extractArchive(job.firstVolume, workFolder, QString(), [&](double percent) {
              console.advanceTo(static_cast<qint64>(percent / 100 * static_cast<double>(job.size)));
          });
    if (unpacked)
        console.advanceTo(job.size);
    console.stopProgress();
    if (unpacked)
        return true;
    Interrupt::throwIfStoppedLately();
    problem.replace(workFolder, job.folder, Qt::CaseInsensitive);
    tellFailure(console, problem, job);
    return false;
}

/// All or nothing.
bool putInPlace(Console &console, StageFolder &stage, const QString &folder)
{
    Renames renames(stage.dir(), console);
    if (!mergeFolder(stage.path(), folder, renames, console))
        return false;
    Interrupt::throwIfStopped();
    renames.keep();
    return true;
}

bool unpack(Console &console, const Arguments &arguments)
{
    const Interrupt::Watch watch([] { QCoreApplication::exit(); });
    const Job job = checkedJob(arguments);
    Interrupt::throwIfStopped();
    StageFolder stage(job.folder);
    if (!runSevenZip(console, job, stage.path()))
        return false;
    const UnpackedContent content = checkUnpacked(console, job.entries, stage.path(), job.folder);
    if (console.errorCount() > 0 || !putInPlace(console, stage, job.folder))
        return false;
    stage.finish();
    console.result(QStringLiteral("Unpacked %1 (%2): %3")
                       .arg(fileCount(content.files), byteCount(content.size), job.folder));
    return true;
}

} // namespace

void addUnpackCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "unpack", "Unpack a 7z archive");
    const auto arguments = std::make_shared<Arguments>();
    command
        ->add_option("ARCHIVE", arguments->archive,
            "The archive: its first volume, or its name without the volume's number")
        ->type_name("FILE")
        ->required();
    command->add_option("FOLDER", arguments->folder, "The folder to fill")
        ->type_name("FOLDER")
        ->required();
    command->footer(
        "Nothing that exists is overwritten. A run that fails leaves nothing behind.\n\n"
        + exitStatusHelp() + "\nExample:\n  pellox unpack download/1.0-1.1.7z.001 patches/1.0-1.1");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return unpack(console, *arguments); };
    });
}
