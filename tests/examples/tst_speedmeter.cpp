// SPDX-License-Identifier: MIT
#include "literals.h"
#include "speedmeter.h"

#include <QtTest>

namespace {

constexpr qint64 MB = 1000000;

} // namespace

class tst_SpeedMeter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tellsBytesAlone_data();
    void tellsBytesAlone();
    void tellsSpeedAndTimeLeft_data();
    void tellsSpeedAndTimeLeft();
    void goesByTheLastSeconds();
    void beginsAnew();
};

void tst_SpeedMeter::tellsBytesAlone_data()
{
    QTest::addColumn<qint64>("done");
    QTest::addColumn<qint64>("time");

    QTest::newRow("within the shortest time") << 2 * MB << qint64(249);
    QTest::newRow("while nothing goes on") << 1 * MB << qint64(2000);
}

void tst_SpeedMeter::tellsBytesAlone()
{
    QFETCH(qint64, done);
    QFETCH(qint64, time);
    SpeedMeter meter;
    QCOMPARE(meter.text(1 * MB, 12 * MB, 0), "1.0 MB of 12.0 MB"_s);
    QCOMPARE(meter.text(done, 12 * MB, time), "%1.0 MB of 12.0 MB"_s.arg(done / MB));
}

void tst_SpeedMeter::tellsSpeedAndTimeLeft_data()
{
    QTest::addColumn<qint64>("total");
    QTest::addColumn<QString>("text");

    // 2 MB in the second in which it is looked at.
    QTest::newRow("seconds") << 20 * MB << "2.0 MB of 20.0 MB, 2.0 MB/s, 9 s left"_s;
    QTest::newRow("rounded up") << 3 * MB << "2.0 MB of 3.0 MB, 2.0 MB/s, 1 s left"_s;
    QTest::newRow("the last second") << 4 * MB << "2.0 MB of 4.0 MB, 2.0 MB/s, 1 s left"_s;
    QTest::newRow("99 s") << 200 * MB << "2.0 MB of 200.0 MB, 2.0 MB/s, 99 s left"_s;
    QTest::newRow("100 s") << 202 * MB << "2.0 MB of 202.0 MB, 2.0 MB/s, 2 min left"_s;
    QTest::newRow("120 s") << 242 * MB << "2.0 MB of 242.0 MB, 2.0 MB/s, 2 min left"_s;
    QTest::newRow("121 s") << 244 * MB << "2.0 MB of 244.0 MB, 2.0 MB/s, 3 min left"_s;
    QTest::newRow("done") << 2 * MB << "2.0 MB of 2.0 MB, 2.0 MB/s, 0 s left"_s;
}

void tst_SpeedMeter::tellsSpeedAndTimeLeft()
{
    QFETCH(qint64, total);
    SpeedMeter meter;
    meter.text(0, total, 5000);
    QTEST(meter.text(2 * MB, total, 6000), "text");
}

/// A slow start is forgotten.
void tst_SpeedMeter::goesByTheLastSeconds()
{
    SpeedMeter meter;
    meter.text(0, 100 * MB, 0);
    meter.text(1 * MB, 100 * MB, 10000);
    for (int second = 1; second < 4; ++second)
        meter.text((1 + 10 * second) * MB, 100 * MB, 10000 + 1000 * second);
    QCOMPARE(meter.text(41 * MB, 100 * MB, 14000), "41.0 MB of 100.0 MB, 10.0 MB/s, 6 s left"_s);
}

void tst_SpeedMeter::beginsAnew()
{
    SpeedMeter meter;
    meter.text(0, 4 * MB, 0);
    meter.text(4 * MB, 4 * MB, 1000);
    meter.restart();
    QCOMPARE(meter.text(1 * MB, 8 * MB, 1000), "1.0 MB of 8.0 MB"_s);
}

QTEST_GUILESS_MAIN(tst_SpeedMeter)
#include "tst_speedmeter.moc"
