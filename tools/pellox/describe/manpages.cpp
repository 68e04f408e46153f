// SPDX-License-Identifier: MIT
#include "manpages.h"

#include <algorithm>
#include <cctype>

namespace {

constexpr char Program[] = "pellox";

/// @p text in the language of the manual; @p isLiteral for what is typed as it stands.
std::string escaped(const std::string &text, bool isLiteral = false)
{
    std::string result;
    for (const char letter : text) {
        switch (letter) {
        case '\\':
            result += "\\e";
            break;
        case '-':
            result += "\\-"; // of options and paths, so that it can be copied
            break;
        case '~':
            result += "\\(ti";
            break;
        case '^':
            result += "\\(ha";
            break;
        case '`':
            result += "\\(ga";
            break;
        case '\'':
            result += isLiteral ? "\\(aq" : "'";
            break;
        default:
            result += letter;
        }
    }
    const bool isRequest = !result.empty() && (result.front() == '.' || result.front() == '\'');
    return (isRequest ? "\\&" : "") + result + '\n';
}

std::string bold(const std::string &text)
{
    const std::string line = escaped(text, true);
    return "\\fB" + line.substr(0, line.size() - 1) + "\\fR";
}

std::string italic(const std::string &text)
{
    const std::string line = escaped(text, true);
    return "\\fI" + line.substr(0, line.size() - 1) + "\\fR";
}

/// A text in which quoted command lines, "pellox ...", are set in bold.
std::string prose(const std::string &text)
{
    const std::string start = std::string("\"") + Program + ' ';
    std::string result;
    size_t done = 0;
    for (size_t at = text.find(start); at != std::string::npos; at = text.find(start, done)) {
        const size_t end = text.find('"', at + 1);
        if (end == std::string::npos)
            break;
        const std::string before = escaped(text.substr(done, at - done));
        result += before.substr(0, before.size() - 1) + bold(text.substr(at + 1, end - at - 1));
        done = end + 1;
    }
    return result + escaped(text.substr(done));
}

std::string lowerFirst(std::string text)
{
    if (!text.empty())
        text.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(text.front())));
    return text;
}

std::string withoutStop(std::string text)
{
    if (!text.empty() && text.back() == '.')
        text.pop_back();
    return text;
}

std::string pageName(const CommandText &command)
{
    return std::string(Program) + '-' + command.name;
}

