// SPDX-License-Identifier: MIT
#include "progress.h"

#include <QLocale>

#include <algorithm>

namespace {

constexpr qint64 MillisecondsPerSecond = 1000;
constexpr qint64 SecondsPerMinute = 60;
constexpr qint64 MinutesPerHour = 60;
const QString Gap = QStringLiteral("  ");

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

QStringList Progress::parts(qint64 elapsed) const
{
    constexpr qint64 ShortestTime = 100; // milliseconds: what is faster than that is chance
    const QString mark = m_unit == Unit::EstimatedBytes ? QStringLiteral("~") : QString();
    QString counts = mark + amount(m_done) + QLatin1String(" of ") + amount(m_total);
    if (m_unit == Unit::Files)
        counts += QLatin1String(" files");
    QStringList parts{counts};
    if (elapsed < ShortestTime)
        return parts;
    const double perMillisecond = static_cast<double>(m_done) / static_cast<double>(elapsed);
    const auto speed = static_cast<qint64>(perMillisecond * MillisecondsPerSecond);
    parts.append(amount(speed) + QLatin1String(m_unit == Unit::Files ? " files/s" : "/s"));
    if (m_done > 0 && m_done < m_total) {
        const double left = static_cast<double>(m_total - m_done) / perMillisecond;
        parts.append(
            clockTime(static_cast<qint64>(left / MillisecondsPerSecond)) + QLatin1String(" left"));
    }
    return parts;
}

QString Progress::textAfter(qint64 elapsed) const
{
    return parts(elapsed).join(Gap);
}

QString Progress::barAfter(qint64 elapsed, int columns) const
{
    constexpr int Frame = 10; // "100 % [", "] " and one column that stays free
    constexpr int Shortest = 5;
    const QString label = QStringLiteral("%1 %").arg(percent(), 3);
    const QString tail = textAfter(elapsed);
    const int width = columns - Frame - static_cast<int>(tail.size());
    if (width < Shortest)
        return withoutBar(label, elapsed, columns);
    const int filled = width * percent() / 100;
    return label + QLatin1String(" [") + QString(filled, QLatin1Char('='))
        + QString(width - filled, QLatin1Char(' ')) + QLatin1String("] ") + tail;
}

/// With as many parts as fit, the first ones first.
QString Progress::withoutBar(const QString &label, qint64 elapsed, int columns) const
{
    QString line = label;
    QString gap = QStringLiteral(" ");
    for (const QString &part : parts(elapsed)) {
        if (line.size() + gap.size() + part.size() >= columns)
            break;
        line += gap + part;
        gap = Gap;
    }
    return line.left(std::max(columns - 1, 0));
}
