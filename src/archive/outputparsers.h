// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"

#include <QString>
#include <QStringList>

/*
 * Reading of the 7-Zip console program's output, a chunk at a time. They keep no state
 * and are safe on any thread. They see text only: a packed file that is called "ERROR: x"
 * reads like an error.
 */

/**
 * @p text without white space at its ends and without backspaces, with "\n" for "\r\n" and,
 * in one pass, for each pair of "\n".
 */
PELLOX_EXPORT QString strip(const QString &text);

/// @p text cut at the marks of 7-Zip's progress line (" U", " + ", " - ", "% "): the first part
/// is the percentage. Empty when there is no "%".
PELLOX_EXPORT QStringList getPercents(const QString &text);

/// True when @p text holds "Everything is Ok", in any case and with any blanks.
PELLOX_EXPORT bool isEverythingIsOk(const QString &text);

/// All of @p text when it holds "ERROR:", exactly so; else empty.
PELLOX_EXPORT QString checkErrors(const QString &text);
