// SPDX-License-Identifier: MIT
#include "outputparsers.h"

#include <QStringView>

namespace {

/// How long the mark of a progress line is that @p text begins with; 0 where it is none.
int markSize(QStringView text)
{
    if (text.startsWith(QLatin1String(" U")) || text.startsWith(QLatin1String("% ")))
        return 2;
    return text.startsWith(QLatin1String(" + ")) || text.startsWith(QLatin1String(" - ")) ? 3 : 0;
}

} // namespace

QString strip(const QString &text)
{
    QString stripped = text.trimmed();
    stripped.remove(QLatin1Char('\b'));
    stripped.replace(QLatin1String("\r\n"), QLatin1String("\n"));
    return stripped.replace(QLatin1String("\n\n"), QLatin1String("\n"));
}

QStringList getPercents(const QString &text)
{
    if (!text.contains(QLatin1Char('%')))
        return {};
    QStringList parts{QString()};
    for (QStringView rest(text); !rest.isEmpty();) {
        const int size = markSize(rest);
        if (size > 0)
            parts.append(QString());
        else
            parts.last().append(rest.front());
        rest = rest.mid(size > 0 ? size : 1);
    }
    return parts;
}

bool isEverythingIsOk(const QString &text)
{
    return text.toLower().remove(QLatin1Char(' ')).contains(QLatin1String("everythingisok"));
}

QString checkErrors(const QString &text)
{
    return text.contains(QLatin1String("ERROR:")) ? text : QString();
}
