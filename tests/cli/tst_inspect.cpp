// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "madeuppatch.h"
#include "program.h"
#include "testtree.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTest>

#include <cerrno>
#include <memory>
#include <utility>

namespace {

/// A line of JSON, written with single quotes.
QString json(const char *text)
{
    return QString::fromUtf8(text).replace(QLatin1Char('\''), QLatin1Char('"'));
}

QJsonObject dataOf(const QByteArray &page)
{
    const QByteArray begin = "<script type=\"application/json\" id=\"data\">";
    const int from = page.indexOf(begin) + begin.size();
    return QJsonDocument::fromJson(page.mid(from, page.indexOf("</script>", from) - from)).object();
}

} // namespace

/// "pellox inspect": what it says of a patch, and of one that is damaged.
class tst_Inspect : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void textTellsWhereTheBytesAre();
    void topLimitsTheLists_data();
    void topLimitsTheLists();
    void patchesWithLittleInThem_data();
    void patchesWithLittleInThem();
    void foldersThatHoldOnlyAFolderAreLeftOut();
    void patchOfTheProgramItself();
    void controlCharactersAreShownAsText();
    void quietSaysNothing();
    void changesNothing();
    void newFilesThatTheOldBuildHas();
    void topLimitsThemToo();
    void oldSignaturesMustBeSome_data();
    void oldSignaturesMustBeSome();

    void jsonHasARecordOfEachFileAndFolder();
    void jsonTellsErrors();

    void reportIsOneFileWithTheData();
    void reportReplacesAReport();
    void reportMakesItsFolder();
    void reportCarriesAnyNameAsData();
    void refusesAReport_data();
    void refusesAReport();
    void forceReplacesAnyFile();
    void reportOnAFullDisk();

    void damagedPatches_data();
    void damagedPatches();
    void everyDamageIsTold();
    void whatCannotBeSeenIsNotMissing();
    void refusedPatches_data();
    void refusedPatches();
    void wrongUsage_data();
    void wrongUsage();

private:
    Outcome run(const QString &words) const
    {
        return runPellox(words.split(QLatin1Char(' ')), m_tree->path());
    }
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }
    QString expected(const char *text) const
    {
        return QString::fromUtf8(text).replace(QLatin1Char('~'), m_tree->path());
    }

    void makeMoved() const;

    std::unique_ptr<TestTree> m_tree;
};

/// A patch "made" with a new file that moved, one that has much of an old one, and two that do not.
void tst_Inspect::makeMoved() const
{
    const QByteArray big = randomBytes(40 * 2048, 1);
    m_tree->write(QStringLiteral("old/big"), big);
    m_tree->write(QStringLiteral("old/empty"), "");
    m_tree->write(QStringLiteral("new/moved/big"), big);
    m_tree->write(QStringLiteral("new/most"), "x" + big.left(30 * 2048) + randomBytes(10000, 2));
    m_tree->write(QStringLiteral("new/little"), big.left(10 * 2048) + randomBytes(30000, 3));
    m_tree->write(QStringLiteral("new/strange"), randomBytes(5000, 4));
    m_tree->write(QStringLiteral("new/nothing"), "");
    if (run(QStringLiteral("sign old sigs")).status != Done
        || run(QStringLiteral("diff new sigs made")).status != Done)
        qFatal("cannot make a patch");
}

void tst_Inspect::init()
{
    m_tree = std::make_unique<TestTree>();
    MadeUpPatch patch(path("patch"));
    patch.remove(QStringLiteral("/data/levels/old.map"));
    patch.patch(QStringLiteral("/game.exe"), 9 * 1024, 1024);
    patch.copy(QStringLiteral("/data/levels/new.map"), 2048);
    patch.patch(QStringLiteral("/data/world.pak"), 1024 * 1024, 3 * 1024 * 1024);
    patch.finish();
}

