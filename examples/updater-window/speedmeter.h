// SPDX-License-Identifier: MIT
#pragma once

#include <QCoreApplication>
#include <QString>
#include <QVector>

/// Tells how fast the work goes, by its last seconds, and how long it will still take.
class SpeedMeter
{
    Q_DECLARE_TR_FUNCTIONS(SpeedMeter)

public:
    void restart() { m_samples.clear(); }
    /// @p done of @p total bytes at @p time, in milliseconds of a clock that never goes back.
    void take(qint64 done, qint64 total, qint64 time);
    /// "3.0 MB of 12.0 MB, 1.5 MB/s, 6 seconds left"; parts that cannot be known yet are missing.
    QString text() const;

private:
    struct Sample
    {
        qint64 done;
        qint64 time;
    };

    double bytesPerMillisecond() const;
    static QString timeLeft(double milliseconds);

    QVector<Sample> m_samples; ///< the oldest first
    qint64 m_total = 0;
};
