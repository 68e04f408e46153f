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

// Runs in a signal: nothing but calls that are safe there.
void end(int)
{
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
