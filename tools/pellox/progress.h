// SPDX-License-Identifier: MIT
#pragma once

#include <QElapsedTimer>
#include <QString>
#include <QStringList>

/// How far a long operation has come, and how that reads for a person.
class Progress
{
public:
    enum class Unit {
        Bytes,
        EstimatedBytes, ///< computed from a percentage, so marked with "~"
        Files,
    };

    Progress(Unit unit, qint64 total);

    /// Only ever forwards: a smaller @p done is ignored, a larger one than the total cut.
    void advanceTo(qint64 done);

    qint64 done() const { return m_done; }
    qint64 total() const { return m_total; }
    int percent() const;

    /// "1.2 GiB of 3.4 GiB  210 MiB/s  0:12 left"; what takes no time has no speed.
    QString text() const { return textAfter(m_clock.elapsed()); }
    /// A percentage, a bar of what room is left in @p columns, and text(); where there is no room
    /// for these, whole parts are left out.
    QString bar(int columns) const { return barAfter(m_clock.elapsed(), columns); }

    // The same, @p elapsed milliseconds after the beginning.
    QString textAfter(qint64 elapsed) const;
    QString barAfter(qint64 elapsed, int columns) const;

private:
    QStringList parts(qint64 elapsed) const; ///< of the text
    QString withoutBar(const QString &label, qint64 elapsed, int columns) const;
    QString amount(qint64 count) const;

    Unit m_unit;
    qint64 m_total;
    qint64 m_done = 0;
    QElapsedTimer m_clock;
};
