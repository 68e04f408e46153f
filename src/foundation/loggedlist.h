// SPDX-License-Identifier: MIT
#pragma once

#include <QDebug>
#include <QStringList>

namespace Pellox {

/**
 * Streams @p texts to the log as ("one", "two"). The form is promised to hosts; left to itself Qt 6
 * would call such a list QList("one", "two").
 */
struct LoggedList
{
    const QStringList &texts;
};

inline QDebug operator<<(QDebug debug, const LoggedList &list)
{
    const QDebugStateSaver saver(debug);
    debug.nospace() << '(';
    const char *separator = "";
    for (const QString &text : list.texts) {
        debug << separator << text;
        separator = ", ";
    }
    debug << ')';
    return debug;
}

} // namespace Pellox