void tst_Inspect::textTellsWhereTheBytesAre()
{
    const Outcome outcome = run(QStringLiteral("inspect patch"));
    QCOMPARE(outcome.status, Done);
    QCOMPARE(outcome.out,
        expected("3.0 MiB for new files of 4.0 MiB: ~/patch\n"
                 "\n"
                 "  files  in the patch  new files  from old files  rule\n"
                 "      2       3.0 MiB    4.0 MiB         1.0 MiB  patch\n"
                 "      1       2.0 KiB    2.0 KiB                  copy\n"
                 "      1                                           delete\n"
                 "\n"
                 "  in the patch  literal           copied          largest deltas\n"
                 "       3.0 MiB  3.0 MiB  75.0 %  1.0 MiB  25.0 %  data/world.pak\n"
                 "       1.0 KiB  1.0 KiB  10.0 %  9.0 KiB  90.0 %  game.exe\n"
                 "\n"
                 "  in the patch          files  heaviest folders\n"
                 "       3.0 MiB  100.0 %      3  data\n"
                 "       2.0 KiB    0.1 %      2  data/levels\n")
            .replace(QLatin1String("          files  heaviest"),
                QLatin1String("           files  heaviest")));
    QVERIFY2(outcome.err.startsWith(QLatin1String("inspect: 100 %  4 of 4 files")),
        qPrintable(outcome.err));
}

void tst_Inspect::topLimitsTheLists_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<int>("deltas");
    QTest::addColumn<int>("folders");

    QTest::newRow("default") << QString() << 10 << 10;
    QTest::newRow("3") << QStringLiteral(" --top 3") << 3 << 3;
    QTest::newRow("more than there are") << QStringLiteral(" --top 100") << 15 << 12;
    QTest::newRow("none") << QStringLiteral(" --top 0") << 0 << 0;
}

void tst_Inspect::topLimitsTheLists()
{
    QFETCH(QString, option);
    QFETCH(int, deltas);
    QFETCH(int, folders);
    MadeUpPatch patch(path("many"));
    for (int i = 0; i < 15; ++i)
        patch.patch(QStringLiteral("/delta%1").arg(i), 1, 100 + i);
    for (int i = 0; i < 12; ++i)
        patch.copy(QStringLiteral("/folder%1/x").arg(i), 100 + i);
    patch.finish();
    const QString text = run(QStringLiteral("inspect many") + option).out;
    QCOMPARE(text.count(QLatin1String("  delta")), deltas);
    QCOMPARE(text.count(QLatin1String("  folder")), folders);
    if (deltas > 0)
        QVERIFY(
            text.indexOf(QLatin1String("delta14\n")) < text.indexOf(QLatin1String("delta13\n")));
    if (folders > 0)
        QVERIFY(
            text.indexOf(QLatin1String("folder11\n")) < text.indexOf(QLatin1String("folder10\n")));
    QCOMPARE(text.contains(QLatin1String("largest deltas")), deltas > 0);
    QCOMPARE(text.contains(QLatin1String("heaviest folders")), folders > 0);
}

void tst_Inspect::patchesWithLittleInThem_data()
{
    QTest::addColumn<QString>("rules");
    QTest::addColumn<QString>("firstLine");
    QTest::addColumn<QStringList>("lists");

    QTest::newRow("nothing") << QString()
                             << QStringLiteral("0 bytes for new files of 0 bytes: ~/little")
                             << QStringList();
    QTest::newRow("deleted files alone")
        << QStringLiteral("delete /data/x")
        << QStringLiteral("0 bytes for new files of 0 bytes: ~/little") << QStringList();
    QTest::newRow("a new file at the top")
        << QStringLiteral("copy /x") << QStringLiteral("5 bytes for new files of 5 bytes: ~/little")
        << QStringList();
    QTest::newRow("a file that becomes empty")
        << QStringLiteral("empty /x")
        << QStringLiteral("5 bytes for new files of 0 bytes: ~/little")
        << QStringList{QStringLiteral("largest deltas")};
}

void tst_Inspect::patchesWithLittleInThem()
{
    QFETCH(QString, rules);
    QFETCH(QString, firstLine);
    QFETCH(QStringList, lists);
    MadeUpPatch patch(path("little"));
    const QString file = rules.section(QLatin1Char(' '), 1);
    if (rules.startsWith(QLatin1String("delete")))
        patch.remove(file);
    else if (rules.startsWith(QLatin1String("copy")))
        patch.copy(file, 5);
    else if (rules.startsWith(QLatin1String("empty")))
        patch.patch(file, 0, 0);
    patch.finish();
    for (const char *command : {"inspect little", "inspect --html r.html --force little"}) {
        const Outcome outcome = run(QLatin1String(command));
        QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
        QCOMPARE(outcome.out.section(QLatin1Char('\n'), 0, 0),
            firstLine.replace(QLatin1Char('~'), m_tree->path()));
        for (const char *list : {"largest deltas", "heaviest folders"})
            QCOMPARE(
                outcome.out.contains(QLatin1String(list)), lists.contains(QLatin1String(list)));
    }
}

