// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <functional>

class Console;

/// The way of the library's log lines through the program.
namespace Log {

/**
 * From now on @p console shows every log line of the process with --verbose, librsync's
 * among them. It must live as long as log lines can come.
 */
void showOn(Console &console);

/// Called with each critical line of the category "BinariesController", on its thread.
void setCriticalListener(std::function<void(const QString &)> listener);

} // namespace Log
