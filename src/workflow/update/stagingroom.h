// SPDX-License-Identifier: MIT
#pragma once

#include "updatework.h"

#include <vector>

namespace Pellox {

/// Bytes of new content that are to be written: of the works that are needed and not staged.
qint64 bytesToStage(const std::vector<UpdateWork> &works);

/// What a build's file system must have free for that, with a margin.
qint64 roomToStage(const QString &build, const std::vector<UpdateWork> &works);

/// Whether it has, for the content and for as many files. False with a problem.
bool hasRoomToStage(const QString &build, const std::vector<UpdateWork> &works, Problems &problems);

} // namespace Pellox
