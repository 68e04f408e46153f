// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <filesystem>
#include <functional>

/// Whether entries whose names begin with a dot, which are no part of a build, are visited.
enum class Hidden { LeftOut, Visited };

using EntryVisitor
    = std::function<void(const std::filesystem::directory_entry &entry, const QString &path)>;

/**
 * Calls @p visit for all that is in @p folder and its folders; links are not
 * followed. Throws Refusal for a folder that cannot be listed, and for a name that is not valid in
 * the encoding of the locale.
 */
void visitEntries(const QString &folder, Hidden hidden, const EntryVisitor &visit);