void tst_Inspect::foldersThatHoldOnlyAFolderAreLeftOut()
{
    MadeUpPatch patch(path("deep"));
    patch.copy(QStringLiteral("/a/b/c/one"), 100);
    patch.copy(QStringLiteral("/a/b/c/two"), 100);
    patch.remove(QStringLiteral("/gone/x"));
    patch.finish();
    const Outcome outcome = run(QStringLiteral("inspect deep"));
    const QString folders = outcome.out.section(QStringLiteral("heaviest folders\n"), 1);
    QCOMPARE(folders.simplified(), QStringLiteral("200 bytes 100.0 % 2 a/b/c"));
}

void tst_Inspect::patchOfTheProgramItself()
{
    m_tree->write(QStringLiteral("old/game.exe"), randomBytes(20000, 1));
    m_tree->write(QStringLiteral("old/data/gone"), "x");
    m_tree->write(QStringLiteral("new/game.exe"), randomBytes(20000, 1) + "more");
    m_tree->write(QStringLiteral("new/data/new"), "new");
    QCOMPARE(run(QStringLiteral("sign old sigs")).status, Done);
    QCOMPARE(run(QStringLiteral("diff new sigs made")).status, Done);
    const Outcome outcome = run(QStringLiteral("inspect --json made"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    for (const QJsonObject &object : jsonLines(outcome.out)) {
        if (member(object, "event") != QLatin1String("file"))
            continue;
        const QString file = QLatin1Char('/') + member(object, "file");
        if (member(object, "rule") == QLatin1String("delete")) {
            QCOMPARE(file, QStringLiteral("/data/gone"));
            continue;
        }
        QCOMPARE(qint64(object.value(QLatin1String("size")).toDouble()),
            QFileInfo(path("new") + file).size());
        QCOMPARE(qint64(object.value(QLatin1String("patch_bytes")).toDouble()),
            QFileInfo(path("made") + file).size());
    }
    QCOMPARE(outcome.out.count(QLatin1String("\"event\":\"file\"")), 3);
}

void tst_Inspect::controlCharactersAreShownAsText()
{
    MadeUpPatch patch(path("odd"));
    patch.patch(QStringLiteral("/red \x1b[31m/line\nbreak"), 1, 1);
    patch.finish();
    const Outcome outcome = run(QStringLiteral("inspect odd"));
    QCOMPARE(outcome.status, Done);
    QVERIFY2(!outcome.out.contains(QLatin1Char('\x1b')), qPrintable(outcome.out));
    QVERIFY2(outcome.out.contains(QLatin1String("  red \\x1b[31m/line\\x0abreak\n")),
        qPrintable(outcome.out));
    QVERIFY(outcome.out.contains(QLatin1String("  red \\x1b[31m\n")));
}

void tst_Inspect::quietSaysNothing()
{
    const Outcome outcome = run(QStringLiteral("inspect -q patch --html r.html"));
    QCOMPARE(outcome.status, Done);
    QCOMPARE(outcome.out + outcome.err, QString());
    QVERIFY(m_tree->exists(QStringLiteral("r.html")));
}

void tst_Inspect::changesNothing()
{
    const auto before = TestTree::snapshot(m_tree->path());
    QCOMPARE(run(QStringLiteral("inspect patch")).status, Done);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
    QCOMPARE(run(QStringLiteral("inspect patch --html r.html")).status, Done);
    m_tree->remove(QStringLiteral("r.html"));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_Inspect::newFilesThatTheOldBuildHas()
{
    makeMoved();
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(QStringLiteral("inspect made --old-signatures sigs"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
    const QString table = QStringLiteral(
        "\n  in the patch   known  new files that the old build has under other names\n"
        "      80.0 KiB     all  moved/big, as big\n"
        "      69.8 KiB  86.0 %  most, most of it in big\n");
    QVERIFY2(outcome.out.contains(table), qPrintable(outcome.out));
    QVERIFY(!outcome.out.contains(QLatin1String("little")));
    QVERIFY(!run(QStringLiteral("inspect made")).out.contains(QLatin1String("old build")));

    const Outcome asJson = run(QStringLiteral("inspect made --json --old-signatures sigs"));
    QStringList moved;
    for (const QJsonObject &object : jsonLines(asJson.out)) {
        if (!object.contains(QLatin1String("old_file")))
            continue;
        QCOMPARE(member(object, "event"), QStringLiteral("file"));
        QCOMPARE(member(object, "old_file"), QStringLiteral("big"));
        QCOMPARE(object.value(QLatin1String("estimated")), QJsonValue(false));
        QCOMPARE(object.value(QLatin1String("left_out")), QJsonValue(false));
        moved.append(QStringLiteral("%1 %2 %3")
                         .arg(member(object, "file"),
                             QString::number(object.value(QLatin1String("old_bytes")).toInt()),
                             object.value(QLatin1String("moved")).toBool() ? QStringLiteral("whole")
                                                                           : QString())
                         .trimmed());
    }
    moved.sort();
    QCOMPARE(moved,
        (QStringList{QStringLiteral("little 20480"), QStringLiteral("most 61440"),
            QStringLiteral("moved/big 81920 whole")}));

    QCOMPARE(run(QStringLiteral("inspect made --old-signatures sigs --html r.html")).status, Done);
    QStringList rows;
    const QJsonObject data = dataOf(m_tree->read(QStringLiteral("r.html")));
    for (const QJsonValue &value : data.value(QLatin1String("files")).toArray()) {
        const QJsonArray row = value.toArray();
        if (row.size() > 7)
            rows.append(QString::fromUtf8(
                QJsonDocument(QJsonArray{row.at(1), row.at(7), row.at(8), row.at(9)})
                    .toJson(QJsonDocument::Compact)));
    }
    rows.sort();
    QCOMPARE(rows,
        (QStringList{QStringLiteral("[\"/most\",\"big\",61440,1]"),
            QStringLiteral("[\"/moved/big\",\"big\",81920,0]")}));
}

void tst_Inspect::topLimitsThemToo()
{
    makeMoved();
    const QString one = run(QStringLiteral("inspect made --old-signatures sigs --top 1")).out;
    QVERIFY2(one.contains(QLatin1String("  moved/big, as big\n  and 1 more (69.8 KiB)\n")),
        qPrintable(one));
    const QString none = run(QStringLiteral("inspect made --old-signatures sigs --top 0")).out;
    QVERIFY(!none.contains(QLatin1String("old build")));
}

void tst_Inspect::oldSignaturesMustBeSome_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("error");
    QTest::newRow("no such folder")
        << QStringLiteral("none") << WrongUsage << QStringLiteral("~/none");
    QTest::newRow("no signatures")
        << QStringLiteral("new") << WrongUsage << QStringLiteral("~/new: holds no signatures.json");
    QTest::newRow("report among them") << QStringLiteral("sigs --html sigs/r.html") << WrongUsage
                                       << QStringLiteral("~/sigs/r.html");
    QTest::newRow("a damaged one") << QStringLiteral("damaged") << Failed
                                   << QStringLiteral("~/damaged/big: is no signature, or broken");
}

void tst_Inspect::oldSignaturesMustBeSome()
{
    QFETCH(QString, words);
    QFETCH(int, status);
    QFETCH(QString, error);
    makeMoved();
    for (const char *file : {"signatures.json", "empty"})
        m_tree->write(QLatin1String("damaged/") + QLatin1String(file),
            m_tree->read(QLatin1String("sigs/") + QLatin1String(file)));
    m_tree->write(QStringLiteral("damaged/big"), "no signature");
    const Outcome outcome = run(QStringLiteral("inspect made --old-signatures ") + words);
    QCOMPARE(outcome.status, status);
    QVERIFY2(outcome.err.contains(error.replace(QLatin1Char('~'), m_tree->path())),
        qPrintable(outcome.err));
}

void tst_Inspect::jsonHasARecordOfEachFileAndFolder()
{
    const Outcome outcome = run(QStringLiteral("inspect --json patch"));
    QCOMPARE(outcome.status, Done);
    const QString world = QString::number(MadeUpPatch::deltaSize(3145728));
    const QString game = QString::number(MadeUpPatch::deltaSize(1024));
    const QString data = QString::number(MadeUpPatch::deltaSize(3145728) + 2048);
    const QString deltas
        = QString::number(MadeUpPatch::deltaSize(3145728) + MadeUpPatch::deltaSize(1024));
    const QString all
        = QString::number(MadeUpPatch::deltaSize(3145728) + MadeUpPatch::deltaSize(1024) + 2048);
    const QStringList expectedLines{
        json("{'event':'file','file':'data/levels/old.map','rule':'delete'}"),
        json("{'commands':2,'copied_bytes':9216,'event':'file','file':'game.exe',"
             "'literal_bytes':1024,'patch_bytes':%1,'rule':'patch','size':10240}")
            .arg(game),
        json("{'commands':0,'copied_bytes':0,'event':'file','file':'data/levels/new.map',"
             "'literal_bytes':2048,'patch_bytes':2048,'rule':'copy','size':2048}"),
        json("{'commands':2,'copied_bytes':1048576,'event':'file','file':'data/world.pak',"
             "'literal_bytes':3145728,'patch_bytes':%1,'rule':'patch','size':4194304}")
            .arg(world),
        json("{'copied_bytes':1048576,'event':'folder','files':3,'folder':'data',"
             "'literal_bytes':3147776,'patch_bytes':%1,'size':4196352}")
            .arg(data),
        json("{'copied_bytes':0,'event':'folder','files':2,'folder':'data/levels',"
             "'literal_bytes':2048,'patch_bytes':2048,'size':2048}"),
        json("{'copy':{'copied_bytes':0,'files':1,'literal_bytes':2048,'patch_bytes':2048,"
             "'size':2048},'delete':{'copied_bytes':0,'files':1,'literal_bytes':0,"
             "'patch_bytes':0,'size':0},'event':'summary','patch':{'copied_bytes':1057792,"
             "'files':2,'literal_bytes':3146752,'patch_bytes':%1,'size':4204544},"
             "'total':{'copied_bytes':1057792,'files':4,'literal_bytes':3148800,"
             "'patch_bytes':%2,'size':4206592}}")
            .arg(deltas, all),
        json("{'event':'finished','outcome':'done'}"),
    };
    QStringList lines = outcome.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QVERIFY(lines.first().contains(QLatin1String("\"event\":\"progress\"")));
    while (lines.first().contains(QLatin1String("\"event\":\"progress\"")))
        lines.removeFirst();
    QCOMPARE(lines, expectedLines);

    const Outcome withReport = run(QStringLiteral("inspect --json patch --html r.html"));
    const QList<QJsonObject> objects = jsonLines(withReport.out);
    const QJsonObject report = objects.at(objects.size() - 2);
    QCOMPARE(member(report, "event"), QStringLiteral("report"));
    QCOMPARE(member(report, "file"), path("r.html"));
}

void tst_Inspect::jsonTellsErrors()
{
    m_tree->remove(QStringLiteral("patch/game.exe"));
    const Outcome outcome = run(QStringLiteral("inspect --json patch"));
    QCOMPARE(outcome.status, Failed);
    QList<QJsonObject> objects = jsonLines(outcome.out);
    const QJsonObject last = objects.takeLast();
    QCOMPARE(member(last, "outcome"), QStringLiteral("failed"));
    int errors = 0;
    for (const QJsonObject &object : std::as_const(objects)) {
        if (member(object, "event") == QLatin1String("progress"))
            continue;
        ++errors;
        QCOMPARE(member(object, "event"), QStringLiteral("error"));
        QCOMPARE(member(object, "file"), path("patch/game.exe"));
        QCOMPARE(member(object, "error"), expected("~/patch/game.exe: is missing from the patch"));
    }
    QCOMPARE(errors, 1);
}

void tst_Inspect::reportIsOneFileWithTheData()
{
    const Outcome outcome = run(QStringLiteral("inspect patch --html r.html"));
    QCOMPARE(outcome.status, Done);
    QVERIFY(outcome.out.endsWith(expected("\nReport: ~/r.html\n")));
    const QByteArray page = m_tree->read(QStringLiteral("r.html"));
    QVERIFY(page.startsWith("<!doctype html>\n"));
    QVERIFY(page.endsWith("</html>\n"));
    const QRegularExpression outside(
        QStringLiteral("https?:|[\"'(]//|\\bsrc=|<link|@import|url\\(|fetch\\(|@[A-Z]+@"));
    const auto match = outside.match(QString::fromUtf8(page));
    QVERIFY2(!match.hasMatch(), qPrintable(match.captured()));

    const QJsonObject data = dataOf(page);
    QCOMPARE(member(data, "name"), QStringLiteral("patch"));
    QCOMPARE(
        QJsonDocument(data.value(QLatin1String("files")).toArray()).toJson(QJsonDocument::Compact),
        QByteArray("[[2,\"/data/levels/old.map\",0,0,0,0,0],"
                   "[0,\"/game.exe\",10240,")
            + QByteArray::number(MadeUpPatch::deltaSize(1024))
            + ",9216,1024,2],[1,\"/data/levels/new.map\",2048,2048,0,2048,0],"
              "[0,\"/data/world.pak\",4194304,"
            + QByteArray::number(MadeUpPatch::deltaSize(3145728)) + ",1048576,3145728,2]]");
}

void tst_Inspect::reportReplacesAReport()
{
    m_tree->makeFolder(QStringLiteral("out"));
    m_tree->link(QStringLiteral("link.html"), path("out/r.html"));
    QCOMPARE(run(QStringLiteral("inspect patch --html out/r.html")).status, Done);
    const QByteArray first = m_tree->read(QStringLiteral("out/r.html"));
    MadeUpPatch other(path("other"));
    other.finish();
    QCOMPARE(run(QStringLiteral("inspect other --html link.html")).status, Done);
    QVERIFY(QFileInfo(path("link.html")).isSymLink());
    const QByteArray second = m_tree->read(QStringLiteral("out/r.html"));
    QCOMPARE(member(dataOf(second), "name"), QStringLiteral("other"));
    QCOMPARE(run(QStringLiteral("inspect patch/ --html out/r.html")).status, Done);
    QVERIFY(m_tree->read(QStringLiteral("out/r.html")) == first);
    QCOMPARE(TestTree::snapshot(path("out")).size(), 1);
}

void tst_Inspect::reportMakesItsFolder()
{
    QCOMPARE(run(QStringLiteral("inspect patch --html new/folder/r.html")).status, Done);
    QVERIFY(m_tree->exists(QStringLiteral("new/folder/r.html")));
}

void tst_Inspect::reportCarriesAnyNameAsData()
{
    const QStringList names{QStringLiteral("/</script><script>alert(1)</script>"),
        QStringLiteral("/<!--"), QStringLiteral("/@DATA@ @SCRIPT@"),
        QStringLiteral("/\"'\\\n\t&amp;"), QStringLiteral("/grüße \u2028.pak")};
    MadeUpPatch patch(path("@SCRIPT@<b>"));
    for (const QString &name : names)
        patch.copy(name, 1);
    patch.finish();
    QCOMPARE(run(QStringLiteral("inspect @SCRIPT@<b> --html r.html")).status, Done);
    QCOMPARE(run(QStringLiteral("inspect patch --html plain.html")).status, Done);
    const QByteArray page = m_tree->read(QStringLiteral("r.html"));
    const QByteArray plain = m_tree->read(QStringLiteral("plain.html"));
    QCOMPARE(page.count('<'), plain.count('<'));
    const QJsonObject data = dataOf(page);
    QCOMPARE(member(data, "name"), QStringLiteral("@SCRIPT@<b>"));
    QStringList found;
    for (const QJsonValue &file : data.value(QLatin1String("files")).toArray())
        found.append(file.toArray().at(1).toString());
    QCOMPARE(found, names);
}

void tst_Inspect::refusesAReport_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("error");

    const QString noReport = QStringLiteral("exists and is no report of this program (--force "
                                            "replaces it)");
    QTest::newRow("another page") << QStringLiteral("--html page.html")
                                  << QStringLiteral("~/page.html: ") + noReport;
    QTest::newRow("empty file") << QStringLiteral("--html empty")
                                << QStringLiteral("~/empty: ") + noReport;
    QTest::newRow("start of a report")
        << QStringLiteral("--html part") << QStringLiteral("~/part: ") + noReport;
    QTest::newRow("link to another file")
        << QStringLiteral("--html link") << QStringLiteral("~/link: ") + noReport;
    QTest::newRow("folder") << QStringLiteral("--html folder")
                            << QStringLiteral("~/folder: is a folder");
    QTest::newRow("folder, forced")
        << QStringLiteral("--force --html folder") << QStringLiteral("~/folder: is a folder");
    QTest::newRow("device, forced") << QStringLiteral("--force --html /dev/null")
                                    << QStringLiteral("/dev/null: is not a regular file");
    QTest::newRow("in the patch, forced")
        << QStringLiteral("--force --html patch/r.html")
        << QStringLiteral("~/patch/r.html: lies inside ~/patch; the two must lie apart");
    QTest::newRow("in the patch through a link")
        << QStringLiteral("--html into/r.html")
        << QStringLiteral("~/into/r.html: lies inside ~/patch; the two must lie apart");
    QTest::newRow("no name") << QStringLiteral("--html ")
                             << QStringLiteral("\"\": is no name of a file or folder");
}

void tst_Inspect::refusesAReport()
{
    QFETCH(QString, words);
    QFETCH(QString, error);
    m_tree->write(QStringLiteral("page.html"), "<!doctype html>\n<html><p>mine</html>\n");
    m_tree->write(QStringLiteral("empty"), QByteArray());
    m_tree->write(QStringLiteral("part"), "<!doctype html>\n<!-- Written by pellox inspect. -->");
    m_tree->link(QStringLiteral("link"), path("page.html"));
    m_tree->link(QStringLiteral("into"), path("patch"));
    m_tree->makeFolder(QStringLiteral("folder"));
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(QStringLiteral("inspect patch ") + words);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.out, QString());
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: ") + error.replace(QLatin1Char('~'), m_tree->path())
            + QLatin1Char('\n'));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_Inspect::forceReplacesAnyFile()
{
    m_tree->write(QStringLiteral("page.html"), "mine");
    const Outcome outcome = run(QStringLiteral("inspect patch --html page.html --force"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QVERIFY(m_tree->read(QStringLiteral("page.html")).startsWith("<!doctype html>"));
}

void tst_Inspect::reportOnAFullDisk()
{
    m_tree->makeFolder(QStringLiteral("out"));
    QCOMPARE(run(QStringLiteral("inspect patch --html out/r.html")).status, Done);
    const auto before = TestTree::snapshot(path("out"));
    const auto onFullDisk = [this](const QString &report) {
        QProcess process;
        startProgram(process, QStringLiteral("sh"),
            {QStringLiteral("-c"),
                QStringLiteral(
                    "trap '' XFSZ; ulimit -f 4; exec " PELLOX_PROGRAM " inspect patch --html ")
                    + report},
            m_tree->path());
        return outcomeOf(process);
    };
    const Outcome outcome = onFullDisk(QStringLiteral("out/r.html"));
    QCOMPARE(outcome.status, Failed);
    const QStringList errors = errorLines(outcome.err);
    QCOMPARE(errors.size(), 1);
    QVERIFY2(errors.at(0).startsWith(expected("pellox: error: ~/out/r.html: cannot be written: ")),
        qPrintable(errors.at(0)));
    QCOMPARE(TestTree::snapshot(path("out")), before);

    QCOMPARE(onFullDisk(QStringLiteral("deep/er/r.html")).status, Failed);
    QVERIFY(!m_tree->exists(QStringLiteral("deep")));
}

void tst_Inspect::damagedPatches_data()
{
    QTest::addColumn<QString>("damage");
    QTest::addColumn<QString>("error");

    QTest::newRow("delta missing") << QStringLiteral("remove game.exe")
                                   << QStringLiteral("game.exe: is missing from the patch");
    QTest::newRow("new file missing")
        << QStringLiteral("remove data/levels/new.map")
        << QStringLiteral("data/levels/new.map: is missing from the patch");
    QTest::newRow("delta cut off") << QStringLiteral("cut game.exe")
                                   << QStringLiteral("game.exe: is no whole delta: it is cut off");
    QTest::newRow("no delta") << QStringLiteral("write game.exe")
                              << QStringLiteral("game.exe: is no delta");
    QTest::newRow("rule is no object") << QStringLiteral(
        "write patchRules.json") << QStringLiteral("patchRules.json: has no object as rule 1");
}

void tst_Inspect::damagedPatches()
{
    QFETCH(QString, damage);
    QFETCH(QString, error);
    const QString file = QStringLiteral("patch/") + damage.section(QLatin1Char(' '), 1);
    if (damage.startsWith(QLatin1String("remove")))
        m_tree->remove(file);
    else if (damage.startsWith(QLatin1String("cut")))
        QVERIFY(QFile::resize(m_tree->path(file), QFileInfo(m_tree->path(file)).size() - 1));
    else
        m_tree->write(file, "[\"no rule\"]");

    const Outcome outcome = run(QStringLiteral("inspect patch --html r.html"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(outcome.out, QString());
    QCOMPARE(errorLines(outcome.err),
        QStringList{QStringLiteral("pellox: error: ") + path("patch/") + error});
    QVERIFY(!m_tree->exists(QStringLiteral("r.html")));
}

void tst_Inspect::everyDamageIsTold()
{
    m_tree->remove(QStringLiteral("patch/game.exe"));
    m_tree->remove(QStringLiteral("patch/data/world.pak"));
    const Outcome outcome = run(QStringLiteral("inspect patch"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err).size(), 2);
}

void tst_Inspect::whatCannotBeSeenIsNotMissing()
{
    const FaultRun run
        = runWithFaults(QStringLiteral(PELLOX_PROGRAM), {QStringLiteral("inspect"), path("patch")},
            {path("patch/game.exe"), "look,open", 1, QByteArray::number(EACCES), true});
    QCOMPARE(run.status, Failed);
    const QStringList errors = errorLines(QString::fromUtf8(run.errors));
    QCOMPARE(errors.size(), 1);
    QVERIFY2(
        errors.at(0).startsWith(expected("pellox: error: ~/patch/game.exe: cannot be looked at: ")),
        qPrintable(errors.at(0)));
}

void tst_Inspect::refusedPatches_data()
{
    QTest::addColumn<QString>("patch");
    QTest::addColumn<QString>("error");

    QTest::newRow("nothing there")
        << QStringLiteral("nowhere") << QStringLiteral("~/nowhere: there is no such folder");
    QTest::newRow("a file") << QStringLiteral("file") << QStringLiteral("~/file: is not a folder");
    QTest::newRow("no manifest") << QStringLiteral("empty")
                                 << QStringLiteral("~/empty: holds no patchRules.json");
    QTest::newRow("manifest is an object") << QStringLiteral(
        "object") << QStringLiteral("~/object/patchRules.json: is not a JSON array");
    QTest::newRow("manifest is no JSON") << QStringLiteral(
        "text") << QStringLiteral("~/text/patchRules.json: is not JSON: illegal value at byte 3");
}

void tst_Inspect::refusedPatches()
{
    QFETCH(QString, patch);
    QFETCH(QString, error);
    m_tree->write(QStringLiteral("file"), "x");
    m_tree->makeFolder(QStringLiteral("empty"));
    m_tree->write(QStringLiteral("object/patchRules.json"), "{}");
    m_tree->write(QStringLiteral("text/patchRules.json"), "[nonsense");
    const Outcome outcome = run(QStringLiteral("inspect %1 --html r.html").arg(patch));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: ") + error.replace(QLatin1Char('~'), m_tree->path())
            + QLatin1Char('\n'));
    QVERIFY(!m_tree->exists(QStringLiteral("r.html")));
}

void tst_Inspect::wrongUsage_data()
{
    QTest::addColumn<QString>("words");

    QTest::newRow("no patch") << QStringLiteral("inspect");
    QTest::newRow("two patches") << QStringLiteral("inspect patch patch");
    QTest::newRow("report without a name") << QStringLiteral("inspect patch --html");
    QTest::newRow("force without a report") << QStringLiteral("inspect patch --force");
    QTest::newRow("negative top") << QStringLiteral("inspect patch --top -1");
    QTest::newRow("top is text") << QStringLiteral("inspect patch --top many");
}

void tst_Inspect::wrongUsage()
{
    QFETCH(QString, words);
    const Outcome outcome = run(words);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.out, QString());
    QVERIFY(outcome.err.contains(QLatin1String("--help")));
}

QTEST_GUILESS_MAIN(tst_Inspect)
#include "tst_inspect.moc"
