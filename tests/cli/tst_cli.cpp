// SPDX-License-Identifier: MIT
#include "patience.h"
#include "program.h"
#include "testtree.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <fstream>

#include <sys/stat.h>
#include <sys/types.h>

/// Runs the program as its users do: in a folder with "old", "new" and "installed" builds.
class tst_Cli : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void tellsItsVersion();
    void helpTeachesWithAnExample_data();
    void helpTeachesWithAnExample();
    void wrongUsage_data();
    void wrongUsage();

    void bringsAnInstalledBuildUpToDate_data();
    void bringsAnInstalledBuildUpToDate();
    void namesAnyFileInThePlainLocale();
    void emptyBuildsAreBuildsIfAllowed();
    void ignoredFilesAreLeftAlone_data();
    void ignoredFilesAreLeftAlone();
    void ignoringWhatIsNotThereIsNoted();
    void aSecondRunOverwritesFileByFile();

    void refusesBeforeAnythingIsTouched_data();
    void refusesBeforeAnythingIsTouched();

    void everyErrorNamesItsFileOnce_data();
    void everyErrorNamesItsFileOnce();
    void refusesABuildThatPlayersWouldNotGet_data();
    void refusesABuildThatPlayersWouldNotGet();
    void refusesANameOutsideTheLocalesEncoding();
    void refusesALinkToAPipe();
    void refusesAPatchThatLeavesTheBuild();
    void signFailsWhenAFileHasNoSignature();
    void signFailsWhenTheDiskIsFull_data();
    void signFailsWhenTheDiskIsFull();
    void applyDoesNotWaitForAPipe();
    void verifyFailsWhenAFileCannotBeReplaced();
    void diffFailsWhenADeltaCannotBeMade();
    void diffTellsADeltaThatCannotBeWritten_data();
    void diffTellsADeltaThatCannotBeWritten();

    void summariesGoToStandardOutput();
    void quietSaysNothing();
    void jsonIsOneObjectALine();
    void jsonTellsErrorsAndFailure();
    void jsonTellsRefusal();
    void pipesSeeNoTerminalCodes();
    void terminalsSeeABar();
    void verboseShowsTheLibrarysLog();
    void nothingButErrorsIsSaidOfABrokenSignature();

    void interruptEndsAtOnce_data();
    void interruptEndsAtOnce();

private:
    Outcome run(const QStringList &arguments) const;
    bool publish() const;
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }

    std::unique_ptr<TestTree> m_tree;
    QString m_locale;
};

void tst_Cli::init()
{
    m_tree = std::make_unique<TestTree>();
    m_locale = QStringLiteral("C.UTF-8");
    for (const char *build : {"old", "installed"}) {
        const QString folder = QLatin1String(build);
        m_tree->write(folder + QLatin1String("/game.exe"), randomBytes(10000, 1));
        m_tree->write(folder + QLatin1String("/data/old only.txt"), "goes away");
        m_tree->write(folder + QLatin1String("/data/same.txt"), "stays");
        m_tree->write(folder + QStringLiteral("/data/grüße.pak"), randomBytes(5000, 2));
    }
    m_tree->write(QStringLiteral("new/game.exe"), randomBytes(10000, 1) + "more");
    m_tree->write(QStringLiteral("new/data/same.txt"), "stays");
    m_tree->write(QStringLiteral("new/data/grüße.pak"), "other");
    m_tree->write(QStringLiteral("new/levels/new one.map"), "new");
}

void tst_Cli::cleanup()
{
    m_tree.reset();
}

Outcome tst_Cli::run(const QStringList &arguments) const
{
    QProcess process;
    startProgram(process, QStringLiteral(PELLOX_PROGRAM), arguments, m_tree->path(), m_locale);
    return outcomeOf(process);
}

bool tst_Cli::publish() const
{
    return run({QStringLiteral("sign"), QStringLiteral("old"), QStringLiteral("sigs")}).status
        == Done
        && run({QStringLiteral("diff"), QStringLiteral("new"), QStringLiteral("sigs"),
                   QStringLiteral("patch")})
               .status
        == Done;
}

void tst_Cli::tellsItsVersion()
{
    const Outcome outcome = run({QStringLiteral("--version")});
    QCOMPARE(outcome.status, Done);
    QCOMPARE(outcome.out, QStringLiteral("pellox " PELLOX_VERSION "\n"));
    QCOMPARE(outcome.err, QString());
}

void tst_Cli::helpTeachesWithAnExample_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("example");

    QTest::newRow("program") << QStringList{QStringLiteral("--help")}
                             << QStringLiteral("pellox verify installed/game patches/1.0-1.1");
    QTest::newRow("program, publishing")
        << QStringList{QStringLiteral("--help")}
        << QStringLiteral("pellox publish releases/1.1 --old-signatures signatures/1.0 --patch "
                          "patches/1.0-1.1 --signatures signatures/1.1");
    QTest::newRow("sign") << QStringList{QStringLiteral("sign"), QStringLiteral("--help")}
                          << QStringLiteral("pellox sign releases/1.0 signatures/1.0");
    QTest::newRow("diff") << QStringList{QStringLiteral("diff"), QStringLiteral("--help")}
                          << QStringLiteral(
                                 "pellox diff releases/1.1 signatures/1.0 patches/1.0-1.1");
    QTest::newRow("apply") << QStringList{QStringLiteral("apply"), QStringLiteral("-h")}
                           << QStringLiteral("pellox apply installed/game patches/1.0-1.1");
    QTest::newRow("verify") << QStringList{QStringLiteral("verify"), QStringLiteral("--help")}
                            << QStringLiteral("pellox verify installed/game patches/1.0-1.1");
}

