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

std::vector<std::string> optionNames(const CLI::App &command)
{
    std::vector<std::string> names;
    for (const CLI::Option *option : command.get_options()) {
        for (const std::string &name : option->get_lnames())
            names.push_back("--" + name);
    }
    return names;
}

bool isPrefix(const std::string &prefix, const std::string &word)
{
    return word.compare(0, prefix.size(), prefix) == 0;
}

/// How many letters must be changed, put in, left out or exchanged with the next one.
size_t distance(const std::string &one, const std::string &other)
{
    std::vector<std::vector<size_t>> table(
        one.size() + 1, std::vector<size_t>(other.size() + 1, 0));
    for (size_t i = 0; i <= one.size(); ++i) {
        for (size_t j = 0; j <= other.size(); ++j) {
            if (i == 0 || j == 0) {
                table[i][j] = i + j;
                continue;
            }
            const bool isSame = one[i - 1] == other[j - 1];
            size_t least = std::min(table[i - 1][j], table[i][j - 1]) + 1;
            least = std::min(least, table[i - 1][j - 1] + (isSame ? 0 : 1));
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                least = std::min(least, table[i - 2][j - 2] + 1);
            table[i][j] = least;
        }
    }
    return table[one.size()][other.size()];
}

/// "; did you mean NAME?" with the one of @p names that is most like @p word, if any is like it.
std::string suggestion(const std::string &word, const std::vector<std::string> &names)
{
    constexpr size_t Longest = 64; // of what can be a mistyped name
    size_t least = 3;              // letters: more is another word
    std::string nearest;
    for (const std::string &name : names) {
        if (word.size() > Longest)
            break;
        const size_t letters = isPrefix(name, word) ? 2 : distance(word, name);
        if (letters < least) {
            least = letters;
            nearest = name;
        }
    }
    return nearest.empty() ? std::string() : "; did you mean " + nearest + '?';
}

/// An option that @p command does not have, among what it could not make use of; else nothing.
std::string unknownOption(const CLI::App &command)
{
    for (const std::string &word : command.remaining()) {
        if (word.size() > 1 && word.front() == '-')
            return word.substr(0, word.find('='));
    }
    return {};
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
        fail(first + ": no such command" + suggestion(first, names));
    const auto command = std::find_if(
        words.begin(), words.end(), [&](const std::string &word) { return contains(names, word); });
    fail(first + ": options stand behind the command: pellox "
        + (command == words.end() ? "COMMAND" : *command) + ' ' + first);
}

std::string usageError(const CLI::App *app, const CLI::Error &error)
{
    std::string problem = error.what();
    std::string commands;
    std::string command = "pellox";
    if (app->get_subcommands().empty()) {
        commands = "Commands: " + CLI::detail::join(commandNames(*app), ", ") + '\n';
    } else {
        const CLI::App *used = app->get_subcommands().front();
        command += ' ' + used->get_name();
        // First of all, as what else is wrong may come from it.
        const std::string option = unknownOption(*used);
        if (!option.empty())
            problem = option + ": no such option" + suggestion(option, optionNames(*used));
    }
    return "pellox: error: " + problem + '\n' + commands + "Run \"" + command
        + " --help\" for more information.\n";
}
