// SPDX-License-Identifier: MIT
#pragma once

#include <QTimer>

#include <functional>

/**
 * Ctrl-C ends the program at once with status 130, unless a command watches for it. What
 * it had under way can be started again: manifests are written last and temporary files
 * are never reused.
 */
namespace Interrupt {

void install();

/// Tells whether a progress bar stands on the terminal's line, which the end then closes.
void setLineOpen(bool open);

/// @p line, which must live as long as the program, goes to standard output at that end.
void sayOnExit(const char *line);

/// Thrown by a command that Ctrl-C has stopped, once it has cleaned up.
class Stopped
{
};

/// True once Ctrl-C has come to the Watch that lives.
bool isStopped();

/// Throws Stopped then.
void throwIfStopped();

/// The same after a failure. On a terminal Ctrl-C reaches a child too, whose end may be noticed
/// first, so this waits a moment.
void throwIfStoppedLately();

/**
 * While it lives, the first Ctrl-C calls a function from the event loop, so that the command
 * can stop and clean up; the second ends the program at once.
 */
class Watch
{
public:
    explicit Watch(std::function<void()> onInterrupt);
    ~Watch();
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

private:
    QTimer m_timer;
};

} // namespace Interrupt