void tst_Cli::helpTeachesWithAnExample()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, example);
    const Outcome outcome = run(arguments);
    QCOMPARE(outcome.status, Done);
    QVERIFY2(outcome.out.contains(QLatin1String("Example")), qPrintable(outcome.out));
    QVERIFY2(outcome.out.contains(example), qPrintable(outcome.out));
    QCOMPARE(outcome.err, QString());
}

void tst_Cli::wrongUsage_data()
{
    QTest::addColumn<QStringList>("arguments");

    QTest::newRow("nothing") << QStringList();
    QTest::newRow("unknown command") << QStringList{QStringLiteral("sing")};
    QTest::newRow("no folders") << QStringList{QStringLiteral("sign")};
    QTest::newRow("one folder too few")
        << QStringList{QStringLiteral("sign"), QStringLiteral("old")};
    QTest::newRow("one folder too many") << QStringList{QStringLiteral("sign"),
        QStringLiteral("old"), QStringLiteral("sigs"), QStringLiteral("new")};
    QTest::newRow("unknown option") << QStringList{QStringLiteral("sign"), QStringLiteral("old"),
        QStringLiteral("sigs"), QStringLiteral("--fast-please")};
    QTest::newRow("option without its value")
        << QStringList{QStringLiteral("diff"), QStringLiteral("new"), QStringLiteral("sigs"),
               QStringLiteral("patch"), QStringLiteral("--ignore")};
}

void tst_Cli::wrongUsage()
{
    QFETCH(QStringList, arguments);
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(arguments);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.out, QString());
    QVERIFY2(outcome.err.startsWith(QLatin1String("pellox: error: ")), qPrintable(outcome.err));
    QVERIFY(outcome.err.contains(QLatin1String("--help")));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_Cli::bringsAnInstalledBuildUpToDate_data()
{
    QTest::addColumn<QStringList>("folders"); // old, new, installed, signatures, patch

    QTest::newRow("relative") << QStringList{QStringLiteral("old"), QStringLiteral("new"),
        QStringLiteral("installed"), QStringLiteral("sigs"), QStringLiteral("patch")};
    QTest::newRow("with separators at their ends")
        << QStringList{QStringLiteral("old/"), QStringLiteral("new//"),
               QStringLiteral("./installed/"), QStringLiteral("sigs/"), QStringLiteral("patch/")};
    QTest::newRow("through dots") << QStringList{QStringLiteral("new/../old"),
        QStringLiteral("./new/."), QStringLiteral("installed"), QStringLiteral("a/b/../../sigs"),
        QStringLiteral("deep/er/patch")};
}

void tst_Cli::bringsAnInstalledBuildUpToDate()
{
    QFETCH(QStringList, folders);
    const QString &signatures = folders.at(3);
    const QString &patch = folders.at(4);
    const QList<QStringList> commands{
        {QStringLiteral("sign"), folders.at(0), signatures},
        {QStringLiteral("diff"), folders.at(1), signatures, patch},
        {QStringLiteral("apply"), folders.at(2), patch},
        {QStringLiteral("verify"), folders.at(2), patch},
    };
    for (const QStringList &command : commands) {
        const Outcome outcome = run(command);
        QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    }
    QCOMPARE(TestTree::snapshot(path("installed")), TestTree::snapshot(path("new")));
}

void tst_Cli::namesAnyFileInThePlainLocale()
{
    m_locale = QStringLiteral("C");
    QVERIFY(publish());
    const QStringList folders{
        QStringLiteral("--quiet"), QStringLiteral("installed"), QStringLiteral("patch")};
    for (const QString &command : {QStringLiteral("apply"), QStringLiteral("verify")}) {
        const Outcome outcome = run(QStringList{command} + folders);
        QCOMPARE(outcome.status, Done);
        QCOMPARE(outcome.err, QString());
    }
    QCOMPARE(TestTree::snapshot(path("installed")), TestTree::snapshot(path("new")));
}

void tst_Cli::emptyBuildsAreBuildsIfAllowed()
{
    m_tree->makeFolder(QStringLiteral("empty"));
    const QList<QStringList> commands{
        {QStringLiteral("sign"), QStringLiteral("empty"), QStringLiteral("sigs")},
        {QStringLiteral("diff"), QStringLiteral("empty"), QStringLiteral("sigs"),
            QStringLiteral("patch")},
    };
    for (const QStringList &command : commands) {
        const Outcome refused = run(command);
        QCOMPARE(refused.status, WrongUsage);
        QCOMPARE(refused.err,
            QStringLiteral("pellox: error: %1: holds no files (hidden ones do not count): is it "
                           "the right folder? --allow-empty takes it all the same\n")
                .arg(path("empty")));
        QVERIFY(!m_tree->exists(command.last()));
        QCOMPARE(run(command + QStringList(QStringLiteral("--allow-empty"))).status, Done);
    }
    QCOMPARE(m_tree->read(QStringLiteral("sigs/signatures.json")).simplified(), QByteArray("[ ]"));
    QCOMPARE(m_tree->read(QStringLiteral("patch/patchRules.json")).simplified(), QByteArray("[ ]"));
}

