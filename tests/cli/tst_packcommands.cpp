// SPDX-License-Identifier: MIT
#include "program.h"
#include "testtree.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <memory>

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

/// A child with a process group of its own, as a shell gives it one at a terminal.
class SessionLeader : public QProcess
{
protected:
    void setupChildProcess() override { ::setsid(); }
};

QString realSevenZip()
{
    return QFileInfo(QFileInfo(QStringLiteral(PELLOX_PROGRAM)).path() + QLatin1String("/7zr"))
        .canonicalFilePath();
}

QStringList entries(const QString &folder, const QString &pattern)
{
    return QDir(folder).entryList(
        {pattern}, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

} // namespace

/// "pellox pack" and "pellox unpack" with the real 7-Zip.
class tst_PackCommands : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void whatIsPackedIsUnpacked_data();
    void whatIsPackedIsUnpacked();
    void volumesHaveTheSizeAskedFor();
    void summariesTellFilesAndVolumes();
    void anArchiveThatExistsIsReplacedOnlyByForce();
    void forceLeavesNoVolumeOfTheOldArchive();
    void jsonTellsProgress();

    void packRefuses_data();
    void packRefuses();
    void unpackRefuses_data();
    void unpackRefuses();
    void packRefusesWhatCannotBeUnpacked_data();
    void packRefusesWhatCannotBeUnpacked();
    void packRefusesANameThatCannotBeDecoded();
    void linksThatStayInTheFolderArePacked();
    void sizesOutOfRangeAreRefused_data();
    void sizesOutOfRangeAreRefused();
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
    void unpackNeverOverwrites();
    void unpackRefusesEntriesThatClimbOut_data();
    void unpackRefusesEntriesThatClimbOut();
    void unpackRefusesNamesThatSevenZipAlters_data();
    void unpackRefusesNamesThatSevenZipAlters();
    void unpackRefusesNamesThatReadAsMessages_data();
    void unpackRefusesNamesThatReadAsMessages();
    void unpackRefusesOtherFormats_data();
    void unpackRefusesOtherFormats();
    void unpackRefusesWhatHasNoRoom();
    void unpackTakesTheFileOfTheVeryName();
    void aNameThatChangesOnTheWayFails();
    void linksThatLeadOutFail_data();
    void linksThatLeadOutFail();
    void aLinkInPlaceOfAFolderIsNotFollowed();
    void foldersMayBeWriteProtected();
    void anArchiveMayHaveNoAttributes();
    void ofTwoEntriesWithOnePathTheLaterStays();
    void foldersThatExistAreMergedAndKept();
    void whatAppearsMeanwhileIsNotReplaced_data();
    void whatAppearsMeanwhileIsNotReplaced();
    void unpackTellsOfAPassword_data();
    void unpackTellsOfAPassword();
    void unpackNamesTheFolderThatFails();
    void whatFailsTheCheckIsRemoved();
    void aMissingVolumeIsNamed();
    void aMissingVolumeBeyondThreeDigitsIsNamed();
    void aTruncatedVolumeIsRefused();
    void damagedContentFailsAndLeavesNothing();
    void aMissingSevenZipIsOneClearSentence_data();
    void aMissingSevenZipIsOneClearSentence();
    void aSevenZipThatCannotRunIsNamed();
    void aFullDiskIsOneErrorAndLeavesNothing_data();
    void aFullDiskIsOneErrorAndLeavesNothing();
    void percentagesBecomeProgress_data();
    void percentagesBecomeProgress();

    void interruptLeavesNothing_data();
    void interruptLeavesNothing();
    void interruptEndsTheCheckOfTheArchive();
    void interruptEndsTheListing();
    void aReaderThatHasGoneStopsNoCleaning();
    void aReaderThatHasGoneStopsNoWork();

private:
    Outcome run(const QString &words) const;
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }
    QStringList filesBeside(const QString &pattern) const;
    QStringList namesOfAll() const;
    int runSevenZip(const QString &folder, const QStringList &arguments) const;
    void makeArchiveWithEntry(const QString &entry) const;
    QString makeStandIn(const char *cases) const;
    Outcome runStandIn(const char *cases, const QString &words) const;

    std::unique_ptr<TestTree> m_tree;
};

void tst_PackCommands::init()
{
    m_tree = std::make_unique<TestTree>();
    m_tree->write(QStringLiteral("source/data/random.pak"), randomBytes(300000, 1));
    m_tree->write(QStringLiteral("source/data/grüße an alle.txt"), "hello");
    m_tree->write(QStringLiteral("source/name = value"), "odd");
    m_tree->write(QStringLiteral("source/.hidden"), "packed too");
    m_tree->write(QStringLiteral("source/zero"), QByteArray());
    m_tree->makeFolder(QStringLiteral("source/empty"));
    m_tree->link(QStringLiteral("source/link"), QStringLiteral("zero"));
}

Outcome tst_PackCommands::run(const QString &words) const
{
    return runPellox(words.split(QLatin1Char(' ')), m_tree->path());
}

QStringList tst_PackCommands::filesBeside(const QString &pattern) const
{
    return QDir(m_tree->path()).entryList({pattern}, QDir::Files);
}

