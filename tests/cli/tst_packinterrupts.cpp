// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "hardships.h"
#include "packtest.h"
#include "patience.h"
#include "qtversion.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <cerrno>
#include <csignal>

#include <sys/types.h>
#include <unistd.h>

namespace {

/// A 7-Zip that makes so many files that it takes a while to remove them.
const char ManyFiles[] = "a|x) seq 1500 | xargs touch; touch \"${0%/*}/made\"; exec sleep 300;;";

} // namespace

/// Signals that come to "pellox pack" and "pellox unpack", and readers of their output that go.
class tst_PackInterrupts : public PackTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { makeTree(); }

    void interruptLeavesNothing_data();
    void interruptLeavesNothing();
    void interruptEndsTheCheckOfTheArchive();
    void interruptEndsTheListing();
    void laterSignalsStopNoCleaning_data();
    void laterSignalsStopNoCleaning();
    void aSecondCtrlCEndsAtOnce_data();
    void aSecondCtrlCEndsAtOnce();
    void theEndIsToldOnce();
    void successIsToldOnceAllIsClean();
    void aReaderThatHasGoneStopsNoCleaning();
    void aReaderThatHasGoneStopsNoWork();
};

void tst_PackInterrupts::interruptLeavesNothing_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("sign"); // of life: what stands there while the work is under way
    QTest::addColumn<bool>("atTerminal");
    QTest::addColumn<QList<int>>("signals");

    const QList<int> ctrlC{SIGINT};
    const QList<int> terminated{SIGTERM};
    const QList<int> closed{SIGHUP, SIGTERM}; // a session's end may send both
    const QString pack = QStringLiteral("pack large new/a.7z");
    const QString replace = QStringLiteral("pack large old.7z --force");
    const QString unpack = QStringLiteral("unpack old.7z new/got");
    QTest::newRow("pack") << pack << QStringLiteral("standin/packing") << false << ctrlC;
    QTest::newRow("pack at a terminal")
        << pack << QStringLiteral("standin/packing") << true << ctrlC;
    QTest::newRow("pack, terminated")
        << pack << QStringLiteral("standin/packing") << false << terminated;
    QTest::newRow("pack, terminal closed")
        << pack << QStringLiteral("standin/packing") << true << closed;
    QTest::newRow("pack --force") << replace << QStringLiteral("standin/packing") << false << ctrlC;
    QTest::newRow("unpack") << unpack << QStringLiteral("standin/unpacked") << false << ctrlC;
    QTest::newRow("unpack at a terminal")
        << unpack << QStringLiteral("standin/unpacked") << true << ctrlC;
    QTest::newRow("unpack, terminated")
        << unpack << QStringLiteral("standin/unpacked") << false << terminated;
    QTest::newRow("unpack, terminal closed")
        << unpack << QStringLiteral("standin/unpacked") << true << closed;
}

void tst_PackInterrupts::interruptLeavesNothing()
{
    QFETCH(QString, words);
    QFETCH(QString, sign);
    QFETCH(bool, atTerminal);
    QFETCH(QList<int>, signals);
    m_tree->write(QStringLiteral("large/file"), randomBytes(300000, 3));
    // Neither ends by itself once its work is done.
    const QString program
        = makeStandIn("a) \"$real\" \"$@\" > /dev/null; echo $$ > \"${0%/*}/id\"; "
                      "touch \"${0%/*}/packing\"; exec sleep 300;;\n"
                      "x) \"$real\" \"$@\" > /dev/null; echo $$ > \"${0%/*}/id\"; "
                      "touch \"${0%/*}/unpacked\"; exec sleep 300;;");
    QCOMPARE(run(QStringLiteral("pack source old.7z")).status, Done);
    const QStringList before = namesOfAll();
    const QByteArray archive = m_tree->read(QStringLiteral("old.7z.001"));

    PreparedProcess process([] { ::setsid(); }); // a group of its own, as a shell gives it one
    startProgram(process, program, words.split(QLatin1Char(' ')), m_tree->path());
    const QFileInfo pattern(m_tree->path(sign));
    QTRY_VERIFY_WITH_TIMEOUT(!entries(pattern.path(), pattern.fileName()).isEmpty(), Patience);
    const auto id = static_cast<pid_t>(process.processId());
    const pid_t target = atTerminal ? -id : id;
    QCOMPARE(::kill(target, signals.first()), 0);
    for (const int signal : signals.mid(1))
        QVERIFY(::kill(target, signal) == 0 || errno == ESRCH); // it may have ended by then
    const Outcome outcome = outcomeOf(process);
    QVERIFY2(outcome.status == 128 + signals.first(), qPrintable(outcome.out + outcome.err));
    QCOMPARE(errorLines(outcome.err), QStringList());
    QVERIFY2(
        outcome.err.endsWith(QLatin1String("\npellox: interrupted\n")), qPrintable(outcome.err));
    const QByteArray child = m_tree->read(QStringLiteral("standin/id")).trimmed();
    QVERIFY2(!QFileInfo::exists(QLatin1String("/proc/") + QLatin1String(child)), child.constData());
    QFile::remove(path("standin/id"));
    QFile::remove(path("standin/packing"));
    QFile::remove(path("standin/unpacked"));
    QCOMPARE(namesOfAll(), before);
    QCOMPARE(m_tree->read(QStringLiteral("old.7z.001")), archive);
}

