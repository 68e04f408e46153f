// SPDX-License-Identifier: MIT
#include "commands.h"
#include "folders.h"
#include "interrupt.h"
#include "log.h"
#include "usage.h"

#include <QCoreApplication>
#include <QJsonObject>
#include <QTextCodec>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include <langinfo.h>

namespace {

constexpr char Footer[]
    = "Exit status: 0 done, 1 failed, 2 wrong usage (nothing was touched), 130 Ctrl-C (128 and "
      "the number of the signal). The commands on an installed build have more from 10 on: see "
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

/// Build machines often run in the "C" locale, whose encoding could not name most files.
void useUtf8InPlainLocale()
{
    if (QByteArray(nl_langinfo(CODESET)) == "ANSI_X3.4-1968")
        QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
}

void tellEnding(Console &console, const Ending &ending)
{
    if (ending.message.isEmpty()) {
        console.outcome(ending.outcome);
        return;
    }
    console.event(QStringLiteral("finished"),
        {{QStringLiteral("outcome"), ending.outcome}, {QStringLiteral("status"), ending.status},
            {QStringLiteral("message"), ending.message}});
}

int run(const Invocation &invocation)
{
    Console console(invocation.console);
    Log::showOn(console);
    try {
        const Ending ending = invocation.run(console);
        console.stopProgress();
        tellEnding(console, ending);
        const bool isGood = ending.status == Done || ending.status == NothingToDo;
        return isGood && console.outputLost() ? invocation.failure : ending.status;
    } catch (const Refusal &refusal) {
        console.error(refusal.path(), refusal.path() + QLatin1String(": ") + refusal.reason(),
            {{QStringLiteral("code"), QStringLiteral("refused")}});
        console.outcome(QStringLiteral("refused"));
        return WrongUsage;
    } catch (const std::exception &problem) { // out of memory, say
        console.error(QString(), QString::fromLocal8Bit(problem.what()));
        console.outcome(QStringLiteral("failed"));
        return invocation.failure;
    } catch (const Interrupt::Stopped &stopped) {
        console.stopProgress();
        console.outcome(QStringLiteral("interrupted"));
        Interrupt::tell();
        return stopped.exitStatus();
    }
}

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

namespace {

int parseAndRun(int argc, char **argv)
{
    CLI::App app("Keeps installed game builds up to date by binary deltas.", "pellox");
    app.set_version_flag("--version", "pellox " PELLOX_VERSION);
    app.require_subcommand(1);
    app.failure_message(usageError);
    app.footer(Footer);
    Invocation invocation;
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

    try {
        std::vector<std::string> words = commandLineWords(argc, argv);
        requireCommand(app, words);
        std::reverse(words.begin(), words.end()); // as CLI11 wants them
        app.parse(std::move(words));
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? Done : WrongUsage;
    }
    return run(invocation);
}

} // namespace

int main(int argc, char **argv)
{
    // Errors are made of the library's critical lines, so no filter may hide them.
    qputenv("QT_LOGGING_RULES", qgetenv("QT_LOGGING_RULES") + ";BinariesController.critical=true");
    const QCoreApplication application(argc, argv);
    useUtf8InPlainLocale();
    Interrupt::install();
    try {
        return parseAndRun(argc, argv);
    } catch (const std::exception &error) { // out of memory, say
        std::fprintf(stderr, "pellox: error: %s\n", error.what());
        return Failed;
    }
}
