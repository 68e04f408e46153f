// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class Console;

/**
 * Copies the build @p source into @p target and compares each copy with its source. A file that is
 * there is replaced if @p force says so, else refused. Returns false after Console::error(), with
 * what did arrive in place; throws Refusal, and Interrupt::Stopped with the new files gone.
 */
bool copyFolder(Console &console, const QString &source, const QString &target, bool force);
