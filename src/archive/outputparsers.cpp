// SPDX-License-Identifier: MIT
#include "outputparsers.h"

#include <QRegExp>

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
    return text.split(QRegExp(QStringLiteral(" U| \\+ | - |% ")));
}

bool isEverythingIsOk(const QString &text)
{
    return text.toLower().remove(QLatin1Char(' ')).contains(QLatin1String("everythingisok"));
}

QString checkErrors(const QString &text)
{
    return text.contains(QLatin1String("ERROR:")) ? text : QString();
}
