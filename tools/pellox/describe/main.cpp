// SPDX-License-Identifier: MIT
// Writes the manual pages and the shells' completions of the program, from what it knows of itself.
// Usage: pellox_describe FOLDER DATE
// FOLDER gets what is to be installed below /usr/share. DATE, "2026-11-22", stands in the manual.
#include "completions.h"
#include "manpages.h"
#include "program.h"
#include "programtext.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

using Path = std::filesystem::path;

void write(const Path &path, const std::string &text)
{
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    if (!file)
        throw std::runtime_error(path.string() + ": cannot be written");
}

void describe(const Path &folder, const std::string &date)
{
    CLI::App app;
    Invocation invocation;
    describeProgram(app, invocation);
    const ProgramText text = programText(app);

    const ManualFrame frame{PELLOX_VERSION, date};
    const Path manual = folder / "man" / "man1";
    write(manual / "pellox.1", programPage(text, frame));
    for (const CommandText &command : text.commands)
        write(manual / ("pellox-" + command.name + ".1"), commandPage(text, command, frame));

    write(folder / "bash-completion" / "completions" / "pellox", bashCompletion(text));
    write(folder / "zsh" / "site-functions" / "_pellox", zshCompletion(text));
    write(folder / "fish" / "vendor_completions.d" / "pellox.fish", fishCompletion(text));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: pellox_describe FOLDER DATE\n");
        return 2;
    }
    try {
        describe(argv[1], argv[2]);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "pellox_describe: %s\n", error.what());
        return 1;
    }
    return 0;
}