void tst_Cli::ignoredFilesAreLeftAlone_data()
{
    QTest::addColumn<QString>("argument");

    QTest::newRow("file") << QStringLiteral("levels/new one.map");
    QTest::newRow("file with dots") << QStringLiteral("./data/../levels/new one.map");
    QTest::newRow("folder") << QStringLiteral("levels");
    QTest::newRow("folder with a separator") << QStringLiteral("levels/");
    QTest::newRow("absolute") << QStringLiteral("%1/levels/new one.map");
}

void tst_Cli::ignoredFilesAreLeftAlone()
{
    QFETCH(QString, argument);
    argument.replace(QLatin1String("%1"), path("new"));
    QCOMPARE(
        run({QStringLiteral("sign"), QStringLiteral("old"), QStringLiteral("sigs")}).status, Done);
    const Outcome outcome = run({QStringLiteral("diff"), QStringLiteral("new"),
        QStringLiteral("sigs"), QStringLiteral("patch"), QStringLiteral("--ignore"), argument,
        QStringLiteral("--ignore"), QStringLiteral("game.exe")});
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(TestTree::snapshot(path("patch")).keys(),
        QStringList({QStringLiteral("data/"), QStringLiteral("data/grüße.pak"),
            QStringLiteral("patchRules.json")}));
}

void tst_Cli::ignoringWhatIsNotThereIsNoted()
{
    QVERIFY(publish());
    const Outcome outcome
        = run({QStringLiteral("diff"), QStringLiteral("new"), QStringLiteral("sigs"),
            QStringLiteral("patch"), QStringLiteral("--ignore"), QStringLiteral("nosuch.ini")});
    QCOMPARE(outcome.status, Done);
    QVERIFY2(outcome.err.contains(QStringLiteral("pellox: --ignore: %1/nosuch.ini is not there and "
                                                 "ignores nothing\n")
                                      .arg(path("new"))),
        qPrintable(outcome.err));
}

void tst_Cli::aSecondRunOverwritesFileByFile()
{
    QVERIFY(publish());
    const auto signatures = TestTree::snapshot(path("sigs"));
    const auto patch = TestTree::snapshot(path("patch"));
    QVERIFY(publish());
    QCOMPARE(TestTree::snapshot(path("sigs")), signatures);
    QCOMPARE(TestTree::snapshot(path("patch")), patch);
}

void tst_Cli::refusesBeforeAnythingIsTouched_data()
{
    QTest::addColumn<QString>("command"); // words; "~" stands for the tree's folder in messages
    QTest::addColumn<QString>("message");

    QTest::newRow("sign: no build") << QStringLiteral("sign nosuch sigs")
                                    << QStringLiteral("~/nosuch: there is no such folder");
    QTest::newRow("sign: build is a file") << QStringLiteral("sign old/game.exe sigs")
                                           << QStringLiteral("~/old/game.exe: is not a folder");
    QTest::newRow("sign: signatures inside the build")
        << QStringLiteral("sign old old/a/sigs")
        << QStringLiteral("~/old/a/sigs: lies inside ~/old; the two must lie apart");
    QTest::newRow("sign: signatures inside the build through a link")
        << QStringLiteral("sign old linked/sigs")
        << QStringLiteral("~/linked/sigs: lies inside ~/old; the two must lie apart");
    QTest::newRow("sign: signatures are the build")
        << QStringLiteral("sign old old/") << QStringLiteral("~/old: is the same folder as ~/old");
    QTest::newRow("sign: build inside the signatures") << QStringLiteral(
        "sign old .") << QStringLiteral("~/old: lies inside ~; the two must lie apart");
    QTest::newRow("sign: signatures are a file") << QStringLiteral(
        "sign old new/game.exe") << QStringLiteral("~/new/game.exe: is not a folder");
    QTest::newRow("diff: no build") << QStringLiteral("diff nosuch good patch")
                                    << QStringLiteral("~/nosuch: there is no such folder");
    QTest::newRow("diff: no signatures folder") << QStringLiteral(
        "diff new nosuch patch") << QStringLiteral("~/nosuch: there is no such folder");
    QTest::newRow("diff: no signatures.json")
        << QStringLiteral("diff new old patch")
        << QStringLiteral("~/old: holds no signatures.json; make it from the old build with "
                          "\"pellox sign\"");
    QTest::newRow("diff: swapped")
        << QStringLiteral("diff good new patch")
        << QStringLiteral(
               "~/new: holds no signatures.json; ~/good does: are the two folders swapped?");
    for (const char *command : {"apply", "verify"}) {
        QTest::addRow("%s: swapped", command)
            << QLatin1String(command) + QLatin1String(" rules installed")
            << QStringLiteral(
                   "~/installed: holds no patchRules.json; ~/rules does: are the two folders "
                   "swapped?");
    }
    QTest::newRow("diff: signatures.json is no array") << QStringLiteral(
        "diff new object patch") << QStringLiteral("~/object/signatures.json: is not a JSON array");
    QTest::newRow("diff: signatures.json is cut off")
        << QStringLiteral("diff new cut patch")
        << QStringLiteral("~/cut/signatures.json: is not JSON: unterminated array at byte 1");
    QTest::newRow("diff: signatures.json is a folder") << QStringLiteral(
        "diff new folder patch") << QStringLiteral("~/folder/signatures.json: cannot be read");
    QTest::newRow("diff: patch inside the build")
        << QStringLiteral("diff new good new/patch")
        << QStringLiteral("~/new/patch: lies inside ~/new; the two must lie apart");
    QTest::newRow("diff: patch inside the signatures")
        << QStringLiteral("diff new good good/patch")
        << QStringLiteral("~/good/patch: lies inside ~/good; the two must lie apart");
    QTest::newRow("apply: no build") << QStringLiteral("apply nosuch good")
                                     << QStringLiteral("~/nosuch: there is no such folder");
    QTest::newRow("apply: no patchRules.json") << QStringLiteral(
        "apply installed good") << QStringLiteral("~/good: holds no patchRules.json");
    QTest::newRow("apply: no patch folder") << QStringLiteral("apply installed nosuch")
                                            << QStringLiteral("~/nosuch: there is no such folder");
    QTest::newRow("apply: patchRules.json is no array")
        << QStringLiteral("apply installed object")
        << QStringLiteral("~/object/patchRules.json: is not a JSON array");
    QTest::newRow("apply: patch inside the build") << QStringLiteral(
        "apply . good") << QStringLiteral("~/good: lies inside ~; the two must lie apart");
    QTest::newRow("apply: empty build") << QStringLiteral(
        "apply empty rules") << QStringLiteral("~/empty: is empty: there is no build to patch");
    QTest::newRow("verify: no build") << QStringLiteral("verify nosuch rules")
                                      << QStringLiteral("~/nosuch: there is no such folder");
    QTest::newRow("verify: no patchRules.json") << QStringLiteral(
        "verify installed good") << QStringLiteral("~/good: holds no patchRules.json");
    QTest::newRow("verify: empty build") << QStringLiteral(
        "verify empty rules") << QStringLiteral("~/empty: is empty: there is no build to verify");
}

