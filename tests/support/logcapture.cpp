// SPDX-License-Identifier: MIT
#include "logcapture.h"

#include <QMutex>
#include <QMutexLocker>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

QMutex s_mutex;

QString nameOf(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return QStringLiteral("debug");
    case QtInfoMsg:
        return QStringLiteral("info");
    case QtWarningMsg:
        return QStringLiteral("warning");
    case QtCriticalMsg:
        return QStringLiteral("critical");
    case QtFatalMsg:
        break;
    }
    return QStringLiteral("fatal");
}

} // namespace

QList<LogCapture::Line> LogCapture::s_lines;

LogCapture::LogCapture()
    : m_previous(qInstallMessageHandler(handle))
{
    clear();
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(m_previous);
}

void LogCapture::handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (type == QtFatalMsg) {
        std::fprintf(stderr, "%s\n", qPrintable(text));
        std::abort();
    }
    const QMutexLocker lock(&s_mutex);
    s_lines.append({type, QString::fromLatin1(context.category), text});
}

QStringList LogCapture::take(QtMsgType type, const char *category)
{
    const QMutexLocker lock(&s_mutex);
    QStringList taken;
    QList<Line> left;
    for (const Line &line : std::as_const(s_lines)) {
        if (line.type == type && line.category == QLatin1String(category))
            taken.append(line.text);
        else
            left.append(line);
    }
    s_lines = left;
    return taken;
}

QStringList LogCapture::takeAll(const char *category)
{
    const QMutexLocker lock(&s_mutex);
    QStringList taken;
    QList<Line> left;
    for (const Line &line : std::as_const(s_lines)) {
        if (line.category == QLatin1String(category))
            taken.append(nameOf(line.type) + QLatin1String(": ") + line.text);
        else
            left.append(line);
    }
    s_lines = left;
    return taken;
}

QStringList LogCapture::troubleLeft()
{
    const QMutexLocker lock(&s_mutex);
    QStringList left;
    for (const Line &line : std::as_const(s_lines)) {
        if (line.type != QtDebugMsg && line.type != QtInfoMsg)
            left.append(line.category + QLatin1Char(' ') + nameOf(line.type) + QLatin1String(": ")
                + line.text);
    }
    return left;
}

void LogCapture::clear()
{
    const QMutexLocker lock(&s_mutex);
    s_lines.clear();
}
