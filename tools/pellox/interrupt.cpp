// SPDX-License-Identifier: MIT
#include "interrupt.h"

#include "commands.h"

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

Interrupt::Watch::Watch(std::function<void()> onInterrupt)
{
    s_requested = false;
    s_watched = true;
    QObject::connect(&m_timer, &QTimer::timeout, [this, stop = std::move(onInterrupt)] {
        if (!isStopped())
            return;
        m_timer.stop();
        stop();
    });
    m_timer.start(WatchInterval);
}

Interrupt::Watch::~Watch()
{
    s_watched = false;
}

bool Interrupt::Watch::isStopped() const
{
    return s_requested;
}