QStringList tst_PackCommands::namesOfAll() const
{
    QStringList names;
    QDirIterator walk(m_tree->path(),
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (walk.hasNext())
        names.append(walk.next());
    names.sort();
    return names;
}

int tst_PackCommands::runSevenZip(const QString &folder, const QStringList &arguments) const
{
    QProcess process;
    startProgram(process, realSevenZip(), arguments, m_tree->path(folder));
    return outcomeOf(process).status;
}

/// a.7z with one file, "x\n", under any name.
void tst_PackCommands::makeArchiveWithEntry(const QString &entry) const
{
    m_tree->write(QStringLiteral("name"), "x\n");
    QCOMPARE(
        runSevenZip(QString(), {QStringLiteral("a"), path("a.7z"), QStringLiteral("name")}), 0);
    QCOMPARE(
        runSevenZip(QString(), {QStringLiteral("rn"), path("a.7z"), QStringLiteral("name"), entry}),
        0);
}

/// The program beside a script that stands in for 7-Zip: @p cases by its first argument, and else
/// the real one, which is $real in the script. Returns the program's path.
QString tst_PackCommands::makeStandIn(const char *cases) const
{
    const QByteArray script = "#!/bin/sh\nreal='" + QFile::encodeName(realSevenZip())
        + "'\ncase $1 in\n" + cases + "\n*) exec \"$real\" \"$@\";;\nesac\n";
    m_tree->write(QStringLiteral("standin/7zr"), script);
    QFile::setPermissions(
        path("standin/7zr"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QFile::copy(QStringLiteral(PELLOX_PROGRAM), path("standin/pellox"));
    return path("standin/pellox");
}

Outcome tst_PackCommands::runStandIn(const char *cases, const QString &words) const
{
    QProcess process;
    startProgram(process, makeStandIn(cases), words.split(QLatin1Char(' ')), m_tree->path());
    return outcomeOf(process);
}

void tst_PackCommands::whatIsPackedIsUnpacked_data()
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

void tst_PackCommands::whatIsPackedIsUnpacked()
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

void tst_PackCommands::volumesHaveTheSizeAskedFor()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z --volume-size 100K")).status, Done);
    QCOMPARE(filesBeside(QStringLiteral("a.7z*")),
        QStringList(
            {QStringLiteral("a.7z.001"), QStringLiteral("a.7z.002"), QStringLiteral("a.7z.003")}));
    QCOMPARE(QFileInfo(path("a.7z.001")).size(), qint64(100 * 1024));
    QCOMPARE(QFileInfo(path("a.7z.002")).size(), qint64(100 * 1024));
    QVERIFY(QFileInfo(path("a.7z.003")).size() < qint64(100 * 1024));
}

void tst_PackCommands::summariesTellFilesAndVolumes()
{
    const Outcome packed = run(QStringLiteral("pack source a.7z --volume-size 100K"));
    QVERIFY2(packed.out.startsWith(QLatin1String("Packed 6 files (293.0 KiB) into 3 volumes (")),
        qPrintable(packed.out));
    QVERIFY(packed.out.endsWith(QStringLiteral("): %1\n").arg(path("a.7z.001"))));
    const Outcome unpacked = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(unpacked.out, QStringLiteral("Unpacked 6 files (293.0 KiB): %1\n").arg(path("got")));
}

void tst_PackCommands::anArchiveThatExistsIsReplacedOnlyByForce()
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

void tst_PackCommands::forceLeavesNoVolumeOfTheOldArchive()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z --volume-size 100K")).status, Done);
    QCOMPARE(run(QStringLiteral("pack source a.7z --force")).status, Done);
    QCOMPARE(filesBeside(QStringLiteral("a.7z*")), QStringList(QStringLiteral("a.7z.001")));
}

void tst_PackCommands::jsonTellsProgress()
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

void tst_PackCommands::packRefuses_data()
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
    QTest::newRow("archive below a file") << QStringLiteral("pack source folder.7z/file/a.7z")
                                          << QStringLiteral("~/folder.7z/file: cannot be created");
}

void tst_PackCommands::packRefuses()
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

void tst_PackCommands::unpackRefuses_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("message"); // the beginning

    QTest::newRow("no archive")
        << QStringLiteral("unpack nosuch.7z got")
        << QStringLiteral("~/nosuch.7z: there is no such archive, neither a file of this name nor "
                          "~/nosuch.7z.001\n");
    QTest::newRow("no archive, by its first volume")
        << QStringLiteral("unpack nosuch.7z.001 got")
        << QStringLiteral("~/nosuch.7z: there is no such archive, neither a file of this name nor "
                          "~/nosuch.7z.001\n");
    QTest::newRow("no archive, but one that ends in .7z")
        << QStringLiteral("unpack whole got")
        << QStringLiteral("~/whole: there is no such archive, neither a file of this name nor "
                          "~/whole.001; did you mean ~/whole.7z.001?\n");
    const QString swapped = QStringLiteral(
        "~/source: is a folder: the archive stands first, the folder to fill second\n");
    QTest::newRow("a folder") << QStringLiteral("unpack source got") << swapped;
    QTest::newRow("swapped arguments") << QStringLiteral("unpack source whole.7z.001") << swapped;
    QTest::newRow("the second volume")
        << QStringLiteral("unpack whole.7z.002 got")
        << QStringLiteral("~/whole.7z.002: is not the first volume; give ~/whole.7z.001\n");
    const QString firstMissing
        = QStringLiteral("~/cut.7z.001: is missing from the volumes of the archive\n");
    QTest::newRow("first volume missing") << QStringLiteral("unpack cut.7z got") << firstMissing;
    QTest::newRow("first volume missing, by its number")
        << QStringLiteral("unpack cut.7z.001 got") << firstMissing;
    QTest::newRow("first volume missing, by the second")
        << QStringLiteral("unpack cut.7z.002 got") << firstMissing;
    const QString noArchive = QStringLiteral("is damaged or no 7z archive (7-Zip: %1); download it "
                                             "or make it again\n");
    QTest::newRow("no archive at all") << QStringLiteral("unpack source/name got")
                                       << QStringLiteral("~/source/name: ")
            + noArchive.arg(QLatin1String("Cannot open the file as archive"));
    QTest::newRow("no archive at all, in volumes")
        << QStringLiteral("unpack whole.7z got")
        << QStringLiteral("~/whole.7z.001: ") + noArchive.arg(QLatin1String("Is not archive"));
    QTest::newRow("into a file") << QStringLiteral("unpack source/name source/zero")
                                 << QStringLiteral("~/source/zero: is not a folder\n");
    const QString wildcard
        = QStringLiteral(": has a * or ? in its path, which 7-Zip takes for a wildcard\n");
    QTest::newRow("a wildcard in the folder")
        << QStringLiteral("unpack source/name got*") << QStringLiteral("~/got*") + wildcard;
    QTest::newRow("a wildcard in the archive")
        << QStringLiteral("unpack source/nam? got") << QStringLiteral("~/source/nam?") + wildcard;
}

