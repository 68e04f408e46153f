// SPDX-License-Identifier: MIT
#include "completions.h"

namespace {

constexpr char Head[] = R"(# Completion of pellox for fish; made from the program's own description.

function __pellox_command
    set -l words (commandline -opc)
    test (count $words) -gt 1; and echo $words[2]
end

function __pellox_is
    test "$argv[1]" = (__pellox_command; or echo '')
end

)";

constexpr char Argument[] = R"(
# Whether argument $argv[2] of command $argv[1] is to be completed.
function __pellox_is_argument
    __pellox_is $argv[1]; or return 1
    set -l words (commandline -opc)
    set -l number 1
    set -l is_value no
    for word in $words[3..-1]
        if test $is_value = yes
            set is_value no
        else if string match -q -- '-*=*' $word
            continue
        else if string match -q -- '-*' $word
            __pellox_takes_value $argv[1] $word; and set is_value yes
        else
            set number (math $number + 1)
        end
    end
    test $number -eq $argv[2]
end

complete -c pellox -f
)";

constexpr char Folders[] = "-x -a '(__fish_complete_directories (commandline -ct) \"\")'";

std::string inQuotes(const std::string &text)
{
    std::string result = "'";
    for (const char letter : text) {
        if (letter == '\'' || letter == '\\')
            result += '\\';
        result += letter;
    }
    return result + '\'';
}

std::string valueOf(const OptionText &option)
{
    switch (option.value) {
    case Value::None:
        return {};
    case Value::Folder:
        return std::string(" ") + Folders;
    case Value::File:
        return " -r -F";
    case Value::OneOf:
        return " -x -a " + inQuotes(inARow(option.choices));
    case Value::Other:
        break;
    }
    return " -x";
}

std::string completion(const std::string &condition)
{
    return "complete -c pellox -n " + inQuotes(condition);
}

std::string optionLine(const std::string &condition, const OptionText &option)
{
    const std::string shortName
        = option.shortName.empty() ? std::string() : " -s " + option.shortName.substr(1);
    return completion(condition) + shortName + " -l " + option.longName.substr(2) + valueOf(option)
        + " -d " + inQuotes(option.shortDescription) + '\n';
}

std::string commandLines(const CommandText &command)
{
    std::string lines = '\n' + completion("not __pellox_command") + " -a " + command.name + " -d "
        + inQuotes(command.description) + '\n' + completion("__pellox_is help") + " -a "
        + command.name + '\n';
    for (const OptionText &option : command.options)
        lines += optionLine("__pellox_is " + command.name, option);
    int number = 0;
    for (const ArgumentText &argument : command.arguments) {
        lines += completion("__pellox_is_argument " + command.name + ' ' + std::to_string(++number))
            + ' ' + (argument.value == Value::Folder ? Folders : "-F") + '\n';
    }
    return lines;
}

std::string takesValue(const ProgramText &text)
{
    std::string lines = "function __pellox_takes_value\n    switch \"$argv\"\n        case";
    for (const CommandText &command : text.commands) {
        for (const OptionText &option : command.options) {
            if (option.value != Value::None)
                lines += " \\\n            " + inQuotes(command.name + ' ' + option.longName);
        }
    }
    return lines + "\n            return 0\n    end\n    return 1\nend\n";
}

} // namespace

std::string fishCompletion(const ProgramText &text)
{
    std::string lines = Head + takesValue(text) + Argument;
    for (const OptionText &option : text.program.options)
        lines += optionLine("not __pellox_command", option);
    lines += completion("not __pellox_command") + " -a help -d 'Explain a command'\n";
    for (const CommandText &command : text.commands)
        lines += commandLines(command);
    return lines;
}
