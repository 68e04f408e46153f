// SPDX-License-Identifier: MIT
#include "buildrun.h"
#include "commands.h"
#include "folders.h"

#include <Pellox/UpdateController>

#include <memory>

namespace {

/// Whether an earlier build is kept in @p build, or an update that may keep one is unfinished.
bool hasSomethingToDiscard(const QString &build)
{
    for (const char *name : {"previous", "previous.json", "journal"}) {
        if (isThere(build + QLatin1String("/.pellox/") + QLatin1String(name)))
            return true;
    }
    return false;
}

Ending discard(Console &console, const std::string &argument)
{
    const QString build = existingFolder(argument);
    const Interrupt::Advice advice("pellox: interrupted: run \"pellox discard\" again\n");
    Pellox::UpdateController controller;
    BuildRun run(console, "discard");
    const bool isKept = hasSomethingToDiscard(build);
    auto result = run.block(controller, [&] { return controller.discardPrevious(build); });
    if (result == BuildRun::Result::Updated && !isKept)
        result = BuildRun::Result::AlreadyUpToDate;
    return run.end(result, QStringLiteral("No earlier build is kept any more: ") + build,
        QStringLiteral("Nothing to discard, no earlier build is kept: ") + build);
}

} // namespace

void addDiscardCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "discard",
        "Free the space of what \"pellox update --keep-previous\" has kept");
    const auto build = std::make_shared<std::string>();
    command->add_option("BUILD", *build, "The installed build, which stays as it is")
        ->type_name("FOLDER")
        ->required();
    command->footer("From then on \"pellox rollback\" has nothing to bring back.\n\n"
        + exitStatusHelp({NothingToDo, Unchanged, Unfinished, DamagedInstall, NoSpace, InTheWay,
            Busy, DamagedJournal})
        + "\nExample:\n  pellox discard installed/game");
    command->callback([build, &invocation] {
        invocation.run = [build](Console &console) { return discard(console, *build); };
    });
}
