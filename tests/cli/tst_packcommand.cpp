// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "hardships.h"
#include "packtest.h"
#include "patience.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string targetOf(const QString &link)
{
    return std::filesystem::read_symlink(link.toStdString()).native();
}

/// How much of the whole each line of progress in @p output tells.
QList<double> sharesTold(const QString &output)
{
    QList<double> shares;
    for (const QJsonObject &object : jsonLines(output)) {
        if (member(object, "event") == QLatin1String("progress"))
            shares.append(object.value(QLatin1String("done")).toDouble()
                / object.value(QLatin1String("total")).toDouble());
    }
    return shares;
}

} // namespace

/// "pellox pack" with the real 7-Zip, and both ways.
class tst_PackCommand : public PackTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { makeTree(); }

    void whatIsPackedIsUnpacked_data();
    void whatIsPackedIsUnpacked();
    void volumesHaveTheSizeAskedFor();
    void summariesTellFilesAndVolumes();
    void anArchiveThatExistsIsReplacedOnlyByForce();
    void forceLeavesNoVolumeOfTheOldArchive();
    void jsonTellsProgress();
    void packRefuses_data();
    void packRefuses();
    void packRefusesWhatCannotBeUnpacked_data();
    void packRefusesWhatCannotBeUnpacked();
    void packRefusesANameThatCannotBeDecoded();
    void linksThatStayInTheFolderArePacked();
    void sizesOutOfRangeAreRefused_data();
    void sizesOutOfRangeAreRefused();
    void tooManyVolumesAreRefused_data();
    void tooManyVolumesAreRefused();
    void removalOfMuchIsTold();
    void anyNameOfAnArchiveIsTaken_data();
    void anyNameOfAnArchiveIsTaken();
    void aFileWithAnOtherNumberIsNoVolume();
    void aPlainFileOfTheNameIsReplacedOnlyByForce();
    void aVolumeInTheWayIsNamedAndNothingReplaced_data();
    void aVolumeInTheWayIsNamedAndNothingReplaced();
    void theOldArchiveSurvivesAFailure_data();
    void theOldArchiveSurvivesAFailure();
    void anArchiveThatAppearsMeanwhileIsNotReplaced_data();
    void anArchiveThatAppearsMeanwhileIsNotReplaced();
    void aLinkThatLeadsNowhereIsReplacedOnlyByForce();
    void aFailedPackLeavesNoFolder();
    void aMissingSevenZipIsOneClearSentence_data();
    void aMissingSevenZipIsOneClearSentence();
    void aSevenZipThatCannotRunIsNamed_data();
    void aSevenZipThatCannotRunIsNamed();
    void aFileThatCannotBeReadIsNamed();
    void namesMayBeginWithAColon();
    void aFullDiskIsOneErrorAndLeavesNothing_data();
    void aFullDiskIsOneErrorAndLeavesNothing();
    void aDiskThatFillsIsToldInOneSentence();
    void aDiskWithoutAnyRoomIsRefused();
    void percentagesBecomeProgress_data();
    void percentagesBecomeProgress();
};

void tst_PackCommand::whatIsPackedIsUnpacked_data()
{
    QTest::addColumn<QString>("pack");
    QTest::addColumn<QString>("unpack");

    QTest::newRow("one volume") << QStringLiteral("pack source a.7z")
                                << QStringLiteral("unpack a.7z.001 got");
    QTest::newRow("name without its number")
        << QStringLiteral("pack source a.7z") << QStringLiteral("unpack a.7z got");
    QTest::newRow("name with a number")
        << QStringLiteral("pack source a.7z.001") << QStringLiteral("unpack a.7z got");
    QTest::newRow("many volumes") << QStringLiteral("pack source/ ./a.7z --volume-size 100K")
                                  << QStringLiteral("unpack a.7z.001 got/");
    QTest::newRow("in new folders") << QStringLiteral("pack source upload/a.7z")
                                    << QStringLiteral("unpack upload/a.7z new/folders/got");
}

void tst_PackCommand::whatIsPackedIsUnpacked()
{
    QFETCH(QString, pack);
    QFETCH(QString, unpack);
    const Outcome packed = run(pack);
    QVERIFY2(packed.status == Done, qPrintable(packed.err));
    const Outcome unpacked = run(unpack);
    QVERIFY2(unpacked.status == Done, qPrintable(unpacked.err));
    const QString got = path(unpack.contains(QLatin1String("new/")) ? "new/folders/got" : "got");
    QCOMPARE(TestTree::snapshot(got), TestTree::snapshot(path("source")));
    QVERIFY(QFileInfo(got + QLatin1String("/link")).isSymLink());
}

