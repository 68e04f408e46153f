// SPDX-License-Identifier: MIT
#include "events.h"
#include "faultrun.h"
#include "patience.h"
#include "releasetree.h"

#include <QFile>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

/// "pellox check" and "pellox repair".
class tst_CheckCommand : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { useMemoryForFiles(); }
    void init() { m_tree = std::make_unique<ReleaseTree>(); }

    void says_data();
    void says();
    void checkTellsWhatDiffers();
    void checkChangesNothing();
    void oddEntriesAreExtra();
    void checkThatCannotBeCarriedOut_data();
    void checkThatCannotBeCarriedOut();
    void whatCannotBeReadIsNotBroken_data();
    void whatCannotBeReadIsNotBroken();
    void quietTellsByTheStatusAlone();
    void statusOneIsForWhatIsNotIntact_data();
    void statusOneIsForWhatIsNotIntact();

    void repairsWhatDiffers_data();
    void repairsWhatDiffers();
    void wrongFolderIsToldOf();
    void repairThatFailsChangesNothing_data();
    void repairThatFailsChangesNothing();
    void repairFinishesWhatWasBegun();

    void wrongUsage_data();
    void wrongUsage();
    void helpTeaches_data();
    void helpTeaches();
    void signalsCancel_data();
    void signalsCancel();

private:
    void damage() const;
    Outcome run(const char *words) const { return m_tree->run(QLatin1String(words)); }

    std::unique_ptr<ReleaseTree> m_tree;
};

/// One file of each kind.
void tst_CheckCommand::damage() const
{
    m_tree->write(QStringLiteral("installed/game.exe"), "not the game");
    m_tree->remove(QStringLiteral("installed/data/gone.txt"));
    m_tree->remove(QStringLiteral("installed/data/same.txt"));
    m_tree->makeFolder(QStringLiteral("installed/data/same.txt"));
}

void tst_CheckCommand::says_data()
{
    QTest::addColumn<bool>("damaged");
    QTest::addColumn<QString>("words");

    QTest::newRow("check") << true << QStringLiteral("check installed sigs-old");
    QTest::newRow("check-json") << true << QStringLiteral("check installed sigs-old --json");
    QTest::newRow("check-intact") << false << QStringLiteral("check installed sigs-old");
    QTest::newRow("repair") << true << QStringLiteral("repair installed sigs-old --from old");
    QTest::newRow("repair-json") << true
                                 << QStringLiteral(
                                        "repair installed sigs-old --from old --json --threads 1");
    QTest::newRow("repair-intact")
        << false << QStringLiteral("repair installed sigs-old --from old --json");
    QTest::newRow("repair-bad-source")
        << true << QStringLiteral("repair installed sigs-old --from sigs-new");
}

/// Golden outputs, and that those in JSON are what their schema says.
void tst_CheckCommand::says()
{
    QFETCH(bool, damaged);
    QFETCH(QString, words);
    if (damaged)
        damage();
    const QStringList arguments = words.split(QLatin1Char(' '));
    const Outcome outcome = m_tree->run(words);
    const QString difference
        = differenceToGolden(QLatin1String(QTest::currentDataTag()) + QLatin1String(".txt"),
            transcript(arguments, outcome, m_tree->path()));
    QVERIFY2(difference.isEmpty(), qPrintable(difference));

    const QString python = pythonWithJsonSchema();
    if (!arguments.contains(QLatin1String("--json")))
        return;
    if (python.isEmpty())
        QSKIP("python3-jsonschema is missing");
    QCOMPARE(schemaViolations(python, outcome.out), QStringList());
}

void tst_CheckCommand::checkTellsWhatDiffers()
{
    QCOMPARE(run("check installed sigs-old").status, Done);
    QCOMPARE(run("check installed sigs-new").status, Failed);
    QCOMPARE(run("check new sigs-new --threads 3").status, Done);
    damage();
    const Outcome outcome = run("check installed sigs-old --json");
    QCOMPARE(outcome.status, Failed);
    QMap<QString, QString> states;
    for (const QJsonObject &event : jsonLines(outcome.out)) {
        if (member(event, "event") == QLatin1String("file-state"))
            states.insert(member(event, "file"), member(event, "state"));
    }
    QCOMPARE(states,
        (QMap<QString, QString>{{QStringLiteral("game.exe"), QStringLiteral("changed")},
            {QStringLiteral("data/gone.txt"), QStringLiteral("missing")},
            {QStringLiteral("data/same.txt"), QStringLiteral("unreadable")},
            {QStringLiteral("saves/one.sav"), QStringLiteral("extra")}}));
}

