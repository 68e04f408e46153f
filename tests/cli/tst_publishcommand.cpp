// SPDX-License-Identifier: MIT
#include "patience.h"
#include "program.h"
#include "testtree.h"

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QTest>

#include <csignal>
#include <memory>
#include <tuple>

#include <sys/types.h>

namespace {

/// The files of @p folder without its folders, which are nothing to a build.
QMap<QString, QByteArray> filesIn(const QString &folder)
{
    QMap<QString, QByteArray> files = TestTree::snapshot(folder);
    for (const QString &name : files.keys()) {
        if (name.endsWith(QLatin1Char('/')))
            files.remove(name);
    }
    return files;
}

QStringList namesIn(const QString &folder)
{
    QStringList names;
    QDirIterator walk(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (walk.hasNext())
        names.append(walk.next());
    names.sort();
    return names;
}

QStringList linesOf(const QString &text)
{
    return text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

/// "pellox publish", and what "sign", "diff" and it have in common: --fast and --ignore.
class tst_PublishCommand : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void releaseFollowsRelease_data();
    void releaseFollowsRelease();
    void writesWhatSignAndDiffWrite();
    void oldBuildMakesSmallerDeltas_data();
    void oldBuildMakesSmallerDeltas();
    void oldBuildMustBeWhatWasSigned();
    void fastSignAndDiffWriteTheSame_data();
    void fastSignAndDiffWriteTheSame();
    void replacesAnEarlierReleaseAsAWhole();
    void goesOnWhereARunWasKilled();
    void dryRunTellsAndWritesNothing_data();
    void dryRunTellsAndWritesNothing();
    void leavesNoTemporarySignatures();
    void packsThePatch();
    void packsAgainByForce();
    void anEmptyBuildIsTakenIfAllowed();
    void takesTheBuildBehindWhatIsIgnored();
    void notesThatAnEarlierReleaseIsReplaced();
    void diffNotesStrayFiles();
    void namesThatPlayersCannotHaveAreNoted_data();
    void namesThatPlayersCannotHaveAreNoted();
    void helpTeachesWithAnExample();

    void ignores_data();
    void ignores();
    void ignoresByAbsoluteGlob();
    void notesWhatIgnoresNothing_data();
    void notesWhatIgnoresNothing();
    void ignoredFilesAreSigned();

    void wrongUsage_data();
    void wrongUsage();
    void refusesBeforeAnythingIsTouched_data();
    void refusesBeforeAnythingIsTouched();
    void refusesWhatPackWouldRefuse_data();
    void refusesWhatPackWouldRefuse();
    void fastRefusesForeignFolders_data();
    void fastRefusesForeignFolders();
    void failsAndNamesTheFile_data();
    void failsAndNamesTheFile();
    void aPackThatFailsLeavesTheRelease();
    void failsWhenTheDiskIsFull();

    void movedFilesAreNamed();
    void filesOfWhichMuchIsOldAreNamed();
    void movedFilesAreNamedInJson();
    void summariesGoToStandardOutput();
    void quietSaysNothing();
    void jsonIsOneObjectALine_data();
    void jsonIsOneObjectALine();
    void jsonTellsThePlan();
    void jsonTellsErrors();
    void interruptLeavesNothing_data();
    void interruptLeavesNothing();
    void interruptBringsNoManifestBack();

private:
    Outcome run(const QString &words) const;
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }
    QMap<QString, QByteArray> content(const char *folder) const { return filesIn(path(folder)); }

    void makeMoved() const;

    std::unique_ptr<TestTree> m_tree;
};

/// Of three files that moved and one that is doubled, one is empty.
void tst_PublishCommand::makeMoved() const
{
    for (const auto &[oldName, newName, size] :
        {std::tuple("a", "moved/a", 3000), {"b", "moved/b", 5000}, {"c", "moved/c", 0}}) {
        const QByteArray content = randomBytes(size, uint(size));
        m_tree->write(QLatin1String("old/") + QLatin1String(oldName), content);
        m_tree->write(QLatin1String("new/") + QLatin1String(newName), content);
    }
    m_tree->write(QStringLiteral("new/again"), randomBytes(10000, 1)); // as the old game.exe
}

void tst_PublishCommand::init()
{
    m_tree = std::make_unique<TestTree>();
    for (const char *build : {"old", "installed"}) {
        const QString folder = QLatin1String(build);
        m_tree->write(folder + QLatin1String("/game.exe"), randomBytes(10000, 1));
        m_tree->write(folder + QLatin1String("/data/old.txt"), "goes away");
        m_tree->write(folder + QLatin1String("/data/same.txt"), "stays");
        m_tree->write(folder + QStringLiteral("/data/grüße.pak"), randomBytes(5000, 2));
    }
    m_tree->write(QStringLiteral("new/game.exe"), randomBytes(10000, 1) + "more");
    m_tree->write(QStringLiteral("new/data/same.txt"), "stays");
    m_tree->write(QStringLiteral("new/data/grüße.pak"), "other");
    m_tree->write(QStringLiteral("new/levels/one.map"), "new");
    m_tree->write(QStringLiteral("newer/game.exe"), "quite " + randomBytes(10000, 1));
    m_tree->write(QStringLiteral("newer/levels/one.map"), "new");
    m_tree->write(QStringLiteral("newer/levels/two.map"), randomBytes(300000, 3));
}

Outcome tst_PublishCommand::run(const QString &words) const
{
    return runPellox(words.split(QLatin1Char(' ')), m_tree->path());
}

const QString PublishNew
    = QStringLiteral("publish new --old-signatures sigs --patch patch --signatures sigs-new");
const QString PublishFirst
    = QStringLiteral("publish new --old-build old --patch patch --signatures sigs-new");

void tst_PublishCommand::releaseFollowsRelease_data()
{
    QTest::addColumn<QString>("options");

    QTest::newRow("all cores") << QString();
    QTest::newRow("one thread") << QStringLiteral(" --threads 1");
    QTest::newRow("many threads") << QStringLiteral(" --threads 9");
}

void tst_PublishCommand::releaseFollowsRelease()
{
    QFETCH(QString, options);
    const QStringList commands{
        PublishFirst + options,
        QStringLiteral("apply installed patch"),
        QStringLiteral("verify installed patch"),
        QStringLiteral("publish newer --old-signatures sigs-new/ --patch ./b/patch/ --signatures "
                       "b/../b/sigs")
            + options,
        QStringLiteral("apply installed b/patch"),
        QStringLiteral("verify installed b/patch"),
    };
    for (const QString &command : commands) {
        const Outcome outcome = run(command);
        QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
        if (command.startsWith(QLatin1String("verify"))
            && command.endsWith(QLatin1String(" patch")))
            QCOMPARE(content("installed"), content("new"));
    }
    QCOMPARE(content("installed"), content("newer"));
    QVERIFY(m_tree->exists(QStringLiteral("b/sigs/levels/two.map")));
}

void tst_PublishCommand::writesWhatSignAndDiffWrite()
{
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    QCOMPARE(run(QStringLiteral("sign new expected-sigs")).status, Done);
    QCOMPARE(run(QStringLiteral("diff new sigs expected-patch")).status, Done);
    const Outcome outcome = run(PublishNew);
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(content("sigs-new"), content("expected-sigs"));
    QCOMPARE(content("patch"), content("expected-patch"));
}

void tst_PublishCommand::oldBuildMakesSmallerDeltas_data()
{
    QTest::addColumn<QString>("options");

    QTest::newRow("alone") << QStringLiteral("publish new --patch patch --signatures sigs-new");
    QTest::newRow("with signatures") << PublishNew;
    QTest::newRow("fastest") << PublishNew + QStringLiteral(" --effort fastest");
    QTest::newRow("smallest") << PublishNew + QStringLiteral(" --effort smallest");
    QTest::newRow("little memory") << PublishNew + QStringLiteral(" --memory 1M");
    QTest::newRow("not verified") << PublishNew + QStringLiteral(" --no-verify");
    QTest::newRow("diff") << QStringLiteral("diff new sigs patch --fast");
}

void tst_PublishCommand::oldBuildMakesSmallerDeltas()
{
    QFETCH(QString, options);
    QByteArray world = randomBytes(20000, 1);
    m_tree->write(QStringLiteral("old/world.pak"), world);
    for (int i = 500; i < world.size(); i += 1000) // one in each block
        world[i] = static_cast<char>(~world[i]);
    m_tree->write(QStringLiteral("new/world.pak"), world);
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    QCOMPARE(run(QStringLiteral("diff new sigs larger")).status, Done);
    const Outcome outcome = run(options + QStringLiteral(" --old-build old"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(m_tree->read(QStringLiteral("patch/patchRules.json")),
        m_tree->read(QStringLiteral("larger/patchRules.json")));
    const auto size = [this](const char *delta) { return QFileInfo(path(delta)).size(); };
    QVERIFY(size("patch/world.pak") < 400);
    QVERIFY(size("larger/world.pak") > 10000);
    QCOMPARE(run(QStringLiteral("apply old patch")).status, Done);
    QCOMPARE(run(QStringLiteral("verify old patch")).status, Done);
    QCOMPARE(content("old"), content("new"));
}

void tst_PublishCommand::oldBuildMustBeWhatWasSigned()
{
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    m_tree->write(QStringLiteral("old/game.exe"), "another game");
    const Outcome outcome = run(PublishNew + QStringLiteral(" --old-build old"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: ") + path("old/game.exe")
            + QStringLiteral(": is not the file that the signatures describe")));
    QVERIFY(!m_tree->exists(QStringLiteral("patch/patchRules.json")));
    QVERIFY(!m_tree->exists(QStringLiteral("sigs-new/signatures.json")));
}

void tst_PublishCommand::fastSignAndDiffWriteTheSame_data()
{
    QTest::addColumn<QString>("options");

    QTest::newRow("all cores") << QStringLiteral(" --fast");
    QTest::newRow("three threads") << QStringLiteral(" --fast --threads 3");
}

void tst_PublishCommand::fastSignAndDiffWriteTheSame()
{
    QFETCH(QString, options);
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    QCOMPARE(run(QStringLiteral("diff new sigs patch --ignore levels")).status, Done);
    const Outcome sign = run(QStringLiteral("sign old fast-sigs") + options);
    QVERIFY2(sign.status == Done, qPrintable(sign.err));
    QCOMPARE(sign.out, QStringLiteral("Signed 4 files (14.7 KiB): %1\n").arg(path("fast-sigs")));
    const Outcome diff
        = run(QStringLiteral("diff new fast-sigs fast-patch --ignore levels") + options);
    QVERIFY2(diff.status == Done, qPrintable(diff.err));
    QVERIFY2(diff.out.startsWith(QLatin1String("2 files to patch (")), qPrintable(diff.out));
    QCOMPARE(content("fast-sigs"), content("sigs"));
    QCOMPARE(content("fast-patch"), content("patch"));
}

void tst_PublishCommand::replacesAnEarlierReleaseAsAWhole()
{
    QCOMPARE(run(PublishFirst).status, Done);
    const auto patch = content("patch");
    const auto signatures = content("sigs-new");
    QCOMPARE(
        run(QStringLiteral("publish newer --old-build new --patch patch --signatures sigs-new"))
            .status,
        Done);
    QVERIFY(content("patch") != patch);
    QCOMPARE(run(PublishFirst).status, Done);
    QCOMPARE(content("patch"), patch);
    QCOMPARE(content("sigs-new"), signatures);
}

void tst_PublishCommand::goesOnWhereARunWasKilled()
{
    QCOMPARE(run(PublishFirst).status, Done);
    const auto patch = content("patch");
    m_tree->remove(QStringLiteral("patch/patchRules.json"));
    QByteArray marker = "|patchRules.json|/half a file|";
    for (auto file = patch.cbegin(); file != patch.cend(); ++file)
        marker += '/' + QFile::encodeName(file.key()) + '|';
    marker += '|';
    m_tree->write(QStringLiteral("patch/.pellox-incomplete"), marker.replace('|', '\0'));
    m_tree->write(QStringLiteral("patch/half a file"), "of another release");
    const Outcome outcome = run(PublishFirst);
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(content("patch"), patch);
}

void tst_PublishCommand::dryRunTellsAndWritesNothing_data()
{
    QTest::addColumn<QString>("command");

    QTest::newRow("from signatures") << PublishNew;
    QTest::newRow("from a build") << PublishFirst;
}

void tst_PublishCommand::dryRunTellsAndWritesNothing()
{
    QFETCH(QString, command);
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    m_tree->write(QStringLiteral("new/.hidden"), "no part of the build");
    m_tree->write(QStringLiteral("new/.folder/file"), "no part either");
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome
        = run(command + QStringLiteral(" --dry-run --ignore data/s* --pack up/a"));
    QCOMPARE(outcome.status, Done);
    QStringList lines = linesOf(outcome.out);
    QCOMPARE(lines.takeLast(),
        QStringLiteral("2 files to patch (9.8 KiB), 1 file to copy (3 bytes), 1 file to delete, 1 "
                       "file ignored (5 bytes), 2 hidden files left out; 4 files to sign (9.8 "
                       "KiB). Nothing was written."));
    QCOMPARE(lines,
        QStringList({QStringLiteral("patch     5 bytes  data/grüße.pak"),
            QStringLiteral("delete             data/old.txt"),
            QStringLiteral("ignore    5 bytes  data/same.txt"),
            QStringLiteral("patch     9.8 KiB  game.exe"),
            QStringLiteral("copy      3 bytes  levels/one.map")}));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_PublishCommand::leavesNoTemporarySignatures()
{
    m_tree->makeFolder(QStringLiteral("temporary"));
    qputenv("TMPDIR", QFile::encodeName(path("temporary")));
    const Outcome plan = run(PublishFirst + QStringLiteral(" --dry-run"));
    const Outcome release = run(PublishFirst);
    qunsetenv("TMPDIR");
    QCOMPARE(plan.status, Done);
    QCOMPARE(release.status, Done);
    QCOMPARE(TestTree::snapshot(path("temporary")).size(), 0);
}

void tst_PublishCommand::packsThePatch()
{
    const Outcome outcome = run(PublishFirst + QStringLiteral(" --pack upload/a.7z"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    const QString last = linesOf(outcome.out).last();
    QVERIFY2(last.startsWith(QLatin1String("Packed 4 files (")), qPrintable(last));
    QVERIFY2(last.endsWith(QLatin1String("): ") + path("upload/a.7z.001")), qPrintable(last));
    QCOMPARE(content("upload").keys(), QStringList(QStringLiteral("a.7z.001")));
    QCOMPARE(run(QStringLiteral("unpack upload/a.7z got")).status, Done);
    QCOMPARE(content("got"), content("patch"));
}

void tst_PublishCommand::packsAgainByForce()
{
    const QString command = PublishFirst + QStringLiteral(" --pack up/a.7z");
    QCOMPARE(run(command).status, Done);
    m_tree->write(QStringLiteral("new/levels/one.map"), "newest");
    QCOMPARE(run(command).status, WrongUsage);
    const Outcome outcome = run(command + QStringLiteral(" --force"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(run(QStringLiteral("unpack up/a.7z got")).status, Done);
    QCOMPARE(content("got").value(QStringLiteral("levels/one.map")), QByteArray("newest"));
    QCOMPARE(content("got"), content("patch"));
}

void tst_PublishCommand::anEmptyBuildIsTakenIfAllowed()
{
    m_tree->makeFolder(QStringLiteral("empty"));
    const Outcome outcome = run(QStringLiteral(
        "publish empty --old-build old --patch patch --signatures sigs-new --allow-empty"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QVERIFY2(outcome.out.contains(QLatin1String("4 files to delete")), qPrintable(outcome.out));
    QCOMPARE(content("sigs-new").keys(), QStringList(QStringLiteral("signatures.json")));
}

void tst_PublishCommand::takesTheBuildBehindWhatIsIgnored()
{
    const Outcome outcome = run(QStringLiteral("publish --ignore levels --ignore game.exe new "
                                               "--old-build old --patch patch --signatures sigs"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(content("patch").keys(),
        QStringList({QStringLiteral("data/grüße.pak"), QStringLiteral("patchRules.json")}));
}

void tst_PublishCommand::notesThatAnEarlierReleaseIsReplaced()
{
    const QString note = QStringLiteral("replaces the earlier release");
    const Outcome first = run(PublishFirst);
    QCOMPARE(linesOf(first.err).filter(note), QStringList());
    const QString line = QStringLiteral("pellox: replaces the earlier release in ");
    for (const char *option : {"", " --dry-run"}) {
        const Outcome again = run(PublishFirst + QLatin1String(option));
        QCOMPARE(again.status, Done);
        QCOMPARE(linesOf(again.err).filter(note),
            QStringList({line + path("patch"), line + path("sigs-new")}));
    }
}

void tst_PublishCommand::diffNotesStrayFiles()
{
    const QString note = QStringLiteral("of something else");
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    const QString diff = QStringLiteral("diff new sigs patch");
    QCOMPARE(linesOf(run(diff).err).filter(note), QStringList());
    QCOMPARE(linesOf(run(diff).err).filter(note), QStringList());
    m_tree->write(QStringLiteral("patch/levels/old.map"), "of an earlier patch");
    QCOMPARE(linesOf(run(diff).err).filter(note),
        QStringList(QStringLiteral("pellox: %1: holds 1 file of something else than this patch: "
                                   "use a new folder or --fast")
                        .arg(path("patch"))));
    QCOMPARE(linesOf(run(diff + QStringLiteral(" --fast")).err).filter(note), QStringList());
}

void tst_PublishCommand::namesThatPlayersCannotHaveAreNoted_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("note"); // the beginning; empty where the name is fine

    const QString refused
        = QStringLiteral("pellox: 1 file with a name that \"pellox update\" refuses");
    for (const char *name :
        {"x:y", "a\\b", "levels/con.txt", "AUX/one.map", "com1", "one.", "levels /one", "blank "})
        QTest::newRow(name) << QString::fromLatin1(name) << refused;
    const QString alike = QStringLiteral("pellox: 1 file with a name that differs in case alone");
    QTest::newRow("file in another case") << QStringLiteral("Game.EXE") << alike;
    QTest::newRow("folder in another case") << QStringLiteral("Levels/two.map") << alike;
    QTest::newRow("folder's name in another case") << QStringLiteral("LEVELS") << alike;
    QTest::newRow("umlaut in another case") << QStringLiteral("data/GRÜSSE.pak") << QString();
    for (const char *name : {"console", "levels/icon.txt", ".. x", "com10", "one.map/con1", "nul_"})
        QTest::newRow(name) << QString::fromLatin1(name) << QString();
}

void tst_PublishCommand::namesThatPlayersCannotHaveAreNoted()
{
    QFETCH(QString, file);
    QFETCH(QString, note);
    m_tree->write(QLatin1String("new/") + file, "odd");
    const QString common = QStringLiteral(" with a name that ");
    for (const QString &command : {PublishFirst, QStringLiteral("sign new s")}) {
        const Outcome outcome = run(command);
        QCOMPARE(outcome.status, Done);
        const QStringList notes = linesOf(outcome.err).filter(common);
        QCOMPARE(notes.size(), note.isEmpty() ? 0 : 1);
        QVERIFY2(notes.value(0).startsWith(note), qPrintable(outcome.err));
        if (!note.isEmpty())
            QVERIFY2(
                notes.first().contains(file.section(QLatin1Char('/'), 0, 0), Qt::CaseInsensitive),
                qPrintable(outcome.err));
    }
}

void tst_PublishCommand::helpTeachesWithAnExample()
{
    const Outcome outcome = run(QStringLiteral("publish --help"));
    QCOMPARE(outcome.status, Done);
    QVERIFY2(outcome.out.contains(QLatin1String(
                 "pellox publish releases/1.1 --old-signatures signatures/1.0 --patch "
                 "patches/1.0-1.1 --signatures signatures/1.1")),
        qPrintable(outcome.out));
    for (const char *hint : {"One of --old-signatures and --old-build is needed",
             "Hidden files are no part", "--strict-ignore", "--allow-empty"})
        QVERIFY2(outcome.out.contains(QLatin1String(hint)), hint);
}

void tst_PublishCommand::ignores_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("list");
    QTest::addColumn<QStringList>("published"); // the patch's files but the two changed ones

    const QString ignore = QStringLiteral("--ignore");
    const QStringList from{QStringLiteral("--ignore-from"), QStringLiteral("list")};
    const QString map = QStringLiteral("levels/one.map");
    const QString symbols = QStringLiteral("levels/one.pdb");
    const QString top = QStringLiteral("top.pdb");
    const QString star = QStringLiteral("*.pdb");
    const QString slashed = QStringLiteral("odd[1].txt");

    QTest::newRow("nothing") << QStringList() << QByteArray()
                             << QStringList{star, map, symbols, slashed, top};
    QTest::newRow("file") << QStringList{ignore, map} << QByteArray()
                          << QStringList{star, symbols, slashed, top};
    QTest::newRow("folder") << QStringList{ignore, QStringLiteral("levels/")} << QByteArray()
                            << QStringList{star, slashed, top};
    QTest::newRow("everything") << QStringList{ignore, QStringLiteral(".")} << QByteArray()
                                << QStringList();
    QTest::newRow("glob at the top") << QStringList{ignore, QStringLiteral("?op.*")} << QByteArray()
                                     << QStringList{star, map, symbols, slashed};
    QTest::newRow("glob in any folder") << QStringList{ignore, QStringLiteral("**/*.pdb")}
                                        << QByteArray() << QStringList{map, slashed};
    QTest::newRow("glob with dots") << QStringList{ignore, QStringLiteral("./data/../lev*/*.m[a]p")}
                                    << QByteArray() << QStringList{star, symbols, slashed, top};
    QTest::newRow("glob of folders") << QStringList{ignore, QStringLiteral("lev*/")} << QByteArray()
                                     << QStringList{star, slashed, top};
    QTest::newRow("name of a file with a star")
        << QStringList{ignore, star} << QByteArray() << QStringList{map, symbols, slashed, top};
    QTest::newRow("name of a file with brackets")
        << QStringList{ignore, slashed} << QByteArray() << QStringList{star, map, symbols, top};
    QTest::newRow("list") << from << QByteArray("# symbols\n\n*.pdb\n!/top.pdb\n")
                          << QStringList{map, slashed, top};
    QTest::newRow("list and options") << from + QStringList{ignore, top, ignore, map}
                                      << QByteArray("*.pdb\n!/top.pdb\n") << QStringList{slashed};
}

void tst_PublishCommand::ignores()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, list);
    QFETCH(QStringList, published);
    m_tree->write(QStringLiteral("new/levels/one.pdb"), "symbols");
    m_tree->write(QStringLiteral("new/top.pdb"), "symbols");
    m_tree->write(QStringLiteral("new/*.pdb"), "odd");
    m_tree->write(QStringLiteral("new/odd[1].txt"), "odd");
    m_tree->write(QStringLiteral("list"), list);
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    const bool isEverything = options.contains(QStringLiteral("."));
    published.append(QStringLiteral("patchRules.json"));
    if (!isEverything)
        published += {QStringLiteral("game.exe"), QStringLiteral("data/grüße.pak")};
    published.sort();

    const QString fast = QStringLiteral("diff new sigs fast-patch --fast");
    const QString diff = QStringLiteral("diff new sigs diff-patch");
    for (const QString &command : {PublishNew, fast, diff}) {
        const Outcome outcome
            = runPellox(command.split(QLatin1Char(' ')) + options, m_tree->path());
        QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
        QVERIFY2(!outcome.err.contains(QLatin1String("ignores nothing")), qPrintable(outcome.err));
    }
    QCOMPARE(content("patch").keys(), published);
    QCOMPARE(content("fast-patch"), content("patch"));
    QCOMPARE(content("diff-patch"), content("patch"));
}

void tst_PublishCommand::ignoresByAbsoluteGlob()
{
    const Outcome outcome
        = run(PublishFirst + QStringLiteral(" --ignore %1/**/*.map").arg(path("new")));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(content("patch").keys(),
        QStringList({QStringLiteral("data/grüße.pak"), QStringLiteral("game.exe"),
            QStringLiteral("patchRules.json")}));
}

void tst_PublishCommand::notesWhatIgnoresNothing_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QString>("note"); // "~" is the tree's folder

    QTest::newRow("nothing there")
        << QStringLiteral("--ignore nosuch.ini")
        << QStringLiteral("--ignore: ~/new/nosuch.ini is not there and ignores nothing");
    QTest::newRow("no file in it") << QStringLiteral("--ignore empty")
                                   << QStringLiteral("--ignore: ~/new/empty ignores nothing");
    QTest::newRow("hidden") << QStringLiteral("--ignore .hidden")
                            << QStringLiteral("--ignore: ~/new/.hidden ignores nothing");
    QTest::newRow("glob") << QStringLiteral("--ignore *.tmp")
                          << QStringLiteral("--ignore: ~/new/*.tmp ignores nothing");
    QTest::newRow("outside of the build") << QStringLiteral(
        "--ignore ../old/game.exe") << QStringLiteral("--ignore: ~/old/game.exe ignores nothing");
    QTest::newRow("glob outside of the build") << QStringLiteral(
        "--ignore ../*/game.exe") << QStringLiteral("--ignore: ~/*/game.exe ignores nothing");
    QTest::newRow("build's name in front")
        << QStringLiteral("--ignore new/game.exe")
        << QStringLiteral("--ignore: ~/new/new/game.exe is not there and ignores nothing; paths "
                          "count from NEW_BUILD: --ignore game.exe");
    QTest::newRow("build's name in front of a glob")
        << QStringLiteral("--ignore ./new/**/*.map")
        << QStringLiteral("--ignore: ~/new/new/**/*.map ignores nothing; paths count from "
                          "NEW_BUILD: --ignore **/*.map");
    QTest::newRow("list") << QStringLiteral("--ignore-from list")
                          << QStringLiteral("--ignore-from: ~/list, line 3: *.tmp ignores nothing");
}

void tst_PublishCommand::notesWhatIgnoresNothing()
{
    QFETCH(QString, options);
    QFETCH(QString, note);
    m_tree->write(QStringLiteral("new/.hidden"), "no part of the build");
    m_tree->makeFolder(QStringLiteral("new/empty"));
    m_tree->write(QStringLiteral("list"), "# comment\nlevels/\n*.tmp\n");
    note.replace(QLatin1Char('~'), m_tree->path());
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    for (const QString &command : {PublishFirst, QStringLiteral("diff new sigs diff-patch")}) {
        const Outcome outcome = run(command + QLatin1Char(' ') + options);
        QCOMPARE(outcome.status, Done);
        QStringList notes = linesOf(outcome.err).filter(QStringLiteral("ignores nothing"));
        QCOMPARE(notes, QStringList(QLatin1String("pellox: ") + note));
    }
}

void tst_PublishCommand::ignoredFilesAreSigned()
{
    QCOMPARE(run(PublishFirst + QStringLiteral(" --ignore **")).status, Done);
    QCOMPARE(run(QStringLiteral("sign new expected-sigs")).status, Done);
    QCOMPARE(content("sigs-new"), content("expected-sigs"));
}

void tst_PublishCommand::wrongUsage_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("message"); // a part

    const QString outputs = QStringLiteral(" --patch patch --signatures sigs-new");
    QTest::newRow("neither old build nor signatures") << QStringLiteral("publish new")
            + outputs << QStringLiteral("--old-signatures or --old-build is required");
    QTest::newRow("effort for nothing") << PublishNew + QStringLiteral(" --effort smallest")
                                        << QStringLiteral("--effort requires --old-build");
    QTest::newRow("memory for nothing") << PublishNew + QStringLiteral(" --memory 1G")
                                        << QStringLiteral("--memory requires --old-build");
    QTest::newRow("nothing to verify") << PublishNew + QStringLiteral(" --no-verify")
                                       << QStringLiteral("--no-verify requires --old-build");
    QTest::newRow("unknown effort")
        << PublishFirst + QStringLiteral(" --effort most") << QStringLiteral("--effort");
    QTest::newRow("memory that is no size")
        << PublishFirst + QStringLiteral(" --memory all") << QStringLiteral("all is no size");
    QTest::newRow("old build for a slow diff") << QStringLiteral(
        "diff new sigs patch --old-build old") << QStringLiteral("--old-build requires --fast");
    QTest::newRow("no patch") << QStringLiteral("publish new --old-build old --signatures sigs-new")
                              << QStringLiteral("--patch is required");
    QTest::newRow("no signatures") << QStringLiteral("publish new --old-build old --patch patch")
                                   << QStringLiteral("--signatures is required");
    QTest::newRow("no new build") << QStringLiteral("publish --old-build old") + outputs
                                  << QStringLiteral("NEW_BUILD is required");
    QTest::newRow("nothing to ignore but the build")
        << QStringLiteral("publish --old-build old --ignore x.pdb") + outputs
        << QStringLiteral("NEW_BUILD is required");
    QTest::newRow("more to ignore, as of a glob without quotes")
        << QStringLiteral("publish --ignore a.txt b.txt new --old-build old") + outputs
        << QStringLiteral("not expected: new");
    QTest::newRow("the same for diff") << QStringLiteral("diff --ignore a.txt b.txt new sigs patch")
                                       << QStringLiteral("not expected: patch");
    QTest::newRow("nothing to force")
        << PublishFirst + QStringLiteral(" --force") << QStringLiteral("--force requires --pack");
    QTest::newRow("no threads") << PublishFirst + QStringLiteral(" --threads 0")
                                << QStringLiteral("--threads");
    QTest::newRow("threads that are no number")
        << PublishFirst + QStringLiteral(" --threads all") << QStringLiteral("--threads");
    QTest::newRow("threads of a slow sign") << QStringLiteral("sign old sigs --threads 2")
                                            << QStringLiteral("--threads requires --fast");
    QTest::newRow("threads of a slow diff") << QStringLiteral("diff new sigs patch --threads 2")
                                            << QStringLiteral("--threads requires --fast");
}

void tst_PublishCommand::wrongUsage()
{
    QFETCH(QString, words);
    QFETCH(QString, message);
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(words);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.out, QString());
    QVERIFY2(outcome.err.contains(message), qPrintable(outcome.err));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_PublishCommand::refusesBeforeAnythingIsTouched_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("message"); // "~" is the tree's folder

    const auto row = [](const char *name, const char *words, const char *message) {
        QTest::newRow(name) << QString::fromUtf8(words) << QString::fromUtf8(message);
    };
    const char *nothing = "~/empty: holds no files (hidden ones do not count): is it the right "
                          "folder? --allow-empty takes it all the same";
    row("no new build", "publish nosuch --old-build old --patch p --signatures s",
        "~/nosuch: there is no such folder");
    row("no old build", "publish new --old-build nosuch --patch p --signatures s",
        "~/nosuch: there is no such folder");
    row("no old signatures", "publish new --old-signatures nosuch --patch p --signatures s",
        "~/nosuch: there is no such folder");
    row("old signatures without manifest",
        "publish new --old-signatures old --patch p --signatures s",
        "~/old: holds no signatures.json; make it from the old build with \"pellox sign\"");
    row("old signatures and new build swapped",
        "publish sigs --old-signatures new --patch p --signatures s",
        "~/new: holds no signatures.json; ~/sigs does: are the two folders swapped?");
    row("new build is empty", "publish empty --old-build old --patch p --signatures s", nothing);
    row("old build is empty", "publish new --old-build empty --patch p --signatures s", nothing);
    row("strict about what is not there",
        "publish new --old-build old --patch p --signatures s --strict-ignore --ignore nosuch",
        "--ignore: ~/new/nosuch is not there and ignores nothing");
    row("strict about a list", "diff new sigs p --strict-ignore --ignore-from list",
        "--ignore-from: ~/list, line 1: *.tmp ignores nothing");
    row("broken old signatures", "publish new --old-signatures broken --patch p --signatures s",
        "~/broken/signatures.json: is not a JSON array");
    row("patch in the new build", "publish new --old-signatures sigs --patch new/p --signatures s",
        "~/new/p: lies inside ~/new; the two must lie apart (NEW_BUILD and --patch)");
    row("signatures in the new build",
        "publish new --old-signatures sigs --patch p --signatures new/s",
        "~/new/s: lies inside ~/new; the two must lie apart (NEW_BUILD and --signatures)");
    row("patch in the old signatures",
        "publish new --old-signatures sigs --patch sigs/p --signatures s",
        "~/sigs/p: lies inside ~/sigs; the two must lie apart (--old-signatures and --patch)");
    row("patch and signatures", "publish new --old-signatures sigs --patch p --signatures ./p",
        "~/p: is the same folder as ~/p (--patch and --signatures)");
    row("signatures over the old ones",
        "publish new --old-signatures sigs --patch p --signatures sigs/",
        "~/sigs: is the same folder as ~/sigs (--old-signatures and --signatures)");
    row("signatures in the patch", "publish new --old-signatures sigs --patch p --signatures p/s",
        "~/p/s: lies inside ~/p; the two must lie apart (--patch and --signatures)");
    row("patch in the old build", "publish new --old-build old --patch old/p --signatures s",
        "~/old/p: lies inside ~/old; the two must lie apart (--old-build and --patch)");
    row("old build in the new one", "publish . --old-build old --patch p --signatures s",
        "~/old: lies inside ~; the two must lie apart (NEW_BUILD and --old-build)");
    row("the same build twice", "publish new --old-build new --patch p --signatures s",
        "~/new: is the same folder as ~/new (NEW_BUILD and --old-build)");
    row("patch through a link", "publish new --old-build old --patch linked/p --signatures s",
        "~/linked/p: lies inside ~/old; the two must lie apart (--old-build and --patch)");
    row("patch is a file", "publish new --old-build old --patch sigs/game.exe --signatures s",
        "~/sigs/game.exe: is not a folder");
    const char *foreign = "~/foreign: is not empty and holds no %1: only the folder of an earlier "
                          "release is replaced";
    row("patch among other files", "publish new --old-build old --patch foreign --signatures s",
        QByteArray(foreign).replace("%1", "patchRules.json"));
    row("signatures among other files",
        "publish new --old-build old --patch p --signatures foreign",
        QByteArray(foreign).replace("%1", "signatures.json"));
    row("no list", "publish new --old-build old --patch p --signatures s --ignore-from nosuch",
        "~/nosuch: there is no such file");
    row("ignoring nothing at all", "publish new --old-build old --patch p --signatures s --ignore ",
        "--ignore \"\": names no file or folder");
    row("list is a folder",
        "publish new --old-build old --patch p --signatures s --ignore-from old",
        "~/old: cannot be read");
    row("no list for diff", "diff new sigs p --ignore-from nosuch",
        "~/nosuch: there is no such file");
    row("manifest's name in the new build",
        "publish named --old-build old --patch p --signatures s --ignore signatures.json",
        "~/named/signatures.json: has the name of the manifest and would be taken for it");
    row("manifest's name in the old build",
        "publish new --old-build named --patch p --signatures s",
        "~/named/signatures.json: has the name of the manifest and would be taken for it");
    row("other manifest's name in the new build",
        "publish ruled --old-build old --patch p --signatures s",
        "~/ruled/patchRules.json: has the name of the manifest and would be taken for it");
    row("temporary's name", "publish temporary --old-build old --patch p --signatures s",
        "~/temporary/game.exe.temp: would be lost when players patch the file without .temp");
    row("temporary's name in the old build",
        "publish old --old-build temporary --patch p --signatures s",
        "~/old/game.exe.temp: would be lost when players patch the file without .temp");
    row("temporary's name, from signatures",
        "publish temporary --old-signatures sigs --patch p --signatures s",
        "~/temporary/game.exe.temp: would be lost when players patch the file without .temp");
}

void tst_PublishCommand::refusesBeforeAnythingIsTouched()
{
    QFETCH(QString, words);
    QFETCH(QString, message);
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    m_tree->link(QStringLiteral("linked"), path("old"));
    m_tree->write(QStringLiteral("broken/signatures.json"), "{}");
    m_tree->write(QStringLiteral("foreign/thesis.txt"), "years of work");
    m_tree->write(QStringLiteral("named/signatures.json"), "a file of the game");
    m_tree->write(QStringLiteral("ruled/patchRules.json"), "a file of the game");
    m_tree->write(QStringLiteral("empty/.hidden"), "no part of a build");
    m_tree->write(QStringLiteral("list"), "*.tmp\n");
    m_tree->write(QStringLiteral("temporary/game.exe"), "one");
    m_tree->write(QStringLiteral("temporary/game.exe.temp"), "and the other");
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(words);
    message.replace(QLatin1Char('~'), m_tree->path());
    QCOMPARE(outcome.err, QLatin1String("pellox: error: ") + message + QLatin1Char('\n'));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.out, QString());
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_PublishCommand::refusesWhatPackWouldRefuse_data()
{
    QTest::addColumn<QString>("archive");
    QTest::addColumn<QString>("message"); // "~" is the tree's folder

    QTest::newRow("archive exists") << QStringLiteral(
        "there.7z") << QStringLiteral("~/there.7z.001: exists; --force replaces it");
    QTest::newRow("archive is a folder")
        << QStringLiteral("folder.7z") << QStringLiteral("~/folder.7z: is a folder");
    QTest::newRow("in the patch")
        << QStringLiteral("patch/a.7z")
        << QStringLiteral("~/patch/a.7z: lies inside ~/patch; the two must lie apart");
    QTest::newRow("in the new build") << QStringLiteral(
        "new/a.7z") << QStringLiteral("~/new/a.7z: lies inside ~/new; the two must lie apart");
    QTest::newRow("in the old build") << QStringLiteral(
        "old/a.7z") << QStringLiteral("~/old/a.7z: lies inside ~/old; the two must lie apart");
    QTest::newRow("in the signatures")
        << QStringLiteral("sigs-new/a.7z")
        << QStringLiteral("~/sigs-new/a.7z: lies inside ~/sigs-new; the two must lie apart");
    QTest::newRow("below a file") << QStringLiteral("there.7z.001/a.7z")
                                  << QStringLiteral(
                                         "~/there.7z.001: cannot be created: Not a directory");
    QTest::newRow("a name that is lost")
        << QStringLiteral("a.7z")
        << QStringLiteral("~/new/line\nbreak: has a line break or another control character in its "
                          "name, which 7-Zip does not keep");
}

void tst_PublishCommand::refusesWhatPackWouldRefuse()
{
    QFETCH(QString, archive);
    QFETCH(QString, message);
    m_tree->write(QStringLiteral("there.7z.001"), "an archive");
    m_tree->makeFolder(QStringLiteral("folder.7z"));
    if (archive == QLatin1String("a.7z"))
        m_tree->write(QStringLiteral("new/line\nbreak"), "x");
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(PublishFirst + QStringLiteral(" --pack ") + archive);
    message.replace(QLatin1Char('~'), m_tree->path());
    message.replace(QLatin1Char('\n'), QLatin1Char(' '));
    QCOMPARE(outcome.err.simplified(), QLatin1String("pellox: error: ") + message);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_PublishCommand::fastRefusesForeignFolders_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("manifest");

    QTest::newRow("sign") << QStringLiteral("sign old foreign --fast")
                          << QStringLiteral("signatures.json");
    QTest::newRow("diff") << QStringLiteral("diff new sigs foreign --fast")
                          << QStringLiteral("patchRules.json");
}

void tst_PublishCommand::fastRefusesForeignFolders()
{
    QFETCH(QString, words);
    QFETCH(QString, manifest);
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    m_tree->write(QStringLiteral("foreign/thesis.txt"), "years of work");
    const Outcome outcome = run(words);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: is not empty and holds no %2: only the folder of an "
                       "earlier release is replaced\n")
            .arg(path("foreign"), manifest));
    QCOMPARE(content("foreign").keys(), QStringList(QStringLiteral("thesis.txt")));
}

void tst_PublishCommand::failsAndNamesTheFile_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QByteArray>("signature"); // of the changed file; null where it is missing

    QTest::newRow("publish, signature missing") << PublishNew << QByteArray();
    QTest::newRow("publish, signature broken") << PublishNew << QByteArray("no signature");
    QTest::newRow("diff, signature missing")
        << QStringLiteral("diff new sigs patch --fast") << QByteArray();
    QTest::newRow("diff, signature broken")
        << QStringLiteral("diff new sigs patch --fast") << QByteArray("no signature");
}

void tst_PublishCommand::failsAndNamesTheFile()
{
    QFETCH(QString, words);
    QFETCH(QByteArray, signature);
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    m_tree->remove(QStringLiteral("sigs/game.exe"));
    if (!signature.isNull())
        m_tree->write(QStringLiteral("sigs/game.exe"), signature);
    const Outcome outcome = run(words);
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(outcome.out, QString());
    const QStringList errors = errorLines(outcome.err);
    QCOMPARE(errors.size(), 1);
    QVERIFY2(
        errors.first().startsWith(QStringLiteral("pellox: error: %1: ").arg(path("sigs/game.exe"))),
        qPrintable(errors.first()));
    QVERIFY(!m_tree->exists(QStringLiteral("patch/patchRules.json")));
    QVERIFY(!m_tree->exists(QStringLiteral("sigs-new/signatures.json")));
}

void tst_PublishCommand::aPackThatFailsLeavesTheRelease()
{
    m_tree->write(QStringLiteral("standin/7zr"), "#!/bin/sh\nexit 2\n");
    QFile::setPermissions(path("standin/7zr"), QFile::ReadOwner | QFile::ExeOwner);
    QVERIFY(QFile::copy(QStringLiteral(PELLOX_PROGRAM), path("standin/pellox")));
    QProcess process;
    startProgram(process, path("standin/pellox"),
        (PublishFirst + QStringLiteral(" --pack up/a.7z")).split(QLatin1Char(' ')), m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err).size(), 1);
    QVERIFY2(errorLines(outcome.err).first().contains(path("up/a.7z")), qPrintable(outcome.err));
    QVERIFY(m_tree->exists(QStringLiteral("patch/patchRules.json")));
    QVERIFY(m_tree->exists(QStringLiteral("sigs-new/signatures.json")));
    QVERIFY(!m_tree->exists(QStringLiteral("up")));
}

void tst_PublishCommand::failsWhenTheDiskIsFull()
{
    m_tree->write(QStringLiteral("new/large.pak"), randomBytes(1 << 20, 7));
    QProcess process;
    // A limit of the size of files stands for the disk.
    startProgram(process, QStringLiteral("sh"),
        {QStringLiteral("-c"),
            QStringLiteral("trap '' XFSZ; ulimit -f 64; exec " PELLOX_PROGRAM " ") + PublishFirst},
        m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Failed);
    const QStringList errors = errorLines(outcome.err);
    QCOMPARE(errors.size(), 1);
    QVERIFY2(errors.first().contains(path("patch/large.pak")), qPrintable(errors.first()));
    QVERIFY(!m_tree->exists(QStringLiteral("patch/patchRules.json")));
    QVERIFY(!m_tree->exists(QStringLiteral("sigs-new/signatures.json")));
}

void tst_PublishCommand::movedFilesAreNamed()
{
    makeMoved();
    const QString publish
        = QStringLiteral("publish new --old-build old --patch patch --signatures sigs");
    const Outcome few = run(publish);
    QVERIFY2(few.status == Done, qPrintable(few.err));
    QVERIFY2(few.out.endsWith(QLatin1String(
                 "\n3 new files (17.6 KiB) that the old build has under other names:\n"
                 "     9.8 KiB  again, as game.exe\n"
                 "     4.9 KiB  moved/b, as b\n"
                 "     2.9 KiB  moved/a, as a\n")),
        qPrintable(few.out));

    for (int i = 10; i < 20; ++i) {
        m_tree->write(QStringLiteral("old/of/%1").arg(i), randomBytes(20000 + i, uint(i)));
        m_tree->write(QStringLiteral("new/to/%1").arg(i), randomBytes(20000 + i, uint(i)));
    }
    const QStringList many = linesOf(run(publish).out);
    QCOMPARE(many.count(), 14);
    QVERIFY(many.at(3).endsWith(QLatin1String("to/19, as of/19")));
    QVERIFY(many.at(12).endsWith(QLatin1String("to/10, as of/10")));
    QCOMPARE(many.last(), QStringLiteral("  and 3 more (17.6 KiB)"));

    m_tree->remove(QStringLiteral("new/to"));
    m_tree->remove(QStringLiteral("new/moved"));
    m_tree->remove(QStringLiteral("new/again"));
    QVERIFY(!run(publish).out.contains(QLatin1String("old build")));
}

/// What has to be looked for is, where the old build is given for the sake of a small patch.
void tst_PublishCommand::filesOfWhichMuchIsOldAreNamed()
{
    const QByteArray big = randomBytes(80 << 10, 1);
    m_tree->write(QStringLiteral("old/big"), big);
    m_tree->write(QStringLiteral("new/big"), big);
    m_tree->write(QStringLiteral("new/again"), big);
    m_tree->write(QStringLiteral("new/most"), big.left(60 << 10) + randomBytes(10000, 7));
    m_tree->write(QStringLiteral("new/little"), big.left(20 << 10) + randomBytes(60000, 8));
    const Outcome outcome = run(PublishFirst);
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QVERIFY2(outcome.out.endsWith(QLatin1String(
                 "\n2 new files (149.8 KiB) that the old build has, or at least half of which, "
                 "under other names:\n"
                 "    80.0 KiB  again, as big\n"
                 "    69.8 KiB  most, 86.0 %, most of it in big\n")),
        qPrintable(outcome.out));
    QStringList moved;
    for (const QJsonObject &object : jsonLines(run(PublishFirst + QStringLiteral(" --json")).out)) {
        if (member(object, "event") == QLatin1String("moved"))
            moved.append(QStringLiteral("%1: %2 of %3, %4, %5")
                             .arg(member(object, "file"))
                             .arg(object.value(QLatin1String("old_bytes")).toInt())
                             .arg(object.value(QLatin1String("size")).toInt())
                             .arg(object.value(QLatin1String("moved")).toBool())
                             .arg(object.value(QLatin1String("estimated")).toBool()));
    }
    QCOMPARE(moved,
        (QStringList{QStringLiteral("again: 81920 of 81920, 1, 0"),
            QStringLiteral("most: 61440 of 71440, 0, 0")}));

    // That is no work of the release: a signature that it has no use for may be missing.
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    m_tree->remove(QStringLiteral("sigs/data/old.txt"));
    const Outcome without = run(PublishFirst + QStringLiteral(" --old-signatures sigs"));
    QCOMPARE(without.status, Done);
    QVERIFY2(
        without.err.contains(QLatin1String("\npellox: what the old build has of new files is not "
                                           "looked for: ")
            + path("sigs/data/old.txt")),
        qPrintable(without.err));
    QVERIFY2(without.out.endsWith(QLatin1String("    80.0 KiB  again, as big\n")),
        qPrintable(without.out));

    // Players' signatures alone: a release is made in one pass.
    QVERIFY(run(PublishNew)
                .out.endsWith(QLatin1String(
                    "\n1 new file (80.0 KiB) that the old build has under other names:\n"
                    "    80.0 KiB  again, as big\n")));
}

void tst_PublishCommand::movedFilesAreNamedInJson()
{
    makeMoved();
    const Outcome outcome
        = run(QStringLiteral("publish new --old-build old --patch patch --signatures sigs --json"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QStringList moved;
    for (const QJsonObject &object : jsonLines(outcome.out)) {
        if (member(object, "event") == QLatin1String("moved"))
            moved.append(QStringLiteral("%1 < %2 (%3)")
                             .arg(member(object, "file"), member(object, "old_file"),
                                 QString::number(object.value(QLatin1String("size")).toInt())));
    }
    QCOMPARE(moved,
        (QStringList{QStringLiteral("again < game.exe (10000)"),
            QStringLiteral("moved/b < b (5000)"), QStringLiteral("moved/a < a (3000)")}));
}

void tst_PublishCommand::summariesGoToStandardOutput()
{
    const Outcome outcome = run(PublishFirst);
    const qint64 deltas = QFileInfo(path("patch/game.exe")).size()
        + QFileInfo(m_tree->path(QStringLiteral("patch/data/grüße.pak"))).size();
    QCOMPARE(outcome.out,
        QStringLiteral("2 files to patch (%1 of deltas), 1 file to copy (3 bytes), 1 file to "
                       "delete: %2\nSigned 4 files (9.8 KiB): %3\n")
            .arg(QLocale::c().formattedDataSize(deltas, 1), path("patch"), path("sigs-new")));
    QVERIFY2(outcome.err.contains(QLatin1String("publish: 100 %  ~9.8 KiB of 9.8 KiB")),
        qPrintable(outcome.err));
}

void tst_PublishCommand::quietSaysNothing()
{
    const Outcome outcome = run(PublishFirst + QStringLiteral(" --quiet"));
    QCOMPARE(outcome.status, Done);
    QCOMPARE(outcome.out, QString());
    QCOMPARE(outcome.err, QString());

    // Players might get what they must not.
    QCOMPARE(run(PublishFirst + QStringLiteral(" --quiet --ignore nosuch")).err,
        QStringLiteral("pellox: --ignore: %1/nosuch is not there and ignores nothing\n")
            .arg(path("new")));
}

void tst_PublishCommand::jsonIsOneObjectALine_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QStringList>("stages");

    const QString sign = QStringLiteral("sign");
    const QString publish = QStringLiteral("publish");
    QTest::newRow("publish") << PublishNew << QStringList{publish};
    QTest::newRow("first release, packed")
        << PublishFirst + QStringLiteral(" --pack a.7z")
        << QStringList{sign, publish, QStringLiteral("inspect"), QStringLiteral("pack")};
    QTest::newRow("sign") << QStringLiteral("sign new s --fast") << QStringList{sign};
    QTest::newRow("diff") << QStringLiteral("diff new sigs p --fast")
                          << QStringList{QStringLiteral("diff")};
}

void tst_PublishCommand::jsonIsOneObjectALine()
{
    QFETCH(QString, words);
    QFETCH(QStringList, stages);
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    const Outcome outcome = run(words + QStringLiteral(" --json"));
    QCOMPARE(outcome.status, Done);
    QCOMPARE(outcome.err, QString());
    QList<QJsonObject> objects = jsonLines(outcome.out);
    const QJsonObject last = objects.takeLast();
    QCOMPARE(member(last, "event"), QStringLiteral("finished"));
    QCOMPARE(member(last, "outcome"), QStringLiteral("done"));
    QStringList stagesSeen;
    double done = 0;
    for (const QJsonObject &object : objects) {
        QCOMPARE(member(object, "event"), QStringLiteral("progress"));
        const QString stage = member(object, "stage");
        if (stagesSeen.isEmpty() || stagesSeen.last() != stage) {
            stagesSeen.append(stage);
            done = 0;
        }
        QVERIFY(object.value(QLatin1String("done")).toDouble(-1) >= done);
        done = object.value(QLatin1String("done")).toDouble();
    }
    QCOMPARE(stagesSeen, stages);
    QVERIFY(done > 0);
    QCOMPARE(objects.last().value(QLatin1String("total")).toDouble(), done);
}

void tst_PublishCommand::jsonTellsThePlan()
{
    const Outcome outcome
        = run(PublishFirst + QStringLiteral(" --dry-run --json --ignore data/same.txt"));
    QCOMPARE(outcome.status, Done);
    QStringList rules;
    QStringList ignored;
    for (const QJsonObject &object : jsonLines(outcome.out)) {
        if (member(object, "event") == QLatin1String("ignore"))
            ignored.append(member(object, "file"));
        if (member(object, "event") != QLatin1String("rule"))
            continue;
        rules.append(QStringLiteral("%1 %2 %3")
                         .arg(member(object, "rule"), member(object, "file"),
                             object.contains(QLatin1String("size"))
                                 ? QString::number(object.value(QLatin1String("size")).toInt())
                                 : QStringLiteral("-")));
    }
    QCOMPARE(rules,
        QStringList(
            {QStringLiteral("patch data/grüße.pak 5"), QStringLiteral("delete data/old.txt -"),
                QStringLiteral("patch game.exe 10004"), QStringLiteral("copy levels/one.map 3")}));
    QCOMPARE(ignored, QStringList(QStringLiteral("data/same.txt")));
}

void tst_PublishCommand::jsonTellsErrors()
{
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    m_tree->remove(QStringLiteral("sigs/game.exe"));
    const Outcome outcome = run(PublishNew + QStringLiteral(" --json"));
    QCOMPARE(outcome.status, Failed);
    const QList<QJsonObject> objects = jsonLines(outcome.out);
    QCOMPARE(member(objects.last(), "outcome"), QStringLiteral("failed"));
    QStringList files;
    for (const QJsonObject &object : objects) {
        if (member(object, "event") == QLatin1String("error"))
            files.append(member(object, "file"));
    }
    QCOMPARE(files, QStringList(path("sigs/game.exe")));
}

void tst_PublishCommand::interruptLeavesNothing_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("stage"); // that is under way when the signal comes

    const QString publish
        = QStringLiteral("publish large --old-build old --patch patch --signatures sigs-new");
    const QString stage = QStringLiteral("publish");
    QTest::newRow("publish") << publish << stage;
    QTest::newRow("publish, quiet") << publish + QStringLiteral(" --quiet") << stage;
    QTest::newRow("publish, on one thread") << publish + QStringLiteral(" --threads 1") << stage;
    QTest::newRow("publish, to be packed") << publish + QStringLiteral(" --pack up/a.7z") << stage;
    QTest::newRow("publish, signing the old build")
        << QStringLiteral("publish old --old-build large --patch patch --signatures sigs-new")
        << QStringLiteral("sign");
    QTest::newRow("dry run") << publish + QStringLiteral(" --dry-run") << QStringLiteral("plan");
    QTest::newRow("sign") << QStringLiteral("sign large sigs-new --fast") << QStringLiteral("sign");
    QTest::newRow("diff") << QStringLiteral("diff large sigs patch --fast")
                          << QStringLiteral("diff");
}

void tst_PublishCommand::interruptLeavesNothing()
{
    QFETCH(QString, words);
    QFETCH(QString, stage);
    // Large enough to be under way for many seconds when the signal comes, small on the disk.
    m_tree->write(QStringLiteral("large/file"), QByteArray());
    QVERIFY(QFile::resize(path("large/file"), qint64(64) << 30));
    m_tree->write(QStringLiteral("old/file"), "of the same name, so that the content counts");
    m_tree->makeFolder(QStringLiteral("temporary"));
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    const QStringList before = namesIn(m_tree->path());

    qputenv("TMPDIR", QFile::encodeName(path("temporary")));
    QProcess process;
    startProgram(process, QStringLiteral(PELLOX_PROGRAM),
        (words + QStringLiteral(" --json")).split(QLatin1Char(' ')), m_tree->path());
    qunsetenv("TMPDIR");
    const QByteArray progress = "\"stage\":\"" + stage.toUtf8() + '"';
    QByteArray output;
    // The first comes before the work.
    QTRY_VERIFY_WITH_TIMEOUT(
        (output += process.readAllStandardOutput()).count(progress) >= 2, Patience);
    QVERIFY(namesIn(m_tree->path()) != before);
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Interrupted);
    QCOMPARE(errorLines(outcome.err), QStringList());
    QVERIFY2(outcome.out.endsWith(
                 QLatin1String("{\"event\":\"finished\",\"outcome\":\"interrupted\"}\n")),
        qPrintable(outcome.out));
    QCOMPARE(namesIn(m_tree->path()), before);
}

void tst_PublishCommand::interruptBringsNoManifestBack()
{
    QCOMPARE(run(PublishFirst).status, Done);
    m_tree->write(QStringLiteral("large/file"), QByteArray());
    QVERIFY(QFile::resize(path("large/file"), qint64(64) << 30));
    QProcess process;
    startProgram(process, QStringLiteral(PELLOX_PROGRAM),
        QStringLiteral("publish large --old-build old --patch patch --signatures sigs-new")
            .split(QLatin1Char(' ')),
        m_tree->path());
    QTRY_VERIFY_WITH_TIMEOUT(!m_tree->exists(QStringLiteral("patch/patchRules.json"))
            && !m_tree->exists(QStringLiteral("sigs-new/signatures.json")),
        Patience);
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    QCOMPARE(outcomeOf(process).status, Interrupted);
    // It may have come while the older release was being removed.
    QVERIFY(!m_tree->exists(QStringLiteral("patch/patchRules.json")));
    QVERIFY(!m_tree->exists(QStringLiteral("sigs-new/signatures.json")));
    QCOMPARE(run(PublishFirst).status, Done);
}

QTEST_GUILESS_MAIN(tst_PublishCommand)
#include "tst_publishcommand.moc"
