// SPDX-License-Identifier: MIT
#pragma once

#include <Pellox/PatchInspector>
#include <Pellox/PublishController>

class Console;

/// @p moved as PatchInspector tells them.
QVector<Pellox::InspectedFile> inspected(
    const QVector<Pellox::PublishController::MovedFile> &moved);

/// Tells which files a release sends whole although the old build has them, or much of them: those
/// of @p moved, the largest first. Of many only the first ones, but JSON shows all.
void tellMovedFiles(Console &console, const QVector<Pellox::InspectedFile> &moved);
