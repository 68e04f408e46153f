// SPDX-License-Identifier: MIT
#pragma once

#include <CLI/App.hpp>

#include <QStringList>

#include <optional>
#include <string>
#include <vector>

class Console;

/// What --ignore and --ignore-from ask for.
struct IgnoreOptions
{
    std::vector<std::string> paths;  ///< or globs
    std::optional<std::string> list; ///< a file
};

void addIgnoreOptions(CLI::App &command, IgnoreOptions &options);

/**
 * Those of @p files, which are all of @p newBuild, that @p options ignore. Notes what ignores
 * nothing. Throws Refusal for an empty path and when the list cannot be read.
 */
QStringList ignoredFiles(Console &console, const IgnoreOptions &options, const QString &newBuild,
    const QStringList &files);
