// SPDX-License-Identifier: MIT
#include "interrupt.h"

#include "commands.h"

#include <QDeadlineTimer>
#include <QThread>

#include <atomic>
#include <csignal>
#include <cstring>

#include <unistd.h>

namespace {

std::atomic<bool> s_lineOpen{false};
std::atomic<const char *> s_lastWords{nullptr};
std::atomic<bool> s_watched{false};
std::atomic<bool> s_requested{false};

constexpr int WatchInterval = 50; // milliseconds: at once, to a person
constexpr int LateBy = 100;       // milliseconds that Ctrl-C may come here after a child had it

// Runs in a signal: nothing but calls that are safe there.
void end(int)
{
    if (s_watched && !s_requested.exchange(true))
        return;
    ssize_t written = 0;
    if (s_lineOpen)
        written += write(STDERR_FILENO, "\n", 1);
    if (const char *words = s_lastWords)
        written += write(STDOUT_FILENO, words, std::strlen(words));
    static_cast<void>(written);
    _exit(Interrupted);
}

} // namespace

void Interrupt::install()
{
    struct sigaction action = {};
    action.sa_handler = end;
    sigaction(SIGINT, &action, nullptr);
}

void Interrupt::setLineOpen(bool open)
{
    s_lineOpen = open;
}

void Interrupt::sayOnExit(const char *line)
{
    s_lastWords = line;
}

bool Interrupt::isStopped()
{
    return s_requested;
}

void Interrupt::throwIfStopped()
{
    if (isStopped())
        throw Stopped();
}

void Interrupt::throwIfStoppedLately()
{
    for (QDeadlineTimer deadline(LateBy); !s_requested && !deadline.hasExpired();)
        QThread::msleep(5);
    throwIfStopped();
}

Interrupt::Watch::Watch(std::function<void()> onInterrupt)
{
    s_watched = true;
    QObject::connect(&m_timer, &QTimer::timeout, [this, stop = std::move(onInterrupt)] {
        if (!s_requested)
            return;
        m_timer.stop();
        stop();
    });
    m_timer.start(WatchInterval);
}

Interrupt::Watch::~Watch()
{
    s_watched = false;
    s_requested = false;
}
