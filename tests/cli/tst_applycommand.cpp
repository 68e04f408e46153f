// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "program.h"
#include "testtree.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTest>

#include <csignal>
#include <memory>

#include <sys/types.h>

namespace {

const QString Advice = QStringLiteral("run \"pellox apply\" again before \"pellox verify\"");

/// The lines of @p text that are no errors and no progress.
QStringList notes(const QString &text)
{
    return text.split(QLatin1Char('\n'))
        .filter(QRegularExpression(QStringLiteral("^pellox: (?!error: )")));
}

} // namespace

/// "pellox apply" and "pellox verify" where something has gone wrong before.
class tst_ApplyCommand : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void theOnlyCopyOfAnInterruptedVerifyIsLeftAlone();
    void whatThePatchLacksIsNamed_data();
    void whatThePatchLacksIsNamed();
    void aWrongBuildIsLeftAlone_data();
    void aWrongBuildIsLeftAlone();
    void aDiskWithoutRoomIsRefused();
    void whatMakesRoomIsCounted_data();
    void whatMakesRoomIsCounted();
    void whatCannotBeWrittenIsTold();
    void aFailedApplyComesBeforeVerify();
    void verifyTellsWhatItLacks_data();
    void verifyTellsWhatItLacks();
    void verifyNamesTenOfManyFiles_data();
    void verifyNamesTenOfManyFiles();
    void interruptionTellsWhatToRun_data();
    void interruptionTellsWhatToRun();
    void anIgnoredSignalStaysIgnored();

private:
    Outcome run(const QString &words) const
    {
        return runPellox(words.split(QLatin1Char(' ')), m_tree->path());
    }
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }
    QString refusal(const char *file, const char *reason) const
    {
        return QStringLiteral("pellox: error: %1: %2\n").arg(path(file), QLatin1String(reason));
    }
    void writeRules(const QByteArray &rules) const
    {
        m_tree->write(QStringLiteral("patch/patchRules.json"), rules);
    }

    std::unique_ptr<TestTree> m_tree;
};

void tst_ApplyCommand::init()
{
    m_tree = std::make_unique<TestTree>();
    for (const char *build : {"old", "installed"}) {
        const QString folder = QLatin1String(build);
        m_tree->write(folder + QLatin1String("/game.exe"), randomBytes(20000, 1));
        m_tree->write(folder + QLatin1String("/data.pak"), randomBytes(3000, 2));
    }
    m_tree->write(QStringLiteral("new/game.exe"), randomBytes(20000, 1) + "more");
    m_tree->write(QStringLiteral("new/data.pak"), "other");
    m_tree->write(QStringLiteral("new/levels/one.map"), "new");
    QCOMPARE(run(QStringLiteral("sign old signatures")).status, Done);
    QCOMPARE(run(QStringLiteral("diff new signatures patch")).status, Done);
}

void tst_ApplyCommand::theOnlyCopyOfAnInterruptedVerifyIsLeftAlone()
{
    QCOMPARE(run(QStringLiteral("apply installed patch")).status, Done);
    m_tree->remove(QStringLiteral("installed/game.exe")); // as verify does before it renames
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(QStringLiteral("apply installed patch"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        refusal("installed/game.exe",
            "is there only as its .temp file, from an interrupted verify; run \"pellox verify\" "
            "again"));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);

    QCOMPARE(run(QStringLiteral("verify installed patch")).status, Done);
    QCOMPARE(TestTree::snapshot(path("installed")), TestTree::snapshot(path("new")));
}

void tst_ApplyCommand::whatThePatchLacksIsNamed_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<bool>("isFolder");

    QTest::newRow("a delta") << QStringLiteral("patch/game.exe") << false;
    QTest::newRow("a new file") << QStringLiteral("patch/levels/one.map") << false;
    QTest::newRow("a delta that is a folder") << QStringLiteral("patch/game.exe") << true;
    QTest::newRow("a new file that is a folder") << QStringLiteral("patch/levels/one.map") << true;
}

