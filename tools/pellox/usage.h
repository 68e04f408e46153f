// SPDX-License-Identifier: MIT
#pragma once

#include <CLI/App.hpp>

#include <string>
#include <vector>

/*
 * The help that a person gets who types a command line wrong.
 */

/// The words of a command line behind the program's name, with "help" and "help COMMAND" turned
/// into what they stand for.
std::vector<std::string> commandLineWords(int argc, char **argv);

/// Throws CLI::ParseError when @p words do not begin with a command of @p app or with an option of
/// its own.
void requireCommand(const CLI::App &app, const std::vector<std::string> &words);

/// The text for a wrong command line of @p app.
std::string usageError(const CLI::App *app, const CLI::Error &error);