void tst_Cli::refusesBeforeAnythingIsTouched()
{
    QFETCH(QString, command);
    QFETCH(QString, message);
    m_tree->makeFolder(QStringLiteral("empty"));
    m_tree->link(QStringLiteral("linked"), path("old"));
    m_tree->write(QStringLiteral("good/signatures.json"), "[]");
    m_tree->write(QStringLiteral("rules/patchRules.json"), "[]");
    m_tree->write(QStringLiteral("object/signatures.json"), "{}");
    m_tree->write(QStringLiteral("object/patchRules.json"), "{}");
    m_tree->write(QStringLiteral("cut/signatures.json"), "[");
    m_tree->makeFolder(QStringLiteral("folder/signatures.json"));
    if (command == QLatin1String("apply . good"))
        m_tree->write(QStringLiteral("good/patchRules.json"), "[]");
    const auto before = TestTree::snapshot(m_tree->path());

    const Outcome outcome = run(command.split(QLatin1Char(' ')));
    message.replace(QLatin1Char('~'), m_tree->path());
    QCOMPARE(outcome.err, QLatin1String("pellox: error: ") + message + QLatin1Char('\n'));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.out, QString());
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_Cli::everyErrorNamesItsFileOnce_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("damage");
    QTest::addColumn<QStringList>("messages"); // sorted

    const QString apply = QStringLiteral("apply");
    const QString verify = QStringLiteral("verify");
    const auto damaged = [](const char *file) {
        return QStringLiteral("~/installed/%1: cannot be patched: ~/patch/%1 is damaged (download "
                              "the patch again) or was made for another build")
            .arg(QString::fromUtf8(file));
    };
    QTest::newRow("delta broken") << apply << QStringLiteral("write patch/game.exe")
                                  << QStringList{damaged("game.exe")};
    QTest::newRow("delta broken, name not in ASCII")
        << apply << QStringLiteral("write patch/data/grüße.pak")
        << QStringList{damaged("data/grüße.pak")};
    QTest::newRow("a folder in the place of a new file")
        << apply << QStringLiteral("folder installed/levels/new one.map")
        << QStringList{QStringLiteral("~/installed/levels/new one.map: is a folder, and a file of "
                                      "the patch belongs there")};
    QTest::newRow("a folder in the place of a temporary file")
        << apply << QStringLiteral("folder installed/game.exe.temp")
        << QStringList{QStringLiteral("~/installed/game.exe.temp is a folder and in the way")};
    QTest::newRow("file to delete is a folder")
        << apply << QStringLiteral("folder installed/data/old only.txt")
        << QStringList{QStringLiteral("~/installed/data/old only.txt: cannot be deleted")};
    QTest::newRow("two at once") << apply
                                 << QStringLiteral("write patch/game.exe patch/data/grüße.pak")
                                 << QStringList{damaged("data/grüße.pak"), damaged("game.exe")};
    QTest::newRow("nothing was applied")
        << verify << QString()
        << QStringList{
               QStringLiteral("Can't verify file: ~/installed/data/grüße.pak.temp - not found"),
               QStringLiteral("Can't verify file: ~/installed/game.exe.temp - not found")};
}

