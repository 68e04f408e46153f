// SPDX-License-Identifier: MIT
#include "hardships.h"
#include "packtest.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <sys/stat.h>

/// "pellox unpack" with the real 7-Zip.
class tst_UnpackCommand : public PackTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { makeTree(); }

    void unpackRefuses_data();
    void unpackRefuses();
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
    void aLinkThatSevenZipRefusesIsTheArchivesFault();
    void anotherDiskInTheFolderIsRefused();
    void anotherMountInTheFolderIsTold();
    void aVolumeThatIsNoFileIsNamed_data();
    void aVolumeThatIsNoFileIsNamed();
    void sizesThatAreTooLargeToAddHaveNoRoom_data();
    void sizesThatAreTooLargeToAddHaveNoRoom();
    void whatFailsTheCheckIsRemoved();
    void aMissingVolumeIsNamed();
    void aMissingVolumeBeyondThreeDigitsIsNamed();
    void aTruncatedVolumeIsRefused();
    void damagedContentFailsAndLeavesNothing();
};

void tst_UnpackCommand::unpackRefuses_data()
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

void tst_UnpackCommand::unpackRefuses()
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

void tst_UnpackCommand::unpackNeverOverwrites()
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

void tst_UnpackCommand::unpackRefusesEntriesThatClimbOut_data()
{
    QTest::addColumn<QString>("entry");

    for (const char *entry : {"../out", "data/../../out", "/out"})
        QTest::newRow(entry) << QString::fromLatin1(entry);
}

void tst_UnpackCommand::unpackRefusesEntriesThatClimbOut()
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

void tst_UnpackCommand::unpackRefusesNamesThatSevenZipAlters_data()
{
    QTest::addColumn<QString>("entry");

    for (const char *entry : {"data/../x", "a/", ".", "a/.", "a//b", "./x"})
        QTest::newRow(entry) << QString::fromLatin1(entry);
}

void tst_UnpackCommand::unpackRefusesNamesThatSevenZipAlters()
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

void tst_UnpackCommand::unpackRefusesNamesThatReadAsMessages_data()
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

void tst_UnpackCommand::unpackRefusesNamesThatReadAsMessages()
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

void tst_UnpackCommand::unpackRefusesOtherFormats_data()
{
    QTest::addColumn<QString>("archive");

    QTest::newRow("by its name") << QStringLiteral("zero.xz");
    QTest::newRow("under another name") << QStringLiteral("a.7z");
}

void tst_UnpackCommand::unpackRefusesOtherFormats()
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

void tst_UnpackCommand::unpackRefusesWhatHasNoRoom()
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

void tst_UnpackCommand::unpackTakesTheFileOfTheVeryName()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    makeArchiveWithEntry(QStringLiteral("alone"));
    QCOMPARE(run(QStringLiteral("unpack a.7z got")).status, Done);
    QCOMPARE(m_tree->read(QStringLiteral("got/alone")), QByteArray("x\n"));
    QCOMPARE(run(QStringLiteral("unpack a.7z.001 volumes")).status, Done);
    QCOMPARE(TestTree::snapshot(path("volumes")), TestTree::snapshot(path("source")));
}

void tst_UnpackCommand::aNameThatChangesOnTheWayFails()
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

void tst_UnpackCommand::linksThatLeadOutFail_data()
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

void tst_UnpackCommand::linksThatLeadOutFail()
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

void tst_UnpackCommand::aLinkInPlaceOfAFolderIsNotFollowed()
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
        QStringLiteral("pellox: error: %1: is a link, and a folder belongs there\n")
            .arg(path("got/data")));
    QCOMPARE(namesOfAll(), before);
}

void tst_UnpackCommand::foldersMayBeWriteProtected()
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

void tst_UnpackCommand::anArchiveMayHaveNoAttributes()
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

void tst_UnpackCommand::ofTwoEntriesWithOnePathTheLaterStays()
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

void tst_UnpackCommand::foldersThatExistAreMergedAndKept()
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

