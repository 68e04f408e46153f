// SPDX-License-Identifier: MIT
#include "completions.h"

namespace {

constexpr char Head[] = R"(# Completion of pellox for bash; made from the program's own description.

)";

// Folders and files are left to readline, which knows of quoting and "~".
constexpr char Functions[] = R"bash(_pellox_complete() { # KIND CURRENT
    case ${1%% *} in
    folder) compopt -o dirnames ;;
    file) compopt -o default ;;
    words) mapfile -t COMPREPLY < <(compgen -W "${1#words }" -- "$2") ;;
    esac
}

_pellox() {
    local current=${COMP_WORDS[COMP_CWORD]} command=${COMP_WORDS[1]}
    local value= number=1 takesOptions=yes word i
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        _pellox_complete "words $(_pellox_options) help $_pellox_commands" "$current"
        return
    elif [[ $command == help ]]; then
        ((COMP_CWORD > 2)) || _pellox_complete "words $_pellox_commands" "$current"
        return
    fi
    for ((i = 2; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        if [[ $word == = ]]; then
            continue # between an option and its value
        elif [[ -n $value ]]; then
            value=
        elif [[ -n $takesOptions && $word == -- ]]; then
            takesOptions=
        elif [[ -n $takesOptions && $word == -* ]]; then
            value=$(_pellox_value "$command" "$word")
        else
            ((++number))
        fi
    done
    [[ $current != = ]] || current=
    if [[ -z $value && -n $takesOptions && $current == -* ]]; then
        value="words $(_pellox_options "$command")"
    elif [[ -z $value ]]; then
        value=$(_pellox_argument "$command" "$number")
    fi
    _pellox_complete "$value" "$current"
}

complete -F _pellox pellox
)bash";

/// A kind as _pellox_complete takes it.
std::string kindOf(Value value, const std::vector<std::string> &choices)
{
    switch (value) {
    case Value::Folder:
        return "folder";
    case Value::File:
        return "file";
    case Value::OneOf:
        return "words " + inARow(choices);
    case Value::Other:
        return "other";
    case Value::None:
        break;
    }
    return {};
}

std::string optionNames(const CommandText &command)
{
    std::vector<std::string> names;
    for (const OptionText &option : command.options) {
        if (!option.shortName.empty())
            names.push_back(option.shortName);
        names.push_back(option.longName);
    }
    return inARow(names);
}

std::string row(const std::string &pattern, const std::string &result)
{
    return "    " + pattern + ") echo '" + result + "' ;;\n";
}

std::string function(const std::string &name, const std::string &subject, const std::string &rows)
{
    return name + "\n    case " + subject + " in\n" + rows + "    esac\n}\n\n";
}

std::string options(const ProgramText &text)
{
    std::string rows = row("''", optionNames(text.program));
    for (const CommandText &command : text.commands)
        rows += row(command.name, optionNames(command));
    return rows;
}

std::string values(const ProgramText &text)
{
    std::string rows;
    for (const CommandText &command : text.commands) {
        for (const OptionText &option : command.options) {
            if (option.value != Value::None)
                rows += row(
                    command.name + '/' + option.longName, kindOf(option.value, option.choices));
        }
    }
    return rows;
}

std::string arguments(const ProgramText &text)
{
    std::string rows;
    for (const CommandText &command : text.commands) {
        int number = 0;
        for (const ArgumentText &argument : command.arguments)
            rows += row(command.name + '/' + std::to_string(++number), kindOf(argument.value, {}));
    }
    return rows;
}

} // namespace

std::string bashCompletion(const ProgramText &text)
{
    std::string commands;
    for (const CommandText &command : text.commands)
        commands += (commands.empty() ? "" : " ") + command.name;
    return Head + ("_pellox_commands='" + commands + "'\n\n")
        + function("_pellox_options() { # [COMMAND]", "$1", options(text))
        + function("_pellox_value() { # COMMAND OPTION", "$1/$2", values(text))
        + function("_pellox_argument() { # COMMAND NUMBER", "$1/$2", arguments(text)) + Functions;
}
