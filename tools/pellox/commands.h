// SPDX-License-Identifier: MIT
#pragma once

#include "console.h"
#include "endings.h"

#include <CLI/App.hpp>

#include <functional>

/*
 * The commands of the program, one source file each.
 */

/// What a command line asks for: the way to talk, and the command to carry out.
struct Invocation
{
    Console::Options console;
    /// Returns true when the work is done; false after Console::error(); or more about its end.
    /// May throw Refusal and Interrupt::Stopped.
    std::function<Ending(Console &)> run;
    /// Status when memory is lacking, or standard output for what is told there.
    ExitStatus failure = Failed;
};

void addSignCommand(CLI::App &app, Invocation &invocation);
void addDiffCommand(CLI::App &app, Invocation &invocation);
void addPublishCommand(CLI::App &app, Invocation &invocation);
void addSealCommand(CLI::App &app, Invocation &invocation);
void addKeygenCommand(CLI::App &app, Invocation &invocation);
void addInspectCommand(CLI::App &app, Invocation &invocation);
void addApplyCommand(CLI::App &app, Invocation &invocation);
void addVerifyCommand(CLI::App &app, Invocation &invocation);
void addUpdateCommand(CLI::App &app, Invocation &invocation);
void addRecoverCommand(CLI::App &app, Invocation &invocation);
void addRollbackCommand(CLI::App &app, Invocation &invocation);
void addDiscardCommand(CLI::App &app, Invocation &invocation);
void addCheckCommand(CLI::App &app, Invocation &invocation);
void addRepairCommand(CLI::App &app, Invocation &invocation);
void addRecordCommand(CLI::App &app, Invocation &invocation);
void addPackCommand(CLI::App &app, Invocation &invocation);
void addUnpackCommand(CLI::App &app, Invocation &invocation);
void addCopyCommand(CLI::App &app, Invocation &invocation);

/// A command with the options that all have: --quiet, --json, --verbose.
CLI::App *addCommand(
    CLI::App &app, Invocation &invocation, const char *name, const char *description);
