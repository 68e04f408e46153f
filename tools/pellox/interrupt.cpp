// SPDX-License-Identifier: MIT
#include "interrupt.h"

#include <QDeadlineTimer>
#include <QThread>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include <unistd.h>

namespace {

std::atomic<bool> s_lineOpen{false};
std::atomic<const char *> s_lastWords{nullptr};
std::atomic<bool> s_watched{false};
std::atomic<bool> s_stopped{false}; // by a signal: what is left to do is to clean up and to tell
std::atomic<bool> s_told{false};
std::atomic<int> s_signal{0}; // the first that came to the Watch, or 0
std::atomic<qint64> s_signalTime{0};
std::atomic<int> s_writings{0};
std::atomic<bool> s_ending{false};

constexpr int Signals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr char PlainLine[] = "pellox: interrupted\n";
std::atomic<const char *> s_line{PlainLine};

constexpr int SignalStatus = 128; // as a shell tells of a program that a signal has ended
constexpr int WatchInterval = 50; // milliseconds: at once, to a person
constexpr int LateBy = 100;       // milliseconds that a signal may come here after a child had it
constexpr int SameFor = 40; // milliseconds: timeout(1) sends its signal twice in a row, and may
                            // have to wait for its turn between; nobody presses a key so fast
constexpr int LastLineTakes = 100; // milliseconds at most

// From here to end() nothing but calls that are safe in a signal.
void put(int stream, const char *text)
{
    const ssize_t written = write(stream, text, std::strlen(text));
    static_cast<void>(written); // nobody is left to be told
}

qint64 milliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

/// Waits for lines that other threads have begun; one that this signal has broken off never ends.
void waitForWritings()
{
    const qint64 deadline = milliseconds() + LastLineTakes;
    while (s_writings > 0 && milliseconds() < deadline) {
        const timespec moment{0, 1000000};
        nanosleep(&moment, nullptr);
    }
}

/// Whether the Watch that lives is to see to it, or has done so.
bool isForWatch(int signal)
{
    if (!s_watched)
        return s_stopped && signal != SIGINT;
    const qint64 now = milliseconds();
    qint64 none = 0;
    if (s_signalTime.compare_exchange_strong(none, now)) {
        s_signal = signal;
        return true;
    }
    return signal != SIGINT || now - s_signalTime < SameFor;
}

void end(int signal)
{
    const int errorBefore = errno;
    if (isForWatch(signal)) {
        errno = errorBefore;
        return;
    }
    s_ending = true;
    waitForWritings();
    if (const char *words = s_lastWords)
        put(STDOUT_FILENO, words);
    Interrupt::tell();
    _exit(SignalStatus + signal);
}

} // namespace

void Interrupt::install()
{
    struct sigaction action = {};
    action.sa_handler = end;
    sigemptyset(&action.sa_mask);
    for (const int signal : Signals)
        sigaddset(&action.sa_mask, signal);
    for (const int signal : Signals) {
        struct sigaction inherited = {};
        sigaction(signal, nullptr, &inherited);
        if (inherited.sa_handler != SIG_IGN)
            sigaction(signal, &action, nullptr);
    }
    // A reader that goes, as at the end of a pipe, must not end the program before it has cleaned
    // up; the Console finds out when it writes. A file that may not grow any more is an error of
    // the write that finds out, too.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

Interrupt::Writing::Writing()
{
    ++s_writings;
    m_isAllowed = !s_ending;
}

Interrupt::Writing::~Writing()
{
    --s_writings;
}

void Interrupt::setLineOpen(bool open)
{
    s_lineOpen = open;
}

void Interrupt::sayOnExit(const char *line)
{
    s_lastWords = line;
}

void Interrupt::tell()
{
    if (s_told)
        return;
    if (s_lineOpen)
        put(STDERR_FILENO, "\n");
    put(STDERR_FILENO, s_line);
    s_told = true;
}

Interrupt::Advice::Advice(const char *line)
{
    s_line = line;
}

Interrupt::Advice::~Advice()
{
    s_line = PlainLine;
}

Interrupt::Stopped::Stopped()
    : m_exitStatus(SignalStatus + s_signal)
{
    s_stopped = true;
}

bool Interrupt::isStopped()
{
    return s_signal != 0;
}

void Interrupt::throwIfStopped()
{
    if (isStopped())
        throw Stopped();
}

void Interrupt::throwIfStoppedLately()
{
    for (QDeadlineTimer deadline(LateBy); !isStopped() && !deadline.hasExpired();)
        QThread::msleep(5);
    throwIfStopped();
}

Interrupt::Watch::Watch(std::function<void()> onInterrupt)
{
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
    s_signal = 0;
    s_signalTime = 0;
}
