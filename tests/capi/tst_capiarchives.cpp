// SPDX-License-Identifier: MIT
#include "fakesevenzip.h"
#include "leftovers.h"
#include "literals.h"
#include "logcapture.h"
#include "recordedjob.h"

#include <QDir>
#include <QtTest>

#include <optional>
#include <thread>

using namespace Step;

namespace {

const QPair<qint64, qint64> Whole(10000, 10000);

} // namespace

/// Packing and unpacking, with the stand-in for 7-Zip.
class tst_CapiArchives : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_leftovers.begin(); }
    void init();
    void cleanup();

    void packs();
    void relativePathsCountFromTheCurrentFolder();
    void volumeSize();
    void unpacks();
    void progressRises_data() { bothWays(); }
    void progressRises();
    void errorIsAProblem_data() { bothWays(); }
    void errorIsAProblem();
    void silentEndIsAProblem_data() { bothWays(); }
    void silentEndIsAProblem();
    void cancelInACallback_data() { bothWays(); }
    void cancelInACallback();
    void cancelWhileNothingIsTold_data() { bothWays(); }
    void cancelWhileNothingIsTold();
    void cancelAs7ZipFails_data() { bothWays(); }
    void cancelAs7ZipFails();

private:
    static void bothWays();
    int run(pellox_job *job) const;
    QByteArray at(const char *relative) const
    {
        return utf8(m_tree->path(QString::fromUtf8(relative)));
    }

    Leftovers m_leftovers;
    QString m_currentFolder;
    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
    std::optional<FakeSevenZip> m_fake;
};

void tst_CapiArchives::init()
{
    m_currentFolder = QDir::currentPath();
    m_log.emplace();
    m_tree.emplace();
    m_fake.emplace();
    m_tree->makeFolder("source"_s);
}

void tst_CapiArchives::cleanup()
{
    QDir::setCurrent(m_currentFolder);
    const QByteArray trouble = m_fake->trouble();
    m_fake.reset();
    m_tree.reset();
    const QStringList logged = m_log->troubleLeft();
    m_log.reset();
    QCOMPARE(trouble, QByteArray());
    QCOMPARE(m_leftovers.found(), QByteArray());
    QCOMPARE(logged, QStringList());
}

void tst_CapiArchives::bothWays()
{
    QTest::addColumn<bool>("packs");
    QTest::newRow("pack") << true;
    QTest::newRow("unpack") << false;
}

int tst_CapiArchives::run(pellox_job *job) const
{
    QFETCH(const bool, packs);
    return packs ? pellox_pack(job, at("source"), at("out/a.7z"))
                 : pellox_unpack(job, at("a.7z.001"), at("out"));
}

void tst_CapiArchives::packs()
{
    m_fake->play({says("  7% + a\n"), says("100%\nEverything is Ok\n")});
    RecordedJob job;
    // A name that is no switch, as it is handed on with its folder.
    QCOMPARE(pellox_pack(job, at("source"), at("out/-sdel.7z")), int(PELLOX_DONE));
    QCOMPARE(m_fake->folder(), m_tree->path("out"_s));
    QCOMPARE(m_fake->arguments().mid(7),
        QByteArrayList({"-v524288000b", at("out/-sdel.7z"), at("source/*")}));
    QCOMPARE(job.progress.last(), Whole);
    QCOMPARE(job.threads, std::set<std::thread::id>{std::this_thread::get_id()});
}

void tst_CapiArchives::relativePathsCountFromTheCurrentFolder()
{
    QVERIFY(QDir::setCurrent(m_tree->path()));
    m_fake->play({says("Everything is Ok\n")});
    const RecordedJob job;
    QCOMPARE(pellox_pack(job, "source", "out/a.7z"), int(PELLOX_DONE));
    QCOMPARE(m_fake->arguments().mid(8), QByteArrayList({at("out/a.7z"), at("source/*")}));
    QCOMPARE(pellox_unpack(job, "a.7z.001", "new"), int(PELLOX_DONE));
    QCOMPARE(m_fake->arguments(2).mid(6), QByteArrayList({"-o" + at("new"), at("a.7z.001")}));
}