void tst_PackCommands::unpackRefuses()
{
    QFETCH(QString, words);
    QFETCH(QString, message);
    m_tree->write(QStringLiteral("source/name"), "no archive");
    for (const char *volume : {"whole.7z.001", "whole.7z.002", "cut.7z.002"})
        m_tree->write(QLatin1String(volume), "no archive");
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(words);
    message.replace(QLatin1Char('~'), m_tree->path());
    QVERIFY2(outcome.err.startsWith(QLatin1String("pellox: error: ") + message),
        qPrintable(outcome.err));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_PackCommands::packRefusesWhatCannotBeUnpacked_data()
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
    QTest::newRow("link to here") << QStringLiteral("here") << QStringLiteral("./") << climbing;
}

void tst_PackCommands::packRefusesWhatCannotBeUnpacked()
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
    const QStringList before = namesOfAll();
    const Outcome outcome = run(QStringLiteral("pack source new/a.7z --json"));
    const QJsonObject error = jsonLines(outcome.out).first();
    QCOMPARE(member(error, "file"), m_tree->path(relative));
    QCOMPARE(member(error, "error"), m_tree->path(relative) + QLatin1String(": ") + reason);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(namesOfAll(), before);
}

void tst_PackCommands::packRefusesANameThatCannotBeDecoded()
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

void tst_PackCommands::linksThatStayInTheFolderArePacked()
{
    m_tree->link(QStringLiteral("source/to a folder"), QStringLiteral("data"));
    m_tree->link(QStringLiteral("source/to nothing"), QStringLiteral("..nosuch"));
    m_tree->link(QStringLiteral("source/by the way of here"), QStringLiteral("./data/./x"));
    const Outcome packed = run(QStringLiteral("pack source a.7z"));
    QVERIFY2(packed.out.startsWith(QLatin1String("Packed 9 files")), qPrintable(packed.err));
    const Outcome unpacked = run(QStringLiteral("unpack a.7z got"));
    QVERIFY2(unpacked.out.startsWith(QLatin1String("Unpacked 9 files")), qPrintable(unpacked.err));
    QVERIFY(QFileInfo(path("got/to a folder")).isSymLink());
    QCOMPARE(m_tree->read(QStringLiteral("got/to a folder/random.pak")), randomBytes(300000, 1));
}

void tst_PackCommands::sizesOutOfRangeAreRefused_data()
{
    QTest::addColumn<QString>("size");

    for (const char *size : {"0", "-1", "1.5M", "many", "5X", "2E", "1025P", "9223372036854775808",
             "99999999999999999999"})
        QTest::newRow(size) << QString::fromLatin1(size);
}

void tst_PackCommands::sizesOutOfRangeAreRefused()
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

void tst_PackCommands::anyNameOfAnArchiveIsTaken_data()
{
    QTest::addColumn<QString>("archive");
    QTest::addColumn<QString>("volume");

    QTest::newRow("no dot") << QStringLiteral("game") << QStringLiteral("game.001");
    QTest::newRow("a switch") << QStringLiteral("./-x") << QStringLiteral("-x.001");
    QTest::newRow("a list") << QStringLiteral("@list.7z") << QStringLiteral("@list.7z.001");
    QTest::newRow("a percent sign") << QStringLiteral("100%1.7z") << QStringLiteral("100%1.7z.001");
    QTest::newRow("wildcards") << QStringLiteral("what?*.7z") << QStringLiteral("what?*.7z.001");
    QTest::newRow("a number alone") << QStringLiteral(".001") << QStringLiteral(".001.001");
    QTest::newRow("wildcards in its folder")
        << QStringLiteral("ne?/fold*/a.7z") << QStringLiteral("ne?/fold*/a.7z.001");
    QTest::newRow("new folders") << QStringLiteral("new/folders/a.7z")
                                 << QStringLiteral("new/folders/a.7z.001");
}

void tst_PackCommands::anyNameOfAnArchiveIsTaken()
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

void tst_PackCommands::aFileWithAnOtherNumberIsNoVolume()
{
    m_tree->write(QStringLiteral("game.2024"), "mine");
    QCOMPARE(run(QStringLiteral("pack source game")).status, Done);
    QCOMPARE(run(QStringLiteral("pack source game --force")).status, Done);
    QCOMPARE(m_tree->read(QStringLiteral("game.2024")), QByteArray("mine"));
    QCOMPARE(run(QStringLiteral("unpack game got")).status, Done);
}

void tst_PackCommands::aPlainFileOfTheNameIsReplacedOnlyByForce()
{
    m_tree->write(QStringLiteral("a.7z"), "old");
    const Outcome refused = run(QStringLiteral("pack source a.7z"));
    QCOMPARE(refused.status, WrongUsage);
    QCOMPARE(refused.err,
        QStringLiteral("pellox: error: %1: exists; --force replaces it\n").arg(path("a.7z")));
    QCOMPARE(run(QStringLiteral("pack source a.7z --force")).status, Done);
    QCOMPARE(filesBeside(QStringLiteral("a.7z*")), QStringList(QStringLiteral("a.7z.001")));
}