void tst_PackInterrupts::interruptEndsTheCheckOfTheArchive()
{
    const QString program = makeStandIn("l) touch ../../checking; exec sleep 300;;");
    const QStringList before = namesOfAll();
    QProcess process;
    startProgram(process, program,
        {QStringLiteral("pack"), QStringLiteral("source"), QStringLiteral("new/a.7z")},
        m_tree->path());
    QTRY_VERIFY_WITH_TIMEOUT(m_tree->exists(QStringLiteral("checking")), Patience);
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Interrupted);
    QCOMPARE(errorLines(outcome.err), QStringList());
    m_tree->remove(QStringLiteral("checking"));
    QCOMPARE(namesOfAll(), before);
}

void tst_PackInterrupts::interruptEndsTheListing()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    const QString program = makeStandIn("l) echo $$ > \"${0%/*}/id\"; exec sleep 300;;");
    const QStringList before = namesOfAll();
    QProcess process;
    startProgram(process, program,
        {QStringLiteral("unpack"), QStringLiteral("a.7z"), QStringLiteral("new/got")},
        m_tree->path());
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(path("standin/id")).size() > 0, Patience);
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Interrupted);
    QCOMPARE(outcome.err, QStringLiteral("pellox: interrupted\n"));
    const QByteArray child = m_tree->read(QStringLiteral("standin/id")).trimmed();
    QVERIFY(!QFileInfo::exists(QLatin1String("/proc/") + QLatin1String(child)));
    m_tree->remove(QStringLiteral("standin/id"));
    QCOMPARE(namesOfAll(), before);
}

void tst_PackInterrupts::laterSignalsStopNoCleaning_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("signal");

    const QString publish = QStringLiteral("publish source --old-build old --patch patch "
                                           "--signatures sigs --pack new/a.7z");
    QTest::newRow("pack") << QStringLiteral("pack source new/a.7z") << SIGTERM << SIGTERM;
    QTest::newRow("pack, terminal closed")
        << QStringLiteral("pack source new/a.7z") << SIGHUP << SIGTERM;
    QTest::newRow("unpack") << QStringLiteral("unpack old.7z new/got") << SIGINT << SIGTERM;
    QTest::newRow("publish") << publish << SIGTERM << SIGHUP;
}

void tst_PackInterrupts::laterSignalsStopNoCleaning()
{
    QFETCH(QString, words);
    QFETCH(int, first);
    QFETCH(int, signal);
    m_tree->remove(QStringLiteral("source/link")); // which publishing follows
    m_tree->write(QStringLiteral("old/file"), "old");
    QCOMPARE(run(QStringLiteral("pack source old.7z")).status, Done);
    const QString program = makeStandIn(ManyFiles);
    QProcess process;
    startProgram(process, program, words.split(QLatin1Char(' ')), m_tree->path());
    QTRY_VERIFY_WITH_TIMEOUT(m_tree->exists(QStringLiteral("standin/made")), Patience);
    interrupt(process, first);
    while (process.state() == QProcess::Running) {
        interrupt(process, signal);
        process.waitForFinished(1);
    }
    QCOMPARE(process.exitCode(), 128 + first);
    QCOMPARE(process.readAllStandardError().count("pellox: interrupted\n"), 1);
    QVERIFY2(!m_tree->exists(QStringLiteral("new")),
        qPrintable(entries(path("new"), QStringLiteral("*")).join(QLatin1Char(' '))));
}

void tst_PackInterrupts::aSecondCtrlCEndsAtOnce_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("folder"); // where the hidden one is left

    QTest::newRow("pack") << QStringLiteral("pack") << QStringLiteral("new");
    QTest::newRow("unpack") << QStringLiteral("unpack") << QStringLiteral("new/got");
}

void tst_PackInterrupts::aSecondCtrlCEndsAtOnce()
{
    QFETCH(QString, command);
    QFETCH(QString, folder);
    QCOMPARE(run(QStringLiteral("pack source old.7z")).status, Done);
    const QByteArray archive = m_tree->read(QStringLiteral("old.7z.001"));
    const QString program = makeStandIn("a|x) touch file; kill -INT $PPID; exec sleep 300;;");
    const QStringList arguments = command == QLatin1String("pack")
        ? QStringList{command, path("source"), path("new/a.7z")}
        : QStringList{command, path("old.7z"), path("new/got")};
    const FaultRun run
        = runWithFaults(program, arguments, {path("new"), "remove", 1, "interrupts"});
    QCOMPARE(run.status, Interrupted);
    QVERIFY2(run.errors.endsWith("pellox: interrupted\n"), run.errors);
    QCOMPARE(run.calls.size(), 1);
    QCOMPARE(entries(m_tree->path(folder), QStringLiteral("*")).size(), 1);
    QCOMPARE(m_tree->read(QStringLiteral("old.7z.001")), archive);
}

