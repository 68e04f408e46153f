// SPDX-License-Identifier: MIT
#pragma once

#include <CLI/App.hpp>

#include <QStringList>

#include <optional>
#include <string>
#include <vector>

/// What --ignore, --ignore-from and --strict-ignore ask for.
struct IgnoreOptions
{
    std::vector<std::string> paths;  ///< or globs
    std::optional<std::string> list; ///< a file
    bool strict = false;             ///< what ignores nothing is refused
};

void addIgnoreOptions(CLI::App &command, IgnoreOptions &options);

/**
 * Those of @p files, which are all of @p newBuild, that @p options ignore. Tells on standard error
 * what ignores nothing. Throws Refusal for that where it is strict, for an empty path, and when the
 * list cannot be read.
 */
QStringList ignoredFiles(
    const IgnoreOptions &options, const QString &newBuild, const QStringList &files);
