// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class Console;
class Renames;

/**
 * Moves what is in @p from into @p to. Folders that both have are merged and stay as they are in
 * @p to, and no link is followed. Nothing else is replaced, or with @p replaced files and links,
 * which are kept under their relative paths in that folder. Returns false after Console::error(),
 * throws Interrupt::Stopped: @p renames then takes all back.
 */
bool mergeFolder(const QString &from, const QString &to, Renames &renames, Console &console,
    const QString &replaced = QString());
