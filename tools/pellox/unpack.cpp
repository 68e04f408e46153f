// SPDX-License-Identifier: MIT
#include "commands.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "sevenzip.h"

#include <Pellox/ArchiveController>

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>

#include <memory>

namespace {

struct Arguments
{
    std::string archive;
    std::string folder;
};

QString pathIn(const QString &folder, const ArchivedFile &file)
{
    return folder + QLatin1Char('/') + file.path;
}

void refuseToOverwrite(const std::vector<ArchivedFile> &files, const QString &folder)
{
    for (const ArchivedFile &file : files) {
        const QFileInfo target(pathIn(folder, file));
        if (target.exists() || target.isSymLink())
            throw Refusal(target.filePath(), QStringLiteral("exists; unpack into a new folder"));
    }
}

void requireRoom(qint64 size, const QString &folder)
{
    const QStorageInfo disk(existingAncestor(folder));
    if (disk.isValid() && disk.bytesAvailable() < size) {
        throw Refusal(folder,
            QStringLiteral("has no room: %1 are needed, %2 are free")
                .arg(byteCount(size), byteCount(disk.bytesAvailable())));
    }
}

/// 7-Zip's word is not enough: every file of the list must be there in full.
void reportMissing(Console &console, const std::vector<ArchivedFile> &files, const QString &folder)
{
    for (const ArchivedFile &file : files) {
        const QFileInfo target(pathIn(folder, file));
        const bool arrived
            = file.isLink ? target.isSymLink() : target.isFile() && target.size() == file.size;
        if (!arrived)
            console.error(target.filePath(), QStringLiteral("was not unpacked in full"));
    }
}

bool unpack(Console &console, const Arguments &arguments)
{
    const QString archive = absoluteFile(arguments.archive);
    const QString folder = folderToFill(arguments.folder);
    requireSevenZip();
    const Volumes volumes(archive);
    volumes.requireComplete();
    const QString firstVolume = volumes.paths().first();
    const std::vector<ArchivedFile> files = filesInArchive(firstVolume);
    qint64 size = 0;
    for (const ArchivedFile &file : files)
        size += file.size;
    refuseToOverwrite(files, folder);
    requireRoom(size, folder);

    Pellox::ArchiveController controller;
    controller.setSilentEndIsError(true);
    QObject::connect(&controller, &Pellox::ArchiveController::extractError,
        [&](const QStringList &errors) { console.error(firstVolume, errors.last()); });
    const Interrupt::Watch watch([] { QCoreApplication::exit(); });

    console.startProgress(QStringLiteral("unpack"), Progress::Unit::EstimatedBytes, size);
    const bool unpacked
        = controller.extractArchive(firstVolume, folder, QString(), [&](double percent) {
              console.advanceTo(static_cast<qint64>(percent / 100 * static_cast<double>(size)));
          });
    if (unpacked)
        console.advanceTo(size);
    console.stopProgress();

    if (watch.isStopped() || !unpacked) {
        for (const ArchivedFile &file : files)
            QFile::remove(pathIn(folder, file));
        if (watch.isStopped())
            throw Interrupt::Stopped();
        return false;
    }
    reportMissing(console, files, folder);
    if (console.errorCount() > 0)
        return false;
    console.result(QStringLiteral("Unpacked %1 (%2): %3")
                       .arg(fileCount(static_cast<qint64>(files.size())), byteCount(size), folder));
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
        "Nothing that exists is overwritten. A run that fails removes what it unpacked.\n\n"
        "Example:\n  pellox unpack download/1.0-1.1.7z.001 patches/1.0-1.1");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return unpack(console, *arguments); };
    });
}
