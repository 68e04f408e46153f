// SPDX-License-Identifier: MIT
#pragma once

#include <QRegularExpression>
#include <QString>

/**
 * The expression that matches a whole path as the glob @p glob does: "*" and "?" stand for what
 * holds no "/", "[a-z]", "[!a-z]" and "[[:digit:]]" for one character, a part "**" for any number
 * of folders, and "\" takes the meaning from the next character. A glob that can match nothing
 * ("[a", "a\") gives an expression that does the same. The locale has no say in it.
 */
QRegularExpression globExpression(const QString &glob);