void tst_UnpackCommand::whatAppearsMeanwhileIsNotReplaced_data()
{
    QTest::addColumn<QString>("mine"); // in the folder to fill
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<QString>("link"); // that appears there

    QTest::newRow("a link that leads nowhere") << QStringLiteral(
        "data/mine") << QByteArray("nowhere") << QStringLiteral("data/random.pak");
    QTest::newRow("a link to a folder")
        << QStringLiteral("mine") << QByteArray("../elsewhere") << QStringLiteral("data");
}

void tst_UnpackCommand::whatAppearsMeanwhileIsNotReplaced()
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

void tst_UnpackCommand::unpackTellsOfAPassword_data()
{
    QTest::addColumn<QString>("option");

    QTest::newRow("content") << QStringLiteral("-mhe=off");
    QTest::newRow("list too") << QStringLiteral("-mhe=on");
}

void tst_UnpackCommand::unpackTellsOfAPassword()
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

void tst_UnpackCommand::unpackNamesTheFolderThatFails()
{
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    m_tree->write(QStringLiteral("file"), "in the way");
    const Outcome outcome = run(QStringLiteral("unpack a.7z file/got"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: cannot be created: Not a directory\n")
            .arg(path("file/got")));

    const char cases[] = "x) echo \"ERROR: Can not open output file : No space : $PWD/zero\";;";
    const Outcome failed = runStandIn(cases, QStringLiteral("unpack a.7z got --json"));
    QCOMPARE(failed.status, Failed);
    for (const QJsonObject &object : jsonLines(failed.out)) {
        if (member(object, "event") == QLatin1String("error"))
            QCOMPARE(member(object, "file"), path("got"));
    }
    QCOMPARE(errorLines(failed.err).size(), 1);
    QVERIFY2(
        errorLines(failed.err)
            .first()
            .startsWith(
                QStringLiteral("pellox: error: %1: cannot be filled (7-Zip: ").arg(path("got"))),
        qPrintable(failed.err));
}

void tst_UnpackCommand::aLinkThatSevenZipRefusesIsTheArchivesFault()
{
    m_tree->link(QStringLiteral("links/l1"), QStringLiteral("data"));
    m_tree->link(QStringLiteral("links/l2"), QStringLiteral("l1/x"));
    QCOMPARE(runSevenZip(
                 QStringLiteral("links"), {QStringLiteral("a"), path("a.7z"), QStringLiteral(".")}),
        0);
    const QStringList before = namesOfAll();
    const Outcome outcome = run(QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: holds l2, a link that 7-Zip does not "
                                   "unpack: it leads through \"..\" or another link")
                        .arg(path("a.7z"))));
    QCOMPARE(namesOfAll(), before);
}

void tst_UnpackCommand::anotherDiskInTheFolderIsRefused()
{
    if (!canMount())
        QSKIP("disks cannot be mounted here");
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    m_tree->makeFolder(QStringLiteral("got/data"));
    const DiskRun run = runWithDisk(QStringLiteral("got/data"), QStringLiteral("1m"),
        QStringLiteral("unpack a.7z got"), m_tree->path());
    QCOMPARE(run.outcome.status, WrongUsage);
    QCOMPARE(run.outcome.err,
        QStringLiteral("pellox: error: %1: lies on another disk than %2; one that is filled as a "
                       "whole must lie on one disk\n")
            .arg(path("got/data"), path("got")));
    QVERIFY(run.after.isEmpty());
    QCOMPARE(TestTree::snapshot(path("got")).keys(), QStringList(QStringLiteral("data/")));
}

/// Another mount of the same disk, which only the renaming notices.
void tst_UnpackCommand::anotherMountInTheFolderIsTold()
{
    if (!canMount())
        QSKIP("disks cannot be mounted here");
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    m_tree->makeFolder(QStringLiteral("disk"));
    const DiskRun run = runWithDisk(QStringLiteral("disk"), QStringLiteral("2m"),
        QStringLiteral("unpack a.7z disk/got"), m_tree->path(),
        QStringLiteral("mkdir -p disk/other disk/got/data; mount --bind disk/other disk/got/data"));
    QCOMPARE(run.outcome.status, Failed);
    const QStringList errors = errorLines(run.outcome.err);
    QCOMPARE(errors.size(), 1);
    QVERIFY2(
        errors.first().startsWith(QStringLiteral("pellox: error: %1/").arg(path("disk/got/data"))),
        qPrintable(errors.first()));
    QVERIFY2(
        errors.first().endsWith(QLatin1String(": lies on another disk than what is moved there")),
        qPrintable(errors.first()));
    QCOMPARE(run.after.keys(),
        QStringList(
            {QStringLiteral("got/"), QStringLiteral("got/data/"), QStringLiteral("other/")}));
}

