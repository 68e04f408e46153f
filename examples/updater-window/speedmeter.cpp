// SPDX-License-Identifier: MIT
#include "speedmeter.h"

#include "wording.h"

#include <QStringList>

#include <cmath>

namespace {

// In milliseconds.
constexpr qint64 Remembered = 3000;
constexpr qint64 ShortestTime = 250; // what is measured in less is chance

} // namespace

void SpeedMeter::take(qint64 done, qint64 total, qint64 time)
{
    m_total = total;
    m_samples.append({done, time});
    while (m_samples.size() > 2 && m_samples.at(1).time <= time - Remembered)
        m_samples.removeFirst();
}

double SpeedMeter::bytesPerMillisecond() const
{
    const qint64 time = m_samples.last().time - m_samples.first().time;
    const qint64 bytes = m_samples.last().done - m_samples.first().done;
    return time < ShortestTime ? 0 : static_cast<double>(bytes) / static_cast<double>(time);
}

QString SpeedMeter::text() const
{
    if (m_samples.isEmpty())
        return {};
    const qint64 done = m_samples.last().done;
    QStringList parts{tr("%1 of %2").arg(bytesText(done), bytesText(m_total))};
    const double speed = bytesPerMillisecond();
    if (speed > 0) {
        parts.append(tr("%1/s").arg(bytesText(static_cast<qint64>(speed * 1000))));
        if (done < m_total)
            parts.append(timeLeft(static_cast<double>(m_total - done) / speed));
    }
    return parts.join(tr(", "));
}

QString SpeedMeter::timeLeft(double milliseconds)
{
    const auto seconds = static_cast<qint64>(std::ceil(milliseconds / 1000));
    const qint64 minutes = (seconds + 59) / 60;
    const qint64 hours = (minutes + 59) / 60;
    if (seconds < 60)
        return seconds == 1 ? tr("1 second left") : tr("%1 seconds left").arg(seconds);
    if (minutes < 100)
        return minutes == 1 ? tr("1 minute left") : tr("%1 minutes left").arg(minutes);
    return tr("%1 hours left").arg(hours);
}