void tst_Cli::everyErrorNamesItsFileOnce()
{
    QFETCH(QString, command);
    QFETCH(QString, damage);
    QFETCH(QStringList, messages);
    QVERIFY(publish());
    const QString target = damage.section(QLatin1Char(' '), 1);
    if (damage.startsWith(QLatin1String("write"))) {
        for (const QString &file : target.split(QLatin1Char(' ')))
            m_tree->write(file, "no delta");
    } else if (m_tree->exists(target) && !target.isEmpty()) {
        m_tree->remove(target);
    }
    if (damage.startsWith(QLatin1String("folder")))
        m_tree->makeFolder(target);

    const Outcome outcome = run({command, QStringLiteral("installed"), QStringLiteral("patch")});
    QCOMPARE(outcome.status, Failed);
    QStringList errors = errorLines(outcome.err);
    errors.sort();
    messages.replaceInStrings(QStringLiteral("~"), m_tree->path());
    messages.replaceInStrings(
        QRegularExpression(QStringLiteral("^")), QStringLiteral("pellox: error: "));
    QCOMPARE(errors, messages);
}

void tst_Cli::refusesABuildThatPlayersWouldNotGet_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("reason"); // empty where the file is fine

    const QString sign = QStringLiteral("sign new sigs");
    const QString diff = QStringLiteral("diff new sigs patch");
    const QString asManifest
        = QStringLiteral("has the name of the manifest and would be taken for it");
    const QString lost = QStringLiteral("would be lost when players patch the file without .temp");
    QTest::newRow("sign: manifest") << sign << QStringLiteral("signatures.json") << asManifest;
    QTest::newRow("sign: manifest's name further down")
        << sign << QStringLiteral("data/signatures.json") << QString();
    QTest::newRow("sign: the other manifest")
        << sign << QStringLiteral("patchRules.json") << QString();
    QTest::newRow("diff: manifest") << diff << QStringLiteral("patchRules.json") << asManifest;
    QTest::newRow("diff: manifest, ignored") << diff + QStringLiteral(" --ignore patchRules.json")
                                             << QStringLiteral("patchRules.json") << QString();
    QTest::newRow("sign: temporary") << sign << QStringLiteral("game.exe.temp") << QString();
    QTest::newRow("diff: temporary") << diff << QStringLiteral("game.exe.temp") << lost;
    QTest::newRow("temporary of nothing") << diff << QStringLiteral("data/other.temp") << QString();
}

void tst_Cli::refusesABuildThatPlayersWouldNotGet()
{
    QFETCH(QString, command);
    QFETCH(QString, file);
    QFETCH(QString, reason);
    QVERIFY(publish());
    m_tree->remove(QStringLiteral("patch"));
    m_tree->write(QLatin1String("new/") + file, "a file of the game");
    const Outcome outcome = run(command.split(QLatin1Char(' ')));
    if (reason.isEmpty()) {
        QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
        return;
    }
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(
        outcome.err, QStringLiteral("pellox: error: %1/%2: %3\n").arg(path("new"), file, reason));
    QVERIFY(!m_tree->exists(QStringLiteral("patch")));
}

void tst_Cli::refusesANameOutsideTheLocalesEncoding()
{
    const QByteArray name = QFile::encodeName(path("old/data/")) + "\xff.pak";
    std::ofstream(name.constData()) << "not UTF-8";
    const Outcome outcome
        = run({QStringLiteral("sign"), QStringLiteral("old"), QStringLiteral("sigs")});
    QCOMPARE(std::remove(name.constData()), 0);
    QCOMPARE(outcome.status, WrongUsage);
    QVERIFY2(outcome.err.endsWith(QLatin1String(
                 ".pak: has a name that is not valid in the encoding of the locale\n")),
        qPrintable(outcome.err));
    QVERIFY(!m_tree->exists(QStringLiteral("sigs")));
}

void tst_Cli::refusesALinkToAPipe()
{
    QCOMPARE(::mkfifo(qPrintable(path("pipe")), 0600), 0);
    m_tree->link(QStringLiteral("old/data/link"), path("pipe"));
    const Outcome outcome
        = run({QStringLiteral("sign"), QStringLiteral("old"), QStringLiteral("sigs")});
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: is a link to something that is no file\n")
            .arg(path("old/data/link")));
}

void tst_Cli::refusesAPatchThatLeavesTheBuild()
{
    m_tree->write(QStringLiteral("victim"), "not the game's");
    m_tree->write(QStringLiteral("patch/patchRules.json"),
        "[{\"rule\": \"delete\", \"relative_path\": \"/data/../../victim\"}]");
    const Outcome outcome
        = run({QStringLiteral("apply"), QStringLiteral("installed"), QStringLiteral("patch")});
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral(
            "pellox: error: %1/data/../../victim: is named by the patch and lies outside "
            "the build\n")
            .arg(path("installed")));
    QVERIFY(m_tree->exists(QStringLiteral("victim")));
}

void tst_Cli::applyDoesNotWaitForAPipe()
{
    QVERIFY(publish());
    m_tree->remove(QStringLiteral("patch/levels/new one.map"));
    QCOMPARE(::mkfifo(qPrintable(path("patch/levels/new one.map")), 0600), 0);
    const Outcome outcome
        = run({QStringLiteral("apply"), QStringLiteral("installed"), QStringLiteral("patch")});
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: is not a file; get the whole patch again")
                        .arg(path("patch/levels/new one.map"))));
}