void tst_PackCommands::aVolumeInTheWayIsNamedAndNothingReplaced_data()
{
    QTest::addColumn<QString>("stray");
    QTest::addColumn<QString>("reason");

    QTest::newRow("between") << QStringLiteral("a.7z.003") << QStringLiteral("is in the way");
    QTest::newRow("behind") << QStringLiteral("a.7z.004")
                            << QStringLiteral("is in the way: it would pass for one more volume");
}

void tst_PackCommands::aVolumeInTheWayIsNamedAndNothingReplaced()
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

void tst_PackCommands::theOldArchiveSurvivesAFailure_data()
{
    QTest::addColumn<QByteArray>("cases");
    QTest::addColumn<QString>("error");

    QTest::newRow("7-Zip fails") << QByteArray("a) echo x > archive.7z.001.tmp; echo 'ERROR: no';;")
                                 << QStringLiteral("~/a.7z: ERROR: no ");
    QTest::newRow("a volume is missing")
        << QByteArray("a) out=$(\"$real\" \"$@\"); rm archive.7z.002; echo \"$out\";;")
        << QStringLiteral("~/a.7z: is missing from the volumes of the archive");
    QTest::newRow("a volume is short")
        << QByteArray("a) out=$(\"$real\" \"$@\"); truncate -s 9 archive.7z.002; echo \"$out\";;")
        << QStringLiteral("~/a.7z.002: is not a whole volume");
    QTest::newRow("a file is missing")
        << QByteArray("l) \"$real\" \"$@\" | grep -v '^Path = zero$';;")
        << QStringLiteral("~/a.7z: would hold 5 files, not the 6 files of the folder");
}

void tst_PackCommands::theOldArchiveSurvivesAFailure()
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

void tst_PackCommands::anArchiveThatAppearsMeanwhileIsNotReplaced_data()
{
    QTest::addColumn<QByteArray>("command");

    QTest::newRow("a file") << QByteArray("echo other > ../a.7z.001");
    QTest::newRow("a link that leads nowhere") << QByteArray("ln -s nowhere ../a.7z.001");
}

void tst_PackCommands::anArchiveThatAppearsMeanwhileIsNotReplaced()
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

void tst_PackCommands::aLinkThatLeadsNowhereIsReplacedOnlyByForce()
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

void tst_PackCommands::aFailedPackLeavesNoFolder()
{
    const char cases[] = "a) echo 'ERROR: no';;";
    makeStandIn(cases);
    const QStringList before = namesOfAll();
    QCOMPARE(runStandIn(cases, QStringLiteral("pack source new/folders/a.7z")).status, Failed);
    QCOMPARE(namesOfAll(), before);
}

void tst_PackCommands::unpackRefusesEntriesThatClimbOut_data()
{
    QTest::addColumn<QString>("entry");

    for (const char *entry : {"../out", "data/../../out", "/out"})
        QTest::newRow(entry) << QString::fromLatin1(entry);
}

void tst_PackCommands::unpackRefusesEntriesThatClimbOut()
{
    QFETCH(QString, entry);
    makeArchiveWithEntry(entry);
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: holds %2, which lies outside of what is unpacked\n")
            .arg(path("a.7z"), entry));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_PackCommands::unpackRefusesNamesThatSevenZipAlters_data()
{
    QTest::addColumn<QString>("entry");

    for (const char *entry : {"data/../x", "a/", ".", "a/.", "a//b", "./x"})
        QTest::newRow(entry) << QString::fromLatin1(entry);
}

void tst_PackCommands::unpackRefusesNamesThatSevenZipAlters()
{
    QFETCH(QString, entry);
    makeArchiveWithEntry(entry);
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: holds %2, a name that 7-Zip alters\n")
            .arg(path("a.7z"), entry));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_PackCommands::unpackRefusesNamesThatReadAsMessages_data()
{
    QTest::addColumn<QString>("archive");
    QTest::addColumn<QString>("entry");
    QTest::addColumn<QString>("reason");

    const QString holds = QStringLiteral("holds %1, a name that reads like 7-Zip's own messages");
    for (const char *entry : {"Everything is Ok", "data/ERROR: x"}) {
        const QString name = QLatin1String(entry);
        QTest::newRow(entry) << QStringLiteral("a.7z") << name << holds.arg(name);
    }
    QTest::newRow("the archive") << QStringLiteral("error: a.7z") << QStringLiteral("x")
                                 << QStringLiteral(
                                        "has a path that reads like 7-Zip's own messages");
}

void tst_PackCommands::unpackRefusesNamesThatReadAsMessages()
{
    QFETCH(QString, archive);
    QFETCH(QString, entry);
    QFETCH(QString, reason);
    makeArchiveWithEntry(entry);
    if (archive != QLatin1String("a.7z"))
        QVERIFY(QFile::rename(path("a.7z"), m_tree->path(archive)));
    const Outcome outcome
        = runPellox({QStringLiteral("unpack"), archive, QStringLiteral("got")}, m_tree->path());
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(
        outcome.err, QStringLiteral("pellox: error: %1: %2\n").arg(m_tree->path(archive), reason));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_PackCommands::unpackRefusesOtherFormats_data()
{
    QTest::addColumn<QString>("archive");

    QTest::newRow("by its name") << QStringLiteral("zero.xz");
    QTest::newRow("under another name") << QStringLiteral("a.7z");
}

void tst_PackCommands::unpackRefusesOtherFormats()
{
    QFETCH(QString, archive);
    QCOMPARE(
        runSevenZip(QString(),
            {QStringLiteral("a"), QStringLiteral("-txz"), path("zero.xz"), path("source/.hidden")}),
        0);
    if (archive != QLatin1String("zero.xz"))
        QVERIFY(QFile::rename(path("zero.xz"), m_tree->path(archive)));
    m_tree->write(QStringLiteral("got/zero"), "mine");
    const auto before = TestTree::snapshot(path("got"));
    const Outcome outcome = run(QStringLiteral("unpack %1 got").arg(archive));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: is no 7z archive but one of the type \"xz\"\n")
            .arg(m_tree->path(archive)));
    QCOMPARE(TestTree::snapshot(path("got")), before);
}

