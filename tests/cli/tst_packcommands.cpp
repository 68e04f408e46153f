// SPDX-License-Identifier: MIT
#include "program.h"
#include "testtree.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QTest>

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
    void anArchiveThatAppearsMeanwhileIsNotReplaced();
    void aFailedPackLeavesNoFolder();
    void unpackNeverOverwrites();
    void unpackRefusesEntriesThatClimbOut_data();
    void unpackRefusesEntriesThatClimbOut();
    void unpackTellsOfAPassword_data();
    void unpackTellsOfAPassword();
    void unpackNamesTheFolderThatFails();
    void whatFailsTheCheckIsRemoved();
    void aMissingVolumeIsNamed();
    void aTruncatedVolumeIsRefused();
    void damagedContentFailsAndLeavesNothing();
    void aMissingSevenZipIsOneClearSentence();

    void interruptLeavesNothing_data();
    void interruptLeavesNothing();
    void interruptEndsTheCheckOfTheArchive();

private:
    Outcome run(const QString &words) const;
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }
    QStringList filesBeside(const QString &pattern) const;
    QStringList namesOfAll() const;
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

/// The program beside a script that stands in for 7-Zip: @p cases by its first argument, and else
/// the real one, which is $real in the script. Returns the program's path.
QString tst_PackCommands::makeStandIn(const char *cases) const
{
    const QByteArray script = "#!/bin/sh\nreal='" + QFile::encodeName(realSevenZip())
        + "'\ncase $1 in\n" + cases + "\n*) exec \"$real\" \"$@\";;\nesac\n";
    m_tree->write(QStringLiteral("standin/7zr"), script);
    QFile::setPermissions(path("standin/7zr"), QFile::ReadOwner | QFile::ExeOwner);
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

    QTest::newRow("no archive") << QStringLiteral("unpack nosuch.7z got")
                                << QStringLiteral("~/nosuch.7z: there is no such archive\n");
    QTest::newRow("no archive but a folder") << QStringLiteral(
        "unpack source got") << QStringLiteral("~/source: there is no such archive\n");
    QTest::newRow("no archive at all") << QStringLiteral(
        "unpack source/name got") << QStringLiteral("~/source/name: cannot be read as an archive");
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
        QStringLiteral("--volume-size: %1 is no size from 1 byte to 1 EiB, such as 500M\n"
                       "Run with --help for more information.\n")
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

void tst_PackCommands::anArchiveThatAppearsMeanwhileIsNotReplaced()
{
    const Outcome outcome = runStandIn(
        "a) echo other > ../a.7z.001; exec \"$real\" \"$@\";;", QStringLiteral("pack source a.7z"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: is in the way").arg(path("a.7z.001"))));
    QCOMPARE(m_tree->read(QStringLiteral("a.7z.001")), QByteArray("other\n"));
    QCOMPARE(entries(m_tree->path(), QStringLiteral(".pellox*")), QStringList());
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
    m_tree->write(QStringLiteral("name"), "x");
    QCOMPARE(QProcess::execute(realSevenZip(),
                 {QStringLiteral("a"), QStringLiteral("-bso0"), path("a.7z"), path("name")}),
        0);
    QCOMPARE(QProcess::execute(realSevenZip(),
                 {QStringLiteral("rn"), QStringLiteral("-bso0"), path("a.7z"),
                     QStringLiteral("name"), entry}),
        0);
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: holds %2, which lies outside of what is unpacked\n")
            .arg(path("a.7z"), entry));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_PackCommands::unpackTellsOfAPassword_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<QString>("message"); // the beginning

    QTest::newRow("content") << QStringLiteral("-mhe=off")
                             << QStringLiteral("has a password, and none can be given\n");
    QTest::newRow("list too")
        << QStringLiteral("-mhe=on")
        << QStringLiteral("cannot be read as an archive (is a volume missing or damaged, or is "
                          "there a password?): ");
}

void tst_PackCommands::unpackTellsOfAPassword()
{
    QFETCH(QString, option);
    QFETCH(QString, message);
    QCOMPARE(QProcess::execute(realSevenZip(),
                 {QStringLiteral("a"), QStringLiteral("-bso0"), QStringLiteral("-psecret"), option,
                     path("a.7z"), path("source")}),
        0);
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    QVERIFY2(
        outcome.err.startsWith(QStringLiteral("pellox: error: %1: %2").arg(path("a.7z"), message)),
        qPrintable(outcome.err));
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

void tst_PackCommands::aTruncatedVolumeIsRefused()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z --volume-size 100K")).status, Done);
    QVERIFY(QFile::resize(path("a.7z.003"), 10));
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    QVERIFY2(outcome.err.contains(QLatin1String("cannot be read as an archive")),
        qPrintable(outcome.err));
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
    QVERIFY(!errorLines(outcome.err).isEmpty());
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_PackCommands::aMissingSevenZipIsOneClearSentence()
{
    // The program alone in a folder, without a 7zr beside it.
    const QString lonely = path("lonely/pellox");
    m_tree->makeFolder(QStringLiteral("lonely"));
    QVERIFY(QFile::copy(QStringLiteral(PELLOX_PROGRAM), lonely));
    QProcess process;
    startProgram(process, lonely,
        {QStringLiteral("pack"), QStringLiteral("source"), QStringLiteral("a.7z")}, m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1/7zr: is not there: put the 7-Zip console program 7zr, or "
                       "a link to it, beside the program (Debian has it in the package p7zip)\n")
            .arg(path("lonely")));
}

void tst_PackCommands::interruptLeavesNothing_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("sign"); // of life: what stands there while the work is under way
    QTest::addColumn<bool>("atTerminal");

    const QString pack = QStringLiteral("pack large new/a.7z");
    const QString replace = QStringLiteral("pack large old.7z --force");
    const QString unpack = QStringLiteral("unpack old.7z new/got");
    QTest::newRow("pack") << pack << QStringLiteral("new/.pellox-*") << false;
    QTest::newRow("pack at a terminal") << pack << QStringLiteral("new/.pellox-*") << true;
    QTest::newRow("pack --force") << replace << QStringLiteral(".pellox-*") << false;
    QTest::newRow("unpack") << unpack << QStringLiteral("new/got/*") << false;
    QTest::newRow("unpack at a terminal") << unpack << QStringLiteral("new/got/*") << true;
}

void tst_PackCommands::interruptLeavesNothing()
{
    QFETCH(QString, words);
    QFETCH(QString, sign);
    QFETCH(bool, atTerminal);
    // Seconds of work: bytes that do not compress to pack, and an unpacking that does not end.
    m_tree->write(QStringLiteral("large/file"), randomBytes(12 << 20, 3));
    const QString program = makeStandIn("x) \"$real\" \"$@\" > /dev/null; exec sleep 30;;");
    QCOMPARE(run(QStringLiteral("pack source old.7z")).status, Done);
    const QStringList before = namesOfAll();
    const QByteArray archive = m_tree->read(QStringLiteral("old.7z.001"));

    SessionLeader process;
    startProgram(process, program, words.split(QLatin1Char(' ')), m_tree->path());
    const QFileInfo pattern(m_tree->path(sign));
    QTRY_VERIFY(!entries(pattern.path(), pattern.fileName()).isEmpty());
    const auto id = static_cast<pid_t>(process.processId());
    QCOMPARE(::kill(atTerminal ? -id : id, SIGINT), 0);
    const Outcome outcome = outcomeOf(process);
    QVERIFY2(outcome.status == Interrupted, qPrintable(outcome.out + outcome.err));
    QCOMPARE(errorLines(outcome.err), QStringList());
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

QTEST_GUILESS_MAIN(tst_PackCommands)
#include "tst_packcommands.moc"
