// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class Console;

struct FolderCopy
{
    QString source;
    QString target;
    qint64 blockSize; ///< bytes of a file that are copied at a time
    bool force;       ///< files that are there are replaced, else refused
};

/**
 * Copies the build @p copy.source into @p copy.target, compares each copy with its source, and
 * only then puts them in place: all or none. Returns false after Console::error(); throws Refusal
 * and Interrupt::Stopped.
 */
bool copyFolder(Console &console, const FolderCopy &copy);
