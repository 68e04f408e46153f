// SPDX-License-Identifier: MIT
#include "progress.h"

#include <QRegularExpression>
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
    const QRegularExpression form(
        QStringLiteral("^1\\.0 KiB of 4\\.0 KiB  [0-9.]+ [KMGi]*B?(bytes)?/s  0:\\d\\d left$"));
    QVERIFY2(form.match(progress.text()).hasMatch(), qPrintable(progress.text()));
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
    QVERIFY2(progress.text().startsWith(QLatin1String("1500 of 20000 files  ")),
        qPrintable(progress.text()));
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

    QTest::newRow("wide") << 200 << true;
    QTest::newRow("usual") << 80 << true;
    QTest::newRow("no room for a bar") << 40 << false;
    QTest::newRow("hardly any room") << 1 << false;
    QTest::newRow("none") << 0 << false;
}

void tst_Progress::barFitsTheTerminal()
{
    QFETCH(int, columns);
    Progress progress(Progress::Unit::Files, 10);
    progress.advanceTo(5);
    const QString bar = progress.bar(columns);
    QVERIFY2(bar.size() < qMax(columns, 1), qPrintable(bar));
    QTEST(bar.contains(QLatin1String("[=")), "hasBar");
}

QTEST_APPLESS_MAIN(tst_Progress)
#include "tst_progress.moc"
