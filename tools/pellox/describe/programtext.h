// SPDX-License-Identifier: MIT
#pragma once

#include <CLI/App.hpp>

#include <string>
#include <vector>

/*
 * What the program tells of itself by --help, in a form to write manuals and completions from.
 */

/// What a word on the command line stands for.
enum class Value {
    None, ///< of an option without a value
    Folder,
    File,  ///< or a folder, where the command takes both
    OneOf, ///< a fixed set
    Other, ///< a number, say
};

struct OptionText
{
    std::string shortName; ///< "-q"; may be empty
    std::string longName;  ///< "--quiet"
    std::string valueName; ///< "FOLDER"; empty for Value::None
    Value value = Value::None;
    std::vector<std::string> choices; ///< of Value::OneOf
    std::string description;          ///< whole sentences
    std::string shortDescription;     ///< without a full stop
    bool isRequired = false;
    bool mayBeRepeated = false;
};

struct ArgumentText
{
    std::string name;
    Value value = Value::Other;
    std::string description;
};

struct StatusText
{
    std::string status;
    std::string meaning;
};

struct ExampleText
{
    std::string title; ///< may be empty
    std::vector<std::string> lines;
};

/// Of a command, or of the program.
struct CommandText
{
    std::string name;
    std::string description;
    std::vector<std::string> paragraphs; ///< what else there is to say
    std::vector<ArgumentText> arguments;
    std::vector<OptionText> options;
    std::vector<StatusText> statuses;
    std::vector<ExampleText> examples;
};

struct ProgramText
{
    CommandText program;
    std::vector<CommandText> commands;
};

/**
 * The text of @p app. Throws std::runtime_error where the help of a command is not complete: when
 * it tells no exit status, no example, or nothing of an option.
 */
ProgramText programText(CLI::App &app);
