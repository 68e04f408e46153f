// SPDX-License-Identifier: MIT
#pragma once

#include <QCoreApplication>
#include <QLocale>
#include <QVector>

#include <cmath>

/// Tells how fast the work goes, by its last seconds, and how long it will still take.
class SpeedMeter
{
    Q_DECLARE_TR_FUNCTIONS(SpeedMeter)

public:
    void restart() { m_samples.clear(); }

    /// "3.0 MB of 12.0 MB, 1.5 MB/s, 6 s left", without what cannot be known yet. @p time is in
    /// milliseconds of a clock that never goes back.
    QString text(qint64 done, qint64 total, qint64 time)
    {
        m_samples.append({done, time});
        while (m_samples.size() > 2 && m_samples.at(1).time <= time - 3000)
            m_samples.removeFirst();
        const QString bytes = tr("%1 of %2").arg(bytesText(done), bytesText(total));
        const qint64 doneSince = done - m_samples.first().done;
        const qint64 timeSince = time - m_samples.first().time;
        if (timeSince < 250 || doneSince <= 0) // what is measured in less is chance
            return bytes;

        const double speed = 1000.0 * double(doneSince) / double(timeSince);
        const auto seconds = qint64(std::ceil(double(total - done) / speed));
        const QString left = seconds < 100 ? tr("%1 s left").arg(seconds)
                                           : tr("%1 min left").arg((seconds + 59) / 60);
        return tr("%1, %2/s, %3").arg(bytes, bytesText(qint64(speed)), left);
    }

    /// "12.3 MB"
    static QString bytesText(qint64 bytes)
    {
        return QLocale().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
    }

private:
    struct Sample
    {
        qint64 done;
        qint64 time;
    };

    QVector<Sample> m_samples; ///< the oldest first
};