void tst_PackCommand::volumesHaveTheSizeAskedFor()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z --volume-size 100K")).status, Done);
    QCOMPARE(filesBeside(QStringLiteral("a.7z*")),
        QStringList(
            {QStringLiteral("a.7z.001"), QStringLiteral("a.7z.002"), QStringLiteral("a.7z.003")}));
    QCOMPARE(QFileInfo(path("a.7z.001")).size(), qint64(100 * 1024));
    QCOMPARE(QFileInfo(path("a.7z.002")).size(), qint64(100 * 1024));
    QVERIFY(QFileInfo(path("a.7z.003")).size() < qint64(100 * 1024));
}

void tst_PackCommand::summariesTellFilesAndVolumes()
{
    const Outcome packed = run(QStringLiteral("pack source a.7z --volume-size 100K"));
    QVERIFY2(packed.out.startsWith(QLatin1String("Packed 6 files (293.0 KiB) into 3 volumes (")),
        qPrintable(packed.out));
    QVERIFY(packed.out.endsWith(QStringLiteral("): %1\n").arg(path("a.7z.001"))));
    const Outcome unpacked = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(unpacked.out, QStringLiteral("Unpacked 6 files (293.0 KiB): %1\n").arg(path("got")));
}

void tst_PackCommand::anArchiveThatExistsIsReplacedOnlyByForce()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    m_tree->remove(QStringLiteral("source/zero"));
    m_tree->remove(QStringLiteral("source/link"));
    const QByteArray before = m_tree->read(QStringLiteral("a.7z.001"));
    const Outcome refused = run(QStringLiteral("pack source a.7z"));
    QCOMPARE(refused.status, WrongUsage);
    QCOMPARE(refused.err,
        QStringLiteral("pellox: error: %1: exists; --force replaces it\n").arg(path("a.7z.001")));
    QCOMPARE(m_tree->read(QStringLiteral("a.7z.001")), before);

    QCOMPARE(run(QStringLiteral("pack source a.7z --force")).status, Done);
    QCOMPARE(run(QStringLiteral("unpack a.7z got")).status, Done);
    QCOMPARE(TestTree::snapshot(path("got")), TestTree::snapshot(path("source")));
}

void tst_PackCommand::forceLeavesNoVolumeOfTheOldArchive()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z --volume-size 100K")).status, Done);
    QCOMPARE(run(QStringLiteral("pack source a.7z --force")).status, Done);
    QCOMPARE(filesBeside(QStringLiteral("a.7z*")), QStringList(QStringLiteral("a.7z.001")));
}

void tst_PackCommand::jsonTellsProgress()
{
    for (const char *words : {"pack source a.7z --json", "unpack a.7z got --json"}) {
        const Outcome outcome = run(QLatin1String(words));
        QCOMPARE(outcome.status, Done);
        const QList<QJsonObject> objects = jsonLines(outcome.out);
        QCOMPARE(member(objects.first(), "event"), QStringLiteral("progress"));
        QCOMPARE(member(objects.last(), "outcome"), QStringLiteral("done"));
        QCOMPARE(outcome.err, QString());
    }
}

void tst_PackCommand::packRefuses_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("message"); // "~" is the tree's folder

    QTest::newRow("no folder") << QStringLiteral("pack nosuch a.7z")
                               << QStringLiteral("~/nosuch: there is no such folder");
    QTest::newRow("a file") << QStringLiteral("pack source/zero a.7z")
                            << QStringLiteral("~/source/zero: is not a folder");
    QTest::newRow("an empty folder")
        << QStringLiteral("pack source/empty a.7z")
        << QStringLiteral("~/source/empty: is empty: there is nothing to pack");
    QTest::newRow("archive inside the folder")
        << QStringLiteral("pack source source/data/a.7z")
        << QStringLiteral("~/source/data/a.7z: lies inside ~/source; the two must lie apart");
    QTest::newRow("archive is a folder")
        << QStringLiteral("pack source folder.7z") << QStringLiteral("~/folder.7z: is a folder");
    QTest::newRow("first volume is a folder, with force")
        << QStringLiteral("pack source b.7z --force") << QStringLiteral("~/b.7z.001: is a folder");
    QTest::newRow("a wildcard in the folder")
        << QStringLiteral("pack wild*card a.7z")
        << QStringLiteral(
               "~/wild*card: has a * or ? in its path, which 7-Zip takes for a wildcard");
    QTest::newRow("archive below a file")
        << QStringLiteral("pack source folder.7z/file/a.7z")
        << QStringLiteral("~/folder.7z/file: cannot be created: Not a directory");
}

