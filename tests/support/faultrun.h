// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// What happens to a program's calls on files; faults.c explains each.
struct Faults
{
    QString path = QString();        ///< only calls on this file or folder count
    QByteArray calls = QByteArray(); ///< kinds that count, with commas between them; all when empty
    int at = 0; ///< the call at which it happens, from 1; 0: calls are only counted
    QByteArray action = QByteArray(); ///< an errno, "kill", "half", "append", ...
    bool later = false;               ///< it happens at all later calls as well
    bool unsynced = false;            ///< calls that sync count, but wait for no disk
    bool slowly = false;              ///< from then on each takes a fifth of a second more
    QString appearing = QString();    ///< the file that "appear" makes
};

struct FaultRun
{
    bool crashed = false; ///< ended by a signal
    int status = 0;
    QByteArray output; ///< standard output
    QByteArray errors; ///< standard error
    QStringList calls; ///< that counted, each as "kind path"
};

/// Runs @p program to its end while @p faults happen to it. Ends the test program when it cannot.
FaultRun runWithFaults(const QString &program, const QStringList &arguments, const Faults &faults);

/// From one of so many calls to the next that a test tries, so that everyday it tries @p most at
/// the most, spread over all; every one where PELLOX_ALL_CRASH_POINTS is set.
int stepThrough(int calls, int most);