void tst_PackCommands::unpackRefusesWhatHasNoRoom()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    const Outcome outcome
        = runStandIn("l) \"$real\" \"$@\" | sed 's/^Size = 300000$/Size = 1152921504606846976/';;",
            QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    const QRegularExpression form(
        QStringLiteral("^pellox: error: %1: has no room: .* are needed, .* are free\n$")
            .arg(path("got")));
    QVERIFY2(form.match(outcome.err).hasMatch(), qPrintable(outcome.err));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_PackCommands::unpackTakesTheFileOfTheVeryName()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    makeArchiveWithEntry(QStringLiteral("alone"));
    QCOMPARE(run(QStringLiteral("unpack a.7z got")).status, Done);
    QCOMPARE(m_tree->read(QStringLiteral("got/alone")), QByteArray("x\n"));
    QCOMPARE(run(QStringLiteral("unpack a.7z.001 volumes")).status, Done);
    QCOMPARE(TestTree::snapshot(path("volumes")), TestTree::snapshot(path("source")));
}

void tst_PackCommands::aNameThatChangesOnTheWayFails()
{
    m_tree->write(QStringLiteral("odd/a\nb"), "x");
    QCOMPARE(runSevenZip(
                 QStringLiteral("odd"), {QStringLiteral("a"), path("a.7z"), QStringLiteral(".")}),
        0);
    const QStringList before = namesOfAll();
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(
            {QStringLiteral("pellox: error: %1/got/a b: is not in the archive's list: 7-Zip "
                            "altered its name")
                    .arg(m_tree->path()),
                QStringLiteral("pellox: error: %1/got/a_b: was not unpacked in full")
                    .arg(m_tree->path())}));
    QCOMPARE(namesOfAll(), before);
}

void tst_PackCommands::linksThatLeadOutFail_data()
{
    QTest::addColumn<QByteArray>("script"); // what 7-Zip makes of the link "source/link"
    QTest::addColumn<QString>("reason");    // or nothing

    const QString out = QStringLiteral("is a link that leads out of what is unpacked");
    QTest::newRow("absolute") << QByteArray("ln -sf /etc link")
                              << QStringLiteral(
                                     "is a link with an absolute target, which 7-Zip alters");
    QTest::newRow("out") << QByteArray("ln -sf ../x link") << out;
    QTest::newRow("behind a name") << QByteArray("ln -sf data/../../x link") << out;
    QTest::newRow("not the one of the list")
        << QByteArray("ln -sf data/random.pak link") << QStringLiteral("was not unpacked in full");
    QTest::newRow("a file in its place")
        << QByteArray("rm link; printf zero > link") << QStringLiteral("was not unpacked in full");
    QTest::newRow("in the folder") << QByteArray("ln -sf data link") << QString();
}

void tst_PackCommands::linksThatLeadOutFail()
{
    QFETCH(QByteArray, script);
    QFETCH(QString, reason);
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    const QByteArray cases = "x) out=$(\"$real\" \"$@\"); rm link; " + script + "; echo \"$out\";;";
    makeStandIn(cases.constData());
    const QStringList before = namesOfAll();
    const Outcome outcome = runStandIn(cases.constData(), QStringLiteral("unpack a.7z got"));
    if (reason.isEmpty()) {
        QCOMPARE(outcome.status, Done);
        return;
    }
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: %2").arg(path("got/link"), reason)));
    QCOMPARE(namesOfAll(), before);
}

void tst_PackCommands::aLinkInPlaceOfAFolderIsNotFollowed()
{
    // Without a record of the folder.
    QCOMPARE(runSevenZip(QStringLiteral("source"),
                 {QStringLiteral("a"), path("a.7z"), QStringLiteral("data/random.pak")}),
        0);
    m_tree->makeFolder(QStringLiteral("elsewhere"));
    m_tree->makeFolder(QStringLiteral("got"));
    m_tree->link(QStringLiteral("got/data"), QStringLiteral("../elsewhere"));
    const QStringList before = namesOfAll();
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: is in the way of a folder of the archive\n")
            .arg(path("got/data")));
    QCOMPARE(namesOfAll(), before);
}

void tst_PackCommands::foldersMayBeWriteProtected()
{
    const auto writable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
    QVERIFY(QFile::setPermissions(path("source/data"), QFile::ReadOwner | QFile::ExeOwner));
    const Outcome packed = run(QStringLiteral("pack source a.7z"));
    const Outcome unpacked = run(QStringLiteral("unpack a.7z got"));
    QVERIFY(QFile::setPermissions(path("source/data"), writable));
    QVERIFY(QFile::setPermissions(path("got/data"), writable));
    QVERIFY2(packed.out.startsWith(QLatin1String("Packed 6 files")), qPrintable(packed.err));
    QVERIFY2(unpacked.out.startsWith(QLatin1String("Unpacked 6 files")), qPrintable(unpacked.err));
    QCOMPARE(TestTree::snapshot(path("got")), TestTree::snapshot(path("source")));
}