void tst_CapiArchives::volumeSize()
{
    m_fake->play({says("Everything is Ok\n")});
    const RecordedJob job;
    QCOMPARE(pellox_set_volume_size(job, 100000), int(PELLOX_DONE));
    QCOMPARE(pellox_pack(job, at("source"), at("out/a.7z")), int(PELLOX_DONE));
    QCOMPARE(m_fake->arguments().at(7), QByteArray("-v100000b"));
}

void tst_CapiArchives::unpacks()
{
    m_fake->play({says("Everything is Ok\n")});
    RecordedJob job;
    QCOMPARE(pellox_unpack(job, at("a.7z.001"), at("out")), int(PELLOX_DONE));
    QCOMPARE(m_fake->folder(), m_tree->path("out"_s));
    QCOMPARE(m_fake->arguments().mid(6), QByteArrayList({"-o" + at("out"), at("a.7z.001")}));
    QCOMPARE(job.progress.last(), Whole);
}

/// 7-Zip tells 0 for each line without a figure.
void tst_CapiArchives::progressRises()
{
    m_fake->play(
        {says("  7% + a\n"), says("+ b\n"), says(" 40% + c\n"), says("100%\nEverything is Ok\n")});
    RecordedJob job;
    QCOMPARE(run(job), int(PELLOX_DONE));
    using Progress = QVector<QPair<qint64, qint64>>;
    QCOMPARE(job.progress, Progress({{700, 10000}, {4000, 10000}, Whole}));
}

void tst_CapiArchives::errorIsAProblem()
{
    m_fake->play({says("  7% + a\n"), says("ERROR: X\n"), hangs()});
    RecordedJob job;
    QCOMPARE(run(job), int(PELLOX_FAILED));
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_OTHER});
    QVERIFY2(job.problems.first().message.contains("ERROR: X"),
        job.problems.first().message.constData());
    QVERIFY(!job.progress.contains(Whole));
}

void tst_CapiArchives::silentEndIsAProblem()
{
    m_fake->play({says("nothing of note\n"), exits(3)});
    RecordedJob job;
    QCOMPARE(run(job), int(PELLOX_FAILED));
    QCOMPARE(job.codes(), QVector<int>{PELLOX_PROBLEM_OTHER});
    QVERIFY2(job.problems.first().message.contains("exit code 3"),
        job.problems.first().message.constData());
}

void tst_CapiArchives::cancelInACallback()
{
    m_fake->play({says("  7% + a\n"), hangs()});
    RecordedJob job;
    job.onProgress = [&] { pellox_cancel(job); };
    QCOMPARE(run(job), int(PELLOX_CANCELLED));
    QVERIFY(!processExists(m_fake->pid()));
    QVERIFY(job.problems.isEmpty());
}

void tst_CapiArchives::cancelWhileNothingIsTold()
{
    m_fake->play({hangs()});
    RecordedJob job;
    std::thread other([&] {
        while (!m_fake->hasStarted())
            QThread::msleep(1);
        pellox_cancel(job);
    });
    const int result = run(job);
    other.join();
    QCOMPARE(result, int(PELLOX_CANCELLED));
    QVERIFY(!processExists(m_fake->pid()));
    QVERIFY(job.problems.isEmpty());
    QVERIFY(job.progress.isEmpty());
}

/// As in a terminal, whose Ctrl-C reaches both: 7-Zip's end may be noticed first.
void tst_CapiArchives::cancelAs7ZipFails()
{
    m_fake->play({says("  7% + a\n"), waitsFor("cancelled"), says("ERROR: X\n"), exits(255)});
    RecordedJob job;
    std::thread other([&] {
        while (!m_fake->hasStarted())
            QThread::msleep(1);
        pellox_cancel(job);
        m_fake->open("cancelled");
    });
    const int result = run(job);
    other.join();
    QCOMPARE(result, int(PELLOX_CANCELLED));
    QVERIFY(job.problems.isEmpty());
}

QTEST_GUILESS_MAIN(tst_CapiArchives)
#include "tst_capiarchives.moc"
