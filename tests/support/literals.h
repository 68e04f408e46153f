// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/// A text of a test's source, which is UTF-8: "grüße"_s.
inline QString operator""_s(const char *text, std::size_t size)
{
    return QString::fromUtf8(text, static_cast<int>(size));
}