std::string head(const std::string &page, const std::string &description, const ManualFrame &frame)
{
    std::string title = page;
    std::transform(title.begin(), title.end(), title.begin(),
        [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    const std::string name = escaped(page);
    return ".\\\" Made from the program's own description.\n"
           ".TH "
        + title + " 1 " + frame.date + " \"" + Program + ' ' + frame.version + "\" \"" + Program
        + " manual\"\n.SH NAME\n" + name.substr(0, name.size() - 1) + " \\- "
        + prose(lowerFirst(withoutStop(description)));
}

std::string optionLine(const OptionText &option)
{
    std::string line;
    if (!option.shortName.empty())
        line = bold(option.shortName) + ", ";
    line += bold(option.longName);
    if (option.value == Value::OneOf) {
        std::string choices;
        for (const std::string &choice : option.choices)
            choices += (choices.empty() ? "" : "|") + bold(choice);
        line += ' ' + choices;
    } else if (!option.valueName.empty()) {
        line += ' ' + italic(option.valueName);
    }
    return line;
}

std::string synopsis(const CommandText &command)
{
    std::string line = bold(std::string(Program) + ' ' + command.name);
    for (const ArgumentText &argument : command.arguments)
        line += ' ' + italic(argument.name);
    for (const OptionText &option : command.options) {
        if (option.isRequired)
            line += ' ' + optionLine(option);
    }
    return ".SH SYNOPSIS\n" + line + " [" + italic("OPTION") + "]...\n";
}

std::string description(const CommandText &command)
{
    std::string text = ".SH DESCRIPTION\n";
    const std::string first = withoutStop(command.description) + '.';
    text += prose(first);
    for (const std::string &paragraph : command.paragraphs)
        text += ".PP\n" + prose(paragraph);
    for (const ArgumentText &argument : command.arguments)
        text += ".TP\n" + italic(argument.name) + '\n' + prose(argument.description);
    return text;
}

std::string options(const CommandText &command)
{
    std::string text = ".SH OPTIONS\n";
    for (const OptionText &option : command.options)
        text += ".TP\n" + optionLine(option) + '\n' + prose(option.description);
    return text;
}

std::string statuses(const CommandText &command)
{
    std::string text = ".SH EXIT STATUS\n";
    for (const StatusText &status : command.statuses)
        text += ".TP\n" + bold(status.status) + '\n' + prose(status.meaning);
    return text;
}

std::string examples(const CommandText &command)
{
    std::string text = ".SH EXAMPLES\n";
    bool isFirst = true;
    for (const ExampleText &example : command.examples) {
        if (!isFirst)
            text += ".PP\n";
        if (!example.title.empty())
            text += escaped(example.title + ':');
        text += ".RS 4\n.nf\n";
        for (const std::string &line : example.lines)
            text += escaped(line, true);
        text += ".fi\n.RE\n";
        isFirst = false;
    }
    return text;
}

/// All that is said of @p command, to find which others it speaks of.
std::string allWords(const CommandText &command)
{
    std::string words = command.description;
    for (const std::string &paragraph : command.paragraphs)
        words += '\n' + paragraph;
    for (const OptionText &option : command.options)
        words += '\n' + option.description;
    for (const ArgumentText &argument : command.arguments)
        words += '\n' + argument.description;
    return words;
}

bool speaksOf(const CommandText &command, const CommandText &other)
{
    const std::string name = std::string(Program) + ' ' + other.name;
    const std::string words = allWords(command);
    for (size_t at = words.find(name); at != std::string::npos; at = words.find(name, at + 1)) {
        const size_t end = at + name.size();
        if (end == words.size() || words[end] == '"' || words[end] == ' ')
            return true;
    }
    return false;
}

std::string reference(const std::string &page, bool isLast)
{
    const std::string name = escaped(page);
    return ".BR " + name.substr(0, name.size() - 1) + " (1)" + (isLast ? "" : ",") + '\n';
}

std::string references(const std::vector<std::string> &pages)
{
    std::string text = ".SH SEE ALSO\n";
    for (const std::string &page : pages)
        text += reference(page, page == pages.back());
    return text;
}

} // namespace

std::string programPage(const ProgramText &text, const ManualFrame &frame)
{
    const CommandText &program = text.program;
    std::string page = head(Program, program.description, frame) + ".SH SYNOPSIS\n" + bold(Program)
        + ' ' + italic("COMMAND") + ' ' + italic("ARGUMENT") + "... [" + italic("OPTION")
        + "]...\n.br\n" + bold(std::string(Program) + " help") + " [" + italic("COMMAND") + "]\n"
        + description(program)
        + ".PP\nEach command has a page of its own, and \\fB\\-\\-help\\fR, which says the "
          "same.\nThe summary goes to standard output, everything else to standard error.\n"
          ".SH COMMANDS\n";
    std::vector<std::string> pages;
    for (const CommandText &command : text.commands) {
        pages.push_back(pageName(command));
        page += ".TP\n" + reference(pages.back(), true) + prose(command.description + '.');
    }
    return page + options(program) + statuses(program) + examples(program) + references(pages);
}

std::string commandPage(
    const ProgramText &text, const CommandText &command, const ManualFrame &frame)
{
    std::vector<std::string> pages{Program};
    for (const CommandText &other : text.commands) {
        if (other.name != command.name && (speaksOf(command, other) || speaksOf(other, command)))
            pages.push_back(pageName(other));
    }
    return head(pageName(command), command.description, frame) + synopsis(command)
        + description(command) + options(command) + statuses(command) + examples(command)
        + references(pages);
}
