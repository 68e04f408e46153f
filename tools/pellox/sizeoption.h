// SPDX-License-Identifier: MIT
#pragma once

#include <CLI/App.hpp>

#include <QtGlobal>

#include <string>

/// Adds an option that takes a size from 1 byte to 1 EiB: a number, with K, M, G, T, P or E.
void addSizeOption(
    CLI::App &command, const std::string &name, qint64 &size, const std::string &description);
