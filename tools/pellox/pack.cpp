// SPDX-License-Identifier: MIT
#include "commands.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "sevenzip.h"

#include <Pellox/ArchiveController>

#include <CLI/Validators.hpp>

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

#include <memory>

namespace {

struct Arguments
{
    std::string folder;
    std::string archive;
    quint64 volumeSize = 500ULL * 1024 * 1024;
    bool force = false;
};

/// All that 7-Zip will pack: hidden files too, unlike a build.
QStringList filesToPack(const QString &folder)
{
    QStringList files;
    QDirIterator walk(
        folder, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (walk.hasNext())
        files.append(walk.next());
    return files;
}

/// Each volume but the last must be full, or one of them was not written to its end.
void reportShortVolumes(Console &console, const Volumes &volumes, qint64 volumeSize)
{
    for (int i = 0; i + 1 < volumes.paths().size(); ++i) {
        const QFileInfo volume(volumes.paths().at(i));
        if (volume.size() != volumeSize)
            console.error(volume.filePath(), QStringLiteral("is not a whole volume"));
    }
}

bool pack(Console &console, const Arguments &arguments)
{
    const QString folder = existingFolder(arguments.folder);
    const QString archive = absoluteFile(arguments.archive);
    const Volumes earlier(archive);
    requireSevenZip();
    requireOutside(earlier.name(), folder);
    if (QFileInfo(earlier.name()).isDir())
        throw Refusal(earlier.name(), QStringLiteral("is a folder"));
    if (QDir(folder).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot))
        throw Refusal(folder, QStringLiteral("is empty: there is nothing to pack"));
    if (!earlier.isEmpty() && !arguments.force)
        throw Refusal(earlier.paths().first(), QStringLiteral("exists; --force replaces it"));
    earlier.remove();

    const QStringList files = filesToPack(folder);
    const qint64 size = totalSize(files);
    const QFileInfo target(earlier.name());
    // Whole GiB above one: the library rounds down.
    const auto volumeSize = static_cast<qint64>(arguments.volumeSize);
    auto controller = std::make_unique<Pellox::ArchiveController>();
    controller->setSilentEndIsError(true);
    controller->setChunkSize(volumeSize);
    QObject::connect(controller.get(), &Pellox::ArchiveController::createArchiveError,
        [&](const QStringList &errors) { console.error(earlier.name(), errors.last()); });
    const Interrupt::Watch watch([] { QCoreApplication::exit(); });

    console.startProgress(QStringLiteral("pack"), Progress::Unit::EstimatedBytes, size);
    const bool packed
        = controller->createArchive(target.path(), target.fileName(), folder, [&](double percent) {
              if (percent < 100) // the last report comes whatever the outcome
                  console.advanceTo(static_cast<qint64>(percent / 100 * static_cast<double>(size)));
          });
    if (packed)
        console.advanceTo(size);
    console.stopProgress();
    controller.reset(); // ends a 7-Zip that still runs

    const Volumes volumes(earlier.name());
    if (watch.isStopped() || !packed) {
        volumes.remove();
        if (watch.isStopped())
            throw Interrupt::Stopped();
        return false;
    }
    volumes.requireComplete();
    constexpr qint64 GiB = 1LL << 30;
    reportShortVolumes(console, volumes, volumeSize > GiB ? volumeSize / GiB * GiB : volumeSize);
    const auto archived = static_cast<int>(filesInArchive(volumes.paths().first()).size());
    if (archived != files.size()) {
        console.error(earlier.name(),
            QStringLiteral("holds %1, not the %2 of the folder")
                .arg(fileCount(archived), fileCount(files.size())));
    }
    if (console.errorCount() > 0)
        return false;
    console.result(QStringLiteral("Packed %1 (%2) into %3 (%4): %5")
                       .arg(fileCount(files.size()), byteCount(size),
                           counted(volumes.paths().size(), "volume"), byteCount(volumes.size()),
                           volumes.paths().first()));
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
    command
        ->add_option("--volume-size", arguments->volumeSize,
            "The size of a volume, with K, M or G; cut to whole G above 1G. 500M where not given")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::PositiveNumber)
        ->type_name("SIZE");
    command->add_flag("--force", arguments->force, "Replace an archive that exists");
    command->footer("Hidden files are packed too.\n\n"
                    "Example:\n  pellox pack patches/1.0-1.1 upload/1.0-1.1.7z --volume-size 100M");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return pack(console, *arguments); };
    });
}
