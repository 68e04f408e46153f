// SPDX-License-Identifier: MIT
#include "events.h"
#include "faultrun.h"
#include "releasetree.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

// The renames of an update: the record of staged files comes before these.
constexpr int JournalItself = 2;
constexpr int FirstFile = 3;

/// Of "TEXT; `COMMAND`, `COMMAND`: TEXT; ...", as the documents tell of a status, what goes for
/// @p command.
QString documentedFor(const QString &command, const QString &cell)
{
    static const QRegularExpression NextPart(QStringLiteral("; (?=`)"));
    const QStringList parts = cell.split(NextPart);
    for (const QString &part : parts.mid(1)) {
        const auto end = part.indexOf(QLatin1String(": "));
        const QStringList commands = part.left(end).split(QStringLiteral(", "));
        if (commands.contains(QLatin1Char('`') + command + QLatin1Char('`')))
            return part.mid(end + 2);
    }
    return parts.constFirst();
}

} // namespace

/// "pellox update", "recover", "rollback" and "discard".
class tst_UpdateCommands : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { useMemoryForFiles(); }
    void init() { m_tree = std::make_unique<ReleaseTree>(); }

    void updates_data();
    void updates();
    void updatesFromAnyState();
    void goesBack();
    void keepsNothingUnlessTold();
    void discardsWhatIsKept();
    void dryRunWritesNothing();

    void says_data();
    void says();
    void theSchemaRefusesOtherEvents_data();
    void theSchemaRefusesOtherEvents();
    void progressTellsRateAndTimeLeft();
    void terminalsSeeABar();
    void quietSaysNothing();
    void adviceComesOncePerKind();

    void everyOutcomeHasItsStatus_data();
    void everyOutcomeHasItsStatus();
    void keptRecordThatCannotBeRead();
    void helpTellsEveryStatus_data();
    void helpTellsEveryStatus();
    void brokenSealWithoutKeysIsNoObstacle();
    void whatIsTooLargeIsNotRead_data();
    void whatIsTooLargeIsNotRead();
    void unseenJournalKeepsOthersOut_data();
    void unseenJournalKeepsOthersOut();
    void oneProgramAtATime();
    void twoProgramsAtTheSameMoment();
    void failedCommitIsFinished_data();
    void failedCommitIsFinished();
    void resumedRunPutsInPlace();
    void lostContentIsToldByRecover();
    void otherProgramsSeeAnUnfinishedUpdate_data();
    void otherProgramsSeeAnUnfinishedUpdate();
    void applyAndVerifyHeedTheLock_data();
    void applyAndVerifyHeedTheLock();
    void manyErrorsAreCounted();
    void otherBuildIsToldFromADamagedOne();
    void whereStandardOutputCannotBeWritten();

    void signalsCancel_data();
    void signalsCancel();
    void signalsCancelAfterFinishing();
    void aSecondInterruptAfterFinishing();
    void aSignalWhileItLooksAtWhatIsLeft();
    void aSignalDuringTheCommitIsTooLate();
    void aSecondInterruptEndsAtOnce();

    void wrongUsage_data();
    void wrongUsage();
    void helpTeaches_data();
    void helpTeaches();
    void helpAndDocumentsHaveTheSameStatuses();

private:
    Outcome run(const char *words) const { return m_tree->run(QLatin1String(words)); }
    FaultRun runWith(const QString &command, Faults faults) const;
    void addLargeFile() const;
    FaultRun signalWhileItStages(const QByteArray &signal) const;
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }

    std::unique_ptr<ReleaseTree> m_tree;
};

/// @p command on the installed build, and with the patch where it takes one.
FaultRun tst_UpdateCommands::runWith(const QString &command, Faults faults) const
{
    QStringList arguments{command, path("installed"), QStringLiteral("--json")};
    if (command == QLatin1String("update"))
        arguments.insert(2, path("patch"));
    faults.path = path("installed");
    return runWithFaults(QStringLiteral(PELLOX_PROGRAM), arguments, faults);
}

void tst_UpdateCommands::updates_data()
{
    QTest::addColumn<QString>("words");

    QTest::newRow("plain") << QStringLiteral("update installed patch");
    QTest::newRow("one thread") << QStringLiteral("update installed patch --threads 1");
    QTest::newRow("many threads") << QStringLiteral("update installed patch --threads 9");
    QTest::newRow("without syncs") << QStringLiteral("update installed patch --no-sync");
    QTest::newRow("other forms of the folders")
        << QStringLiteral("update ./new/../installed/ patch//");
}

void tst_UpdateCommands::updates()
{
    QFETCH(QString, words);
    const Outcome outcome = m_tree->run(words);
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
    QCOMPARE(m_tree->run(words).status, NothingToDo);
    QCOMPARE(run("recover installed").status, NothingToDo);
}

void tst_UpdateCommands::updatesFromAnyState()
{
    m_tree->write(QStringLiteral("installed/game.exe"), "damaged");
    const auto before = m_tree->installed();
    QCOMPARE(run("update installed patch").status, DamagedInstall);
    QCOMPARE(m_tree->installed(), before);
    const Outcome outcome = run("update installed patch --fallback new");
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
}

void tst_UpdateCommands::goesBack()
{
    QCOMPARE(run("update installed patch --keep-previous").status, Done);
    const Outcome outcome = run("rollback installed");
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(m_tree->installed(), m_tree->oldInstalled());
    QCOMPARE(run("rollback installed").status, NothingKept);
    QCOMPARE(run("update installed patch").status, Done);
}

void tst_UpdateCommands::keepsNothingUnlessTold()
{
    QCOMPARE(run("update installed patch").status, Done);
    QCOMPARE(run("rollback installed").status, NothingKept);
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
}

void tst_UpdateCommands::discardsWhatIsKept()
{
    QCOMPARE(run("update installed patch --keep-previous").status, Done);
    QVERIFY(m_tree->installed() != m_tree->newInstalled());
    const Outcome outcome = run("discard installed");
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
    QCOMPARE(run("rollback installed").status, NothingKept);
    QCOMPARE(run("discard installed").status, NothingToDo);
}

