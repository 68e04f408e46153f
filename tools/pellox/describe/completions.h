// SPDX-License-Identifier: MIT
#pragma once

#include "programtext.h"

#include <string>

/*
 * What the shells load to complete command lines of the program: commands, options, their values
 * from a fixed set, files and folders.
 */

std::string bashCompletion(const ProgramText &text);
std::string zshCompletion(const ProgramText &text);
std::string fishCompletion(const ProgramText &text);

/// The options' names in a row, with blanks between.
std::string optionNames(const CommandText &command);
