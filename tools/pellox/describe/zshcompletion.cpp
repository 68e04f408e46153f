// SPDX-License-Identifier: MIT
#include "completions.h"

namespace {

constexpr char Head[] = R"(#compdef pellox
# Completion of pellox for zsh; made from the program's own description.

)";

/// In single quotes, with a backslash before each of @p special.
std::string escaped(const std::string &text, const std::string &special)
{
    std::string result;
    for (const char letter : text) {
        if (letter == '\'')
            result += "'\\'";
        else if (special.find(letter) != std::string::npos)
            result += '\\';
        result += letter;
    }
    return result;
}

std::string action(Value value, const std::vector<std::string> &choices)
{
    switch (value) {
    case Value::Folder:
        return "_files -/";
    case Value::File:
        return "_files";
    case Value::OneOf:
        return '(' + inARow(choices) + ')';
    default:
        return " ";
    }
}

/// What _arguments takes for @p option.
std::string spec(const OptionText &option)
{
    const bool ends = option.longName == "--help" || option.longName == "--version";
    std::string behind = "[" + escaped(option.shortDescription, "[]\\") + ']';
    if (option.value != Value::None)
        behind
            += ':' + escaped(option.valueName, ":\\") + ':' + action(option.value, option.choices);
    const std::string name = option.longName + (option.value == Value::None ? "" : "=");
    if (option.mayBeRepeated)
        return "'*" + name + behind + '\'';
    const std::string both
        = (option.shortName.empty() ? "" : option.shortName + ' ') + option.longName;
    const std::string start = ends ? "'(- *)'" : "'(" + both + ")'";
    if (option.shortName.empty())
        return start + '\'' + name + behind + '\'';
    return start + '{' + option.shortName + ',' + name + "}'" + behind + '\'';
}

std::string specs(const CommandText &command, const std::string &indent)
{
    std::string lines;
    for (const OptionText &option : command.options)
        lines += " \\\n" + indent + spec(option);
    int number = 0;
    for (const ArgumentText &argument : command.arguments)
        lines += " \\\n" + indent + '\'' + std::to_string(++number) + ':' + argument.name + ':'
            + action(argument.value, {}) + '\'';
    return lines + '\n';
}

} // namespace

std::string zshCompletion(const ProgramText &text)
{
    std::string names;
    std::string cases;
    for (const CommandText &command : text.commands) {
        names += "        '" + command.name + ':' + escaped(command.description, ":\\") + "'\n";
        cases += "        " + command.name + ")\n            _arguments -S"
            + specs(command, "                ") + "            ;;\n";
    }
    return std::string(Head)
        + "_pellox() {\n"
          "    local context state state_descr line\n"
          "    typeset -A opt_args\n"
          "    local -a commands=(\n"
        + names
        + "    )\n"
          "    _arguments -C -S"
        + specs(text.program, "        ").substr(0, specs(text.program, "        ").size() - 1)
        + " \\\n        '1:command:->command' \\\n        '*::argument:->arguments' && return 0\n"
          "    case $state in\n"
          "    command)\n"
          "        commands+=('help:Explain a command')\n"
          "        _describe -t commands command commands\n"
          "        ;;\n"
          "    arguments)\n"
          "        case $words[1] in\n"
          "        help)\n"
          "            (( CURRENT > 2 )) || _describe -t commands command commands\n"
          "            ;;\n"
        + cases + "        esac\n        ;;\n    esac\n}\n\n_pellox \"$@\"\n";
}
