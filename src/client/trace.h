// SPDX-License-Identifier: MIT
#pragma once

#include "loglevel.h"
#include "pellox_export.h"

namespace Pellox {

/**
 * Writes a librsync message as one debug line of the category "BinariesController":
 * "level: ", the level as a number, " msg: " and @p msg (UTF-8, may be null), with a
 * blank between each. Has the type that setRsyncLogOutput() takes. Safe on any thread.
 */
PELLOX_EXPORT void trace(loglevel level, const char *msg);

} // namespace Pellox