void tst_UpdateCommands::dryRunWritesNothing()
{
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run("update installed patch --dry-run --json");
    QCOMPARE(outcome.status, Done);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
    const QList<QJsonObject> events = jsonLines(outcome.out);
    QStringList rules;
    for (const QJsonObject &event : events) {
        if (member(event, "event") == QLatin1String("rule"))
            rules.append(member(event, "rule") + QLatin1Char(' ') + member(event, "file"));
    }
    QCOMPARE(rules,
        (QStringList{QStringLiteral("delete data/gone.txt"), QStringLiteral("patch game.exe"),
            QStringLiteral("copy levels/one.map")}));
    const QJsonObject plan = events.value(3);
    QCOMPARE(plan.value(QLatin1String("patch")).toInt(), 1);
    QCOMPARE(plan.value(QLatin1String("copy")).toInt(), 1);
    QCOMPARE(plan.value(QLatin1String("delete")).toInt(), 1);
    QCOMPARE(plan.value(QLatin1String("bytes_to_write")).toInt(), 100003 + 3000);
    QVERIFY(plan.value(QLatin1String("peak_extra_disk")).toInt() >= 100003 + 3000);

    m_tree->remove(QStringLiteral("installed/game.exe"));
    QCOMPARE(run("update installed patch --dry-run").status, DamagedInstall);
    QCOMPARE(run("update installed patch --dry-run --fallback new").status, Done);
    QCOMPARE(run("update installed patch --fallback new").status, Done);
    QCOMPARE(run("update installed patch --dry-run").status, NothingToDo);
}

void tst_UpdateCommands::says_data()
{
    QTest::addColumn<QString>("before"); // commands that come first, with "; " between them
    QTest::addColumn<QString>("words");

    const QString nothing;
    const QString updated = QStringLiteral("update installed patch --no-sync --quiet");
    const QString kept = QStringLiteral("update installed patch --keep-previous --quiet");
    QTest::newRow("update") << nothing << QStringLiteral("update installed patch");
    QTest::newRow("update-json") << nothing << QStringLiteral("update installed patch --json");
    QTest::newRow("update-kept") << nothing
                                 << QStringLiteral("update installed patch --keep-previous");
    QTest::newRow("update-dry-run")
        << nothing << QStringLiteral("update installed patch --dry-run");
    QTest::newRow("update-dry-run-json")
        << nothing << QStringLiteral("update installed patch --dry-run --json");
    QTest::newRow("update-nothing") << updated << QStringLiteral("update installed patch");
    QTest::newRow("update-nothing-json")
        << updated << QStringLiteral("update installed patch --json");
    QTest::newRow("update-damaged") << nothing << QStringLiteral("update saves patch");
    QTest::newRow("update-damaged-json") << nothing << QStringLiteral("update saves patch --json");
    QTest::newRow("update-refused") << nothing << QStringLiteral("update installed sigs-new");
    QTest::newRow("update-no-folder") << nothing << QStringLiteral("update nosuch patch --json");
    QTest::newRow("recover-nothing") << nothing << QStringLiteral("recover installed");
    QTest::newRow("recover-nothing-json") << nothing << QStringLiteral("recover installed --json");
    QTest::newRow("rollback") << kept << QStringLiteral("rollback installed");
    QTest::newRow("rollback-json") << kept << QStringLiteral("rollback installed --json");
    QTest::newRow("rollback-nothing-kept-json")
        << nothing << QStringLiteral("rollback installed --json");
    QTest::newRow("discard") << kept << QStringLiteral("discard installed");
    QTest::newRow("discard-json") << kept << QStringLiteral("discard installed --json");
}

/// Golden outputs, and that those in JSON are what their schema says.
void tst_UpdateCommands::says()
{
    QFETCH(QString, before);
    QFETCH(QString, words);
    m_tree->write(QStringLiteral("saves/one.sav"), "no game");
    if (!before.isEmpty())
        QCOMPARE(m_tree->run(before).status, Done);
    const QStringList arguments = words.split(QLatin1Char(' '));
    const Outcome outcome = m_tree->run(words);
    const QString difference
        = differenceToGolden(QLatin1String(QTest::currentDataTag()) + QLatin1String(".txt"),
            transcript(arguments, outcome, m_tree->path()));
    QVERIFY2(difference.isEmpty(), qPrintable(difference));

    if (!arguments.contains(QLatin1String("--json")))
        return;
    const QString python = pythonWithJsonSchema();
    if (python.isEmpty())
        QSKIP("python3-jsonschema is missing");
    QCOMPARE(schemaViolations(python, outcome.out), QStringList());
}

void tst_UpdateCommands::theSchemaRefusesOtherEvents_data()
{
    QTest::addColumn<QString>("line");

    QTest::newRow("no event") << QStringLiteral("{\"stage\":\"update\"}");
    QTest::newRow("unknown event") << QStringLiteral("{\"event\":\"begin\"}");
    QTest::newRow("unknown phase")
        << QStringLiteral("{\"event\":\"phase\",\"phase\":\"x\",\"stage\":\"update\"}");
    QTest::newRow("one member too many") << QStringLiteral(
        "{\"event\":\"phase\",\"phase\":\"staging\",\"stage\":\"update\",\"more\":1}");
    QTest::newRow("one member too few")
        << QStringLiteral("{\"event\":\"error\",\"code\":\"busy\"}");
    QTest::newRow("unknown code") << QStringLiteral(
        "{\"event\":\"error\",\"code\":\"x\",\"error\":\"y\"}");
    QTest::newRow("negative") << QStringLiteral(
        "{\"event\":\"progress\",\"stage\":\"update\",\"phase\":\"staging\",\"done\":-1,"
        "\"total\":1,\"rate\":0}");
    QTest::newRow("unknown outcome")
        << QStringLiteral("{\"event\":\"finished\",\"outcome\":\"good\"}");
}

