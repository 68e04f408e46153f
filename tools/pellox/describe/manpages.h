// SPDX-License-Identifier: MIT
#pragma once

#include "programtext.h"

#include <string>

struct ManualFrame
{
    std::string version; ///< of the program
    std::string date;    ///< "2026-11-22"
};

/// pellox(1)
std::string programPage(const ProgramText &text, const ManualFrame &frame);

/// pellox-update(1), for one, for the command @p command of @p text
std::string commandPage(
    const ProgramText &text, const CommandText &command, const ManualFrame &frame);