void tst_CheckCommand::checkChangesNothing()
{
    damage();
    const auto before = TestTree::snapshot(m_tree->path());
    QCOMPARE(run("check installed sigs-old").status, Failed);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

/// A player's folder that nobody may read, and a mod whose name is of another encoding.
void tst_CheckCommand::oddEntriesAreExtra()
{
    const QByteArray odd
        = QFile::encodeName(m_tree->path(QStringLiteral("installed/mod-"))) + "\x83\x82";
    const int made = ::creat(odd.constData(), S_IRUSR | S_IWUSR);
    QVERIFY(made >= 0 && ::close(made) == 0);
    const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("check"), m_tree->path(QStringLiteral("installed")),
            m_tree->path(QStringLiteral("sigs-old"))},
        {m_tree->path(QStringLiteral("installed/saves")), "open,list", 1,
            QByteArray::number(EACCES), true});
    QVERIFY2(run.status == Done, run.errors);
    QVERIFY2(run.output.contains("\nextra       saves\n"), run.output);
    QVERIFY2(run.output.contains("\nextra       mod-"), run.output);
    QVERIFY2(run.output.contains("; 2 extra files: "), run.output);
    QCOMPARE(::unlink(odd.constData()), 0);
}

void tst_CheckCommand::checkThatCannotBeCarriedOut_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("words");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("outcome");

    const QString manifest = QStringLiteral("sigs-old/signatures.json");
    const QString check = QStringLiteral("check installed sigs-old");
    const QString refused = QStringLiteral("refused-patch");
    QTest::newRow("no JSON") << manifest << QByteArray("[") << check << RefusedPatch << refused;
    QTest::newRow("climbs out") << manifest
                                << QByteArray("[{\"relative_path\":\"/../x\",\"sha512\":\"00\"}]")
                                << check << RefusedPatch << refused;
    QTest::newRow("a repair") << manifest << QByteArray("{}")
                              << QStringLiteral("repair installed sigs-old --from old")
                              << RefusedPatch << refused;
}

void tst_CheckCommand::checkThatCannotBeCarriedOut()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, content);
    QFETCH(QString, words);
    QFETCH(int, status);
    QFETCH(QString, outcome);
    if (!file.isEmpty())
        m_tree->write(file, content);
    const Outcome found = m_tree->run(words + QStringLiteral(" --json"));
    QCOMPARE(found.status, status);
    const QList<QJsonObject> events = jsonLines(found.out);
    QCOMPARE(member(events.last(), "outcome"), outcome);
    QCOMPARE(events.last().value(QLatin1String("status")).toInt(), status);
    const QJsonObject error = events.value(events.size() - 2);
    QCOMPARE(member(error, "event"), QStringLiteral("error"));
    QCOMPARE(member(error, "code"), QStringLiteral("bad-manifest"));
    QVERIFY2(
        member(error, "file").endsWith(QLatin1String("/signatures.json")), qPrintable(found.out));
    QVERIFY2(
        !member(error, "error").contains(QLatin1String("signatures.json")), qPrintable(found.out));
    QVERIFY(!member(error, "advice").isEmpty());
    QCOMPARE(m_tree->installed(), m_tree->oldInstalled());
}

void tst_CheckCommand::whatCannotBeReadIsNotBroken_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<int>("error");

    const QString check = QStringLiteral("check installed sigs-old");
    const QString repair = QStringLiteral("repair installed sigs-old --from old");
    const QString update = QStringLiteral("update installed patch");
    const QString signatures = QStringLiteral("sigs-old/signatures.json");
    const QString rules = QStringLiteral("patch/patchRules.json");
    const QByteArray open("open");
    const QByteArray anyLook("open,look");
    QTest::newRow("check, no permission") << check << signatures << open << EACCES;
    QTest::newRow("check, broken disk") << check << signatures << QByteArray("read") << EIO;
    QTest::newRow("repair, signatures") << repair << signatures << open << EACCES;
    QTest::newRow("repair, source") << repair << QStringLiteral("old/game.exe") << open << EACCES;
    QTest::newRow("repair, closed source")
        << repair << QStringLiteral("old/data/gone.txt") << anyLook << EACCES;
    QTest::newRow("update") << update << rules << open << EACCES;
    QTest::newRow("update, broken disk") << update << rules << QByteArray("read") << EIO;
    QTest::newRow("plan") << update + QStringLiteral(" --dry-run") << rules << open << EACCES;
}

