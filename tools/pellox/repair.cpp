// SPDX-License-Identifier: MIT
#include "buildrun.h"
#include "commands.h"
#include "engine.h"
#include "folders.h"
#include "integrity.h"
#include "manifests.h"

#include <Pellox/rules.h>

#include <memory>

namespace {

struct Arguments
{
    std::string build;
    std::string signatures;
    std::string source;
    int threads = 0;
};

Ending repair(Console &console, const Arguments &arguments)
{
    const QString build = existingFolder(arguments.build);
    const QString signatures = existingFolder(arguments.signatures);
    const QString source = existingFolder(arguments.source);
    requireApart(signatures, build);
    requireManifest(signatures, Pellox::SIGNATURES_FILE);
    requireApart(source, build);

    Pellox::IntegrityController controller;
    controller.setThreadCount(arguments.threads);
    BuildRun run(console, "repair");
    const auto result
        = run.repair(controller, [&] { return controller.repair(build, signatures, source); });
    const Pellox::IntegrityReport report = controller.report();
    if (result == BuildRun::Result::Updated)
        tellDifferences(console, report);
    noteOtherBuild(console, report, build);
    const auto repaired = report.changed.size() + report.missing.size() + report.unreadable.size();
    return run.end(result,
        QStringLiteral("Repaired %1 (%2): %3")
            .arg(fileCount(repaired), byteCount(run.stagedBytes()), build),
        QStringLiteral("Nothing to repair, %1: %2").arg(integritySummary(report), build));
}

} // namespace

void addRepairCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "repair",
        "Bring back the files of an installed build that are changed or missing");
    const auto arguments = std::make_shared<Arguments>();
    addBuildAndSignatures(
        *command, arguments->build, "The installed build, changed in place", arguments->signatures);
    command
        ->add_option("--from", arguments->source,
            "A folder with the right files; those that are not needed may be missing")
        ->type_name("FOLDER")
        ->required();
    addThreadsOption(*command, arguments->threads);
    command->footer("Each file is checked while it is copied. All are put in place or none; intact "
                    "files and\nthose that the signatures do not name are not touched.\n\n"
        + exitStatusHelp({NothingToDo, Unchanged, Unfinished, NoSpace, RefusedPatch, InTheWay, Busy,
                             DamagedJournal},
            {{RefusedPatch, "signatures.json is missing, broken or refused"},
                {InTheWay, "something else of the build, or of --from, is not as it must be"}})
        + "\nExample:\n  pellox repair installed/game signatures/1.1 --from releases/1.1");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return repair(console, *arguments); };
    });
}