void tst_PackCommand::packRefuses()
{
    QFETCH(QString, words);
    QFETCH(QString, message);
    m_tree->write(QStringLiteral("folder.7z/file"), "in the way");
    m_tree->makeFolder(QStringLiteral("b.7z.001"));
    m_tree->write(QStringLiteral("wild*card/file"), "x");
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(words);
    message.replace(QLatin1Char('~'), m_tree->path());
    QCOMPARE(outcome.err, QLatin1String("pellox: error: ") + message + QLatin1Char('\n'));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_PackCommand::packRefusesWhatCannotBeUnpacked_data()
{
    QTest::addColumn<QString>("name"); // of what stands in "source"
    QTest::addColumn<QString>("kind"); // "file", "pipe", or the target of a link
    QTest::addColumn<QString>("reason");

    const QString control = QStringLiteral("has a line break or another control character in its "
                                           "name, which 7-Zip does not keep");
    const QString special = QStringLiteral("is neither a file nor a folder nor a link");
    const QString absolute
        = QStringLiteral("is a link with an absolute target, which 7-Zip alters");
    const QString climbing = QStringLiteral("is a link that 7-Zip does not unpack: its target is "
                                            "\".\" or leads through \"..\"");
    const QString chained
        = QStringLiteral("is a link that 7-Zip does not unpack: its target is another link, or "
                         "leads through one; let it lead straight to the file or folder");
    QTest::newRow("line break") << QStringLiteral("a\nb") << QStringLiteral("file") << control;
    QTest::newRow("escape") << QStringLiteral("data/a\x1b") << QStringLiteral("file") << control;
    QTest::newRow("hidden") << QStringLiteral(".a\rb") << QStringLiteral("file") << control;
    const QString message = QStringLiteral("has a name that reads like 7-Zip's own messages "
                                           "(\"Everything is Ok\", \"Error:\"), by which a run "
                                           "is judged");
    QTest::newRow("success") << QStringLiteral("data/Everything is Ok.txt")
                             << QStringLiteral("file") << message;
    QTest::newRow("success in other letters")
        << QStringLiteral("EVERYTHING  isOK") << QStringLiteral("file") << message;
    QTest::newRow("an error") << QStringLiteral("data/my error: none") << QStringLiteral("file")
                              << message;
    QTest::newRow("pipe") << QStringLiteral("data/pipe") << QStringLiteral("pipe") << special;
    QTest::newRow("absolute link")
        << QStringLiteral("data/up") << QStringLiteral("/etc/hostname") << absolute;
    QTest::newRow("link out") << QStringLiteral("up") << QStringLiteral("../source/zero")
                              << climbing;
    QTest::newRow("link up within")
        << QStringLiteral("data/up") << QStringLiteral("../zero") << climbing;
    QTest::newRow("link up and down")
        << QStringLiteral("up") << QStringLiteral("data/../zero") << climbing;
    QTest::newRow("link to a link") << QStringLiteral("chain") << QStringLiteral("way") << chained;
    QTest::newRow("link to a link by here")
        << QStringLiteral("chain") << QStringLiteral("./way/") << chained;
    QTest::newRow("link through a link")
        << QStringLiteral("chain") << QStringLiteral("way/random.pak") << chained;
    QTest::newRow("link through a link deep down")
        << QStringLiteral("chain") << QStringLiteral("data/way/x") << chained;
    QTest::newRow("link to itself") << QStringLiteral("loop") << QStringLiteral("loop") << chained;
    QTest::newRow("two slashes") << QStringLiteral("slashes") << QStringLiteral("data//random.pak")
                                 << QStringLiteral(
                                        "is a link with \"//\" in its target, which 7-Zip alters");
    QTest::newRow("link to here") << QStringLiteral("here") << QStringLiteral("./") << climbing;
}

void tst_PackCommand::packRefusesWhatCannotBeUnpacked()
{
    QFETCH(QString, name);
    QFETCH(QString, kind);
    QFETCH(QString, reason);
    const QString relative = QLatin1String("source/") + name;
    if (kind == QLatin1String("file"))
        m_tree->write(relative, "x");
    else if (kind == QLatin1String("pipe"))
        QCOMPARE(::mkfifo(QFile::encodeName(m_tree->path(relative)).constData(), 0600), 0);
    else
        m_tree->link(relative, kind);
    m_tree->link(QStringLiteral("source/way"), QStringLiteral("data"));
    m_tree->link(QStringLiteral("source/data/way"), QStringLiteral("nowhere"));
    const QStringList before = namesOfAll();
    const Outcome outcome = run(QStringLiteral("pack source new/a.7z --json"));
    const QJsonObject error = jsonLines(outcome.out).first();
    QCOMPARE(member(error, "file"), m_tree->path(relative));
    QCOMPARE(member(error, "error"), m_tree->path(relative) + QLatin1String(": ") + reason);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(namesOfAll(), before);
}

void tst_PackCommand::packRefusesANameThatCannotBeDecoded()
{
    const QByteArray name = QFile::encodeName(path("source/data/.bad")) + '\xff';
    QCOMPARE(::mkdir(name.constData(), 0700), 0);
    const Outcome outcome = run(QStringLiteral("pack source a.7z"));
    QCOMPARE(::rmdir(name.constData()), 0); // Qt cannot
    QCOMPARE(outcome.status, WrongUsage);
    QVERIFY2(outcome.err.endsWith(
                 QLatin1String("has a name that is not valid in the encoding of the locale\n")),
        qPrintable(outcome.err));
    QCOMPARE(filesBeside(QStringLiteral("a.7z*")), QStringList());
}

void tst_PackCommand::linksThatStayInTheFolderArePacked()
{
    m_tree->link(QStringLiteral("source/to a folder"), QStringLiteral("data"));
    m_tree->link(QStringLiteral("source/to a folder as such"), QStringLiteral("data/"));
    m_tree->link(QStringLiteral("source/to nothing"), QStringLiteral("..nosuch"));
    m_tree->link(QStringLiteral("source/by the way of here"), QStringLiteral("./data/./x"));
    const Outcome packed = run(QStringLiteral("pack source a.7z"));
    QVERIFY2(packed.out.startsWith(QLatin1String("Packed 10 files")), qPrintable(packed.err));
    const Outcome unpacked = run(QStringLiteral("unpack a.7z got"));
    QVERIFY2(unpacked.out.startsWith(QLatin1String("Unpacked 10 files")), qPrintable(unpacked.err));
    for (const char *link : {"to a folder", "to a folder as such", "by the way of here"}) {
        QCOMPARE(targetOf(path("got/") + QLatin1String(link)),
            targetOf(path("source/") + QLatin1String(link)));
    }
    QCOMPARE(m_tree->read(QStringLiteral("got/to a folder/random.pak")), randomBytes(300000, 1));
}

void tst_PackCommand::sizesOutOfRangeAreRefused_data()
{
    QTest::addColumn<QString>("size");

    for (const char *size : {"0", "-1", "1.5M", "many", "5X", "2E", "1025P", "9223372036854775808",
             "99999999999999999999"})
        QTest::newRow(size) << QString::fromLatin1(size);
}

void tst_PackCommand::sizesOutOfRangeAreRefused()
{
    QFETCH(QString, size);
    const Outcome outcome = run(QStringLiteral("pack source a.7z --volume-size=") + size);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: --volume-size: %1 is no size: a whole number from 1 byte to "
                       "1 EiB, such as 500M\n"
                       "Run \"pellox pack --help\" for more information.\n")
            .arg(size));
    QCOMPARE(filesBeside(QStringLiteral("a.7z*")), QStringList());
}

