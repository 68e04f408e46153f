// SPDX-License-Identifier: MIT
#include "buildrun.h"
#include "commands.h"
#include "folders.h"

#include <Pellox/UpdateController>

#include <memory>

namespace {

Ending recover(Console &console, const std::string &argument)
{
    const QString build = existingFolder(argument);
    Pellox::UpdateController controller;
    BuildRun run(console, "recover");
    const auto result = run.carryOut(controller, [&] { return controller.recover(build); });
    return run.end(result, QStringLiteral("Finished what an interrupted run had begun: ") + build,
        QStringLiteral("Nothing to finish: ") + build);
}

} // namespace

void addRecoverCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "recover",
        "Finish an update, rollback or repair that was interrupted; needs no patch");
    const auto build = std::make_shared<std::string>();
    command->add_option("BUILD", *build, "The installed build, changed in place")
        ->type_name("FOLDER")
        ->required();
    command->footer("Finishes what was being put in place. Where that had not begun there is "
                    "nothing to finish:\nthe build is the old one, and the next \"pellox update\" "
                    "goes on with what was written.\n\n"
        + exitStatusHelp({NothingToDo, Unchanged, Unfinished, DamagedInstall, NoSpace, InTheWay,
            Busy, DamagedJournal})
        + "\nExample:\n  pellox recover installed/game");
    command->callback([build, &invocation] {
        invocation.run = [build](Console &console) { return recover(console, *build); };
    });
}
