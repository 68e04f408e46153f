// SPDX-License-Identifier: MIT
#pragma once

#include "programtext.h"

#include <string>
#include <vector>

/*
 * What the shells load to complete command lines of the program: commands, options, their values
 * from a fixed set, files and folders.
 */

std::string bashCompletion(const ProgramText &text);
std::string zshCompletion(const ProgramText &text);
std::string fishCompletion(const ProgramText &text);

/// Of all three: @p words with blanks between.
std::string inARow(const std::vector<std::string> &words);