void tst_UpdateCommands::theSchemaRefusesOtherEvents()
{
    QFETCH(QString, line);
    const QString python = pythonWithJsonSchema();
    if (python.isEmpty())
        QSKIP("python3-jsonschema is missing");
    const QString good = QStringLiteral("{\"event\":\"finished\",\"outcome\":\"interrupted\"}");
    QCOMPARE(schemaViolations(python, good + QLatin1Char('\n') + line), QStringList(line));
}

void tst_UpdateCommands::progressTellsRateAndTimeLeft()
{
    const Outcome outcome = run("update installed patch --json");
    QCOMPARE(outcome.status, Done);
    qint64 last = -1;
    qint64 total = 0;
    for (const QJsonObject &event : jsonLines(outcome.out)) {
        if (member(event, "event") != QLatin1String("progress"))
            continue;
        const auto number
            = [&](const char *name) { return event.value(QLatin1String(name)).toInt(-1); };
        QVERIFY(number("done") > last);
        QVERIFY(number("rate") >= 0);
        last = number("done");
        total = number("total");
        if (last == total) {
            QCOMPARE(number("left"), 0);
            QVERIFY(number("rate") > 0);
            QVERIFY2(member(event, "file") == QLatin1String("game.exe")
                    || member(event, "file") == QLatin1String("levels/one.map"),
                qPrintable(outcome.out));
        }
    }
    QCOMPARE(last, total);
    QCOMPARE(total, 103003);
}

void tst_UpdateCommands::terminalsSeeABar()
{
    QProcess process;
    startProgram(process, QStringLiteral("script"),
        {QStringLiteral("-qec"), QStringLiteral(PELLOX_PROGRAM " update installed patch"),
            QStringLiteral("/dev/null")},
        m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Done);
    QVERIFY2(outcome.out.contains(QLatin1String("\r\x1b[K100 % [=")), qPrintable(outcome.out));
    QVERIFY2(
        outcome.out.contains(QLatin1String("=] 100.6 KiB of 100.6 KiB")), qPrintable(outcome.out));
}

void tst_UpdateCommands::quietSaysNothing()
{
    const Outcome outcome = run("update installed patch --quiet");
    QCOMPARE(outcome.status, Done);
    QCOMPARE(outcome.out + outcome.err, QString());

    const Outcome failing = run("update saves patch -q");
    QCOMPARE(failing.status, WrongUsage);
    QCOMPARE(failing.err.count(QLatin1Char('\n')), 1);
}

void tst_UpdateCommands::adviceComesOncePerKind()
{
    m_tree->remove(QStringLiteral("patch/game.exe"));
    m_tree->remove(QStringLiteral("patch/levels/one.map"));
    const Outcome outcome = run("update installed patch");
    QCOMPARE(outcome.status, RefusedPatch);
    QCOMPARE(errorLines(outcome.err).size(), 2);
    QCOMPARE(outcome.err.count(QLatin1String("pellox: bad-patch: Get the patch anew")), 1);
    QVERIFY2(
        outcome.err.endsWith(QLatin1String("pellox: nothing was changed: get the patch anew\n")),
        qPrintable(outcome.err));
}

void tst_UpdateCommands::everyOutcomeHasItsStatus_data()
{
    QTest::addColumn<QString>("file"); // is changed first: a folder where there is no content
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("calls"); // that fail
    QTest::addColumn<int>("error");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("outcome");
    QTest::addColumn<QString>("code");

    const QByteArray none;
    const QString update = QStringLiteral("update");
    const QString nothing;
    QTest::newRow("an installed file is damaged")
        << QStringLiteral("installed/game.exe") << QByteArray("x") << update << none << 0
        << DamagedInstall << QStringLiteral("damaged-install") << QStringLiteral("damaged-install");
    QTest::newRow("a manifest that is none")
        << QStringLiteral("patch/patchRules.json") << QByteArray("{") << update << none << 0
        << RefusedPatch << QStringLiteral("refused-patch") << QStringLiteral("bad-manifest");
    QTest::newRow("a way out of the build")
        << QStringLiteral("patch/patchRules.json")
        << QByteArray("[{\"rule\":\"delete\",\"relative_path\":\"/../old/game.exe\"}]") << update
        << none << 0 << RefusedPatch << QStringLiteral("refused-patch")
        << QStringLiteral("bad-manifest");
    QTest::newRow("a delta that is none")
        << QStringLiteral("patch/game.exe") << QByteArray("no delta") << update << none << 0
        << RefusedPatch << QStringLiteral("refused-patch") << QStringLiteral("bad-patch");
    QTest::newRow("a folder in the way")
        << QStringLiteral("installed/levels/one.map/players.map") << QByteArray("x") << update
        << none << 0 << InTheWay << QStringLiteral("in-the-way") << QStringLiteral("obstructed");
    QTest::newRow("a full disk") << nothing << none << update << QByteArray("write") << ENOSPC
                                 << NoSpace << QStringLiteral("no-space")
                                 << QStringLiteral("no-space");
    QTest::newRow("no room for a folder")
        << nothing << none << update << QByteArray("mkdir") << EDQUOT << NoSpace
        << QStringLiteral("no-space") << QStringLiteral("no-space");
    QTest::newRow("a disk that fails")
        << nothing << none << update << QByteArray("write") << EIO << Unchanged
        << QStringLiteral("failed") << QStringLiteral("read-or-write");
    QTest::newRow("a journal that is none")
        << QStringLiteral("installed/.pellox/journal") << QByteArray("x") << update << none << 0
        << DamagedJournal << QStringLiteral("damaged-journal") << QStringLiteral("damaged-journal");
    QTest::newRow("a journal that is none, recover")
        << QStringLiteral("installed/.pellox/journal") << QByteArray("x")
        << QStringLiteral("recover") << none << 0 << DamagedJournal
        << QStringLiteral("damaged-journal") << QStringLiteral("damaged-journal");
    QTest::newRow("a record of what is kept that is none")
        << QStringLiteral("installed/.pellox/previous.json") << QByteArray("x")
        << QStringLiteral("rollback") << none << 0 << NothingKept << QStringLiteral("nothing-kept")
        << QStringLiteral("damaged-kept");
    for (const char *command : {"recover", "rollback", "discard", "update"})
        QTest::addRow("a build that cannot be opened, %s", command)
            << nothing << none << QString::fromLatin1(command) << QByteArray("open,list") << EACCES
            << InTheWay << QStringLiteral("in-the-way") << QStringLiteral("bad-folder");
    QTest::newRow("nothing kept") << nothing << none << QStringLiteral("rollback") << none << 0
                                  << NothingKept << QStringLiteral("nothing-kept")
                                  << QStringLiteral("nothing-kept");
}

