// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <initializer_list>
#include <string>
#include <utility>

/// Exit statuses, promised by --help and docs/cli.md; Interrupt::Stopped has the others. The table
/// in endings.cpp says what they mean.
enum ExitStatus : int {
    Done = 0,
    Failed = 1,
    WrongUsage = 2,
    // Of the commands on an installed build: what a launcher wants to tell apart.
    NothingToDo = 10,
    Unchanged = 11,
    Unfinished = 12,
    DamagedInstall = 13,
    NoSpace = 14,
    RefusedPatch = 15,
    InTheWay = 16,
    Busy = 17,
    DamagedJournal = 18,
    NothingKept = 19,
};

/// "no-space" for NoSpace; "interrupted" for what is no ExitStatus.
QString outcomeName(int status);

/// How a command ended.
struct Ending
{
    /// Done or Failed, and no more to say; implicit, as for most commands that is all.
    Ending(bool done)
        : status(done ? Done : Failed)
        , outcome(done ? QStringLiteral("done") : QStringLiteral("failed"))
    {
    }
    Ending(int exitStatus, QString lastWords)
        : status(exitStatus)
        , outcome(outcomeName(exitStatus))
        , message(std::move(lastWords))
    {
    }

    int status;
    QString outcome; ///< for --json
    QString message; ///< what happened, and what to do next; may be empty
};

/// What happened when a command on an installed build ended with @p status, which is not one of
/// success, and what to do next.
QString lastWords(int status);

/// What a status means where one command ends with it, in words that fit no other.
struct OwnMeaning
{
    int status;
    const char *meaning;
};

/// For --help: those of @p statuses, of the commands on an installed build, and what all have.
std::string exitStatusHelp(
    std::initializer_list<int> statuses, std::initializer_list<OwnMeaning> ownMeanings = {});
/// The same for all other commands.
std::string exitStatusHelp();
