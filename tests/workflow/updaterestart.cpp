// SPDX-License-Identifier: MIT
#include "updaterestart.h"

#include "faultrun.h"
#include "literals.h"

using Result = Pellox::UpdateController::UpdateResult;

namespace {

/// What is wrong with the build after a run has ended well. @p isBack: as the old one.
QString problemOfEnd(const UpdateScenario &scenario, const QString &command,
    const UpdateOutcome &outcome, bool isBack, bool foldersMayStay)
{
    if (!isGood(outcome.result) || !outcome.errors.isEmpty())
        return "ends with %1: %2"_s.arg(static_cast<int>(outcome.result))
            .arg(outcome.errors.join("; "_s));
    if (command == "update-keeping"_s && !isBack && !scenario.discardPrevious())
        return "cannot discard what was kept"_s;
    if (!isBack && !scenario.trustedKey().isEmpty())
        scenario.removeRecord();
    scenario.removeEmptyWorkFolder();
    if (foldersMayStay)
        scenario.removeEmptyFolders();
    const QString difference = isBack ? scenario.differenceToOld() : scenario.differenceToNew();
    return difference.isEmpty() ? scenario.touchedFile() : difference;
}

} // namespace

bool isGood(Result result)
{
    return result == Result::Updated || result == Result::AlreadyUpToDate;
}

void layInterrupted(UpdateScenario &scenario, const QString &command)
{
    scenario.lay();
    const Faults killed{scenario.build() + "/game.exe"_s, "rename", 1, "kill", false, true};
    const FaultRun run = runWithFaults(QStringLiteral(UPDATECALL_PROGRAM),
        {"1"_s, command, scenario.build(), scenario.patch()}, killed);
    if (!run.crashed || !scenario.hasJournal())
        qFatal("update scenario: the update was not interrupted");
}

QString problemOfRestart(
    const UpdateScenario &scenario, const QString &command, bool byRecovery, bool foldersMayStay)
{
    const auto problemOfEnd = [&](const UpdateOutcome &outcome, bool isBack) {
        return ::problemOfEnd(scenario, command, outcome, isBack, foldersMayStay);
    };
    const bool isBack = command == "rollback"_s;
    if (byRecovery && scenario.hasJournal()) {
        const UpdateOutcome outcome = scenario.recover();
        if (outcome.result != Result::Updated)
            return "recovery ends with %1: %2"_s.arg(static_cast<int>(outcome.result))
                .arg(outcome.errors.join("; "_s));
        if (command == "update-keeping"_s) {
            const UpdateOutcome back = scenario.rollback();
            return problemOfEnd(back, true);
        }
        return problemOfEnd(outcome, isBack);
    }
    if (!isBack)
        return problemOfEnd(scenario.update(command == "update-keeping"_s), false);
    if (scenario.hasJournal()) {
        const UpdateOutcome outcome = scenario.rollback();
        if (outcome.result != Result::Updated)
            return "goes on to %1: %2"_s.arg(static_cast<int>(outcome.result))
                .arg(outcome.errors.join("; "_s));
    }
    if (!scenario.isOld())
        return problemOfEnd(scenario.rollback(), true);
    // What was kept is of no use any more, but may still be there.
    scenario.discardPrevious();
    UpdateOutcome back;
    back.result = Result::Updated;
    return problemOfEnd(back, true);
}

QString problemAfterDiscarding(
    const UpdateScenario &scenario, const QString &next, bool mayLackFiles)
{
    const bool isKept
        = scenario.hasJournal() || scenario.tree().exists("build/.pellox/previous.json"_s);
    if (next == "rollback"_s) {
        const UpdateOutcome back = scenario.rollback();
        if (back.result == Result::Updated && isKept) {
            scenario.removeEmptyWorkFolder();
            const QString difference = scenario.differenceToOld();
            return difference.isEmpty() ? scenario.touchedFile() : difference;
        }
        if (back.result == Result::Updated || back.errors.isEmpty() || (isKept && !mayLackFiles))
            return "rollback ends with %1: %2"_s.arg(static_cast<int>(back.result))
                .arg(back.errors.join("; "_s));
        if (!scenario.isNew())
            return "was rolled back in part"_s;
    }
    if (next == "update"_s) {
        const UpdateOutcome again = scenario.update();
        if (!isGood(again.result) || !again.errors.isEmpty())
            return "update ends with %1: %2"_s.arg(static_cast<int>(again.result))
                .arg(again.errors.join("; "_s));
    }
    if (!scenario.discardPrevious())
        return "cannot discard what was kept"_s;
    const QString difference = scenario.differenceToNew();
    return difference.isEmpty() ? scenario.touchedFile() : difference;
}
