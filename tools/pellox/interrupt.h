// SPDX-License-Identifier: MIT
#pragma once

#include <QTimer>

#include <functional>

/**
 * Ctrl-C (SIGINT), SIGTERM and SIGHUP end the program at once with status 128 and the signal's
 * number, unless a command watches for them. What it had under way can be started again:
 * manifests are written last and temporary files are never reused.
 */
namespace Interrupt {

/// Signals that the caller has had ignored, as nohup does, stay ignored.
void install();

/// Tells whether a progress bar stands on the terminal's line, which the end then closes.
void setLineOpen(bool open);

/// @p line, which must live as long as the program, goes to standard output at that end.
void sayOnExit(const char *line);

/// Lives while a line is written, so that what the end says is the last line.
class Writing
{
public:
    Writing();
    ~Writing();
    Writing(const Writing &) = delete;
    Writing &operator=(const Writing &) = delete;
    /// False once the program ends: the last line stands already.
    bool isAllowed() const { return m_isAllowed; }

private:
    bool m_isAllowed;
};

/// Tells once on standard error that the program was interrupted, and what the Advice that lives
/// says.
void tell();

/// While it lives, the line that tells of an interruption says what to do next.
class Advice
{
public:
    /// @p line, the whole of it, must live as long as the program.
    explicit Advice(const char *line);
    ~Advice();
    Advice(const Advice &) = delete;
    Advice &operator=(const Advice &) = delete;
};

/// Thrown by a command that a signal has stopped, once it has cleaned up. From then on no signal
/// but Ctrl-C ends the program: it ends as the first one asks for.
class Stopped
{
public:
    Stopped();
    int exitStatus() const { return m_exitStatus; }

private:
    int m_exitStatus;
};

/// True once a signal has come to the Watch that lives.
bool isStopped();

/// Throws Stopped then.
void throwIfStopped();

/// The same after a failure. On a terminal Ctrl-C reaches a child too, whose end may be noticed
/// first, so this waits a moment.
void throwIfStoppedLately();

/**
 * While it lives, the first signal calls a function from the event loop, so that the command
 * can stop and clean up; a Ctrl-C behind it ends the program at once. Other signals do not: a
 * terminal that closes sends several. Nor does one that comes at the same moment.
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
