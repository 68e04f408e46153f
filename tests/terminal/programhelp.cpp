// SPDX-License-Identifier: MIT
#include "programhelp.h"

#include "program.h"

#include <QDir>
#include <QRegularExpression>

namespace {

/// What @p pattern captures in each line of the help of @p command.
QStringList found(const QString &command, const QString &pattern)
{
    QStringList arguments{QStringLiteral("--help")};
    if (!command.isEmpty())
        arguments.prepend(command);
    const Outcome outcome = runPellox(arguments, QDir::tempPath());
    const QRegularExpression expression(pattern);
    QStringList result;
    for (const QString &line : outcome.out.split(QLatin1Char('\n'))) {
        const QRegularExpressionMatch match = expression.match(line);
        for (int i = 1; i <= match.lastCapturedIndex(); ++i) {
            if (!match.captured(i).isEmpty())
                result.append(match.captured(i));
        }
    }
    if (result.isEmpty())
        qFatal("the help of \"%s\" is not understood", qPrintable(command));
    return result;
}

} // namespace

QStringList programCommands()
{
    return found(QString(), QStringLiteral("^  ([a-z]+) {2,}[A-Z]"));
}

QStringList commandOptions(const QString &command)
{
    return found(command, QStringLiteral("^  (-[a-z])?,?(--[a-z-]+)"));
}
