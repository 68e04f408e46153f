// SPDX-License-Identifier: MIT
#include "buildrun.h"
#include "commands.h"
#include "engine.h"
#include "folders.h"
#include "integrity.h"
#include "keyfiles.h"
#include "manifests.h"

#include <Pellox/rules.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Arguments
{
    std::string build;
    std::string signatures;
    std::string patch;
    std::vector<std::string> trustedKeys;
    int threads = 0;
};

/// What helps here is not what helps where a build is updated. Empty: the usual words will do.
QString lastWordsFor(const QVector<Pellox::UpdateProblem> &problems)
{
    using Code = Pellox::UpdateProblem::Code;
    const auto has = [&](Code code) {
        return std::any_of(problems.cbegin(), problems.cend(),
            [&](const Pellox::UpdateProblem &problem) { return problem.code == code; });
    };
    if (has(Code::DamagedInstall))
        return QStringLiteral("nothing was changed: run \"pellox repair\" first");
    if (has(Code::OlderRelease))
        return QStringLiteral("nothing was changed: if that is not what is installed, \"pellox "
                              "repair\" forgets it");
    return {};
}

Ending record(Console &console, const Arguments &arguments)
{
    const QString build = existingFolder(arguments.build);
    const QString signatures = existingFolder(arguments.signatures);
    const QString patch = existingFolder(arguments.patch);
    requireApart(signatures, build);
    requireApart(patch, build);
    requireManifest(signatures, Pellox::SIGNATURES_FILE);
    const QStringList keys = existingPublicKeys(arguments.trustedKeys);

    Pellox::IntegrityController controller;
    controller.setThreadCount(arguments.threads);
    BuildRun run(console, "record");
    const auto result = run.repair(
        controller, [&] { return controller.recordRelease(build, signatures, patch, keys); });
    noteOtherBuild(console, controller.report(), build);
    const QString words = lastWordsFor(run.problems());
    if (!words.isEmpty())
        run.explain(QString(), words);
    return run.end(result, QStringLiteral("Recorded which release is installed: ") + build,
        QStringLiteral("Nothing to record, the release is known already: ") + build);
}

} // namespace

void addRecordCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "record",
        "Record which release an installer has laid down, so that sealed updates lead on from it");
    const auto arguments = std::make_shared<Arguments>();
    addBuildAndSignatures(*command, arguments->build,
        "The installed build; no file of it is changed", arguments->signatures);
    command
        ->add_option("PATCH", arguments->patch,
            "The sealed patch that leads to this build; its patchSeal.json is enough")
        ->type_name("FOLDER")
        ->required();
    addKeysOption(*command, "--trusted-key", arguments->trustedKeys,
        "A public key: one of those given must have made the seal")
        ->required();
    addThreadsOption(*command, arguments->threads);
    command->footer("Every file of the build is checked, and the signatures must be those of the "
                    "very build that\nthe seal tells of.\n\n"
        + exitStatusHelp({NothingToDo, Unchanged, Unfinished, DamagedInstall, NoSpace, RefusedPatch,
            InTheWay, Busy, DamagedJournal})
        + "\nExample:\n  pellox record installed/game signatures/1.1 patches/1.0-1.1 "
          "--trusted-key publisher.pub");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return record(console, *arguments); };
    });
}