void tst_PackCommand::tooManyVolumesAreRefused_data()
{
    QTest::addColumn<QString>("size");
    QTest::addColumn<QString>("reason"); // empty where it is none

    QTest::newRow("without its unit")
        << QStringLiteral("10")
        << QStringLiteral("volumes of 10 bytes would be up to 104858 for 1.0 MiB: did you mean "
                          "10M?");
    QTest::newRow("too small") << QStringLiteral(
        "1K") << QStringLiteral("volumes of 1.0 KiB would be up to 1025 for 1.0 MiB: 1M would do");
    QTest::newRow("just large enough") << QStringLiteral("1051") << QString();
}

void tst_PackCommand::tooManyVolumesAreRefused()
{
    QFETCH(QString, size);
    QFETCH(QString, reason);
    m_tree->write(QStringLiteral("large/file"), QByteArray(1 << 20, 'x'));
    const Outcome outcome = run(QStringLiteral("pack large a.7z --volume-size ") + size);
    if (reason.isEmpty()) {
        QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
        return;
    }
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(
        outcome.err, QStringLiteral("pellox: error: --volume-size: ") + reason + QLatin1Char('\n'));
    QCOMPARE(filesBeside(QStringLiteral("a.7z*")), QStringList());
}

void tst_PackCommand::removalOfMuchIsTold()
{
    const QString program
        = makeStandIn("a) for i in $(seq 100 249); do echo x > archive.7z.$i; done; "
                      "touch ../made; exec sleep 300;;");
    QProcess process;
    startProgram(process, program,
        {QStringLiteral("pack"), QStringLiteral("source"), QStringLiteral("a.7z")}, m_tree->path());
    QTRY_VERIFY_WITH_TIMEOUT(m_tree->exists(QStringLiteral("made")), Patience);
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Interrupted);
    QVERIFY2(outcome.err.endsWith(QLatin1String("pellox: removing what was half made (150 files, "
                                                "300 bytes)\npellox: interrupted\n")),
        qPrintable(outcome.err));
    QCOMPARE(entries(m_tree->path(), QStringLiteral(".pellox-*")), QStringList());
}

