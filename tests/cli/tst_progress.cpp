// SPDX-License-Identifier: MIT
#include "progress.h"

#include <QTest>

class tst_Progress : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void goesOnlyForwards();
    void neverPassesTheTotal();
    void percentageIsRoundedDown_data();
    void percentageIsRoundedDown();
    void textTellsAmountSpeedAndTimeLeft();
    void whatTakesNoTimeHasNoSpeed();
    void estimatedBytesAreMarked();
    void filesAreCounted();
    void nothingIsLeftAtTheEnd();
    void barFitsTheTerminal_data();
    void barFitsTheTerminal();
};

void tst_Progress::goesOnlyForwards()
{
    Progress progress(Progress::Unit::Bytes, 100);
    progress.advanceTo(60);
    progress.advanceTo(40);
    QCOMPARE(progress.done(), qint64(60));
}

void tst_Progress::neverPassesTheTotal()
{
    Progress progress(Progress::Unit::Bytes, 100);
    progress.advanceTo(101);
    QCOMPARE(progress.done(), qint64(100));
}

void tst_Progress::percentageIsRoundedDown_data()
{
    QTest::addColumn<qint64>("done");
    QTest::addColumn<qint64>("total");
    QTest::addColumn<int>("percent");

    QTest::newRow("nothing to do") << qint64(0) << qint64(0) << 100;
    QTest::newRow("not begun") << qint64(0) << qint64(3) << 0;
    QTest::newRow("two thirds") << qint64(2) << qint64(3) << 66;
    QTest::newRow("one short of the end") << qint64(999) << qint64(1000) << 99;
    QTest::newRow("the end") << qint64(3) << qint64(3) << 100;
    QTest::newRow("sums beyond 64 bits when multiplied")
        << (qint64(1) << 61) << (qint64(1) << 62) << 50;
}

void tst_Progress::percentageIsRoundedDown()
{
    QFETCH(qint64, done);
    QFETCH(qint64, total);
    Progress progress(Progress::Unit::Bytes, total);
    progress.advanceTo(done);
    QTEST(progress.percent(), "percent");
}

void tst_Progress::textTellsAmountSpeedAndTimeLeft()
{
    Progress progress(Progress::Unit::Bytes, 4096);
    progress.advanceTo(1024);
    QCOMPARE(
        progress.textAfter(2000), QStringLiteral("1.0 KiB of 4.0 KiB  512 bytes/s  0:06 left"));
}

void tst_Progress::whatTakesNoTimeHasNoSpeed()
{
    Progress progress(Progress::Unit::Bytes, 4096);
    progress.advanceTo(1024);
    QCOMPARE(progress.textAfter(0), QStringLiteral("1.0 KiB of 4.0 KiB"));
    QCOMPARE(progress.textAfter(99), QStringLiteral("1.0 KiB of 4.0 KiB"));
    QVERIFY(progress.textAfter(100).contains(QLatin1String("  10.0 KiB/s  ")));
}

void tst_Progress::estimatedBytesAreMarked()
{
    Progress progress(Progress::Unit::EstimatedBytes, 4096);
    progress.advanceTo(1024);
    QVERIFY2(progress.text().startsWith(QLatin1String("~1.0 KiB of 4.0 KiB")),
        qPrintable(progress.text()));
}

void tst_Progress::filesAreCounted()
{
    Progress progress(Progress::Unit::Files, 20000);
    progress.advanceTo(1500);
    QCOMPARE(
        progress.textAfter(1000), QStringLiteral("1500 of 20000 files  1500 files/s  0:12 left"));
}

void tst_Progress::nothingIsLeftAtTheEnd()
{
    Progress progress(Progress::Unit::Files, 2);
    QVERIFY(!progress.text().contains(QLatin1String("left")));
    progress.advanceTo(2);
    QVERIFY(!progress.text().contains(QLatin1String("left")));
}

void tst_Progress::barFitsTheTerminal_data()
{
    QTest::addColumn<int>("columns");
    QTest::addColumn<bool>("hasBar");
    QTest::addColumn<QString>("line"); // where there is no bar

    const QString done = QStringLiteral(" 50 % 5 of 10 files");
    const QString line = QStringLiteral(" 50 % 5 of 10 files  5 files/s  0:01 left");
    QTest::newRow("wide") << 200 << true << QString();
    QTest::newRow("usual") << 80 << true << QString();
    QTest::newRow("no room for a bar") << 42 << false << line;
    QTest::newRow("none for the time left")
        << 41 << false << QStringLiteral(" 50 % 5 of 10 files  5 files/s");
    QTest::newRow("none for the speed") << 30 << false << done;
    QTest::newRow("for the amount alone") << 20 << false << done;
    QTest::newRow("for the percentage alone") << 19 << false << QStringLiteral(" 50 %");
    QTest::newRow("hardly any room") << 1 << false << QString();
    QTest::newRow("none") << 0 << false << QString();
}

void tst_Progress::barFitsTheTerminal()
{
    QFETCH(int, columns);
    Progress progress(Progress::Unit::Files, 10);
    progress.advanceTo(5);
    const QString bar = progress.barAfter(1000, columns);
    QVERIFY2(bar.size() < qMax(columns, 1), qPrintable(bar));
    QTEST(bar.contains(QLatin1String("[=")), "hasBar");
    QFETCH(bool, hasBar);
    if (!hasBar)
        QTEST(bar, "line");
}

QTEST_APPLESS_MAIN(tst_Progress)
#include "tst_progress.moc"
