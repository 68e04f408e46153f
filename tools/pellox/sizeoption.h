// SPDX-License-Identifier: MIT
#pragma once

#include <CLI/App.hpp>

#include <QtGlobal>

#include <string>

/**
 * Adds an option that takes a size from 1 byte to 1 EiB: a whole number, with K, M, G, T, P or E,
 * a B or iB behind it or not. What @p size holds is the example in the error message.
 */
CLI::Option *addSizeOption(
    CLI::App &command, const std::string &name, qint64 &size, const std::string &description);