void tst_PackCommands::anArchiveMayHaveNoAttributes()
{
    m_tree->remove(QStringLiteral("source/link")); // would come out as a file
    QCOMPARE(
        runSevenZip(QStringLiteral("source"),
            {QStringLiteral("a"), QStringLiteral("-mtr=off"), path("a.7z"), QStringLiteral(".")}),
        0);
    m_tree->makeFolder(QStringLiteral("got/empty"));
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QVERIFY2(outcome.out.startsWith(QLatin1String("Unpacked 5 files")), qPrintable(outcome.err));
    QCOMPARE(TestTree::snapshot(path("got")), TestTree::snapshot(path("source")));
}

void tst_PackCommands::ofTwoEntriesWithOnePathTheLaterStays()
{
    m_tree->write(QStringLiteral("a"), "first");
    m_tree->write(QStringLiteral("b"), "the second");
    for (const char *name : {"a", "b"}) {
        QCOMPARE(
            runSevenZip(QString(), {QStringLiteral("a"), path("twice.7z"), QLatin1String(name)}),
            0);
    }
    QCOMPARE(
        runSevenZip(QString(),
            {QStringLiteral("rn"), path("twice.7z"), QStringLiteral("b"), QStringLiteral("a")}),
        0);
    const Outcome outcome = run(QStringLiteral("unpack twice.7z got"));
    QCOMPARE(outcome.err.count(QLatin1String("error")), 0);
    QCOMPARE(outcome.out, QStringLiteral("Unpacked 1 file (10 bytes): %1\n").arg(path("got")));
    QCOMPARE(m_tree->read(QStringLiteral("got/a")), QByteArray("the second"));
}

void tst_PackCommands::foldersThatExistAreMergedAndKept()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    m_tree->write(QStringLiteral("got/data/mine"), "mine");
    m_tree->makeFolder(QStringLiteral("got/empty"));
    const auto permissions = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
    const auto withUser = permissions | QFile::ReadUser | QFile::WriteUser | QFile::ExeUser;
    QVERIFY(QFile::setPermissions(path("got/data"), permissions));
    const QDateTime time = QFileInfo(path("got/empty")).lastModified();
    QCOMPARE(run(QStringLiteral("unpack a.7z got")).status, Done);
    QCOMPARE(QFile::permissions(path("got/data")), withUser);
    QCOMPARE(QFileInfo(path("got/empty")).lastModified(), time);
    auto expected = TestTree::snapshot(path("source"));
    expected.insert(QStringLiteral("data/mine"), "mine");
    QCOMPARE(TestTree::snapshot(path("got")), expected);
}

void tst_PackCommands::whatAppearsMeanwhileIsNotReplaced_data()
{
    QTest::addColumn<QString>("mine"); // in the folder to fill
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<QString>("link"); // that appears there

    QTest::newRow("a link that leads nowhere") << QStringLiteral(
        "data/mine") << QByteArray("nowhere") << QStringLiteral("data/random.pak");
    QTest::newRow("a link to a folder")
        << QStringLiteral("mine") << QByteArray("../elsewhere") << QStringLiteral("data");
}

void tst_PackCommands::whatAppearsMeanwhileIsNotReplaced()
{
    QFETCH(QString, mine);
    QFETCH(QByteArray, target);
    QFETCH(QString, link);
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    m_tree->write(QLatin1String("got/") + mine, "mine");
    m_tree->makeFolder(QStringLiteral("elsewhere"));
    const QByteArray cases
        = "x) ln -s " + target + " ../" + link.toLatin1() + "; exec \"$real\" \"$@\";;";
    makeStandIn(cases.constData());
    const QString place = path("got/") + link;
    QStringList expected = namesOfAll();
    expected.append(place);
    expected.sort();
    const Outcome outcome = runStandIn(cases.constData(), QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: exists").arg(place)));
    QCOMPARE(namesOfAll(), expected);
    QVERIFY(QFileInfo(place).isSymLink());
}

void tst_PackCommands::unpackTellsOfAPassword_data()
{
    QTest::addColumn<QString>("option");

    QTest::newRow("content") << QStringLiteral("-mhe=off");
    QTest::newRow("list too") << QStringLiteral("-mhe=on");
}

void tst_PackCommands::unpackTellsOfAPassword()
{
    QFETCH(QString, option);
    QCOMPARE(QProcess::execute(realSevenZip(),
                 {QStringLiteral("a"), QStringLiteral("-bso0"), QStringLiteral("-psecret"), option,
                     path("a.7z"), path("source")}),
        0);
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: has a password, and none can be given\n")
            .arg(path("a.7z")));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_PackCommands::unpackNamesTheFolderThatFails()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    m_tree->write(QStringLiteral("file"), "in the way");
    const Outcome outcome = run(QStringLiteral("unpack a.7z file/got"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: cannot be created\n").arg(path("file/got")));

    const char cases[] = "x) echo \"ERROR: Can not open output file : No space : $PWD/zero\";;";
    const Outcome failed = runStandIn(cases, QStringLiteral("unpack a.7z got --json"));
    QCOMPARE(failed.status, Failed);
    for (const QJsonObject &object : jsonLines(failed.out)) {
        if (member(object, "event") == QLatin1String("error"))
            QCOMPARE(member(object, "file"), path("got"));
    }
    QCOMPARE(errorLines(failed.err).size(), 1);
}

void tst_PackCommands::whatFailsTheCheckIsRemoved()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    m_tree->write(QStringLiteral("here/data/mine"), "mine");
    const char cases[] = "x) out=$(\"$real\" \"$@\"); echo > data/random.pak; echo \"$out\";;";
    makeStandIn(cases);
    const QStringList before = namesOfAll();
    for (const char *folder : {"new/got", "here"}) {
        const Outcome outcome
            = runStandIn(cases, QStringLiteral("unpack a.7z ") + QLatin1String(folder));
        QCOMPARE(outcome.status, Failed);
        QCOMPARE(errorLines(outcome.err),
            QStringList(
                QStringLiteral("pellox: error: %1/data/random.pak: was not unpacked in full")
                    .arg(path(folder))));
        QCOMPARE(namesOfAll(), before);
    }
}

void tst_PackCommands::unpackNeverOverwrites()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    m_tree->write(QStringLiteral("got/data/random.pak"), "mine");
    const auto before = TestTree::snapshot(path("got"));
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: exists; unpack into a new folder\n")
            .arg(path("got/data/random.pak")));
    QCOMPARE(TestTree::snapshot(path("got")), before);
}