/// Nor missing: who is to see to permissions or to the disk need not get it anew.
void tst_CheckCommand::whatCannotBeReadIsNotBroken()
{
    QFETCH(QString, words);
    QFETCH(QString, file);
    QFETCH(QByteArray, calls);
    QFETCH(int, error);
    damage();
    const auto before = m_tree->installed();
    QStringList arguments = words.split(QLatin1Char(' '));
    for (QString &argument : arguments) {
        if (m_tree->exists(argument))
            argument = m_tree->path(argument);
    }
    const FaultRun run
        = runWithFaults(QStringLiteral(PELLOX_PROGRAM), arguments << QStringLiteral("--json"),
            {m_tree->path(file), calls, 1, QByteArray::number(error), true});
    QVERIFY2(run.status == Unchanged, run.output + run.errors);
    const QList<QJsonObject> events = jsonLines(QString::fromUtf8(run.output));
    const QJsonObject told = events.value(events.size() - 2);
    QCOMPARE(member(told, "code"), QStringLiteral("read-or-write"));
    QCOMPARE(member(told, "file"), m_tree->path(file));
    QVERIFY2(member(told, "error").startsWith(QLatin1String("cannot be ")), run.output);
    QCOMPARE(m_tree->installed(), before);
}

void tst_CheckCommand::quietTellsByTheStatusAlone()
{
    damage();
    const Outcome damaged = run("check installed sigs-old -q");
    QCOMPARE(damaged.status, Failed);
    QCOMPARE(damaged.out + damaged.err, QString());
    const Outcome intact = run("check new sigs-new -q");
    QCOMPARE(intact.status, Done);
    QCOMPARE(intact.out + intact.err, QString());
}

void tst_CheckCommand::statusOneIsForWhatIsNotIntact_data()
{
    QTest::addColumn<bool>("isDamaged");
    QTest::addColumn<int>("status");
    QTest::newRow("intact") << false << Unchanged;
    QTest::newRow("damaged") << true << Failed;
}

/// Also where standard output cannot be written.
void tst_CheckCommand::statusOneIsForWhatIsNotIntact()
{
    QFETCH(bool, isDamaged);
    QFETCH(int, status);
    if (isDamaged)
        damage();
    QProcess process;
    startProgram(process, QStringLiteral("sh"),
        {QStringLiteral("-c"),
            QStringLiteral("exec " PELLOX_PROGRAM " check installed sigs-old > /dev/full")},
        m_tree->path());
    QCOMPARE(outcomeOf(process).status, status);
}

void tst_CheckCommand::repairsWhatDiffers_data()
{
    QTest::addColumn<QString>("options");

    QTest::newRow("all cores") << QString();
    QTest::newRow("one thread") << QStringLiteral(" --threads 1");
}

void tst_CheckCommand::repairsWhatDiffers()
{
    QFETCH(QString, options);
    damage();
    const QString words = QStringLiteral("repair installed sigs-old --from old") + options;
    const Outcome outcome = m_tree->run(words);
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(m_tree->installed(), m_tree->oldInstalled());
    QCOMPARE(m_tree->run(words).status, NothingToDo);
}

void tst_CheckCommand::wrongFolderIsToldOf()
{
    const QString told = QStringLiteral("nothing of the build was there");
    m_tree->makeFolder(QStringLiteral("empty"));
    const Outcome check = run("check empty sigs-old");
    QCOMPARE(check.status, Failed);
    QVERIFY2(check.err.contains(told), qPrintable(check.err));
    const Outcome repair = run("repair empty sigs-old --from old");
    QCOMPARE(repair.status, Done);
    QVERIFY2(repair.err.contains(told), qPrintable(repair.err));
    damage();
    QVERIFY(!run("repair installed sigs-old --from old").err.contains(told));
}

void tst_CheckCommand::repairThatFailsChangesNothing_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("code");

    QTest::newRow("lacks a file") << QStringLiteral("new") << QStringLiteral("bad-fallback");
    QTest::newRow("has another file") << QStringLiteral("wrong") << QStringLiteral("bad-fallback");
}

void tst_CheckCommand::repairThatFailsChangesNothing()
{
    QFETCH(QString, source);
    QFETCH(QString, code);
    damage();
    const auto before = m_tree->installed();
    m_tree->write(QStringLiteral("wrong/game.exe"), randomBytes(100000, 9));
    m_tree->write(QStringLiteral("wrong/data/gone.txt"), "goes away");
    m_tree->write(QStringLiteral("wrong/data/same.txt"), "stays");
    const Outcome outcome
        = m_tree->run(QStringLiteral("repair installed sigs-old --json --from ") + source);
    QCOMPARE(outcome.status, InTheWay);
    QVERIFY2(outcome.out.contains(code), qPrintable(outcome.out));
    QCOMPARE(m_tree->installed(), before);
}

