// SPDX-License-Identifier: MIT
#include "usage.h"

#include <algorithm>

namespace {

std::vector<std::string> commandNames(const CLI::App &app)
{
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands(nullptr))
        names.push_back(command->get_name());
    return names;
}

bool contains(const std::vector<std::string> &words, const std::string &word)
{
    return std::find(words.begin(), words.end(), word) != words.end();
}

[[noreturn]] void fail(const std::string &text)
{
    throw CLI::ParseError(text, CLI::ExitCodes::RequiredError);
}

} // namespace

std::vector<std::string> commandLineWords(int argc, char **argv)
{
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    if (words.empty() || words.front() != "help")
        return words;
    words.resize(std::min<size_t>(words.size(), 2));
    words.erase(words.begin());
    words.emplace_back("--help");
    return words;
}

void requireCommand(const CLI::App &app, const std::vector<std::string> &words)
{
    if (words.empty())
        fail("no command is given");
    const std::string &first = words.front();
    const std::vector<std::string> names = commandNames(app);
    if (contains(names, first) || contains({"-h", "--help", "--version"}, first))
        return;
    if (first.empty() || first.front() != '-')
        fail(first + ": no such command");
    const auto command = std::find_if(
        words.begin(), words.end(), [&](const std::string &word) { return contains(names, word); });
    fail(first + ": options stand behind the command: pellox "
        + (command == words.end() ? "COMMAND" : *command) + ' ' + first);
}

std::string usageError(const CLI::App *app, const CLI::Error &error)
{
    std::string text = std::string("pellox: error: ") + error.what() + '\n';
    std::string command = "pellox";
    if (app->get_subcommands().empty())
        text += "Commands: " + CLI::detail::join(commandNames(*app), ", ") + '\n';
    else
        command += ' ' + app->get_subcommands().front()->get_name();
    return text + "Run \"" + command + " --help\" for more information.\n";
}
