// SPDX-License-Identifier: MIT
#include "log.h"

#include "console.h"

#include <Pellox/patchhelp.h>
#include <Pellox/trace.h>

#include <QLoggingCategory>

namespace {

Console *s_console = nullptr;
std::function<void(const QString &)> s_criticalListener;

QLatin1String nameOf(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return QLatin1String("debug");
    case QtInfoMsg:
        return QLatin1String("info");
    case QtWarningMsg:
        return QLatin1String("warning");
    case QtCriticalMsg:
        return QLatin1String("critical");
    case QtFatalMsg:
        break;
    }
    return QLatin1String("fatal");
}

void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    const QLatin1String category(context.category);
    s_console->logLine(QStringLiteral("%1 %2: %3").arg(category, nameOf(type), text));
    const bool isLibraryFailure
        = type == QtCriticalMsg && category == QLatin1String("BinariesController");
    if (isLibraryFailure && s_criticalListener)
        s_criticalListener(text);
}

} // namespace

void Log::showOn(Console &console)
{
    s_console = &console;
    // Whatever the user filters, failed rules must be heard of.
    QLoggingCategory::setFilterRules(QStringLiteral("BinariesController.critical=true"));
    qInstallMessageHandler(handle);
    // Else librsync would write to standard error itself until a BinariesController exists.
    Pellox::setRsyncLogOutput(Pellox::trace);
}

void Log::setCriticalListener(std::function<void(const QString &)> listener)
{
    s_criticalListener = std::move(listener);
}