void tst_CheckCommand::repairFinishesWhatWasBegun()
{
    const QString build = m_tree->path(QStringLiteral("installed"));
    const FaultRun killed = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("update"), build, m_tree->path(QStringLiteral("patch"))},
        {build, "rename", 3, "kill"}); // of the first file
    QVERIFY(killed.crashed);
    QVERIFY(m_tree->installed() != m_tree->newInstalled());
    m_tree->write(QStringLiteral("installed/data/same.txt"), "damaged");
    const Outcome outcome = run("repair installed sigs-new --from new --json");
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(member(jsonLines(outcome.out).first(), "phase"), QStringLiteral("finishing"));
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
}

void tst_CheckCommand::wrongUsage_data()
{
    QTest::addColumn<QString>("words");

    QTest::newRow("no signatures") << QStringLiteral("check installed");
    QTest::newRow("no source") << QStringLiteral("repair installed sigs-old");
    QTest::newRow("no such build") << QStringLiteral("check nosuch sigs-old");
    QTest::newRow("no such signatures") << QStringLiteral("check installed nosuch");
    QTest::newRow("no such source") << QStringLiteral("repair installed sigs-old --from nosuch");
    QTest::newRow("the build as source")
        << QStringLiteral("repair installed sigs-old --from installed");
    QTest::newRow("signatures in the build") << QStringLiteral("check installed installed/data");
    QTest::newRow("no manifest") << QStringLiteral("check installed patch");
    QTest::newRow("no manifest to repair by")
        << QStringLiteral("repair installed patch --from old");
    QTest::newRow("no thread") << QStringLiteral("check installed sigs-old --threads 0");
}

void tst_CheckCommand::wrongUsage()
{
    QFETCH(QString, words);
    const Outcome outcome = m_tree->run(words);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(errorLines(outcome.err).size(), 1);
}

void tst_CheckCommand::helpTeaches_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("example");

    QTest::newRow("check") << QStringLiteral("check")
                           << QStringLiteral("pellox check installed/game signatures/1.1");
    QTest::newRow("repair")
        << QStringLiteral("repair")
        << QStringLiteral("pellox repair installed/game signatures/1.1 --from releases/1.1");
}

void tst_CheckCommand::helpTeaches()
{
    QFETCH(QString, command);
    QFETCH(QString, example);
    const Outcome outcome = m_tree->run(command + QStringLiteral(" --help"));
    QCOMPARE(outcome.status, Done);
    QVERIFY2(outcome.out.contains(example), qPrintable(outcome.out));
    QVERIFY(outcome.out.contains(QLatin1String("Exit status:")));
}

void tst_CheckCommand::signalsCancel_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<int>("signal");
    QTest::addColumn<int>("status");

    const QString check = QStringLiteral("check large sigs-large --json");
    QTest::newRow("Ctrl-C") << check << SIGINT << Interrupted;
    QTest::newRow("terminated") << check << SIGTERM << 143;
    QTest::newRow("terminal closed") << check << SIGHUP << 129;
    QTest::newRow("a repair") << QStringLiteral("repair large sigs-large --from new --json")
                              << SIGINT << Interrupted;
}

void tst_CheckCommand::signalsCancel()
{
    QFETCH(QString, words);
    QFETCH(int, signal);
    QFETCH(int, status);
    // Large enough to be under way for many seconds when the signal comes, small on the disk.
    m_tree->write(QStringLiteral("large/file"), QByteArray());
    QVERIFY(QFile::resize(m_tree->path(QStringLiteral("large/file")), qint64(64) << 30));
    m_tree->write(QStringLiteral("sigs-large/signatures.json"),
        "[{\"relative_path\":\"/file\",\"sha512\":\"" + QByteArray(128, '0') + "\"}]");

    QProcess process;
    startProgram(
        process, QStringLiteral(PELLOX_PROGRAM), words.split(QLatin1Char(' ')), m_tree->path());
    QVERIFY(process.waitForReadyRead(Patience)); // the phase
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), signal), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, status);
    const QJsonObject last = jsonLines(outcome.out).last();
    QCOMPARE(member(last, "outcome"), QStringLiteral("interrupted"));
    QCOMPARE(last.value(QLatin1String("status")).toInt(), status);
    QVERIFY2(outcome.err.endsWith(
                 QLatin1String("pellox: interrupted: nothing was changed: run the same again\n")),
        qPrintable(outcome.err));
}

QTEST_GUILESS_MAIN(tst_CheckCommand)
#include "tst_checkcommand.moc"