void tst_ApplyCommand::whatThePatchLacksIsNamed()
{
    QFETCH(QString, file);
    QFETCH(bool, isFolder);
    m_tree->remove(file);
    if (isFolder)
        m_tree->makeFolder(file);
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(QStringLiteral("apply installed patch"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        refusal(qPrintable(file),
            isFolder ? "is not a file; get the whole patch again"
                     : "is missing from the patch; get the whole patch again"));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_ApplyCommand::aWrongBuildIsLeftAlone_data()
{
    QTest::addColumn<bool>("isFolder"); // what is to be patched

    QTest::newRow("missing") << false;
    QTest::newRow("a folder") << true;
}

void tst_ApplyCommand::aWrongBuildIsLeftAlone()
{
    QFETCH(bool, isFolder);
    m_tree->remove(QStringLiteral("installed/game.exe"));
    if (isFolder)
        m_tree->makeFolder(QStringLiteral("installed/game.exe"));
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(QStringLiteral("apply installed patch"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        refusal("installed/game.exe",
            "is to be patched and is not there: this is not the build that the patch was made "
            "for, or it is damaged"));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_ApplyCommand::aDiskWithoutRoomIsRefused()
{
    writeRules("[{\"rule\": \"patch\", \"relative_path\": \"/game.exe\", \"sha512\": \"\","
               " \"file_size\": 1125899906842624}]");
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(QStringLiteral("apply installed patch"));
    QCOMPARE(outcome.status, WrongUsage);
    const QRegularExpression form(
        QStringLiteral("^pellox: error: %1: has no room: 1\\.0 PiB are needed, .* are free\n$")
            .arg(path("installed")));
    QVERIFY2(form.match(outcome.err).hasMatch(), qPrintable(outcome.err));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_ApplyCommand::whatMakesRoomIsCounted_data()
{
    QTest::addColumn<QString>("file"); // as large as what is to be written
    QTest::addColumn<QByteArray>("rule");

    QTest::newRow("left by an earlier apply")
        << QStringLiteral("installed/game.exe.temp") << QByteArray();
    QTest::newRow("deleted") << QStringLiteral("installed/old.pak")
                             << QByteArray(
                                    "{\"rule\": \"delete\", \"relative_path\": \"/old.pak\"}, ");
    QTest::newRow("replaced")
        << QStringLiteral("installed/levels/one.map")
        << QByteArray("{\"rule\": \"copy\", \"relative_path\": \"/levels/one.map\"}, ");
}

void tst_ApplyCommand::whatMakesRoomIsCounted()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, rule);
    writeRules("[" + rule
        + "{\"rule\": \"patch\", \"relative_path\": \"/game.exe\", \"sha512\": \"\","
          " \"file_size\": 8796093022208}]");
    const Outcome withoutRoom = run(QStringLiteral("apply installed patch"));
    QVERIFY2(withoutRoom.err.contains(QLatin1String("has no room")), qPrintable(withoutRoom.err));

    m_tree->write(file, QByteArray());
    if (!QFile::resize(m_tree->path(file), qint64(1) << 43))
        QSKIP("no room for such a file, though it has no content");
    const Outcome outcome = run(QStringLiteral("apply installed patch"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
}

void tst_ApplyCommand::whatCannotBeWrittenIsTold()
{
    QProcess process;
    // A limit of the size of files stands for the disk.
    startProgram(process, QStringLiteral("sh"),
        {QStringLiteral("-c"),
            QStringLiteral(
                "trap '' XFSZ; ulimit -f 16; exec " PELLOX_PROGRAM " apply installed patch")},
        m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err).join(QLatin1Char('\n')) + QLatin1Char('\n'),
        refusal("installed/game.exe", "cannot be written (is the disk full or write-protected?)"));
}

void tst_ApplyCommand::aFailedApplyComesBeforeVerify()
{
    m_tree->write(QStringLiteral("patch/game.exe"), "no delta");
    const Outcome outcome = run(QStringLiteral("apply installed patch"));
    QCOMPARE(outcome.status, Failed);
    const QStringList said = notes(outcome.err);
    QCOMPARE(said.size(), 1);
    QVERIFY2(said.first().endsWith(Advice), qPrintable(outcome.err));
    QCOMPARE(notes(run(QStringLiteral("apply installed patch -q")).err), QStringList());
    m_tree->remove(QStringLiteral("patch"));
    QCOMPARE(run(QStringLiteral("diff new signatures patch")).status, Done);
    QCOMPARE(notes(run(QStringLiteral("apply installed patch")).err), QStringList());
}

void tst_ApplyCommand::verifyTellsWhatItLacks_data()
{
    QTest::addColumn<QString>("commands");
    QTest::addColumn<QString>("lost");
    QTest::addColumn<QStringList>("notes");

    const QString nothing = QStringLiteral(
        "pellox: nothing is left to verify: run \"pellox apply\" first, or the "
        "patch has been verified already; \"pellox update --dry-run\" tells whether "
        "the build is the new one");
    const QString part
        = QStringLiteral("pellox: what is not found was put in place by an earlier verify, or "
                         "never written because \"pellox apply\" failed");
    QTest::newRow("not applied") << QString() << QString() << QStringList(nothing);
    QTest::newRow("verified already")
        << QStringLiteral("apply verify") << QString() << QStringList(nothing);
    QTest::newRow("in part") << QStringLiteral("apply") << QStringLiteral("installed/game.exe.temp")
                             << QStringList(part);
    QTest::newRow("failed for another reason")
        << QStringLiteral("apply") << QStringLiteral("content") << QStringList();
}

void tst_ApplyCommand::verifyTellsWhatItLacks()
{
    QFETCH(QString, commands);
    QFETCH(QString, lost);
    QFETCH(QStringList, notes);
    for (const QString &command : commands.split(QLatin1Char(' '), Qt::SkipEmptyParts))
        QCOMPARE(run(command + QLatin1String(" installed patch")).status, Done);
    if (lost == QLatin1String("content"))
        m_tree->write(QStringLiteral("installed/game.exe.temp"), "something else");
    else if (!lost.isEmpty())
        m_tree->remove(lost);
    const Outcome outcome = run(QStringLiteral("verify installed patch"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(::notes(outcome.err), notes);
}

void tst_ApplyCommand::verifyNamesTenOfManyFiles_data()
{
    QTest::addColumn<int>("files");
    QTest::addColumn<QString>("options");
    QTest::addColumn<int>("errors");

    QTest::newRow("ten") << 10 << QString() << 10;
    QTest::newRow("more") << 25 << QString() << 10;
    QTest::newRow("verbose") << 25 << QStringLiteral(" --verbose") << 25;
    QTest::newRow("for programs") << 25 << QStringLiteral(" --json") << 25;
}

void tst_ApplyCommand::verifyNamesTenOfManyFiles()
{
    QFETCH(int, files);
    QFETCH(QString, options);
    QFETCH(int, errors);
    QByteArrayList rules;
    for (int file = 0; file < files; ++file)
        rules.append(
            "{\"rule\": \"patch\", \"relative_path\": \"/" + QByteArray::number(file) + "\"}");
    writeRules('[' + rules.join(',') + ']');
    const Outcome outcome = run(QStringLiteral("verify installed patch") + options);
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err).size(), errors);
    const QStringList said = notes(outcome.err);
    QVERIFY2(!said.isEmpty() && said.last().startsWith(QLatin1String("pellox: nothing is left")),
        qPrintable(outcome.err));
    QCOMPARE(said.contains(QStringLiteral("pellox: and so for 15 more files; -v names them all")),
        errors < files);
}

void tst_ApplyCommand::interruptionTellsWhatToRun_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("line");

    const QString apply = QStringLiteral("pellox: interrupted: run \"pellox apply\" again\n");
    const QString verify = QStringLiteral(
        "pellox: interrupted: run \"pellox verify\" again, not \"pellox apply\"\n");
    QTest::newRow("apply") << QStringLiteral("apply") << QByteArray("interrupt") << Interrupted
                           << apply;
    QTest::newRow("apply, terminated")
        << QStringLiteral("apply") << QByteArray("terminate") << 128 + SIGTERM << apply;
    QTest::newRow("verify") << QStringLiteral("verify") << QByteArray("interrupt") << Interrupted
                            << verify;
    QTest::newRow("verify, terminal closed")
        << QStringLiteral("verify") << QByteArray("close") << 128 + SIGHUP << verify;
}

void tst_ApplyCommand::interruptionTellsWhatToRun()
{
    QFETCH(QString, command);
    QFETCH(QByteArray, signal);
    QFETCH(int, status);
    QFETCH(QString, line);
    m_tree->write(QStringLiteral("installed/game.exe.temp"), randomBytes(20000, 3));
    const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {command, path("installed"), path("patch"), QStringLiteral("--json")},
        {path("installed/game.exe.temp"), "read,write", 1, signal});
    QCOMPARE(run.status, status);
    // Another file may have failed.
    QVERIFY2(QString::fromUtf8(run.errors).contains(line), run.errors);
    QCOMPARE(member(jsonLines(QString::fromUtf8(run.output)).last(), "outcome"),
        QStringLiteral("interrupted"));
}

void tst_ApplyCommand::anIgnoredSignalStaysIgnored()
{
    const FaultRun run = runWithFaults(QStringLiteral("sh"),
        {QStringLiteral("-c"), QStringLiteral("trap '' HUP; exec \"$@\""), QStringLiteral("sh"),
            QStringLiteral(PELLOX_PROGRAM), QStringLiteral("apply"), path("installed"),
            path("patch")},
        {path("installed"), "write", 1, "close"});
    QCOMPARE(run.status, 128 + SIGTERM);
}

QTEST_GUILESS_MAIN(tst_ApplyCommand)
#include "tst_applycommand.moc"