void tst_UpdateCommands::everyOutcomeHasItsStatus()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, content);
    QFETCH(QString, command);
    QFETCH(QByteArray, calls);
    QFETCH(int, error);
    QFETCH(int, status);
    QFETCH(QString, outcome);
    QFETCH(QString, code);
    if (!file.isEmpty())
        m_tree->write(file, content);
    const auto before = m_tree->installed();
    const FaultRun run = runWith(command,
        {QString(), calls, calls.isEmpty() ? 0 : 1, QByteArray::number(error), true, true});
    const QString out = QString::fromUtf8(run.output);
    QVERIFY2(run.status == status, run.errors);
    QCOMPARE(m_tree->installed(), before);
    const QList<QJsonObject> events = jsonLines(out);
    QCOMPARE(member(events.last(), "outcome"), outcome);
    QCOMPARE(events.last().value(QLatin1String("status")).toInt(), status);
    const QJsonObject problem = events.value(events.size() - 2);
    QCOMPARE(member(problem, "event"), QStringLiteral("error"));
    QCOMPARE(member(problem, "code"), code);
    QVERIFY(member(problem, "file").startsWith(m_tree->path()));

    const QString python = pythonWithJsonSchema();
    if (python.isEmpty())
        QSKIP("python3-jsonschema is missing");
    QCOMPARE(schemaViolations(python, out), QStringList());
}

/// Nobody is told to remove the way back.
void tst_UpdateCommands::keptRecordThatCannotBeRead()
{
    QCOMPARE(run("update installed patch --keep-previous").status, Done);
    const auto before = m_tree->installed();
    const QString record = path("installed/.pellox/previous.json");
    const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("rollback"), path("installed"), QStringLiteral("--json")},
        {record, "open", 1, QByteArray::number(EACCES), true});
    QVERIFY2(run.status == Unchanged, run.output + run.errors);
    const QList<QJsonObject> events = jsonLines(QString::fromUtf8(run.output));
    const QJsonObject problem = events.value(events.size() - 2);
    QCOMPARE(member(problem, "code"), QStringLiteral("read-or-write"));
    QCOMPARE(member(problem, "file"), record);
    QCOMPARE(m_tree->installed(), before);
    QCOMPARE(this->run("rollback installed").status, Done);
    QCOMPARE(m_tree->installed(), m_tree->oldInstalled());
}

void tst_UpdateCommands::helpTellsEveryStatus_data()
{
    QTest::addColumn<QList<int>>("statuses");

    const QList<int> all{Done, Failed, WrongUsage};
    const QList<int> ofARun{
        NothingToDo, Unchanged, Unfinished, NoSpace, InTheWay, Busy, DamagedJournal};
    QTest::newRow("update") << all + ofARun + QList<int>{DamagedInstall, RefusedPatch};
    QTest::newRow("recover") << all + ofARun + QList<int>{DamagedInstall};
    QTest::newRow("discard") << all + ofARun + QList<int>{DamagedInstall};
    QTest::newRow("repair") << all + ofARun + QList<int>{RefusedPatch};
    QTest::newRow("record") << all + ofARun + QList<int>{DamagedInstall, RefusedPatch};
    QTest::newRow("rollback") << all + ofARun.mid(1) + QList<int>{DamagedInstall, NothingKept};
    QTest::newRow("check") << all + QList<int>{Unchanged, RefusedPatch, InTheWay};
}

void tst_UpdateCommands::helpTellsEveryStatus()
{
    QFETCH(QList<int>, statuses);
    statuses.append(Interrupted);
    std::sort(statuses.begin(), statuses.end());
    const QString help
        = m_tree->run(QLatin1String(QTest::currentDataTag()) + QStringLiteral(" --help")).out;
    static const QRegularExpression Status(
        QStringLiteral("^  (\\d+) "), QRegularExpression::MultilineOption);
    QList<int> told;
    for (auto matches = Status.globalMatch(help); matches.hasNext();)
        told.append(matches.next().captured(1).toInt());
    QCOMPARE(told, statuses);
}

/// It is not looked at, be it to find out what would happen.
void tst_UpdateCommands::brokenSealWithoutKeysIsNoObstacle()
{
    m_tree->write(QStringLiteral("patch/patchSeal.json"), "broken");
    const Outcome plan = run("update installed patch --dry-run");
    QVERIFY2(plan.status == Done, qPrintable(plan.err));
    QCOMPARE(m_tree->installed(), m_tree->oldInstalled());
    QCOMPARE(run("update installed patch").status, Done);
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
}

void tst_UpdateCommands::whatIsTooLargeIsNotRead_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("file");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<int>("values");

    const QString apply = QStringLiteral("apply installed patch");
    const QString inspect = QStringLiteral("inspect patch");
    const QString rules = QStringLiteral("patch/patchRules.json");
    const QString seal = QStringLiteral("patch/patchSeal.json");
    QTest::newRow("rules") << apply << rules << (qint64(1) << 30) + 1 << 0;
    QTest::newRow("many rules") << apply << rules << qint64(0) << (1 << 23) + 1;
    QTest::newRow("seal") << inspect << seal << (qint64(1) << 28) + 1 << 0;
    QTest::newRow("seal of many parts") << inspect << seal << qint64(0) << (1 << 23) + 1;
}

