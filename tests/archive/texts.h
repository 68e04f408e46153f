// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

#include <initializer_list>

/// @p utf8 as strings.
inline QStringList texts(std::initializer_list<const char *> utf8)
{
    QStringList strings;
    for (const char *text : utf8)
        strings.append(QString::fromUtf8(text));
    return strings;
}
