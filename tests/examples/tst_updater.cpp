// SPDX-License-Identifier: MIT
#include "gametree.h"
#include "leftovers.h"
#include "literals.h"
#include "patience.h"
#include "toldspy.h"
#include "updater.h"

#include <QMutex>
#include <QSemaphore>
#include <QSet>
#include <QtTest>

#include <optional>

#include <fcntl.h>
#include <unistd.h>

using Phase = Updater::Phase;
using Result = Updater::Result;

namespace {

/// What the stand-ins below have seen, and are to do.
struct State
{
    std::atomic<int> plans{0};
    std::atomic<bool> holdsPlan{false};
    std::atomic<bool> planWasCancelled{false};
    QSemaphore planMayBegin;
    QSemaphore cancels;
    QMutex mutex;
    QSet<QThread *> removers; ///< of folders
};

std::optional<State> s_state;

} // namespace

// The library's own, as far as a launcher sees it: a cancel that comes before the plan has begun
// is forgotten. Here the moment can be chosen.
Pellox::UpdatePlan Pellox::UpdateController::plan(const QString &, const QString &)
{
    ++s_state->plans;
    UpdatePlan plan;
    plan.filesToCopy = 1;
    if (!s_state->holdsPlan)
        return plan;
    s_state->planMayBegin.acquire();
    s_state->cancels.acquire(s_state->cancels.available());
    plan.isCancelled = s_state->cancels.tryAcquire(1, Patience);
    s_state->planWasCancelled = plan.isCancelled;
    return plan;
}

void Pellox::UpdateController::cancel()
{
    s_state->cancels.release();
}

extern "C" __attribute__((visibility("default"))) int rmdir(const char *path) noexcept
{
    if (s_state) {
        const QMutexLocker lock(&s_state->mutex);
        s_state->removers.insert(QThread::currentThread());
    }
    return ::unlinkat(AT_FDCWD, path, AT_REMOVEDIR);
}

/// The example's updater without its window, with a 7-Zip that waits and plans that do.
class tst_Updater : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void cancelWhileSevenZipWorks();
    void cancelBeforeTheUnpacking();
    void cancelBeforeThePlanHasBegun();
    void unpackedPatchIsRemovedElsewhere();

private:
    static void makeSevenZip(const QByteArray &cases);
    QStringList downloaded() const { return GameTree::namesIn(m_tree->path("dl"_s)); }

    std::optional<GameTree> m_tree;
    std::unique_ptr<Updater> m_updater;
    std::unique_ptr<ToldSpy> m_ends;
};

void tst_Updater::init()
{
    s_state.emplace();
    makeSevenZip(QByteArray());
    m_tree.emplace();
    m_updater = std::make_unique<Updater>();
    m_ends = std::make_unique<ToldSpy>(m_updater.get(), &Updater::finished);
}

void tst_Updater::cleanup()
{
    s_state->planMayBegin.release();
    m_ends.reset();
    m_updater.reset();
    m_tree.reset();
    s_state.reset();
}

/// A script beside this program: @p cases by the first argument, else 7-Zip, which is $real in it.
void tst_Updater::makeSevenZip(const QByteArray &cases)
{
    QFile script(QCoreApplication::applicationDirPath() + "/7zr"_s);
    QVERIFY(script.open(QIODevice::WriteOnly));
    script.write("#!/bin/sh\nreal='" SEVENZR_PROGRAM "'\ncase $1 in\n" + cases
        + "\n*) exec \"$real\" \"$@\";;\nesac\n");
    QVERIFY(script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
}

/// 7-Zip has written all, and does not end.
void tst_Updater::cancelWhileSevenZipWorks()
{
    const QString archive = m_tree->pack();
    const QByteArray sign = QFile::encodeName(m_tree->path("working"_s));
    makeSevenZip("x) \"$real\" \"$@\" >/dev/null; echo $$ >'" + sign + ".new'; mv '" + sign
        + ".new' '" + sign + "'; exec sleep 1000;;");
    const ToldSpy unpacking(m_updater.get(), &Updater::unpacking);
    m_updater->check(m_tree->game(), archive);
    QTRY_VERIFY_WITH_TIMEOUT(m_tree->exists("working"_s), Patience);
    const qint64 sevenZip = m_tree->read("working"_s).trimmed().toLongLong();
    QVERIFY(processExists(sevenZip));
    QCOMPARE(downloaded().filter(QRegularExpression("/patchRules.json$"_s)).size(), 1);
    QVERIFY(unpacking.comes());
    QVERIFY(m_updater->canCancel());

    m_updater->cancel();
    QVERIFY(!m_updater->canCancel());
    QVERIFY(m_ends->comes());
    QCOMPARE(m_ends->at(0).first().value<Result>(), Result::Cancelled);
    QVERIFY(!processExists(sevenZip));
    QCOMPARE(s_state->plans, 0);
    QTRY_COMPARE_WITH_TIMEOUT(downloaded(), QStringList("1.0-1.1.7z.001"_s), Patience);
}

/// By whoever is told that it can be stopped.
void tst_Updater::cancelBeforeTheUnpacking()
{
    const QString archive = m_tree->pack();
    const ToldSpy unpacking(m_updater.get(), &Updater::unpacking);
    int checks = 0;
    connect(m_updater.get(), &Updater::phaseChanged, m_updater.get(), [&](Phase phase) {
        if (phase == Phase::Checking && ++checks == 2) // the first is of the recovery
            m_updater->cancel();
    });
    m_updater->check(m_tree->game(), archive);
    QTRY_VERIFY_WITH_TIMEOUT(!m_updater->isBusy(), Patience);
    QVERIFY(m_ends->comes());
    QCOMPARE(m_ends->at(0).first().value<Result>(), Result::Cancelled);
    QCOMPARE(unpacking.size(), 0);
    QCOMPARE(s_state->plans, 0);
}

void tst_Updater::cancelBeforeThePlanHasBegun()
{
    s_state->holdsPlan = true;
    m_updater->check(m_tree->game(), m_tree->patch());
    QTRY_COMPARE_WITH_TIMEOUT(s_state->plans, 1, Patience);
    m_updater->cancel();
    s_state->planMayBegin.release();
    QVERIFY(m_ends->comes());
    QCOMPARE(m_ends->at(0).first().value<Result>(), Result::Cancelled);
    QVERIFY(s_state->planWasCancelled);
}

/// It may have many files.
void tst_Updater::unpackedPatchIsRemovedElsewhere()
{
    const QString archive = m_tree->pack();
    m_updater->check(m_tree->game(), archive);
    QTRY_VERIFY_WITH_TIMEOUT(m_updater->canUpdate(), Patience);
    QVERIFY(downloaded().size() > 1);
    s_state->removers.clear();
    m_updater->forget();
    QTRY_COMPARE_WITH_TIMEOUT(downloaded(), QStringList("1.0-1.1.7z.001"_s), Patience);
    const QMutexLocker lock(&s_state->mutex);
    QVERIFY(!s_state->removers.isEmpty());
    QVERIFY(!s_state->removers.contains(thread()));
}

QTEST_GUILESS_MAIN(tst_Updater)
#include "tst_updater.moc"
