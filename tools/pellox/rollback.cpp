// SPDX-License-Identifier: MIT
#include "buildrun.h"
#include "commands.h"
#include "folders.h"

#include <Pellox/UpdateController>

#include <memory>

namespace {

Ending rollback(Console &console, const std::string &argument)
{
    const QString build = existingFolder(argument);
    Pellox::UpdateController controller;
    BuildRun run(console, "rollback");
    const auto result = run.carryOut(controller, [&] { return controller.rollback(build); });
    return run.end(result, QStringLiteral("Brought the build before back: ") + build, QString());
}

} // namespace

void addRollbackCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "rollback",
        "Bring back the build from before the last update, which must have kept it");
    const auto build = std::make_shared<std::string>();
    command->add_option("BUILD", *build, "The installed build, changed in place")
        ->type_name("FOLDER")
        ->required();
    command->footer("Needs what \"pellox update --keep-previous\" has kept; that is used up. To "
                    "free its space\ninstead: \"pellox discard\".\n\n"
        + exitStatusHelp({Unchanged, Unfinished, DamagedInstall, NoSpace, InTheWay, Busy,
            DamagedJournal, NothingKept})
        + "\nExample:\n  pellox rollback installed/game");
    command->callback([build, &invocation] {
        invocation.run = [build](Console &console) { return rollback(console, *build); };
    });
}