void tst_PackCommand::anyNameOfAnArchiveIsTaken_data()
{
    QTest::addColumn<QString>("archive");
    QTest::addColumn<QString>("volume");

    QTest::newRow("no dot") << QStringLiteral("game") << QStringLiteral("game.001");
    QTest::newRow("a switch") << QStringLiteral("./-x") << QStringLiteral("-x.001");
    QTest::newRow("a resource") << QStringLiteral(":a.7z") << QStringLiteral(":a.7z.001");
    QTest::newRow("a list") << QStringLiteral("@list.7z") << QStringLiteral("@list.7z.001");
    QTest::newRow("a percent sign") << QStringLiteral("100%1.7z") << QStringLiteral("100%1.7z.001");
    QTest::newRow("wildcards") << QStringLiteral("what?*.7z") << QStringLiteral("what?*.7z.001");
    QTest::newRow("a number alone") << QStringLiteral(".001") << QStringLiteral(".001.001");
    QTest::newRow("wildcards in its folder")
        << QStringLiteral("ne?/fold*/a.7z") << QStringLiteral("ne?/fold*/a.7z.001");
    QTest::newRow("new folders") << QStringLiteral("new/folders/a.7z")
                                 << QStringLiteral("new/folders/a.7z.001");
}

void tst_PackCommand::anyNameOfAnArchiveIsTaken()
{
    QFETCH(QString, archive);
    QFETCH(QString, volume);
    const Outcome packed = run(QStringLiteral("pack source ") + archive);
    QVERIFY2(packed.status == Done, qPrintable(packed.err));
    // Beside a name without wildcards, which "unpack" does not take.
    QVERIFY(QFile::rename(m_tree->path(volume), path("plain.7z.001")));
    QCOMPARE(run(QStringLiteral("unpack plain.7z got")).status, Done);
    QCOMPARE(TestTree::snapshot(path("got")), TestTree::snapshot(path("source")));
    QCOMPARE(entries(m_tree->path(), QStringLiteral(".pellox*")), QStringList());
}

void tst_PackCommand::aFileWithAnOtherNumberIsNoVolume()
{
    m_tree->write(QStringLiteral("game.2024"), "mine");
    QCOMPARE(run(QStringLiteral("pack source game")).status, Done);
    QCOMPARE(run(QStringLiteral("pack source game --force")).status, Done);
    QCOMPARE(m_tree->read(QStringLiteral("game.2024")), QByteArray("mine"));
    QCOMPARE(run(QStringLiteral("unpack game got")).status, Done);
}

void tst_PackCommand::aPlainFileOfTheNameIsReplacedOnlyByForce()
{
    m_tree->write(QStringLiteral("a.7z"), "old");
    const Outcome refused = run(QStringLiteral("pack source a.7z"));
    QCOMPARE(refused.status, WrongUsage);
    QCOMPARE(refused.err,
        QStringLiteral("pellox: error: %1: exists; --force replaces it\n").arg(path("a.7z")));
    QCOMPARE(run(QStringLiteral("pack source a.7z --force")).status, Done);
    QCOMPARE(filesBeside(QStringLiteral("a.7z*")), QStringList(QStringLiteral("a.7z.001")));
}

