// SPDX-License-Identifier: MIT
#pragma once

#include "program.h"
#include "testtree.h"

#include <QMap>

/// Exit statuses of the commands on an installed build, beside those of program.h.
constexpr int NothingToDo = 10;
constexpr int Unchanged = 11;
constexpr int Unfinished = 12;
constexpr int DamagedInstall = 13;
constexpr int NoSpace = 14;
constexpr int RefusedPatch = 15;
constexpr int InTheWay = 16;
constexpr int Busy = 17;
constexpr int DamagedJournal = 18;
constexpr int NothingKept = 19;

/**
 * A folder with builds "old" and "new", signatures of both, "sigs-old" and "sigs-new", the "patch"
 * between them, and an "installed" old build with a player's file in it. One file each is patched,
 * new and gone. Ends the test program when these cannot be made.
 */
class ReleaseTree : public TestTree
{
public:
    ReleaseTree();

    /// Runs the program in the folder; @p words have single blanks between them.
    Outcome run(const QString &words) const;

    QMap<QString, QByteArray> installed() const;
    /// What the installed build is when it is the old one, and the new one.
    QMap<QString, QByteArray> oldInstalled() const { return m_oldInstalled; }
    QMap<QString, QByteArray> newInstalled() const { return m_newInstalled; }

private:
    void publish() const;
    QMap<QString, QByteArray> expected(const char *build) const;

    QMap<QString, QByteArray> m_oldInstalled;
    QMap<QString, QByteArray> m_newInstalled;
};
