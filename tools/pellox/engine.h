// SPDX-License-Identifier: MIT
#pragma once

#include "interrupt.h"

#include <Pellox/PublishController>

#include <CLI/App.hpp>

#include <functional>

class Console;
class Refusal;

/// The path at the beginning of an error; of several that it may be, one that is there.
QString culpritOf(const QString &problem);

/// That error as a Refusal.
Refusal refusalOf(const QString &problem);

/// @p percent of @p size, but less than all: what the library reports comes before the work's end.
qint64 shareOf(qint64 size, double percent);

/// Calls the library's publishing engine in the way of the program: with a progress bar, with its
/// errors on the console, and with Ctrl-C, which cancels it.
class Engine
{
public:
    /// From now on Ctrl-C is watched for. As many threads as there are cores where @p threads is 0.
    Engine(Console &console, int threads);

    using Call
        = std::function<bool(Pellox::PublishController &controller, const PROGRESS_CALLBACK &)>;

    /// Shows @p call as @p stage, work on about @p size bytes. Returns false after
    /// Console::error(). Throws Interrupt::Stopped.
    bool run(const QString &stage, qint64 size, const Call &call);

    /// Signs @p build, whose files are of @p size.
    bool sign(const QString &build, qint64 size, const QString &signatures);

private:
    Console &m_console;
    int m_threads;
    Interrupt::Watch m_watch;
};

/// Adds --threads; @p threads stays as it is where that is not given.
CLI::Option *addThreadsOption(CLI::App &command, int &threads);
/// Adds --fast, and --threads that needs it. Returns the former.
CLI::Option *addFastOptions(CLI::App &command, bool &fast, int &threads);

/// Throws Refusal when the engine would not replace what is in @p folder by a release with
/// manifest @p manifest: anything but an earlier release or what an interrupted run has left.
void requireReplaceable(const QString &folder, const QString &manifest);