void tst_PackCommand::aVolumeInTheWayIsNamedAndNothingReplaced_data()
{
    QTest::addColumn<QString>("stray");
    QTest::addColumn<QString>("reason");

    QTest::newRow("between") << QStringLiteral("a.7z.003") << QStringLiteral("is in the way");
    QTest::newRow("behind") << QStringLiteral("a.7z.004")
                            << QStringLiteral("is in the way: it would pass for one more volume");
}

void tst_PackCommand::aVolumeInTheWayIsNamedAndNothingReplaced()
{
    QFETCH(QString, stray);
    QFETCH(QString, reason);
    m_tree->write(QStringLiteral("a.7z.001"), "old");
    m_tree->write(stray, "stray");
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(QStringLiteral("pack source a.7z --volume-size 100K --force"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: %2").arg(m_tree->path(stray), reason)));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_PackCommand::theOldArchiveSurvivesAFailure_data()
{
    QTest::addColumn<QByteArray>("cases");
    QTest::addColumn<QString>("error");

    QTest::newRow("7-Zip fails") << QByteArray("a) echo x > archive.7z.001.tmp; echo 'ERROR: no';;")
                                 << QStringLiteral("~/a.7z: cannot be made (7-Zip: no)");
    QTest::newRow("7-Zip ends without a word")
        << QByteArray("a) printf 'WARNING: x\\nand much more\\n'; exit 1;;")
        << QStringLiteral("~/a.7z: cannot be made (7-Zip ended with exit code 1 and told neither "
                          "success nor failure. Its last output: WARNING: x)");
    QTest::newRow("a volume is missing")
        << QByteArray("a) out=$(\"$real\" \"$@\"); rm archive.7z.002; echo \"$out\";;")
        << QStringLiteral("~/a.7z.002: is missing from the volumes of the archive");
    QTest::newRow("a volume is short")
        << QByteArray("a) out=$(\"$real\" \"$@\"); truncate -s 9 archive.7z.002; echo \"$out\";;")
        << QStringLiteral("~/a.7z.002: is not a whole volume");
    QTest::newRow("a file is missing")
        << QByteArray("l) \"$real\" \"$@\" | grep -v '^Path = zero$';;")
        << QStringLiteral("~/a.7z: would hold 5 files, not the 6 files of the folder");
}

void tst_PackCommand::theOldArchiveSurvivesAFailure()
{
    QFETCH(QByteArray, cases);
    QFETCH(QString, error);
    QCOMPARE(run(QStringLiteral("pack source a.7z --volume-size 100K")).status, Done);
    makeStandIn(cases.constData());
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = runStandIn(
        cases.constData(), QStringLiteral("pack source a.7z --volume-size 100K --force"));
    QCOMPARE(outcome.status, Failed);
    error.replace(QLatin1Char('~'), m_tree->path());
    QCOMPARE(errorLines(outcome.err).value(0), QLatin1String("pellox: error: ") + error);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_PackCommand::anArchiveThatAppearsMeanwhileIsNotReplaced_data()
{
    QTest::addColumn<QByteArray>("command");

    QTest::newRow("a file") << QByteArray("echo other > ../a.7z.001");
    QTest::newRow("a link that leads nowhere") << QByteArray("ln -s nowhere ../a.7z.001");
}

void tst_PackCommand::anArchiveThatAppearsMeanwhileIsNotReplaced()
{
    QFETCH(QByteArray, command);
    const QByteArray cases = "a) " + command + "; exec \"$real\" \"$@\";;";
    makeStandIn(cases.constData());
    QStringList expected = namesOfAll();
    expected.append(path("a.7z.001"));
    expected.sort();
    const Outcome outcome = runStandIn(cases.constData(), QStringLiteral("pack source a.7z"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: is in the way").arg(path("a.7z.001"))));
    QCOMPARE(namesOfAll(), expected);
    if (!QFileInfo(path("a.7z.001")).isSymLink())
        QCOMPARE(m_tree->read(QStringLiteral("a.7z.001")), QByteArray("other\n"));
}

void tst_PackCommand::aLinkThatLeadsNowhereIsReplacedOnlyByForce()
{
    m_tree->link(QStringLiteral("a.7z.001"), QStringLiteral("nowhere"));
    const Outcome refused = run(QStringLiteral("pack source a.7z"));
    QCOMPARE(refused.status, WrongUsage);
    QCOMPARE(refused.err,
        QStringLiteral("pellox: error: %1: exists; --force replaces it\n").arg(path("a.7z.001")));
    QCOMPARE(run(QStringLiteral("pack source a.7z --force")).status, Done);
    QVERIFY(!QFileInfo(path("a.7z.001")).isSymLink());
    QVERIFY(!m_tree->exists(QStringLiteral("nowhere")));
}

void tst_PackCommand::aFailedPackLeavesNoFolder()
{
    const char cases[] = "a) echo 'ERROR: no';;";
    makeStandIn(cases);
    const QStringList before = namesOfAll();
    QCOMPARE(runStandIn(cases, QStringLiteral("pack source new/folders/a.7z")).status, Failed);
    QCOMPARE(namesOfAll(), before);
}

void tst_PackCommand::aMissingSevenZipIsOneClearSentence_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<bool>("isFolder"); // that stands in its place

    const QString pack = QStringLiteral("pack source b.7z");
    const QString unpack = QStringLiteral("unpack a.7z got");
    QTest::newRow("pack") << pack << false;
    QTest::newRow("unpack") << unpack << false;
    QTest::newRow("pack, a folder") << pack << true;
    QTest::newRow("unpack, a folder") << unpack << true;
}

void tst_PackCommand::aMissingSevenZipIsOneClearSentence()
{
    QFETCH(QString, words);
    QFETCH(bool, isFolder);
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    // The program in a folder without a 7zr beside it.
    m_tree->makeFolder(isFolder ? QStringLiteral("lonely/7zr") : QStringLiteral("lonely"));
    QVERIFY(QFile::copy(QStringLiteral(PELLOX_PROGRAM), path("lonely/pellox")));
    QProcess process;
    startProgram(process, path("lonely/pellox"), words.split(QLatin1Char(' ')), m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1/7zr: is not there: put the 7-Zip console program 7zr, or "
                       "a link to it, beside the program (Debian has it in the package p7zip)\n")
            .arg(path("lonely")));
}

void tst_PackCommand::aSevenZipThatCannotRunIsNamed_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QByteArray>("content");

    const QByteArray noInterpreter = "#!/no/such/interpreter\n";
    const QByteArray garbage(100, '\xff');
    for (const QString &words :
        {QStringLiteral("pack source new/b.7z"), QStringLiteral("unpack a.7z new/got")}) {
        const QByteArray command = words.section(QLatin1Char(' '), 0, 0).toLatin1();
        QTest::newRow(command + ", no interpreter") << words << noInterpreter;
        QTest::newRow(command + ", garbage") << words << garbage;
    }
}

void tst_PackCommand::aSevenZipThatCannotRunIsNamed()
{
    QFETCH(QString, words);
    QFETCH(QByteArray, content);
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    const QString program = makeStandIn("");
    m_tree->write(QStringLiteral("standin/7zr"), content);
    QProcess process;
    startProgram(process, program, words.split(QLatin1Char(' ')), m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, WrongUsage);
    const QRegularExpression form(
        QStringLiteral("^pellox: error: %1: cannot be run \\([^()]+\\): put the 7-Zip console "
                       "program 7zr, or a link to it, beside the program .*\n$")
            .arg(path("standin/7zr")));
    QVERIFY2(form.match(outcome.err).hasMatch(), qPrintable(outcome.err));
    QVERIFY(!m_tree->exists(QStringLiteral("new")));
}

void tst_PackCommand::aFileThatCannotBeReadIsNamed()
{
    const QString file = path("source/data/random.pak");
    Faults noReading{file, "open", 1, QByteArray::number(EACCES)};
    noReading.later = true;
    const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("pack"), path("source"), path("new/a.7z")}, noReading);
    QCOMPARE(run.status, WrongUsage);
    QCOMPARE(QString::fromUtf8(run.errors),
        QStringLiteral("pellox: error: %1: cannot be read (Permission denied)\n").arg(file));
    QVERIFY(!m_tree->exists(QStringLiteral("new")));
}

void tst_PackCommand::namesMayBeginWithAColon()
{
    m_tree->write(QStringLiteral(":folder/:inner/:file"), "x");
    m_tree->write(QStringLiteral(":folder/:file"), "y");
    const Outcome packed = run(QStringLiteral("pack :folder :a.7z"));
    QVERIFY2(packed.status == Done, qPrintable(packed.err));
    const Outcome unpacked = run(QStringLiteral("unpack :a.7z :got"));
    QVERIFY2(unpacked.status == Done, qPrintable(unpacked.err));
    QCOMPARE(TestTree::snapshot(path(":got")), TestTree::snapshot(path(":folder")));
}

void tst_PackCommand::aFullDiskIsOneErrorAndLeavesNothing_data()
{
    QTest::addColumn<QString>("words");

    QTest::newRow("pack") << QStringLiteral("pack source new/b.7z");
    QTest::newRow("unpack") << QStringLiteral("unpack a.7z new/got");
}

void tst_PackCommand::aFullDiskIsOneErrorAndLeavesNothing()
{
    QFETCH(QString, words);
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    const QStringList before = namesOfAll();
    const Outcome outcome = runWithFileLimit(words, m_tree->path());
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err).size(), 1);
    QCOMPARE(namesOfAll(), before);
}