void tst_Cli::verifyFailsWhenAFileCannotBeReplaced()
{
    QVERIFY(publish());
    const QStringList folders{QStringLiteral("installed"), QStringLiteral("patch")};
    QCOMPARE(run(QStringList{QStringLiteral("apply")} + folders).status, Done);
    m_tree->remove(QStringLiteral("installed/game.exe"));
    m_tree->makeFolder(QStringLiteral("installed/game.exe"));
    const Outcome outcome = run(QStringList{QStringLiteral("verify")} + folders);
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: cannot be replaced by its .temp file")
                        .arg(path("installed/game.exe"))));
}

void tst_Cli::signFailsWhenTheDiskIsFull_data()
{
    QTest::addColumn<QString>("limit");   // of a file, in units of 512 bytes
    QTest::addColumn<QString>("message"); // the beginning

    QTest::newRow("no room for the manifest")
        << QStringLiteral("1") << QStringLiteral("%1/sigs/signatures.json: is not JSON");
    QTest::newRow("no room for a signature")
        << QStringLiteral("16")
        << QStringLiteral("%1/old/large.pak: has no whole signature: cannot write "
                          "%1/sigs/large.pak");
}

void tst_Cli::signFailsWhenTheDiskIsFull()
{
    QFETCH(QString, limit);
    QFETCH(QString, message);
    m_tree->write(QStringLiteral("old/large.pak"), QByteArray(1 << 20, 'x'));
    QProcess process;
    // A limit of the size of files stands for the disk.
    startProgram(process, QStringLiteral("sh"),
        {QStringLiteral("-c"),
            QStringLiteral("trap '' XFSZ; ulimit -f %1; exec " PELLOX_PROGRAM " sign old sigs")
                .arg(limit)},
        m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Failed);
    const QStringList errors = errorLines(outcome.err);
    QCOMPARE(errors.size(), 1);
    QVERIFY2(errors.first().startsWith(QLatin1String("pellox: error: ")
                 + message.replace(QLatin1String("%1"), m_tree->path())),
        qPrintable(outcome.err));
}

void tst_Cli::signFailsWhenAFileHasNoSignature()
{
    m_tree->makeFolder(QStringLiteral("sigs/game.exe"));
    const Outcome outcome
        = run({QStringLiteral("sign"), QStringLiteral("old"), QStringLiteral("sigs")});
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(
            QStringLiteral("pellox: error: %1/game.exe: has no whole signature: cannot write "
                           "%2/game.exe")
                .arg(path("old"), path("sigs"))));

    m_tree->makeFolder(QStringLiteral("other/signatures.json"));
    const Outcome other
        = run({QStringLiteral("sign"), QStringLiteral("old"), QStringLiteral("other")});
    QCOMPARE(other.status, Failed);
    QCOMPARE(errorLines(other.err),
        QStringList(QStringLiteral("pellox: error: Can't create signatures file in %1")
                        .arg(path("other"))));
}

void tst_Cli::diffFailsWhenADeltaCannotBeMade()
{
    QCOMPARE(
        run({QStringLiteral("sign"), QStringLiteral("old"), QStringLiteral("sigs")}).status, Done);
    m_tree->remove(QStringLiteral("sigs/data/grüße.pak"));
    const Outcome outcome = run({QStringLiteral("diff"), QStringLiteral("new"),
        QStringLiteral("sigs"), QStringLiteral("patch")});
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(
            {QStringLiteral("pellox: error: %1/data/grüße.pak: the delta cannot be made (is its "
                            "signature there and whole?)")
                    .arg(path("new")),
                QStringLiteral("pellox: error: Failed create patch rules file in folder %1")
                    .arg(path("patch"))}));
    QVERIFY2(outcome.err.contains(QLatin1String("diff: 99 %")), qPrintable(outcome.err));
    QVERIFY(!m_tree->exists(QStringLiteral("patch/patchRules.json")));
}

void tst_Cli::diffTellsADeltaThatCannotBeWritten_data()
{
    QTest::addColumn<int>("cut"); // off the signature
    QTest::addColumn<QString>("reason");

    QTest::newRow("no room") << 0
                             << QStringLiteral(
                                    "its delta %1 cannot be written (is the disk full or "
                                    "write-protected?)");
    QTest::newRow("signature cut off")
        << 1 << QStringLiteral("the delta cannot be made (is its signature there and whole?)");
    QTest::newRow("signature empty")
        << -1 << QStringLiteral("the delta cannot be made (is its signature there and whole?)");
}

