// SPDX-License-Identifier: MIT
#include "commands.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "packing.h"
#include "sizeoption.h"

#include <QCoreApplication>

#include <memory>

namespace {

struct Arguments
{
    std::string folder;
    std::string archive;
    const CLI::Option *volumeSize = nullptr; ///< given or not
    PackOptions options;
};

/// The smallest size of volumes, in whole MiB, that makes no more than @p most of @p size bytes.
QString leastVolumeSize(qint64 size, qint64 most)
{
    constexpr qint64 MiB = 1 << 20;
    return QString::number(size / (most * MiB) + 1) + QLatin1Char('M');
}

/// A size without its unit would make millions of files.
void refuseTooManyVolumes(const Arguments &arguments, qint64 size)
{
    constexpr qint64 Most = 999; // what three digits count
    constexpr qint64 LikelyWithoutUnit = 1024;
    const qint64 volumeSize = arguments.options.volumeSize;
    if (arguments.volumeSize->empty() || size / volumeSize < Most)
        return;
    const QString remedy = volumeSize < LikelyWithoutUnit
        ? QStringLiteral("did you mean %1M?").arg(volumeSize)
        : QStringLiteral("%1 would do").arg(leastVolumeSize(size, Most));
    throw Refusal(QStringLiteral("--volume-size"),
        QStringLiteral("volumes of %1 would be up to %2 for %3: %4")
            .arg(byteCount(volumeSize), QString::number(size / volumeSize + 1), byteCount(size),
                remedy));
}

bool pack(Console &console, const Arguments &arguments)
{
    // First, so that it still watches when the others clean up.
    const Interrupt::Watch watch([] { QCoreApplication::exit(); });
    const QString folder = existingFolder(arguments.folder);
    Packing packing(folder, absoluteFile(arguments.archive), arguments.options);
    const PackedContent content = packing.content();
    refuseTooManyVolumes(arguments, content.size);
    packing.begin();
    return packing.run(console, content);
}

} // namespace

void addPackCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command
        = addCommand(app, invocation, "pack", "Pack a folder into a 7z archive in volumes");
    const auto arguments = std::make_shared<Arguments>();
    arguments->options.offersForce = true;
    command->add_option("FOLDER", arguments->folder, "The folder whose contents are packed")
        ->type_name("FOLDER")
        ->required();
    command
        ->add_option("ARCHIVE", arguments->archive,
            "The archive to write: its volumes are ARCHIVE.001, ARCHIVE.002 and so on")
        ->type_name("FILE")
        ->required();
    arguments->volumeSize = addSizeOption(*command, "--volume-size", arguments->options.volumeSize,
        "The size of a volume: bytes, or with K, M, G, T, P or E; cut to whole G above 1G. "
        "500M where not given");
    command->add_flag("--force", arguments->options.force, "Replace an archive that exists");
    command->footer("Hidden files are packed too.\n\n" + exitStatusHelp()
        + "\nExample:\n  pellox pack patches/1.0-1.1 upload/1.0-1.1.7z --volume-size 100M");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return pack(console, *arguments); };
    });
}