void tst_UpdateCommands::whatIsTooLargeIsNotRead()
{
    QFETCH(QString, words);
    QFETCH(QString, file);
    QFETCH(qint64, size);
    QFETCH(int, values);
    m_tree->write(file, '[' + QByteArray("1,").repeated(values) + "1]");
    if (size > 0)
        QVERIFY(QFile::resize(m_tree->path(file), size));
    const Outcome outcome = m_tree->run(words);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: is too large for what it should be")
                        .arg(m_tree->path(file))));
    QCOMPARE(m_tree->installed(), m_tree->oldInstalled());
}

void tst_UpdateCommands::unseenJournalKeepsOthersOut_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("apply") << QStringLiteral("apply");
    QTest::newRow("verify") << QStringLiteral("verify");
}

/// What has the name of a temporary file may be the only copy.
void tst_UpdateCommands::unseenJournalKeepsOthersOut()
{
    QFETCH(QString, command);
    QVERIFY(runWith(QStringLiteral("update"), {QString(), "rename", FirstFile, "kill"}).crashed);
    QVERIFY(m_tree->exists(QStringLiteral("installed/.pellox/journal")));
    const auto before = m_tree->installed();
    const FaultRun run
        = runWithFaults(QStringLiteral(PELLOX_PROGRAM), {command, path("installed"), path("patch")},
            {path("installed/.pellox"), "look,open,list", 1, QByteArray::number(EACCES), true});
    QVERIFY2(run.status == WrongUsage, run.output + run.errors);
    QVERIFY2(run.errors.contains("/.pellox/journal: cannot be looked at: "), run.errors);
    QCOMPARE(m_tree->installed(), before);
    QCOMPARE(this->run("recover installed").status, Done);
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
}

void tst_UpdateCommands::oneProgramAtATime()
{
    const int lock = ::open(
        QFile::encodeName(path("installed")).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    QCOMPARE(::flock(lock, LOCK_EX), 0);
    const QStringList commands{QStringLiteral("update installed patch --json"),
        QStringLiteral("recover installed --json"), QStringLiteral("rollback installed --json"),
        QStringLiteral("discard installed --json"),
        QStringLiteral("repair installed sigs-new --from new --json")};
    QStringList failures;
    for (const QString &command : commands) {
        const Outcome outcome = m_tree->run(command);
        const QList<QJsonObject> events = jsonLines(outcome.out);
        if (outcome.status != Busy || member(events.last(), "outcome") != QLatin1String("busy")
            || member(events.first(), "code") != QLatin1String("busy"))
            failures.append(command + QLatin1String(": ") + outcome.out);
    }
    ::close(lock);
    QCOMPARE(failures, QStringList());
    QCOMPARE(m_tree->installed(), m_tree->oldInstalled());
}

/// One does it; the other is refused, or comes so late that there is nothing to do.
void tst_UpdateCommands::twoProgramsAtTheSameMoment()
{
    for (int i = 0; i < 5; ++i) {
        m_tree = std::make_unique<ReleaseTree>();
        QProcess processes[2];
        for (QProcess &process : processes) {
            startProgram(process, QStringLiteral(PELLOX_PROGRAM),
                {QStringLiteral("update"), QStringLiteral("installed"), QStringLiteral("patch")},
                m_tree->path());
        }
        QList<int> statuses;
        for (QProcess &process : processes)
            statuses.append(outcomeOf(process).status);
        std::sort(statuses.begin(), statuses.end());
        QCOMPARE(statuses.first(), Done);
        QVERIFY2(statuses.last() == Busy || statuses.last() == NothingToDo,
            qPrintable(QString::number(statuses.last())));
        QCOMPARE(m_tree->installed(), m_tree->newInstalled());
    }
}

void tst_UpdateCommands::failedCommitIsFinished_data()
{
    QTest::addColumn<QString>("next");

    QTest::newRow("by recover") << QStringLiteral("recover installed --json");
    QTest::newRow("by update") << QStringLiteral("update installed patch --json");
}

void tst_UpdateCommands::failedCommitIsFinished()
{
    QFETCH(QString, next);
    const FaultRun failed
        = runWith(QStringLiteral("update"), {QString(), "rename", FirstFile, "5", true, true});
    QCOMPARE(failed.status, Unfinished);
    const QJsonObject last = jsonLines(QString::fromUtf8(failed.output)).last();
    QCOMPARE(member(last, "outcome"), QStringLiteral("unfinished"));
    QVERIFY(member(last, "message").contains(QLatin1String("\"pellox recover\"")));

    const Outcome finished = m_tree->run(next);
    QVERIFY2(finished.status == Done, qPrintable(finished.err));
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
    const QList<QJsonObject> events = jsonLines(finished.out);
    QCOMPARE(member(events.first(), "phase"), QStringLiteral("finishing"));
    QVERIFY2(member(events.last(), "message").contains(QLatin1String("interrupted run had begun")),
        qPrintable(finished.out));

    const QString python = pythonWithJsonSchema();
    if (python.isEmpty())
        QSKIP("python3-jsonschema is missing");
    QCOMPARE(
        schemaViolations(python, finished.out + QString::fromUtf8(failed.output)), QStringList());
}

void tst_UpdateCommands::resumedRunPutsInPlace()
{
    const FaultRun killed
        = runWith(QStringLiteral("update"), {QString(), "rename", JournalItself, "kill"});
    QVERIFY(killed.crashed);
    const Outcome outcome = run("update installed patch");
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(
        outcome.out, QStringLiteral("Updated, 2 files put in place: %1\n").arg(path("installed")));
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
}

void tst_UpdateCommands::lostContentIsToldByRecover()
{
    QVERIFY(runWith(QStringLiteral("update"), {QString(), "rename", FirstFile, "kill"}).crashed);
    m_tree->remove(QStringLiteral("installed/game.exe.temp"));
    m_tree->remove(QStringLiteral("installed/levels/one.map.temp"));
    const Outcome outcome = run("recover installed");
    QCOMPARE(outcome.status, DamagedInstall);
    QVERIFY2(outcome.err.contains(path("installed/game.exe")), qPrintable(outcome.err));
    QVERIFY2(outcome.err.endsWith(QLatin1String(
                 "pellox: what an interrupted run had begun is finished but for these files: run "
                 "\"pellox repair\", or \"pellox update --fallback\"\n")),
        qPrintable(outcome.err));
    QCOMPARE(run("recover installed").status, NothingToDo);
    QCOMPARE(run("repair installed sigs-new --from new").status, Done);
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
}

void tst_UpdateCommands::otherProgramsSeeAnUnfinishedUpdate_data()
{
    QTest::addColumn<bool>("damaged"); // the journal
    QTest::addColumn<QString>("words");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("event");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("value");

    const QString error = QStringLiteral("error");
    const QString code = QStringLiteral("code");
    const QString refused = QStringLiteral("refused");
    QTest::newRow("apply") << false << QStringLiteral("apply installed patch") << WrongUsage
                           << error << code << refused;
    QTest::newRow("verify") << false << QStringLiteral("verify installed patch") << WrongUsage
                            << error << code << refused;
    QTest::newRow("apply, a journal that is none")
        << true << QStringLiteral("apply installed patch") << WrongUsage << error << code
        << refused;
    QTest::newRow("dry run") << false << QStringLiteral("update installed patch --dry-run")
                             << Unfinished << error << code << QStringLiteral("unfinished");
    QTest::newRow("dry run, a journal that is none")
        << true << QStringLiteral("update installed patch --dry-run") << DamagedJournal << error
        << code << QStringLiteral("damaged-journal");
    QTest::newRow("check") << false << QStringLiteral("check installed sigs-new") << Failed
                           << QStringLiteral("build-state") << QStringLiteral("state")
                           << QStringLiteral("interrupted");
}

void tst_UpdateCommands::otherProgramsSeeAnUnfinishedUpdate()
{
    QFETCH(bool, damaged);
    QFETCH(QString, words);
    QFETCH(int, status);
    QFETCH(QString, event);
    QFETCH(QString, name);
    QFETCH(QString, value);
    if (damaged)
        m_tree->write(QStringLiteral("installed/.pellox/journal"), "x");
    else
        QVERIFY(
            runWith(QStringLiteral("update"), {QString(), "rename", FirstFile, "kill"}).crashed);
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = m_tree->run(words + QStringLiteral(" --json"));
    QCOMPARE(outcome.status, status);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
    QStringList values;
    for (const QJsonObject &line : jsonLines(outcome.out)) {
        if (member(line, "event") == event)
            values.append(line.value(name).toString());
    }
    QCOMPARE(values, QStringList(value));
    QVERIFY2(outcome.err.contains(path("installed")), qPrintable(outcome.err));
    if (!damaged)
        QVERIFY2(
            outcome.err.contains(QLatin1String("\"pellox recover\"")), qPrintable(outcome.err));
    const QString python = pythonWithJsonSchema();
    if (python.isEmpty())
        QSKIP("python3-jsonschema is missing");
    QCOMPARE(schemaViolations(python, outcome.out), QStringList());
}

void tst_UpdateCommands::applyAndVerifyHeedTheLock_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("without"); // the lock

    QTest::newRow("apply") << QStringLiteral("apply installed patch") << WrongUsage << Done;
    QTest::newRow("verify") << QStringLiteral("verify installed patch") << WrongUsage << Failed;
    QTest::newRow("dry run") << QStringLiteral("update installed patch --dry-run") << Busy << Done;
    QTest::newRow("check") << QStringLiteral("check installed sigs-old") << Done << Done;
}

