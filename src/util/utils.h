// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"

#include <QString>

/**
 * Help with paths that are longer than the operating system allows. Lengths are counted
 * in UTF-16 code units, as QString::size() does. Safe on any thread.
 */
namespace PelloxMor::Utils {

/**
 * @p path itself when it is shorter than 1023; otherwise the extended-length form of
 * Windows: "\\?\" and the path with every "/" turned into "\". A prefix that is there
 * already is not looked for.
 */
PELLOX_EXPORT QString getFilePathForLongName(const QString &path);

/// True when @p path has 1024 code units or more: one above the length that is rewritten.
PELLOX_EXPORT bool checkFilePathIsTooLong(const QString &path);

/// The text that the library logs of a path that is too long. It ends with the path.
PELLOX_EXPORT QString createTooLongFilePathWarning(const QString &path);

} // namespace PelloxMor::Utils
