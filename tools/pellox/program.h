// SPDX-License-Identifier: MIT
#pragma once

#include "commands.h"

#include <CLI/App.hpp>

/// Gives @p app, which has nothing yet, the name, the help and all commands of the program. Parsing
/// then fills @p invocation.
void describeProgram(CLI::App &app, Invocation &invocation);
