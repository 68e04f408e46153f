// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

/*
 * What the program tells by --help.
 */

/// All commands. Ends the test program when there are none.
QStringList programCommands();

/// The options of @p command, of the program itself where that is empty: "-q", "--quiet".
QStringList commandOptions(const QString &command);
