// SPDX-License-Identifier: MIT
#pragma once

#include "program.h"

#include <QByteArray>
#include <QMap>
#include <QString>

/*
 * What may befall a run of the program: little room, a second disk, signals.
 */

/// Runs the program where no file may become larger than 8 KiB, which stands for a full disk.
Outcome runWithFileLimit(const QString &words, const QString &folder);

/// Whether this user may mount disks, each in a name space of its own.
bool canMount();

struct DiskRun
{
    Outcome outcome;
    QMap<QString, QByteArray> after; ///< what was on the disk at the end
};

/// Runs the program in @p folder with a disk of @p size (as mount(8) has it) at its subfolder
/// @p mountPoint, which the shell script @p prepare has filled.
DiskRun runWithDisk(const QString &mountPoint, const QString &size, const QString &words,
    const QString &folder, const QString &prepare = QStringLiteral(":"));

/// Sends @p signal and waits until the program has taken it. It may have ended already.
void interrupt(const QProcess &process, int signal);
