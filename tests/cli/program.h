// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>

/// Exit statuses of the program.
constexpr int Done = 0;
constexpr int Failed = 1;
constexpr int WrongUsage = 2;
constexpr int Interrupted = 130;

struct Outcome
{
    int status; ///< -1 when the program crashed
    QString out;
    QString err;
};

/// Starts @p program in @p folder with the locale @p locale.
void startProgram(QProcess &process, const QString &program, const QStringList &arguments,
    const QString &folder, const QString &locale = QStringLiteral("C.UTF-8"));

Outcome outcomeOf(QProcess &process);

/// Runs the program under test to its end.
Outcome runPellox(const QStringList &arguments, const QString &folder);

QList<QJsonObject> jsonLines(const QString &text);
QString member(const QJsonObject &object, const char *name);
/// The lines of @p text that tell an error.
QStringList errorLines(const QString &text);
