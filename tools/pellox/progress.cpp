// SPDX-License-Identifier: MIT
#include "progress.h"

#include <QLocale>

#include <algorithm>

namespace {

constexpr qint64 MillisecondsPerSecond = 1000;
constexpr qint64 SecondsPerMinute = 60;
constexpr qint64 MinutesPerHour = 60;

/// "0:07", "12:34" or "1:02:03"
QString clockTime(qint64 seconds)
{
    const qint64 minutes = seconds / SecondsPerMinute;
    const auto twoDigits
        = [](qint64 value) { return QStringLiteral("%1").arg(value, 2, 10, QLatin1Char('0')); };
    const QString tail = QLatin1Char(':') + twoDigits(seconds % SecondsPerMinute);
    if (minutes < MinutesPerHour)
        return QString::number(minutes) + tail;
    return QString::number(minutes / MinutesPerHour) + QLatin1Char(':')
        + twoDigits(minutes % MinutesPerHour) + tail;
}

} // namespace

Progress::Progress(Unit unit, qint64 total)
    : m_unit(unit)
    , m_total(total)
{
    m_clock.start();
}

void Progress::advanceTo(qint64 done)
{
    m_done = std::max(m_done, std::min(done, m_total));
}

int Progress::percent() const
{
    if (m_total == 0)
        return 100;
    return static_cast<int>(
        100 * static_cast<long double>(m_done) / static_cast<long double>(m_total));
}

QString Progress::amount(qint64 count) const
{
    return m_unit == Unit::Files ? QLocale::c().toString(count)
                                 : QLocale::c().formattedDataSize(count, 1);
}

QString Progress::text() const
{
    const qint64 elapsed = std::max<qint64>(m_clock.elapsed(), 1);
    const double perMillisecond = static_cast<double>(m_done) / static_cast<double>(elapsed);
    const auto speed = static_cast<qint64>(perMillisecond * MillisecondsPerSecond);

    QString text = m_unit == Unit::EstimatedBytes ? QStringLiteral("~") : QString();
    text += amount(m_done) + QLatin1String(" of ") + amount(m_total);
    text += m_unit == Unit::Files ? QStringLiteral(" files  %1 files/s").arg(amount(speed))
                                  : QStringLiteral("  %1/s").arg(amount(speed));
    if (m_done > 0 && m_done < m_total) {
        const double left = static_cast<double>(m_total - m_done) / perMillisecond;
        text += QStringLiteral("  %1 left")
                    .arg(clockTime(static_cast<qint64>(left / MillisecondsPerSecond)));
    }
    return text;
}

QString Progress::bar(int columns) const
{
    constexpr int Frame = 10; // "100 % [", "] " and one column that stays free
    constexpr int Shortest = 5;
    const QString label = QStringLiteral("%1 %").arg(percent(), 3);
    const QString tail = text();
    const int width = columns - Frame - tail.size();
    if (width < Shortest)
        return (label + QLatin1Char(' ') + tail).left(std::max(columns - 1, 0));
    const int filled = width * percent() / 100;
    return label + QLatin1String(" [") + QString(filled, QLatin1Char('='))
        + QString(width - filled, QLatin1Char(' ')) + QLatin1String("] ") + tail;
}