void tst_PackCommand::aDiskThatFillsIsToldInOneSentence()
{
    if (!canMount())
        QSKIP("disks cannot be mounted here");
    m_tree->makeFolder(QStringLiteral("disk"));
    const DiskRun run = runWithDisk(QStringLiteral("disk"), QStringLiteral("200k"),
        QStringLiteral("pack source disk/new/a.7z"), m_tree->path());
    QCOMPARE(run.outcome.status, Failed);
    const QString note
        = QStringLiteral("pellox: %1: the disk has only 200.0 KiB free, and 293.0 KiB are packed: "
                         "there may be no room for the archive\n")
              .arg(path("disk/new/a.7z"));
    QVERIFY2(run.outcome.err.startsWith(note), qPrintable(run.outcome.err));
    QCOMPARE(errorLines(run.outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: has no room, the disk is full: 293.0 KiB "
                                   "were to be packed, 200.0 KiB are free")
                        .arg(path("disk/new/a.7z"))));
    QVERIFY2(run.after.isEmpty(), qPrintable(QStringList(run.after.keys()).join(QLatin1Char(' '))));
}

void tst_PackCommand::aDiskWithoutAnyRoomIsRefused()
{
    if (!canMount())
        QSKIP("disks cannot be mounted here");
    m_tree->makeFolder(QStringLiteral("disk"));
    const DiskRun run = runWithDisk(QStringLiteral("disk"), QStringLiteral("100k"),
        QStringLiteral("pack source disk/a.7z"), m_tree->path(),
        QStringLiteral("head -c 100K /dev/zero > disk/mine"));
    QCOMPARE(run.outcome.status, WrongUsage);
    QCOMPARE(run.outcome.err,
        QStringLiteral("pellox: error: %1: has no room: 32 bytes are needed, 0 bytes are free\n")
            .arg(path("disk")));
    QCOMPARE(run.after.keys(), QStringList(QStringLiteral("mine")));
}

