// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QString>

class QByteArray;

/// What the two drivers of the 7-Zip console program share.
namespace SevenZip {

/// The program, which is looked for beside the host application only.
QString programPath();

/// The error text when it cannot be started.
QString startFailure();

/**
 * The text of a chunk of console output. By way of code page 866, Latin-1 and UTF-8, up to
 * the first NUL: only ASCII is sure to survive, and only that is looked at.
 */
QString decode(const QByteArray &chunk);

/// What each non-empty line of @p chunk has before its "%", 0 for what is no number.
QList<int> percentages(const QString &chunk);

/// The switch that carries @p password, quotes and all.
QString passwordSwitch(const QString &password);

} // namespace SevenZip