void tst_UnpackCommand::aVolumeThatIsNoFileIsNamed_data()
{
    QTest::addColumn<QString>("volume"); // what is put in its place
    QTest::addColumn<QString>("kind");   // "pipe", "folder", or the target of a link
    QTest::addColumn<QString>("reason");

    const QString pipe = QStringLiteral("is a pipe, socket or device, not an archive");
    const QString folder = QStringLiteral("is a folder, not a volume of an archive");
    const QString link = QStringLiteral("is a link that leads nowhere");
    for (const char *volume : {"a.7z.001", "a.7z.002"}) {
        const QString name = QLatin1String(volume);
        QTest::addRow("pipe as %s", volume) << name << QStringLiteral("pipe") << pipe;
        QTest::addRow("folder as %s", volume) << name << QStringLiteral("folder") << folder;
        QTest::addRow("link as %s", volume) << name << QStringLiteral("nowhere") << link;
    }
    QTest::newRow("pipe alone") << QStringLiteral("b.7z") << QStringLiteral("pipe") << pipe;
    QTest::newRow("link alone") << QStringLiteral("b.7z") << QStringLiteral("nowhere") << link;
}

void tst_UnpackCommand::aVolumeThatIsNoFileIsNamed()
{
    QFETCH(QString, volume);
    QFETCH(QString, kind);
    QFETCH(QString, reason);
    QCOMPARE(run(QStringLiteral("pack source a.7z --volume-size 100K")).status, Done);
    if (m_tree->exists(volume))
        m_tree->remove(volume);
    if (kind == QLatin1String("pipe"))
        QCOMPARE(::mkfifo(QFile::encodeName(m_tree->path(volume)).constData(), 0600), 0);
    else if (kind == QLatin1String("folder"))
        m_tree->makeFolder(volume);
    else
        m_tree->link(volume, kind);
    const Outcome outcome = run(QStringLiteral("unpack %1 got").arg(volume.left(4)));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(
        outcome.err, QStringLiteral("pellox: error: %1: %2\n").arg(m_tree->path(volume), reason));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_UnpackCommand::sizesThatAreTooLargeToAddHaveNoRoom_data()
{
    QTest::addColumn<QByteArray>("size"); // of each file

    QTest::newRow("largest of its kind") << QByteArray("9223372036854775807");
    QTest::newRow("larger") << QByteArray("18446744073709551615");
}

void tst_UnpackCommand::sizesThatAreTooLargeToAddHaveNoRoom()
{
    QFETCH(QByteArray, size);
    QCOMPARE(run(QStringLiteral("pack source a.7z")).status, Done);
    const QByteArray cases = "l) \"$real\" \"$@\" | sed 's/^Size = .*/Size = " + size + "/';;";
    const Outcome outcome = runStandIn(cases.constData(), QStringLiteral("unpack a.7z got"));
    QCOMPARE(outcome.status, WrongUsage);
    const QRegularExpression form(
        QStringLiteral("^pellox: error: %1: has no room: 8.0 EiB are needed, .* are free\n$")
            .arg(path("got")));
    QVERIFY2(form.match(outcome.err).hasMatch(), qPrintable(outcome.err));
    QVERIFY(!m_tree->exists(QStringLiteral("got")));
}

void tst_UnpackCommand::whatFailsTheCheckIsRemoved()
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

void tst_UnpackCommand::aMissingVolumeIsNamed()
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

void tst_UnpackCommand::aMissingVolumeBeyondThreeDigitsIsNamed()
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

void tst_UnpackCommand::aTruncatedVolumeIsRefused()
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

void tst_UnpackCommand::damagedContentFailsAndLeavesNothing()
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

QTEST_GUILESS_MAIN(tst_UnpackCommand)
#include "tst_unpackcommand.moc"
