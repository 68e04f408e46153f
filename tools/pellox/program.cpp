// SPDX-License-Identifier: MIT
#include "program.h"

#include "usage.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <string>
#include <utility>

namespace {

constexpr char Footer[]
    = "\nThe commands on an installed build have more exit statuses from 10 on: see "
      "\"pellox update --help\".\n\n"
      "Example: from release 1.0 to 1.1\n"
      "  pellox sign releases/1.0 signatures/1.0\n"
      "  pellox diff releases/1.1 signatures/1.0 patches/1.0-1.1\n"
      "  pellox update installed/game patches/1.0-1.1\n\n"
      "Or the first two, and the signatures for release 1.2, in one step:\n"
      "  pellox publish releases/1.1 --old-signatures signatures/1.0 "
      "--patch patches/1.0-1.1 --signatures signatures/1.1\n\n"
      "Or the update in two steps, without the safety:\n"
      "  pellox apply installed/game patches/1.0-1.1\n"
      "  pellox verify installed/game patches/1.0-1.1";

/// Of a group of hidden options CLI11 writes nothing but the empty line before it.
class HelpFormatter : public CLI::Formatter
{
public:
    std::string make_help(
        const CLI::App *app, std::string name, CLI::AppFormatMode mode) const override
    {
        std::string text = CLI::Formatter::make_help(app, std::move(name), mode);
        const std::string tooWide = "\n\n\n";
        for (size_t at = text.find(tooWide); at != std::string::npos; at = text.find(tooWide, at))
            text.erase(at, 1);
        return text;
    }
};

} // namespace

CLI::App *addCommand(
    CLI::App &app, Invocation &invocation, const char *name, const char *description)
{
    CLI::App *command = app.add_subcommand(name, description);
    Console::Options &options = invocation.console;
    command->add_flag("-q,--quiet", options.quiet, "Say nothing but errors");
    command->add_flag("--json", options.json,
        "Write one JSON object a line to standard output: progress, errors, outcome");
    command->add_flag("-v,--verbose", options.verbose, "Show the library's log lines");
    return command;
}

void describeProgram(CLI::App &app, Invocation &invocation)
{
    app.name("pellox");
    app.formatter(std::make_shared<HelpFormatter>()); // all commands take it from the program
    app.description("Keeps installed game builds up to date by binary deltas.");
    app.set_version_flag("--version", "pellox " PELLOX_VERSION);
    app.require_subcommand(1);
    app.failure_message(usageError);
    app.footer(exitStatusHelp() + Footer);
    addSignCommand(app, invocation);
    addDiffCommand(app, invocation);
    addPublishCommand(app, invocation);
    addSealCommand(app, invocation);
    addKeygenCommand(app, invocation);
    addInspectCommand(app, invocation);
    addUpdateCommand(app, invocation);
    addRecoverCommand(app, invocation);
    addRollbackCommand(app, invocation);
    addDiscardCommand(app, invocation);
    addCheckCommand(app, invocation);
    addRepairCommand(app, invocation);
    addRecordCommand(app, invocation);
    addApplyCommand(app, invocation);
    addVerifyCommand(app, invocation);
    addPackCommand(app, invocation);
    addUnpackCommand(app, invocation);
    addCopyCommand(app, invocation);
}