void tst_PackCommands::aMissingVolumeIsNamed()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z --volume-size 100K")).status, Done);
    m_tree->remove(QStringLiteral("a.7z.002"));
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: is missing from the volumes of the archive\n")
            .arg(path("a.7z.002")));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_PackCommands::aMissingVolumeBeyondThreeDigitsIsNamed()
{
    for (int number = 1; number <= 1002; ++number) {
        if (number != 1000)
            m_tree->write(QStringLiteral("a.7z.%1").arg(number, 3, 10, QLatin1Char('0')), "volume");
    }
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: is missing from the volumes of the archive\n")
            .arg(path("a.7z.1000")));
}

void tst_PackCommands::aTruncatedVolumeIsRefused()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z --volume-size 100K")).status, Done);
    QVERIFY(QFile::resize(path("a.7z.003"), 10));
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: is damaged or no 7z archive (7-Zip: Unexpected end of "
                       "archive); download it or make it again\n")
            .arg(path("a.7z.001")));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_PackCommands::damagedContentFailsAndLeavesNothing()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z --volume-size 100K")).status, Done);
    QByteArray volume = m_tree->read(QStringLiteral("a.7z.002"));
    for (int i = 0; i < 100; ++i)
        volume[i + 5000] = static_cast<char>(~volume.at(i + 5000));
    m_tree->write(QStringLiteral("a.7z.002"), volume);
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, Failed);
    const QStringList errors = errorLines(outcome.err);
    QCOMPARE(errors.size(), 1);
    // 7-Zip finds it at one place or another.
    const QRegularExpression form(
        QStringLiteral("^pellox: error: %1: is damaged \\(7-Zip: (crc failed|data error) : "
                       "data/random\\.pak\\); download it again$")
            .arg(path("a.7z.001")));
    QVERIFY2(form.match(errors.first()).hasMatch(), qPrintable(outcome.err));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_PackCommands::aMissingSevenZipIsOneClearSentence_data()
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

void tst_PackCommands::aMissingSevenZipIsOneClearSentence()
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

void tst_PackCommands::aSevenZipThatCannotRunIsNamed()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    const QString program = makeStandIn("");
    m_tree->write(QStringLiteral("standin/7zr"), "#!/no/such/interpreter\n");
    QProcess process;
    startProgram(process, program,
        {QStringLiteral("unpack"), QStringLiteral("a.7z"), QStringLiteral("got")}, m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, WrongUsage);
    QVERIFY2(outcome.err.startsWith(
                 QStringLiteral("pellox: error: %1: cannot be run (").arg(path("standin/7zr"))),
        qPrintable(outcome.err));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_PackCommands::aFullDiskIsOneErrorAndLeavesNothing_data()
{
    QTest::addColumn<QString>("words");

    QTest::newRow("pack") << QStringLiteral("pack source new/b.7z");
    QTest::newRow("unpack") << QStringLiteral("unpack a.7z new/got");
}

void tst_PackCommands::aFullDiskIsOneErrorAndLeavesNothing()
{
    QFETCH(QString, words);
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    const QStringList before = namesOfAll();
    QProcess process;
    // A limit of the size of files stands for the disk.
    startProgram(process, QStringLiteral("sh"),
        {QStringLiteral("-c"),
            QStringLiteral("trap '' XFSZ; ulimit -f 16; exec " PELLOX_PROGRAM " ") + words},
        m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err).size(), 1);
    QCOMPARE(namesOfAll(), before);
}

void tst_PackCommands::percentagesBecomeProgress_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<QString>("words");

    QTest::newRow("pack") << QByteArray("a") << QStringLiteral("pack source b.7z --json");
    QTest::newRow("unpack") << QByteArray("x") << QStringLiteral("unpack a.7z got --json");
}

void tst_PackCommands::percentagesBecomeProgress()
{
    QFETCH(QByteArray, command);
    QFETCH(QString, words);
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    const QByteArray cases = command
        + ") sleep 0.3; echo ' 42% 3 + data/random.pak'; sleep 0.3; exec \"$real\" \"$@\";;";
    const Outcome outcome = runStandIn(cases.constData(), words);
    QCOMPARE(outcome.status, Done);
    QList<double> shares;
    for (const QJsonObject &object : jsonLines(outcome.out)) {
        if (member(object, "event") == QLatin1String("progress"))
            shares.append(object.value(QLatin1String("done")).toDouble()
                / object.value(QLatin1String("total")).toDouble());
    }
    QVERIFY(std::is_sorted(shares.cbegin(), shares.cend()));
    QVERIFY(std::any_of(shares.cbegin(), shares.cend(),
        [](double share) { return share > 0.419 && share <= 0.42; }));
    QCOMPARE(shares.last(), 1.0);
}

