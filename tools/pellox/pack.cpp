// SPDX-License-Identifier: MIT
#include "commands.h"
#include "folders.h"
#include "interrupt.h"
#include "packing.h"
#include "sizeoption.h"

#include <QCoreApplication>

#include <memory>

namespace {

struct Arguments
{
    std::string folder;
    std::string archive;
    PackOptions options;
};

bool pack(Console &console, const Arguments &arguments)
{
    // First, so that it still watches when the others clean up.
    const Interrupt::Watch watch([] { QCoreApplication::exit(); });
    const QString folder = existingFolder(arguments.folder);
    Packing packing(folder, absoluteFile(arguments.archive), arguments.options);
    const PackedContent content = packing.content();
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
    addSizeOption(*command, "--volume-size", arguments->options.volumeSize,
        "The size of a volume, with K, M or G; cut to whole G above 1G. 500M where not given");
    command->add_flag("--force", arguments->options.force, "Replace an archive that exists");
    command->footer("Hidden files are packed too.\n\n"
                    "Example:\n  pellox pack patches/1.0-1.1 upload/1.0-1.1.7z --volume-size 100M");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return pack(console, *arguments); };
    });
}
