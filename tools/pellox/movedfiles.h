// SPDX-License-Identifier: MIT
#pragma once

#include <Pellox/PublishController>

class Console;

/// Tells which files a release sends whole although the old build has them. Of many only the first
/// ones, but JSON shows all.
void tellMovedFiles(Console &console, const QVector<Pellox::PublishController::MovedFile> &moved);