void tst_UpdateCommands::applyAndVerifyHeedTheLock()
{
    QFETCH(QString, words);
    QFETCH(int, status);
    QFETCH(int, without);
    const QString told = QStringLiteral("pdat"); // "is being updated", "is updating"
    const int lock = ::open(
        QFile::encodeName(path("installed")).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    QCOMPARE(::flock(lock, LOCK_EX), 0);
    const Outcome outcome = m_tree->run(words);
    ::close(lock);
    QCOMPARE(outcome.status, status);
    QCOMPARE(m_tree->installed(), m_tree->oldInstalled());
    QVERIFY2(
        outcome.err.contains(path("installed") + QLatin1String(": ")), qPrintable(outcome.err));
    QVERIFY2(outcome.err.contains(told), qPrintable(outcome.err));
    QCOMPARE(m_tree->run(words).status, without);
}

void tst_UpdateCommands::manyErrorsAreCounted()
{
    constexpr int Files = 13;
    QJsonArray rules;
    QStringList expected;
    for (int i = 0; i < Files; ++i) {
        const QString name = QStringLiteral("/map%1").arg(i, 2, 10, QLatin1Char('0'));
        rules.prepend(QJsonObject{{QStringLiteral("rule"), QStringLiteral("copy")},
            {QStringLiteral("relative_path"), name}});
        expected.append(path("patch") + name);
    }
    m_tree->write(QStringLiteral("patch/patchRules.json"), QJsonDocument(rules).toJson());
    const auto told = [](const Outcome &outcome) {
        QStringList files;
        for (const QString &line : errorLines(outcome.err))
            files.append(line.section(QLatin1String(": "), 2, 2));
        return files;
    };
    const Outcome brief = run("update installed patch");
    QCOMPARE(brief.status, RefusedPatch);
    QCOMPARE(told(brief), expected.mid(0, 10));
    QVERIFY2(brief.err.contains(QLatin1String("pellox: and 3 more errors; -v names them all\n")),
        qPrintable(brief.err));
    for (const char *words : {"update installed patch -v", "update installed patch --json"}) {
        const Outcome whole = run(words);
        QCOMPARE(told(whole), expected);
        QVERIFY2(!whole.err.contains(QLatin1String("more error")), qPrintable(whole.err));
    }
}

void tst_UpdateCommands::otherBuildIsToldFromADamagedOne()
{
    const QString told = QStringLiteral("this is not the build that the patch is for");
    m_tree->remove(QStringLiteral("installed/game.exe"));
    const Outcome damaged = run("update installed patch");
    QCOMPARE(damaged.status, DamagedInstall);
    QVERIFY2(!damaged.err.contains(told), qPrintable(damaged.err));
    m_tree->remove(QStringLiteral("installed/data/gone.txt"));
    const Outcome other = run("update installed patch");
    QCOMPARE(other.status, DamagedInstall);
    QVERIFY2(other.err.contains(told), qPrintable(other.err));
}

void tst_UpdateCommands::whereStandardOutputCannotBeWritten()
{
    QProcess process;
    startProgram(process, QStringLiteral("sh"),
        {QStringLiteral("-c"),
            QStringLiteral("exec " PELLOX_PROGRAM " update installed patch > /dev/full")},
        m_tree->path());
    QCOMPARE(outcomeOf(process).status, Failed);
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
}

void tst_UpdateCommands::signalsCancel_data()
{
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<int>("status");

    QTest::newRow("Ctrl-C") << QByteArray("interrupt") << Interrupted;
    QTest::newRow("terminated") << QByteArray("terminate") << 128 + SIGTERM;
    QTest::newRow("terminal closed") << QByteArray("close") << 128 + SIGHUP;
}

void tst_UpdateCommands::signalsCancel()
{
    QFETCH(QByteArray, signal);
    QFETCH(int, status);
    addLargeFile();
    const FaultRun run = signalWhileItStages(signal);
    QCOMPARE(run.status, status);
    QCOMPARE(m_tree->installed(), m_tree->oldInstalled());
    const QJsonObject last = jsonLines(QString::fromUtf8(run.output)).last();
    QCOMPARE(member(last, "outcome"), QStringLiteral("interrupted"));
    QCOMPARE(last.value(QLatin1String("status")).toInt(), status);
    QVERIFY2(run.errors.endsWith("pellox: interrupted: nothing was changed: run the same again\n"),
        run.errors);
}

/// To the patch. It takes many calls to write, and no room.
void tst_UpdateCommands::addLargeFile() const
{
    const QString large = QStringLiteral("patch/large.pak");
    m_tree->write(large, QByteArray());
    QVERIFY(QFile::resize(m_tree->path(large), qint64(256) << 20));
    QFile manifest(path("patch/patchRules.json"));
    QVERIFY(manifest.open(QIODevice::ReadWrite));
    QJsonArray rules = QJsonDocument::fromJson(manifest.readAll()).array();
    rules.append(QJsonObject{{QStringLiteral("rule"), QStringLiteral("copy")},
        {QStringLiteral("relative_path"), QStringLiteral("/large.pak")}});
    manifest.seek(0);
    manifest.write(QJsonDocument(rules).toJson());
}

/// Of an update, while it writes the large file.
FaultRun tst_UpdateCommands::signalWhileItStages(const QByteArray &signal) const
{
    return runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("update"), path("installed"), path("patch"), QStringLiteral("--json"),
            QStringLiteral("--no-sync")},
        {path("installed/large.pak.temp"), "write", 1, signal, false, true, true});
}