void tst_Cli::diffTellsADeltaThatCannotBeWritten()
{
    QFETCH(int, cut);
    QFETCH(QString, reason);
    m_tree->write(QStringLiteral("new/game.exe"), randomBytes(100000, 9));
    QCOMPARE(
        run({QStringLiteral("sign"), QStringLiteral("old"), QStringLiteral("sigs")}).status, Done);
    const QString signature = QStringLiteral("sigs/game.exe");
    const QByteArray whole = m_tree->read(signature);
    m_tree->write(signature, cut < 0 ? QByteArray() : whole.chopped(cut));
    QProcess process;
    // A limit of the size of files stands for the disk.
    startProgram(process, QStringLiteral("sh"),
        {QStringLiteral("-c"),
            QStringLiteral(
                "trap '' XFSZ; ulimit -f 16; exec " PELLOX_PROGRAM " diff new sigs patch")},
        m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Failed);
    const QString delta = path("patch/game.exe");
    if (reason.contains(QLatin1String("%1")))
        reason = reason.arg(delta);
    QCOMPARE(errorLines(outcome.err).value(0),
        QStringLiteral("pellox: error: %1: %2").arg(path("new/game.exe"), reason));
}

void tst_Cli::summariesGoToStandardOutput()
{
    const Outcome sign
        = run({QStringLiteral("sign"), QStringLiteral("old"), QStringLiteral("sigs")});
    QCOMPARE(sign.out, QStringLiteral("Signed 4 files (14.7 KiB): %1\n").arg(path("sigs")));
    const Outcome diff = run({QStringLiteral("diff"), QStringLiteral("new"), QStringLiteral("sigs"),
        QStringLiteral("patch")});
    const qint64 deltas
        = QFileInfo(path("patch/game.exe")).size() + QFileInfo(path("patch/data/grüße.pak")).size();
    QVERIFY(deltas < 10000);
    QCOMPARE(diff.out,
        QStringLiteral("2 files to patch (%1 of deltas), 1 file to copy (3 bytes), 1 file to "
                       "delete: %2\n")
            .arg(QLocale::c().formattedDataSize(deltas, 1), path("patch")));
    const Outcome apply
        = run({QStringLiteral("apply"), QStringLiteral("installed"), QStringLiteral("patch")});
    QCOMPARE(apply.out,
        QStringLiteral("Applied 4 rules (9.8 KiB). To check and put the patched files in place: "
                       "pellox verify\n"));
    const Outcome verify
        = run({QStringLiteral("verify"), QStringLiteral("installed"), QStringLiteral("patch")});
    QCOMPARE(verify.out,
        QStringLiteral("Verified 2 files and put them in place: %1\n").arg(path("installed")));
}

void tst_Cli::quietSaysNothing()
{
    const Outcome quiet = run({QStringLiteral("sign"), QStringLiteral("old"),
        QStringLiteral("sigs"), QStringLiteral("--quiet")});
    QCOMPARE(quiet.status, Done);
    QCOMPARE(quiet.out, QString());
    QCOMPARE(quiet.err, QString());

    m_tree->write(QStringLiteral("sigs/patchRules.json"), "[]");
    const Outcome failing = run({QStringLiteral("verify"), QStringLiteral("-q"),
        QStringLiteral("nosuch"), QStringLiteral("sigs")});
    QCOMPARE(failing.status, WrongUsage);
    QCOMPARE(errorLines(failing.err).size(), 1);
}

void tst_Cli::jsonIsOneObjectALine()
{
    const QList<QStringList> commands{
        {QStringLiteral("sign"), QStringLiteral("old"), QStringLiteral("sigs")},
        {QStringLiteral("diff"), QStringLiteral("new"), QStringLiteral("sigs"),
            QStringLiteral("patch")},
        {QStringLiteral("apply"), QStringLiteral("installed"), QStringLiteral("patch")},
        {QStringLiteral("verify"), QStringLiteral("installed"), QStringLiteral("patch")},
    };
    for (const QStringList &command : commands) {
        const Outcome outcome = run(command + QStringList(QStringLiteral("--json")));
        QCOMPARE(outcome.status, Done);
        QCOMPARE(outcome.err, QString());
        QList<QJsonObject> objects = jsonLines(outcome.out);
        const QJsonObject last = objects.takeLast();
        QCOMPARE(member(last, "event"), QStringLiteral("finished"));
        QCOMPARE(member(last, "outcome"), QStringLiteral("done"));
        QVERIFY(objects.size() >= 2);
        double done = -1;
        for (const QJsonObject &object : objects) {
            QCOMPARE(member(object, "event"), QStringLiteral("progress"));
            QVERIFY(object.value(QLatin1String("done")).toDouble(-1) > done);
            done = object.value(QLatin1String("done")).toDouble();
        }
        QVERIFY(done > 0);
        QCOMPARE(objects.last().value(QLatin1String("total")).toDouble(), done);
    }
}

void tst_Cli::jsonTellsErrorsAndFailure()
{
    QVERIFY(publish());
    m_tree->makeFolder(QStringLiteral("installed/levels/new one.map"));
    const Outcome outcome = run({QStringLiteral("apply"), QStringLiteral("--json"),
        QStringLiteral("installed"), QStringLiteral("patch")});
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err).size(), 1);
    const QList<QJsonObject> objects = jsonLines(outcome.out);
    QCOMPARE(member(objects.last(), "outcome"), QStringLiteral("failed"));
    const auto error = std::find_if(objects.begin(), objects.end(), [](const QJsonObject &object) {
        return member(object, "event") == QLatin1String("error");
    });
    QVERIFY(error != objects.end());
    QCOMPARE(member(*error, "file"), path("installed/levels/new one.map"));
    QCOMPARE(member(*error, "error"),
        QStringLiteral("is a folder, and a file of the patch belongs there"));
}

