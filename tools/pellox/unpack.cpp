// SPDX-License-Identifier: MIT
#include "commands.h"
#include "diskroom.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "mergefolder.h"
#include "newfolders.h"
#include "renames.h"
#include "sevenzip.h"
#include "unpackcheck.h"

#include <Pellox/ArchiveController>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <memory>
#include <optional>
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

Job checkedJob(const Arguments &arguments)
{
    Job job{firstVolumeOf(absoluteFile(arguments.archive)), folderToFill(arguments.folder), {}, 0};
    refuseWildcards(job.folder);
    if (readsAsVerdict(job.firstVolume)) {
        throw Refusal(
            job.firstVolume, QStringLiteral("has a path that reads like 7-Zip's own messages"));
    }
    requireSevenZip();
    job.entries = entriesOfArchive(job.firstVolume);
    for (const ArchivedEntry &entry : job.entries) {
        refuseEntry(entry, job.firstVolume, job.folder);
        job.size += entry.size;
    }
    requireRoom(job.size, job.folder);
    return job;
}

/// A hidden folder in the one to fill, so on the same disk. There the archive is unpacked and
/// looked at before any of it gets its place.
class WorkFolder
{
public:
    explicit WorkFolder(const QString &folder)
    {
        m_newFolders.expect(folder);
        if (!QDir().mkpath(folder))
            throw Refusal(folder, QStringLiteral("cannot be created"));
        m_dir.emplace(folder + QLatin1String("/.pellox-XXXXXX"));
        if (!m_dir->isValid())
            throw Refusal(folder, QStringLiteral("cannot be written to"));
    }
    QTemporaryDir &dir() { return *m_dir; }
    QString path() const { return m_dir->path(); }
    void keepNewFolders() { m_newFolders.keep(); }

private:
    NewFolders m_newFolders; // goes after what is in them has
    std::optional<QTemporaryDir> m_dir;
};

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
bool putInPlace(Console &console, WorkFolder &workFolder, const QString &folder)
{
    Renames renames(workFolder.dir(), console);
    if (!mergeFolder(workFolder.path(), folder, renames, console))
        return false;
    Interrupt::throwIfStopped();
    renames.keep();
    workFolder.keepNewFolders();
    return true;
}

bool unpack(Console &console, const Arguments &arguments)
{
    const Interrupt::Watch watch([] { QCoreApplication::exit(); });
    const Job job = checkedJob(arguments);
    Interrupt::throwIfStopped();
    WorkFolder workFolder(job.folder);
    if (!runSevenZip(console, job, workFolder.path()))
        return false;
    const UnpackedContent content
        = checkUnpacked(console, job.entries, workFolder.path(), job.folder);
    if (console.errorCount() > 0 || !putInPlace(console, workFolder, job.folder))
        return false;
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
        "Example:\n  pellox unpack download/1.0-1.1.7z.001 patches/1.0-1.1");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return unpack(console, *arguments); };
    });
}
