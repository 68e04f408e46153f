// SPDX-License-Identifier: MIT
#include "program.h"

#include "patience.h"

#include <QJsonDocument>
#include <QProcessEnvironment>
#include <QRegularExpression>

void startProgram(QProcess &process, const QString &program, const QStringList &arguments,
    const QString &folder, const QString &locale)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), locale);
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(folder);
    process.start(program, arguments);
}

Outcome outcomeOf(QProcess &process)
{
    if (!process.waitForFinished(Patience) || process.exitStatus() != QProcess::NormalExit)
        return {-1, QString(), process.errorString()};
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
        QString::fromUtf8(process.readAllStandardError())};
}

Outcome runPellox(const QStringList &arguments, const QString &folder)
{
    QProcess process;
    startProgram(process, QStringLiteral(PELLOX_PROGRAM), arguments, folder);
    return outcomeOf(process);
}

QList<QJsonObject> jsonLines(const QString &text)
{
    QList<QJsonObject> objects;
    for (const QString &line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        objects.append(QJsonDocument::fromJson(line.toUtf8()).object());
    return objects;
}

QString member(const QJsonObject &object, const char *name)
{
    return object.value(QLatin1String(name)).toString();
}

QStringList errorLines(const QString &text)
{
    return text.split(QLatin1Char('\n'))
        .filter(QRegularExpression(QStringLiteral("^pellox: error: ")));
}
