// SPDX-License-Identifier: MIT
#include "buildrun.h"
#include "buildstate.h"
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
    int threads = 0;
};

Ending check(Console &console, const Arguments &arguments)
{
    const QString build = existingFolder(arguments.build);
    const QString signatures = existingFolder(arguments.signatures);
    requireApart(signatures, build);
    requireManifest(signatures, Pellox::SIGNATURES_FILE);

    noteState(console, build);
    Pellox::IntegrityController controller;
    controller.setThreadCount(arguments.threads);
    BuildRun run(console, "check");
    const auto result = run.check(controller, [&] { return controller.check(build, signatures); });
    if (result != BuildRun::Result::Updated)
        return run.end(result, QString(), QString());

    const Pellox::IntegrityReport report = controller.report();
    tellDifferences(console, report);
    tellExtraFiles(console, report);
    const QString summary = integritySummary(report) + QLatin1String(": ") + build;
    console.result(summary);
    if (report.isIntact())
        return {Done, summary};
    noteOtherBuild(console, report, build);
    console.note(QStringLiteral("to bring back what is not intact: pellox repair"));
    return {Failed, summary};
}

} // namespace

void addCheckCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "check",
        "Compare an installed build with its signatures; exit status 1 when it is not intact");
    const auto arguments = std::make_shared<Arguments>();
    addBuildAndSignatures(
        *command, arguments->build, "The installed build, only read", arguments->signatures);
    addThreadsOption(*command, arguments->threads);
    command->footer("Files that the signatures do not name, a player's saves say, are listed apart "
                    "and do not\ncount; hidden ones are not listed.\n\n"
        + exitStatusHelp({Unchanged, RefusedPatch, InTheWay},
            {{Done, "all is intact"}, {Failed, "something is not intact"},
                {RefusedPatch, "signatures.json is missing, broken or refused"}})
        + "\nExample:\n  pellox check installed/game signatures/1.1");
    command->callback([arguments, &invocation] {
        invocation.failure = Unchanged; // as Failed says that something is not intact
        invocation.run = [arguments](Console &console) { return check(console, *arguments); };
    });
}