/// What a killed run had begun is not "nothing".
void tst_UpdateCommands::signalsCancelAfterFinishing()
{
    QVERIFY(runWith(QStringLiteral("update"), {QString(), "rename", FirstFile, "kill"}).crashed);
    addLargeFile();
    const FaultRun run = signalWhileItStages("interrupt");
    QCOMPARE(run.status, Interrupted);
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
    const QString told = QStringLiteral("what an earlier run has begun is finished, nothing else "
                                        "was changed: run the same again");
    QCOMPARE(member(jsonLines(QString::fromUtf8(run.output)).last(), "message"), told);
    QVERIFY2(run.errors.endsWith("pellox: interrupted: " + told.toUtf8() + '\n'), run.errors);
}

void tst_UpdateCommands::aSecondInterruptAfterFinishing()
{
    QVERIFY(runWith(QStringLiteral("update"), {QString(), "rename", FirstFile, "kill"}).crashed);
    addLargeFile();
    const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("update"), path("installed"), path("patch")},
        {path("installed/large.pak.temp"), "write", 1, "interrupts", false, true});
    QCOMPARE(run.status, Interrupted);
    QVERIFY2(
        run.errors.endsWith("pellox: interrupted: what an earlier run has begun is finished, and "
                            "nothing else was changed, but for files that end in .temp; run the "
                            "same again, which goes on with these\n"),
        run.errors);
    QCOMPARE(m_tree->read(QStringLiteral("installed/game.exe")),
        m_tree->read(QStringLiteral("new/game.exe")));
}

/// Before it puts anything in place.
void tst_UpdateCommands::aSignalWhileItLooksAtWhatIsLeft()
{
    addLargeFile();
    QVERIFY(runWith(QStringLiteral("update"), {QString(), "rename", FirstFile, "kill"}).crashed);
    const FaultRun stopped = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("recover"), path("installed"), QStringLiteral("--json")},
        {path("installed/large.pak.temp"), "open,read", 1, "interrupt", false, true, true});
    QCOMPARE(stopped.status, Interrupted);
    QVERIFY2(stopped.errors.endsWith("pellox: interrupted while files were put in place: run "
                                     "\"pellox recover\", or the same again, to finish it\n"),
        stopped.errors);
    const QJsonObject last = jsonLines(QString::fromUtf8(stopped.output)).last();
    QCOMPARE(member(last, "outcome"), QStringLiteral("interrupted"));
    QVERIFY(m_tree->exists(QStringLiteral("installed/large.pak.temp")));

    const Outcome finished = run("recover installed --json");
    QVERIFY2(finished.status == Done, qPrintable(finished.err));
    QVERIFY(m_tree->exists(QStringLiteral("installed/large.pak")));
    QVERIFY(!m_tree->exists(QStringLiteral("installed/.pellox")));
    const QString python = pythonWithJsonSchema();
    if (python.isEmpty())
        QSKIP("python3-jsonschema is missing");
    QCOMPARE(
        schemaViolations(python, finished.out + QString::fromUtf8(stopped.output)), QStringList());
}