void tst_PackCommands::interruptLeavesNothing_data()
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
    QTest::newRow("pack") << pack << QStringLiteral("new/.pellox-*") << false << ctrlC;
    QTest::newRow("pack at a terminal") << pack << QStringLiteral("new/.pellox-*") << true << ctrlC;
    QTest::newRow("pack, terminated")
        << pack << QStringLiteral("new/.pellox-*") << false << terminated;
    QTest::newRow("pack, terminal closed")
        << pack << QStringLiteral("new/.pellox-*") << true << closed;
    QTest::newRow("pack --force") << replace << QStringLiteral(".pellox-*") << false << ctrlC;
    QTest::newRow("unpack") << unpack << QStringLiteral("standin/unpacked") << false << ctrlC;
    QTest::newRow("unpack at a terminal")
        << unpack << QStringLiteral("standin/unpacked") << true << ctrlC;
    QTest::newRow("unpack, terminated")
        << unpack << QStringLiteral("standin/unpacked") << false << terminated;
    QTest::newRow("unpack, terminal closed")
        << unpack << QStringLiteral("standin/unpacked") << true << closed;
}

void tst_PackCommands::interruptLeavesNothing()
{
    QFETCH(QString, words);
    QFETCH(QString, sign);
    QFETCH(bool, atTerminal);
    QFETCH(QList<int>, signals);
    // Seconds of work: bytes that do not compress to pack, and an unpacking that does not end.
    m_tree->write(QStringLiteral("large/file"), randomBytes(12 << 20, 3));
    const QString program
        = makeStandIn("a) echo $$ > \"${0%/*}/id\"; exec \"$real\" \"$@\";;\n"
                      "x) \"$real\" \"$@\" > /dev/null; echo $$ > \"${0%/*}/id\"; "
                      "touch \"${0%/*}/unpacked\"; exec sleep 30;;");
    QCOMPARE(run(QStringLiteral("pack source old.7z")).status, Done);
    const QStringList before = namesOfAll();
    const QByteArray archive = m_tree->read(QStringLiteral("old.7z.001"));

    SessionLeader process;
    startProgram(process, program, words.split(QLatin1Char(' ')), m_tree->path());
    const QFileInfo pattern(m_tree->path(sign));
    QTRY_VERIFY(!entries(pattern.path(), pattern.fileName()).isEmpty());
    const auto id = static_cast<pid_t>(process.processId());
    for (const int signal : signals)
        QCOMPARE(::kill(atTerminal ? -id : id, signal), 0);
    const Outcome outcome = outcomeOf(process);
    QVERIFY2(outcome.status == 128 + signals.first(), qPrintable(outcome.out + outcome.err));
    QCOMPARE(errorLines(outcome.err), QStringList());
    QVERIFY2(
        outcome.err.endsWith(QLatin1String("\npellox: interrupted\n")), qPrintable(outcome.err));
    const QByteArray child = m_tree->read(QStringLiteral("standin/id")).trimmed();
    QVERIFY2(!QFileInfo::exists(QLatin1String("/proc/") + QLatin1String(child)), child.constData());
    QFile::remove(path("standin/id"));
    QFile::remove(path("standin/unpacked"));
    QCOMPARE(namesOfAll(), before);
    QCOMPARE(m_tree->read(QStringLiteral("old.7z.001")), archive);
}

void tst_PackCommands::interruptEndsTheCheckOfTheArchive()
{
    const QString program = makeStandIn("l) touch ../../checking; exec sleep 30;;");
    const QStringList before = namesOfAll();
    QProcess process;
    startProgram(process, program,
        {QStringLiteral("pack"), QStringLiteral("source"), QStringLiteral("new/a.7z")},
        m_tree->path());
    QTRY_VERIFY(m_tree->exists(QStringLiteral("checking")));
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Interrupted);
    QCOMPARE(errorLines(outcome.err), QStringList());
    m_tree->remove(QStringLiteral("checking"));
    QCOMPARE(namesOfAll(), before);
}

void tst_PackCommands::interruptEndsTheListing()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    const QString program = makeStandIn("l) echo $$ > \"${0%/*}/id\"; exec sleep 30;;");
    const QStringList before = namesOfAll();
    QProcess process;
    startProgram(process, program,
        {QStringLiteral("unpack"), QStringLiteral("a.7z"), QStringLiteral("new/got")},
        m_tree->path());
    QTRY_VERIFY(QFileInfo(path("standin/id")).size() > 0);
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Interrupted);
    QCOMPARE(outcome.err, QStringLiteral("pellox: interrupted\n"));
    const QByteArray child = m_tree->read(QStringLiteral("standin/id")).trimmed();
    QVERIFY(!QFileInfo::exists(QLatin1String("/proc/") + QLatin1String(child)));
    m_tree->remove(QStringLiteral("standin/id"));
    QCOMPARE(namesOfAll(), before);
}

/// As in "pellox pack ... 2>&1 | tee", where Ctrl-C ends the reader too.
void tst_PackCommands::aReaderThatHasGoneStopsNoCleaning()
{
    const QString program = makeStandIn("a) touch \"${0%/*}/packing\"; sleep 30;;");
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
    QVERIFY(reader.waitForFinished()); // it has seen the first line of progress
    QTRY_VERIFY(m_tree->exists(QStringLiteral("standin/packing")));
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), Interrupted);
    m_tree->remove(QStringLiteral("standin/packing"));
    QCOMPARE(namesOfAll(), before);
}

void tst_PackCommands::aReaderThatHasGoneStopsNoWork()
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
    QVERIFY(reader.waitForFinished());
    m_tree->write(QStringLiteral("standin/go"), QByteArray());
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), Failed);
    QCOMPARE(process.readAllStandardError(), QByteArray());
    QCOMPARE(run(QStringLiteral("unpack a.7z got")).status, Done);
}

QTEST_GUILESS_MAIN(tst_PackCommands)
#include "tst_packcommands.moc"