/// Each line that is written from the first signal on brings another one, also the last line.
void tst_PackInterrupts::theEndIsToldOnce()
{
    QCOMPARE(run(QStringLiteral("pack source old.7z")).status, Done);
    const QString program = makeStandIn("x) kill -HUP $PPID; exec sleep 300;;");
    const FaultRun run = runWithFaults(QStringLiteral("sh"),
        {QStringLiteral("-c"), QStringLiteral("errors=$0; exec \"$@\" 2> \"$errors\""),
            path("errors"), program, QStringLiteral("unpack"), path("old.7z"), path("new/got")},
        {path("errors"), "write", 1, "terminate", true});
    const QString told = QString::fromLocal8Bit(m_tree->read(QStringLiteral("errors")));
    QCOMPARE(run.status, 128 + SIGHUP);
    QVERIFY2(run.calls.size() > 1, qPrintable(told));
    QVERIFY2(told.endsWith(QLatin1String("\npellox: interrupted\n")), qPrintable(told));
    QCOMPARE(told.count(QLatin1String("interrupted")), 1);
    QVERIFY(!m_tree->exists(QStringLiteral("new")));
}

/// Whoever hears of it may press Ctrl-C.
void tst_PackInterrupts::successIsToldOnceAllIsClean()
{
    for (int number = 1; number <= 1500; ++number)
        m_tree->write(QStringLiteral("a.7z.%1").arg(number, 3, 10, QLatin1Char('0')), "old");
    QProcess process;
    startProgram(process, QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("pack"), QStringLiteral("source"), QStringLiteral("a.7z"),
            QStringLiteral("--force")},
        m_tree->path());
    QVERIFY(process.waitForReadyRead(Patience));
    const QStringList left = entries(m_tree->path(), QStringLiteral(".pellox-*"));
    QVERIFY(process.readAllStandardOutput().startsWith("Packed "));
    QCOMPARE(left, QStringList());
    QCOMPARE(outcomeOf(process).status, Done);
    QCOMPARE(filesBeside(QStringLiteral("a.7z*")), QStringList(QStringLiteral("a.7z.001")));
}

/// As in "pellox pack ... 2>&1 | tee", where Ctrl-C ends the reader too.
void tst_PackInterrupts::aReaderThatHasGoneStopsNoCleaning()
{
    const QString program = makeStandIn("a) touch \"${0%/*}/packing\"; exec sleep 300;;");
    const QStringList before = namesOfAll();
    QProcess reader;
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setStandardOutputProcess(&reader);
    startProgram(process, program,
        {QStringLiteral("pack"), QStringLiteral("source"), QStringLiteral("new/a.7z"),
            QStringLiteral("--json")},
        m_tree->path());
    reader.start(QStringLiteral("head"), {QStringLiteral("-n1")});
    QVERIFY(reader.waitForFinished(Patience)); // it has seen the first line of progress
    QTRY_VERIFY_WITH_TIMEOUT(m_tree->exists(QStringLiteral("standin/packing")), Patience);
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    QVERIFY(process.waitForFinished(Patience));
    QCOMPARE(process.exitCode(), Interrupted);
    m_tree->remove(QStringLiteral("standin/packing"));
    QCOMPARE(namesOfAll(), before);
}

void tst_PackInterrupts::aReaderThatHasGoneStopsNoWork()
{
    const QString program = makeStandIn(
        "a) while [ ! -e \"${0%/*}/go\" ]; do sleep 0.05; done; exec \"$real\" \"$@\";;");
    QProcess reader;
    QProcess process;
    process.setStandardOutputProcess(&reader);
    startProgram(process, program,
        {QStringLiteral("pack"), QStringLiteral("source"), QStringLiteral("a.7z"),
            QStringLiteral("--json")},
        m_tree->path());
    reader.start(QStringLiteral("head"), {QStringLiteral("-n1")});
    QVERIFY(reader.waitForFinished(Patience));
    m_tree->write(QStringLiteral("standin/go"), QByteArray());
    QVERIFY(process.waitForFinished(Patience));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), Failed);
    QCOMPARE(process.readAllStandardError(), QByteArray());
    QCOMPARE(run(QStringLiteral("unpack a.7z got")).status, Done);
}

QTEST_GUILESS_MAIN(tst_PackInterrupts)
#include "tst_packinterrupts.moc"