void tst_Cli::jsonTellsRefusal()
{
    const Outcome outcome = run({QStringLiteral("apply"), QStringLiteral("--json"),
        QStringLiteral("nosuch"), QStringLiteral("patch")});
    QCOMPARE(outcome.status, WrongUsage);
    const QList<QJsonObject> objects = jsonLines(outcome.out);
    QCOMPARE(objects.size(), 2);
    QCOMPARE(member(objects.first(), "event"), QStringLiteral("error"));
    QCOMPARE(member(objects.first(), "file"), path("nosuch"));
    QCOMPARE(member(objects.last(), "outcome"), QStringLiteral("refused"));
}

void tst_Cli::pipesSeeNoTerminalCodes()
{
    const Outcome outcome
        = run({QStringLiteral("sign"), QStringLiteral("old"), QStringLiteral("sigs")});
    QVERIFY(!outcome.err.contains(QLatin1Char('\r')));
    QVERIFY(!outcome.err.contains(QLatin1Char('\x1b')));
    QVERIFY2(outcome.err.startsWith(QLatin1String("sign: 100 %  ~14.7 KiB of 14.7 KiB")),
        qPrintable(outcome.err));
}

void tst_Cli::terminalsSeeABar()
{
    QProcess process;
    startProgram(process, QStringLiteral("script"),
        {QStringLiteral("-qec"), QStringLiteral(PELLOX_PROGRAM " sign old sigs"),
            QStringLiteral("/dev/null")},
        m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Done);
    QVERIFY2(outcome.out.contains(QLatin1String("\r\x1b[K  0 % [ ")), qPrintable(outcome.out));
    QVERIFY2(outcome.out.contains(QLatin1String("\r\x1b[K100 % [=")), qPrintable(outcome.out));
    QVERIFY2(
        outcome.out.contains(QLatin1String("=] ~14.7 KiB of 14.7 KiB")), qPrintable(outcome.out));
}

void tst_Cli::verboseShowsTheLibrarysLog()
{
    QVERIFY(publish());
    const Outcome outcome = run({QStringLiteral("apply"), QStringLiteral("--verbose"),
        QStringLiteral("installed"), QStringLiteral("patch")});
    QCOMPARE(outcome.status, Done);
    const QString line
        = QStringLiteral("BinariesController info: File  \"%1\"  exists. Remove it!\n");
    QVERIFY2(outcome.err.contains(line.arg(path("installed/data/old only.txt"))),
        qPrintable(outcome.err));
}

void tst_Cli::nothingButErrorsIsSaidOfABrokenSignature()
{
    QVERIFY(publish());
    m_tree->write(QStringLiteral("sigs/game.exe"), "no signature");
    const QStringList command{QStringLiteral("diff"), QStringLiteral("new"), QStringLiteral("sigs"),
        QStringLiteral("patch"), QStringLiteral("--quiet")};
    const Outcome outcome = run(command);
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err).size(), 2);
    QCOMPARE(outcome.err.count(QLatin1Char('\n')), 2);

    const Outcome verbose = run(command + QStringList(QStringLiteral("--verbose")));
    QVERIFY(verbose.err.contains(QLatin1String("BinariesController debug: level:  3  msg:  ")));
    QVERIFY(verbose.err.contains(
        QLatin1String("PatchHelper debug: ERROR: Rsync can't load signature file ")));
}

void tst_Cli::interruptEndsAtOnce_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("signal");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("lastWords");

    const QStringList json{QStringLiteral("--json")};
    const QString interrupted
        = QStringLiteral("{\"event\":\"finished\",\"outcome\":\"interrupted\"}\n");
    QTest::newRow("Ctrl-C") << QStringList() << SIGINT << Interrupted << QString();
    QTest::newRow("Ctrl-C, json") << json << SIGINT << Interrupted << interrupted;
    QTest::newRow("terminated") << QStringList() << SIGTERM << 143 << QString();
    QTest::newRow("terminated, json") << json << SIGTERM << 143 << interrupted;
    QTest::newRow("terminal closed") << QStringList() << SIGHUP << 129 << QString();
}

void tst_Cli::interruptEndsAtOnce()
{
    QFETCH(QStringList, options);
    QFETCH(int, signal);
    QFETCH(int, status);
    QFETCH(QString, lastWords);
    // Large enough to be under way for many seconds when the signal comes, small on the disk.
    m_tree->write(QStringLiteral("large/file"), QByteArray());
    QVERIFY(QFile::resize(path("large/file"), qint64(64) << 30));

    QProcess process;
    startProgram(process, QStringLiteral(PELLOX_PROGRAM),
        QStringList{QStringLiteral("sign"), QStringLiteral("large"), QStringLiteral("sigs")}
            + options,
        m_tree->path());
    QTRY_VERIFY_WITH_TIMEOUT(m_tree->exists(QStringLiteral("sigs/file")), Patience);
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), signal), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, status);
    QVERIFY2(outcome.out.endsWith(lastWords), qPrintable(outcome.out));
    QVERIFY2(outcome.err.endsWith(QLatin1String("pellox: interrupted\n")), qPrintable(outcome.err));
    QVERIFY(!m_tree->exists(QStringLiteral("sigs/signatures.json")));
}

QTEST_GUILESS_MAIN(tst_Cli)
#include "tst_cli.moc"
