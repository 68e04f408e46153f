// SPDX-License-Identifier: MIT
#include "programtext.h"

#include <sstream>
#include <stdexcept>

namespace {

constexpr char Indent[] = "  "; ///< of what is listed in a help text

bool beginsWith(const std::string &text, const std::string &start)
{
    return text.compare(0, start.size(), start) == 0;
}

std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        parts.push_back(part);
    return parts;
}

std::string sentence(std::string text)
{
    if (!text.empty() && text.back() != '.')
        text += '.';
    return text;
}

Value valueOf(const std::string &typeName)
{
    if (typeName == "FOLDER")
        return Value::Folder;
    if (typeName == "FILE" || typeName == "PATH" || typeName == "REPORT")
        return Value::File;
    return typeName.find('|') == std::string::npos ? Value::Other : Value::OneOf;
}

/// What CLI11 puts behind the name of a type, "INT in [1 - 1024]", as a sentence.
std::string rangeSentence(const std::string &name, const std::string &check)
{
    const size_t first = check.find('[');
    const size_t dash = check.find(" - ");
    const size_t last = check.find(']');
    if (first == std::string::npos || dash == std::string::npos || last == std::string::npos)
        return {};
    return " " + name + " is from " + check.substr(first + 1, dash - first - 1) + " to "
        + check.substr(dash + 3, last - dash - 3) + '.';
}

std::string needsSentence(const CLI::Option &option)
{
    std::string names;
    for (const CLI::Option *needed : option.get_needs())
        names += (names.empty() ? "" : ", ") + needed->get_name();
    return names.empty() ? std::string() : " Needs " + names + '.';
}

OptionText optionText(const CLI::Option &option)
{
    OptionText text;
    if (!option.get_snames().empty())
        text.shortName = "-" + option.get_snames().front();
    text.longName = "--" + option.get_lnames().front();
    if (option.get_type_size() != 0 && option.get_expected_max() != 0) {
        const std::string type = option.get_type_name();
        const size_t colon = type.find(':');
        text.valueName = type.substr(0, colon);
        text.value = valueOf(text.valueName);
        if (text.value == Value::OneOf)
            text.choices = split(text.valueName, '|');
        if (colon != std::string::npos)
            text.description = rangeSentence(text.valueName, type.substr(colon + 1));
        text.mayBeRepeated = option.get_items_expected_max() > 1
            || option.get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll;
    }
    text.shortDescription = option.get_description();
    text.isRequired = option.get_required();
    text.description = sentence(option.get_description()) + text.description
        + (text.isRequired ? " Required." : "") + needsSentence(option);
    return text;
}

ArgumentText argumentText(const CLI::Option &option)
{
    return {
        option.get_name(true), valueOf(option.get_type_name()), sentence(option.get_description())};
}

/// "  10  there was nothing to do"
StatusText statusText(const std::string &line)
{
    const size_t start = line.find_first_not_of(' ');
    const size_t end = line.find(' ', start);
    return {line.substr(start, end - start), line.substr(line.find_first_not_of(' ', end))};
}

bool isList(const std::vector<std::string> &lines)
{
    return lines.size() > 1 && beginsWith(lines[1], Indent);
}

std::string titleOf(const std::string &line)
{
    const std::string example = "Example:";
    if (line == example)
        return {};
    const size_t start = beginsWith(line, "Example: ") ? example.size() + 1 : 0;
    return line.substr(start, line.find_last_not_of(':') + 1 - start);
}

/// One of the parts, between blank lines, of what stands behind the options.
void addPart(CommandText &text, const std::vector<std::string> &lines)
{
    if (!isList(lines)) {
        std::string paragraph;
        for (const std::string &line : lines)
            paragraph += (paragraph.empty() ? "" : " ") + line;
        text.paragraphs.push_back(paragraph);
    } else if (lines.front() == "Exit status:") {
        for (size_t i = 1; i < lines.size(); ++i)
            text.statuses.push_back(statusText(lines[i]));
    } else {
        ExampleText example{titleOf(lines.front()), {}};
        for (size_t i = 1; i < lines.size(); ++i)
            example.lines.push_back(lines[i].substr(sizeof Indent - 1));
        text.examples.push_back(example);
    }
}

void addFooter(CommandText &text, const std::string &footer)
{
    std::vector<std::string> part;
    for (const std::string &line : split(footer, '\n')) {
        if (!line.empty()) {
            part.push_back(line);
        } else if (!part.empty()) {
            addPart(text, part);
            part.clear();
        }
    }
    if (!part.empty())
        addPart(text, part);
}

void requireComplete(const CommandText &text)
{
    const auto fail = [&](const std::string &what) {
        throw std::runtime_error(text.name + ": its help tells no " + what);
    };
    if (text.statuses.empty())
        fail("exit status");
    if (text.examples.empty())
        fail("example");
    for (const OptionText &option : text.options) {
        if (option.shortDescription.empty())
            fail(option.longName);
    }
    for (const ArgumentText &argument : text.arguments) {
        if (argument.description.empty())
            fail(argument.name);
    }
}

CommandText commandText(const CLI::App &app)
{
    CommandText text;
    text.name = app.get_name();
    text.description = app.get_description();
    for (const CLI::Option *option : app.get_options()) {
        if (option->get_group().empty())
            continue; // hidden
        if (option->get_positional())
            text.arguments.push_back(argumentText(*option));
        else
            text.options.push_back(optionText(*option));
    }
    addFooter(text, app.get_footer());
    requireComplete(text);
    return text;
}

} // namespace

ProgramText programText(CLI::App &app)
{
    ProgramText text{commandText(app), {}};
    for (const CLI::App *command : app.get_subcommands(nullptr))
        text.commands.push_back(commandText(*command));
    return text;
}
