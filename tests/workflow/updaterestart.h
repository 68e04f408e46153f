// SPDX-License-Identifier: MIT
#pragma once

#include "updatescenario.h"

bool isGood(Pellox::UpdateController::UpdateResult result);

/// Lays the old build with an update, @p command of updatecall, that was killed while it put its
/// files in place. Ends the test program on an error.
void layInterrupted(UpdateScenario &scenario, const QString &command);

/**
 * Finishes in this process what a crash has left of @p command: "update", "update-keeping" or
 * "rollback"; by another call of the same or, where the commit had begun, by recovery alone. What
 * is wrong then; empty when nothing is. @p foldersMayStay: empty ones, as one could not be removed.
 */
QString problemOfRestart(const UpdateScenario &scenario, const QString &command, bool byRecovery,
    bool foldersMayStay = false);

/**
 * What is wrong after a crash has cut off a discarding of what an update has kept, once @p next has
 * run, "discard", "rollback" or "update", and what is left then is discarded. @p mayLackFiles: of
 * what is kept, as after a power cut; a rollback may refuse then.
 */
QString problemAfterDiscarding(
    const UpdateScenario &scenario, const QString &next, bool mayLackFiles = false);
