// SPDX-License-Identifier: MIT
#include "crew.h"
#include "literals.h"

#include <QtTest>

#include <atomic>
#include <functional>
#include <mutex>
#include <new>
#include <vector>

using Pellox::Crew;
using Pellox::SharedWork;

namespace {

constexpr qint64 Large = 100; ///< larger ones are
const std::atomic<bool> NotCancelled{false};

void noReport() { }

/// So many steps, each of which does what it is told to.
class Steps : public SharedWork
{
public:
    Steps(int count, std::function<bool(std::unique_lock<std::mutex> &)> each)
        : m_left(count)
        , m_each(std::move(each))
    {
    }

    bool step(std::unique_lock<std::mutex> &lock) override
    {
        if (!m_each(lock))
            return false;
        --m_left;
        return true;
    }
    bool isDone() const override { return m_left == 0; }

private:
    int m_left;
    std::function<bool(std::unique_lock<std::mutex> &)> m_each;
};

} // namespace

/// How the threads of a run come through what few runs meet.
class tst_Crew : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void stepThatThrowsFailsTheRun_data();
    void stepThatThrowsFailsTheRun();
    void waitingTaskDoesSmallOnes();
    void workWithoutAStepIsNotDone();
};

void tst_Crew::stepThatThrowsFailsTheRun_data()
{
    QTest::addColumn<int>("threads");
    QTest::addColumn<bool>("unlocks");
    QTest::newRow("one thread") << 1 << false;
    QTest::newRow("one thread, without the lock") << 1 << true;
    QTest::newRow("four threads") << 4 << false;
    QTest::newRow("four threads, without the lock") << 4 << true;
}

/// As where there is no more memory. All threads end, and later tasks are not begun.
void tst_Crew::stepThatThrowsFailsTheRun()
{
    QFETCH(int, threads);
    QFETCH(bool, unlocks);
    Crew crew(threads, NotCancelled);
    std::atomic<int> small{0};
    bool shared = true;
    const bool done = crew.run(
        {Large + 1, 1, 1}, Large,
        [&](std::size_t task) {
            if (task > 0) {
                ++small;
                return;
            }
            Steps steps(3, [&](std::unique_lock<std::mutex> &lock) -> bool {
                if (unlocks)
                    lock.unlock();
                throw std::bad_alloc();
            });
            shared = crew.share(steps);
        },
        &noReport);
    QVERIFY(!done);
    QVERIFY(!shared);
    QVERIFY(crew.hasFailedItself());
    QCOMPARE(crew.error(), "out of memory"_s);
    if (threads == 1)
        QCOMPARE(small.load(), 0);
}

/// The thread of a large file that there is no room for yet takes small ones meanwhile.
void tst_Crew::waitingTaskDoesSmallOnes()
{
    constexpr qint64 Most = 15;
    constexpr qint64 Amount = 10;
    Crew crew(1, NotCancelled);
    std::vector<int> order;
    const bool done = crew.run(
        {1, Large + 1, 1}, Large,
        [&](std::size_t task) {
            order.push_back(static_cast<int>(task));
            if (task == 2)
                crew.release(Amount);
            if (task != 1)
                return;
            QVERIFY(crew.reserve(Amount, Most));
            QVERIFY(crew.reserve(Amount, Most));
            crew.release(Amount);
            order.push_back(-1);
        },
        &noReport);
    QVERIFY(done);
    QCOMPARE(order, (std::vector<int>{1, 0, 2, -1}));
}

void tst_Crew::workWithoutAStepIsNotDone()
{
    Crew crew(1, NotCancelled);
    int asked = 0;
    Steps none(1, [&](std::unique_lock<std::mutex> &) { return ++asked < 0; });
    QVERIFY(!crew.doAlone(none));
    QCOMPARE(asked, 1);
    QVERIFY(crew.error().isEmpty());
}

QTEST_GUILESS_MAIN(tst_Crew)

#include "tst_crew.moc"