void tst_UpdateCommands::aSignalDuringTheCommitIsTooLate()
{
    const FaultRun run = runWith(
        QStringLiteral("update"), {QString(), "rename", JournalItself, "interrupt", false, true});
    QCOMPARE(run.status, Done);
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
    QVERIFY2(run.errors.endsWith("pellox: the signal came too late to stop it: it is finished\n"),
        run.errors);
    QCOMPARE(
        member(jsonLines(QString::fromUtf8(run.output)).last(), "outcome"), QStringLiteral("done"));
}

void tst_UpdateCommands::aSecondInterruptEndsAtOnce()
{
    const FaultRun run = runWith(
        QStringLiteral("update"), {QString(), "rename", JournalItself, "interrupt", true, true});
    QCOMPARE(run.status, Interrupted);
    QVERIFY2(run.errors.endsWith("pellox: interrupted while files were put in place: run "
                                 "\"pellox recover\", or the same again, to finish it\n"),
        run.errors);
    QCOMPARE(member(jsonLines(QString::fromUtf8(run.output)).last(), "outcome"),
        QStringLiteral("interrupted"));
    QVERIFY(m_tree->installed() != m_tree->newInstalled());
    const Outcome outcome = this->run("recover installed");
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(m_tree->installed(), m_tree->newInstalled());
}

void tst_UpdateCommands::wrongUsage_data()
{
    QTest::addColumn<QString>("words");

    QTest::newRow("no patch") << QStringLiteral("update installed");
    QTest::newRow("no such build") << QStringLiteral("update nosuch patch");
    QTest::newRow("no such patch") << QStringLiteral("update installed nosuch");
    QTest::newRow("no such fallback") << QStringLiteral("update installed patch --fallback nosuch");
    QTest::newRow("the build as fallback")
        << QStringLiteral("update installed patch --fallback installed");
    QTest::newRow("the build as patch") << QStringLiteral("update installed installed");
    QTest::newRow("a patch in the build") << QStringLiteral("update installed installed/data");
    QTest::newRow("no thread") << QStringLiteral("update installed patch --threads 0");
    QTest::newRow("recover with a patch") << QStringLiteral("recover installed patch");
    QTest::newRow("recover nothing") << QStringLiteral("recover");
    QTest::newRow("rollback of no folder") << QStringLiteral("rollback new/game.exe");
    QTest::newRow("discard of no folder") << QStringLiteral("discard nosuch");
}

void tst_UpdateCommands::wrongUsage()
{
    QFETCH(QString, words);
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = m_tree->run(words);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(errorLines(outcome.err).size(), 1);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_UpdateCommands::helpTeaches_data()
{
    QTest::addColumn<QString>("example");

    QTest::newRow("update") << QStringLiteral(
        "pellox update installed/game patches/1.0-1.1 --keep-previous");
    QTest::newRow("recover") << QStringLiteral("pellox recover installed/game");
    QTest::newRow("rollback") << QStringLiteral("pellox rollback installed/game");
    QTest::newRow("discard") << QStringLiteral("pellox discard installed/game");
}

void tst_UpdateCommands::helpTeaches()
{
    QFETCH(QString, example);
    const Outcome outcome
        = m_tree->run(QLatin1String(QTest::currentDataTag()) + QStringLiteral(" --help"));
    QCOMPARE(outcome.status, Done);
    QVERIFY2(outcome.out.contains(example), qPrintable(outcome.out));
    QVERIFY2(!outcome.out.contains(QLatin1String("--no-sync")), qPrintable(outcome.out));
}

void tst_UpdateCommands::helpAndDocumentsHaveTheSameStatuses()
{
    const auto pairs = [](const QString &text, const char *pattern) {
        QMap<int, QString> found;
        auto matches
            = QRegularExpression(QString::fromLatin1(pattern), QRegularExpression::MultilineOption)
                  .globalMatch(text);
        while (matches.hasNext()) {
            const auto match = matches.next();
            found.insert(match.captured(1).toInt(), match.captured(2));
        }
        return found;
    };
    const auto fileText = [](const char *name) {
        QFile file(QStringLiteral(PELLOX_DOCS "/") + QLatin1String(name));
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    };
    const QString docs = fileText("cli.md");
    const auto documentedMeanings = pairs(docs, "^\\| (\\d+) \\| `[a-z-]+` \\| (.*) \\|$");
    QCOMPARE(documentedMeanings.size(), 14);
    QSet<int> told;
    for (const char *command :
        {"update", "recover", "rollback", "discard", "check", "repair", "record"}) {
        const auto own = pairs(m_tree->run(QLatin1String(command) + QStringLiteral(" --help")).out,
            "^  (\\d+) +(.*)$");
        QVERIFY(own.size() >= 6);
        QVERIFY(own.size() < 14);
        for (const auto &[status, meaning] : own.toStdMap()) {
            told.insert(status);
            QCOMPARE(
                meaning, documentedFor(QLatin1String(command), documentedMeanings.value(status)));
        }
    }
    QCOMPARE(told.size(), 14);

    const QJsonObject schema
        = QJsonDocument::fromJson(fileText("events.schema.json").toUtf8()).object();
    QStringList outcomes;
    for (const QJsonValue &outcome :
        schema
            .value(QLatin1String("$defs"))[QLatin1String("finished")][QLatin1String("properties")]
                                          [QLatin1String("outcome")][QLatin1String("enum")]
            .toArray())
        outcomes.append(outcome.toString());
    QStringList documented = pairs(docs, "^\\| (\\d+) \\| `([a-z-]+)` \\| .* \\|$").values();
    outcomes.sort();
    documented.sort();
    QCOMPARE(outcomes, documented);
}

QTEST_GUILESS_MAIN(tst_UpdateCommands)
#include "tst_updatecommands.moc"