void tst_PackCommand::percentagesBecomeProgress_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<QString>("words");

    QTest::newRow("pack") << QByteArray("a") << QStringLiteral("pack source b.7z --json");
    QTest::newRow("unpack") << QByteArray("x") << QStringLiteral("unpack a.7z got --json");
}

void tst_PackCommand::percentagesBecomeProgress()
{
    QFETCH(QByteArray, command);
    QFETCH(QString, words);
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    // Some are left out, where several come within a tenth of a second.
    const QByteArray cases = command
        + ") while [ ! -e \"${0%/*}/go\" ]; do echo ' 42% 3 + data/random.pak'; sleep 0.05; done; "
          "exec \"$real\" \"$@\";;";
    QProcess process;
    startProgram(
        process, makeStandIn(cases.constData()), words.split(QLatin1Char(' ')), m_tree->path());
    QString output;
    const auto isTold = [&] {
        output += QString::fromUtf8(process.readAllStandardOutput());
        const QList<double> shares = sharesTold(output);
        return std::any_of(shares.cbegin(), shares.cend(),
            [](double share) { return share > 0.419 && share <= 0.42; });
    };
    QTRY_VERIFY_WITH_TIMEOUT(isTold(), Patience);
    m_tree->write(QStringLiteral("standin/go"), QByteArray());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Done);
    const QList<double> shares = sharesTold(output + outcome.out);
    QVERIFY(std::is_sorted(shares.cbegin(), shares.cend()));
    QCOMPARE(shares.last(), 1.0);
}

QTEST_GUILESS_MAIN(tst_PackCommand)
#include "tst_packcommand.moc"
