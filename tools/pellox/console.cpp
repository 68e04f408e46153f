// SPDX-License-Identifier: MIT
#include "console.h"

#include "interrupt.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>

#include <cerrno>
#include <cstdio>
#include <utility>

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr qint64 BarInterval = 100;   // milliseconds between two pictures of the bar
constexpr qint64 LineInterval = 2000; // and between two lines where there is no terminal
constexpr int UsualColumns = 80;
constexpr char EraseLine[] = "\r\x1b[K";

int terminalColumns()
{
    winsize size{};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : UsualColumns;
}

bool write(std::FILE *stream, const QByteArray &bytes)
{
    const Interrupt::Writing writing;
    if (!writing.isAllowed())
        return true;
    const auto size = static_cast<size_t>(bytes.size());
    return std::fwrite(bytes.constData(), 1, size, stream) == size && std::fflush(stream) == 0;
}

/// The library's messages may hold line breaks; a log wants each on one line.
QString onOneLine(QString text)
{
    text.replace(QLatin1String(" \n"), QLatin1String(" "));
    return text.replace(QLatin1Char('\n'), QLatin1Char(' '));
}

/// Whether @p text names @p file itself; something in that folder is not enough.
bool isNamedIn(const QString &text, const QString &file)
{
    auto at = text.indexOf(file);
    while (at >= 0 && QStringView(text).mid(at + file.size()).startsWith(QLatin1Char('/')))
        at = text.indexOf(file, at + 1);
    return at >= 0;
}

} // namespace

Console::Console(Options options)
    : m_options(options)
    , m_terminal(isatty(STDERR_FILENO) == 1)
{
    if (options.json)
        Interrupt::sayOnExit("{\"event\":\"finished\",\"outcome\":\"interrupted\"}\n");
}

Console::~Console()
{
    stopProgress();
}

void Console::startProgress(const QString &title, Progress::Unit unit, qint64 total)
{
    const QMutexLocker lock(&m_mutex);
    m_title = title;
    m_progress.emplace(unit, total);
    m_shown = -1;
    m_sinceShown.start();
    if (m_terminal || m_options.json)
        showProgress();
}

void Console::advanceTo(qint64 done)
{
    const QMutexLocker lock(&m_mutex);
    if (!m_progress)
        return;
    m_progress->advanceTo(done);
    const qint64 interval = m_terminal || m_options.json ? BarInterval : LineInterval;
    if (m_sinceShown.hasExpired(interval))
        showProgress();
}

void Console::stopProgress()
{
    const QMutexLocker lock(&m_mutex);
    if (!m_progress)
        return;
    showProgress();
    if (m_barVisible)
        write(stderr, "\n");
    m_barVisible = false;
    Interrupt::setLineOpen(false);
    m_progress.reset();
}

void Console::showProgress()
{
    m_sinceShown.restart();
    if (m_options.json) {
        if (m_progress->done() == std::exchange(m_shown, m_progress->done()))
            return;
        writeJson({{QStringLiteral("event"), QStringLiteral("progress")},
            {QStringLiteral("stage"), m_title}, {QStringLiteral("done"), m_progress->done()},
            {QStringLiteral("total"), m_progress->total()}});
    } else if (m_options.quiet) {
        return;
    } else if (m_terminal) {
        write(stderr, EraseLine + m_progress->bar(terminalColumns()).toLocal8Bit());
        m_barVisible = true;
        Interrupt::setLineOpen(true);
    } else {
        writeError(QStringLiteral("%1: %2 %  %3")
                       .arg(m_title, QString::number(m_progress->percent()), m_progress->text()));
    }
}

void Console::error(const QString &file, const QString &text)
{
    error(file, text, QJsonObject());
}

void Console::error(const QString &file, const QString &text, const QJsonObject &details)
{
    const QMutexLocker lock(&m_mutex);
    ++m_errors;
    if (m_options.json) {
        QJsonObject object = details;
        object.insert(QStringLiteral("event"), QStringLiteral("error"));
        object.insert(QStringLiteral("error"), text);
        if (!file.isEmpty())
            object.insert(QStringLiteral("file"), file);
        writeJson(object);
    }
    const bool named = file.isEmpty() || isNamedIn(text, file);
    writeError(QLatin1String("pellox: error: ") + (named ? QString() : file + QLatin1String(": "))
        + onOneLine(text));
}

void Console::note(const QString &text)
{
    const QMutexLocker lock(&m_mutex);
    if (!m_options.quiet)
        writeError(QLatin1String("pellox: ") + text);
}

void Console::logLine(const QString &text)
{
    if (!m_options.verbose)
        return;
    const QMutexLocker lock(&m_mutex);
    writeError(text);
}

void Console::result(const QString &text)
{
    const QMutexLocker lock(&m_mutex);
    if (!m_options.quiet && !m_options.json)
        writeOutput(text.toLocal8Bit() + '\n');
}

void Console::event(const QString &name, QJsonObject members)
{
    const QMutexLocker lock(&m_mutex);
    if (!m_options.json)
        return;
    members.insert(QStringLiteral("event"), name);
    writeJson(members);
}

void Console::outcome(const QString &outcome)
{
    const QMutexLocker lock(&m_mutex);
    if (m_options.json) {
        writeJson({{QStringLiteral("event"), QStringLiteral("finished")},
            {QStringLiteral("outcome"), outcome}});
    }
}

int Console::errorCount() const
{
    const QMutexLocker lock(&m_mutex);
    return m_errors;
}

void Console::writeError(const QString &line)
{
    const QByteArray erase = m_barVisible ? QByteArray(EraseLine) : QByteArray();
    write(stderr, erase + line.toLocal8Bit() + '\n');
    m_barVisible = false;
    Interrupt::setLineOpen(false);
}

void Console::writeJson(const QJsonObject &object)
{
    writeOutput(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
}

void Console::writeOutput(const QByteArray &line)
{
    if (write(stdout, line) || m_outputLost)
        return;
    m_outputLost = true;
    if (errno != EPIPE) // a reader that has read enough, as "head" has, is no fault to tell
        writeError(QStringLiteral("pellox: error: cannot write to standard output"));
}

bool Console::outputLost() const
{
    const QMutexLocker lock(&m_mutex);
    return m_outputLost;
}
