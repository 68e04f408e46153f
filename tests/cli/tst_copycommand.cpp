// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "hardships.h"
#include "program.h"
#include "testtree.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>

#include <fcntl.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr qint64 LargeSize = qint64(64) << 20;

/// @p signal comes at the first write to @p file, or in that folder, and there is work for minutes
/// where a file of LargeSize is copied by blocks of 64 KiB.
Faults whileItWrites(const QString &file, const QByteArray &signal)
{
    return {file, "write", 1, signal, false, false, true};
}

} // namespace

/// "pellox copy": one file by blocks, or a build.
class tst_CopyCommand : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void copiesAFile_data();
    void copiesAFile();
    void copiesABuild();
    void writeProtectedPlacesAreRefused_data();
    void writeProtectedPlacesAreRefused();
    void fileIsMeasuredInBytes();
    void refuses_data();
    void refuses();
    void aLinkIntoTheSourceIsRefused();
    void aNameThatCannotBeDecodedIsRefused();
    void anEmptyBuildBecomesAnEmptyFolder();
    void blockSizesMayBeWrittenInManyWays_data();
    void blockSizesMayBeWrittenInManyWays();
    void blockSizesOutOfRangeAreRefused_data();
    void blockSizesOutOfRangeAreRefused();
    void aCopyThatCannotBeCreatedIsNamed();
    void aLinkThatLeadsNowhereIsNotFollowed();
    void dotsBehindALinkAreThoseOfItsTarget();
    void filesOfABuildAreReplacedOnlyByForce();
    void aBuildReplacesNoFolderAndNoFileByOne_data();
    void aBuildReplacesNoFolderAndNoFileByOne();
    void aBuildThatCannotBeMadeLeavesNoFolder();
    void theReasonIsGivenOnce();
    void whatHasNoRoomIsRefused_data();
    void whatHasNoRoomIsRefused();
    void aDiskThatIsFullEndsTheCopyOfAFile_data();
    void aDiskThatIsFullEndsTheCopyOfAFile();
    void whatCannotBeReadIsNamed();
    void theOldFilesSurviveAFailure_data();
    void theOldFilesSurviveAFailure();
    void aLinkToTheFileItReplacesIsCopied();
    void noOldFileIsEverLost();
    void aRenameThatFailsChangesNothing();
    void filesAreReplacedWhereNoneCanBeExchanged();
    void whatAppearsMeanwhileIsNotReplaced();
    void linksOfTheDestinationAreNotFollowed();
    void anotherDiskInTheDestinationIsRefused();
    void permissionsAreCopiedWithABuild();
    void namesMayBeginWithAColon();
    void aBuildIsMeasuredInBytes();
    void interruptStopsAtTheNextBlock_data();
    void interruptStopsAtTheNextBlock();
    void interruptStopsABuildAtTheNextBlock_data();
    void interruptStopsABuildAtTheNextBlock();
    void interruptEndsTheComparison();
    void aSecondInterruptEndsTheCopyOfAFile();
    void oneCtrlCMayComeTwice();
    void aSecondInterruptEndsTheCopyOfABuild();
    void otherSignalsToTheCopyOfABuildMayRepeat();

private:
    Outcome run(const QString &words) const
    {
        return runPellox(words.split(QLatin1Char(' ')), m_tree->path());
    }
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }
    void makeOldFiles() const;
    void makeLargeFile(const char *name) const;
    FaultRun replaceWithFaults(const Faults &faults) const;

    std::unique_ptr<TestTree> m_tree;
};

void tst_CopyCommand::init()
{
    m_tree = std::make_unique<TestTree>();
    m_tree->write(QStringLiteral("build/data.pak"), randomBytes(200000, 1));
    m_tree->write(QStringLiteral("build/levels/grüße.map"), "map");
    m_tree->write(QStringLiteral("build/.hidden"), "no part of a build");
    m_tree->makeFolder(QStringLiteral("build/empty"));
    m_tree->makeFolder(QStringLiteral("folder"));
}

void tst_CopyCommand::copiesAFile_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("copy");

    QTest::newRow("to a name") << QStringLiteral("copy build/data.pak copy.pak")
                               << QStringLiteral("copy.pak");
    QTest::newRow("into a folder")
        << QStringLiteral("copy build/data.pak folder") << QStringLiteral("folder/data.pak");
    QTest::newRow("into a folder with a separator")
        << QStringLiteral("copy build/data.pak folder/") << QStringLiteral("folder/data.pak");
    QTest::newRow("in small blocks")
        << QStringLiteral("copy build/data.pak copy.pak --block-size 1K")
        << QStringLiteral("copy.pak");
    QTest::newRow("in a block larger than the file")
        << QStringLiteral("copy build/data.pak copy.pak --block-size 1E")
        << QStringLiteral("copy.pak");
}

void tst_CopyCommand::copiesAFile()
{
    QFETCH(QString, words);
    QFETCH(QString, copy);
    const Outcome outcome = run(words);
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(m_tree->read(copy), m_tree->read(QStringLiteral("build/data.pak")));
    QCOMPARE(outcome.out, QStringLiteral("Copied 195.3 KiB: %1\n").arg(m_tree->path(copy)));
}

void tst_CopyCommand::copiesABuild()
{
    const Outcome outcome = run(QStringLiteral("copy build/ new/copy/"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(outcome.out, QStringLiteral("Copied 2 files (195.3 KiB): %1\n").arg(path("new/copy")));
    QCOMPARE(TestTree::snapshot(path("new/copy")).keys(),
        QStringList({QStringLiteral("data.pak"), QStringLiteral("levels/"),
            QStringLiteral("levels/grüße.map")}));
    QCOMPARE(m_tree->read(QStringLiteral("new/copy/data.pak")),
        m_tree->read(QStringLiteral("build/data.pak")));
}

void tst_CopyCommand::writeProtectedPlacesAreRefused_data()
{
    QTest::addColumn<QString>("words"); // the disk at "disk" is for reading only

    QTest::newRow("copy") << QStringLiteral("copy build disk/copy");
    QTest::newRow("sign") << QStringLiteral("sign build disk/signatures");
    QTest::newRow("publish") << QStringLiteral(
        "publish build --old-build old --patch patch --signatures disk/new/signatures");
    QTest::newRow("pack") << QStringLiteral("pack build disk/build.7z");
    QTest::newRow("keygen") << QStringLiteral("keygen one.key disk/one.pub");
}

/// Root may write everywhere else.
void tst_CopyCommand::writeProtectedPlacesAreRefused()
{
    if (!canMount())
        QSKIP("mounts are not allowed here");
    QFETCH(QString, words);
    m_tree->write(QStringLiteral("build/file"), "content");
    m_tree->write(QStringLiteral("old/file"), "old content");
    m_tree->makeFolder(QStringLiteral("disk"));
    const auto before = TestTree::snapshot(m_tree->path());
    const DiskRun run = runWithDisk(QStringLiteral("disk"), QStringLiteral("1m"), words,
        m_tree->path(), QStringLiteral("mount -o remount,ro disk"));
    QCOMPARE(run.outcome.status, WrongUsage);
    QCOMPARE(run.outcome.err,
        QStringLiteral("pellox: error: %1: cannot be written: Read-only file system\n")
            .arg(m_tree->path(QStringLiteral("disk"))));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_CopyCommand::fileIsMeasuredInBytes()
{
    const Outcome outcome = run(QStringLiteral("copy --json build/data.pak copy.pak"));
    const QList<QJsonObject> objects = jsonLines(outcome.out);
    QVERIFY(objects.size() >= 2);
    const QJsonObject last = objects.at(objects.size() - 2);
    QCOMPARE(member(last, "event"), QStringLiteral("progress"));
    QCOMPARE(last.value(QLatin1String("done")).toInt(), 200000);
    QCOMPARE(last.value(QLatin1String("total")).toInt(), 200000);
}

void tst_CopyCommand::refuses_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("message"); // "~" is the tree's folder

    QTest::newRow("no source") << QStringLiteral("copy nosuch copy")
                               << QStringLiteral("~/nosuch: there is no such file or folder");
    QTest::newRow("destination exists")
        << QStringLiteral("copy build/data.pak build/levels/grüße.map")
        << QStringLiteral("~/build/levels/grüße.map: exists already; nothing is overwritten");
    QTest::newRow("destination exists in the folder")
        << QStringLiteral("copy build/data.pak build")
        << QStringLiteral("~/build/data.pak: exists already; nothing is overwritten");
    QTest::newRow("folder onto a file") << QStringLiteral("copy build build/data.pak")
                                        << QStringLiteral("~/build/data.pak: is not a folder");
    QTest::newRow("folder into itself")
        << QStringLiteral("copy build build/copy")
        << QStringLiteral("~/build/copy: lies inside ~/build; the two must lie apart");
    QTest::newRow("a device") << QStringLiteral("copy /dev/null copy")
                              << QStringLiteral("/dev/null: is neither a file nor a folder");
    QTest::newRow("a build below a file")
        << QStringLiteral("copy build build2/file/copy")
        << QStringLiteral("~/build2/file: is a file, and a folder belongs there");
    const QString noFolder = QStringLiteral("~/new: there is no such folder");
    QTest::newRow("into a missing folder")
        << QStringLiteral("copy build/data.pak new/") << noFolder;
    QTest::newRow("into a missing folder, with a dot")
        << QStringLiteral("copy build/data.pak new/.") << noFolder;
    QTest::newRow("below a missing folder")
        << QStringLiteral("copy build/data.pak new/copy.pak") << noFolder;
    const QString noFolderButAFile = QStringLiteral("~/build2/file: is not a folder");
    QTest::newRow("into a file") << QStringLiteral("copy build/data.pak build2/file/")
                                 << noFolderButAFile;
    QTest::newRow("below a file") << QStringLiteral("copy build/data.pak build2/file/copy.pak")
                                  << noFolderButAFile;
}

void tst_CopyCommand::refuses()
{
    QFETCH(QString, words);
    QFETCH(QString, message);
    m_tree->write(QStringLiteral("build2/file"), "in the way");
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(words);
    message.replace(QLatin1Char('~'), m_tree->path());
    QCOMPARE(outcome.err, QLatin1String("pellox: error: ") + message + QLatin1Char('\n'));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_CopyCommand::aLinkIntoTheSourceIsRefused()
{
    m_tree->write(QStringLiteral("folder/data.pak"), "old");
    m_tree->link(QStringLiteral("folder/levels"), QStringLiteral("../build/levels"));
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(QStringLiteral("copy build folder"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: is a link, and a folder belongs there\n")
            .arg(path("folder/levels")));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_CopyCommand::aNameThatCannotBeDecodedIsRefused()
{
    const QByteArray name = QFile::encodeName(path("build/levels/bad")) + '\xff';
    const int file = ::open(name.constData(), O_CREAT | O_WRONLY, 0600);
    QVERIFY(file >= 0);
    ::close(file);
    const Outcome outcome = run(QStringLiteral("copy build copy"));
    QCOMPARE(::unlink(name.constData()), 0); // Qt cannot
    QCOMPARE(outcome.status, WrongUsage);
    QVERIFY2(outcome.err.endsWith(
                 QLatin1String("has a name that is not valid in the encoding of the locale\n")),
        qPrintable(outcome.err));
    QVERIFY(!m_tree->exists(QStringLiteral("copy")));
}

void tst_CopyCommand::anEmptyBuildBecomesAnEmptyFolder()
{
    const Outcome outcome = run(QStringLiteral("copy build/empty new/copy"));
    QCOMPARE(outcome.status, Done);
    QCOMPARE(outcome.out, QStringLiteral("Copied 0 files (0 bytes): %1\n").arg(path("new/copy")));
    QCOMPARE(TestTree::snapshot(path("new")).keys(), QStringList(QStringLiteral("copy/")));
}

void tst_CopyCommand::blockSizesMayBeWrittenInManyWays_data()
{
    QTest::addColumn<QString>("size");

    for (const char *size : {"1000", "10M", "10m", "10MB", "10MiB", "10 M"})
        QTest::newRow(size) << QString::fromLatin1(size);
}

void tst_CopyCommand::blockSizesMayBeWrittenInManyWays()
{
    QFETCH(QString, size);
    const Outcome outcome
        = runPellox({QStringLiteral("copy"), QStringLiteral("build/data.pak"),
                        QStringLiteral("copy"), QStringLiteral("--block-size"), size},
            m_tree->path());
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(m_tree->read(QStringLiteral("copy")), m_tree->read(QStringLiteral("build/data.pak")));
}

void tst_CopyCommand::blockSizesOutOfRangeAreRefused_data()
{
    QTest::addColumn<QString>("size");

    for (const char *size : {"0", "-1", "1.5M", "2E", "9223372036854775808", "block"})
        QTest::newRow(size) << QString::fromLatin1(size);
}

void tst_CopyCommand::blockSizesOutOfRangeAreRefused()
{
    QFETCH(QString, size);
    const Outcome outcome = run(QStringLiteral("copy build/data.pak copy --block-size=") + size);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: --block-size: %1 is no size: a whole number from 1 byte to "
                       "1 EiB, such as 10M\n"
                       "Run \"pellox copy --help\" for more information.\n")
            .arg(size));
    QVERIFY(!m_tree->exists(QStringLiteral("copy")));
}

void tst_CopyCommand::aCopyThatCannotBeCreatedIsNamed()
{
    const QString tooLong(300, QLatin1Char('x'));
    const Outcome outcome = run(QStringLiteral("copy build/data.pak ") + tooLong);
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: cannot be created: File name too long")
                        .arg(m_tree->path(tooLong))));
}

void tst_CopyCommand::aLinkThatLeadsNowhereIsNotFollowed()
{
    m_tree->link(QStringLiteral("copy.pak"), QStringLiteral("nowhere"));
    const Outcome outcome = run(QStringLiteral("copy build/data.pak copy.pak"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: exists already; nothing is overwritten\n")
            .arg(path("copy.pak")));
    QVERIFY(!m_tree->exists(QStringLiteral("nowhere")));
}

void tst_CopyCommand::dotsBehindALinkAreThoseOfItsTarget()
{
    m_tree->write(QStringLiteral("deep/data.pak"), "deep");
    m_tree->makeFolder(QStringLiteral("deep/er"));
    m_tree->link(QStringLiteral("build/link"), QStringLiteral("../deep/er"));
    QCOMPARE(run(QStringLiteral("copy build/link/../data.pak copy.pak")).status, Done);
    QCOMPARE(m_tree->read(QStringLiteral("copy.pak")), QByteArray("deep"));
}

void tst_CopyCommand::filesOfABuildAreReplacedOnlyByForce()
{
    m_tree->write(QStringLiteral("copy/levels/grüße.map"), "old");
    m_tree->write(QStringLiteral("copy/mine"), "mine");
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome refused = run(QStringLiteral("copy build copy"));
    QCOMPARE(refused.status, WrongUsage);
    QCOMPARE(refused.err,
        QStringLiteral("pellox: error: %1: exists; --force replaces it\n")
            .arg(m_tree->path(QStringLiteral("copy/levels/grüße.map"))));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);

    QCOMPARE(run(QStringLiteral("copy build copy --force")).status, Done);
    QCOMPARE(m_tree->read(QStringLiteral("copy/levels/grüße.map")), QByteArray("map"));
    QCOMPARE(m_tree->read(QStringLiteral("copy/mine")), QByteArray("mine"));
}

void tst_CopyCommand::aBuildReplacesNoFolderAndNoFileByOne_data()
{
    QTest::addColumn<QString>("inTheWay");
    QTest::addColumn<QString>("reason");

    QTest::newRow("a folder") << QStringLiteral("copy/data.pak/")
                              << QStringLiteral("is a folder, and a copy belongs there");
    QTest::newRow("a file") << QStringLiteral("copy/levels")
                            << QStringLiteral("is a file, and a folder belongs there");
}

void tst_CopyCommand::aBuildReplacesNoFolderAndNoFileByOne()
{
    QFETCH(QString, inTheWay);
    QFETCH(QString, reason);
    const bool isFolder = inTheWay.endsWith(QLatin1Char('/'));
    if (isFolder)
        inTheWay.chop(1);
    if (isFolder)
        m_tree->makeFolder(inTheWay);
    else
        m_tree->write(inTheWay, "in the way");
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(QStringLiteral("copy build copy --force"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(
        outcome.err, QStringLiteral("pellox: error: %1: %2\n").arg(m_tree->path(inTheWay), reason));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_CopyCommand::aBuildThatCannotBeMadeLeavesNoFolder()
{
    const auto before = TestTree::snapshot(m_tree->path());
    const QString tooLong = QLatin1String("new/deep/") + QString(256, QLatin1Char('x'));
    const Outcome outcome = run(QStringLiteral("copy build ") + tooLong);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: cannot be created: File name too long\n")
            .arg(m_tree->path(tooLong)));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_CopyCommand::theReasonIsGivenOnce()
{
    m_tree->write(QStringLiteral("build/more.pak"), randomBytes(300000, 2));
    const Outcome outcome = runWithFileLimit(QStringLiteral("copy build copy"), m_tree->path());
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: cannot be written (is the disk full or "
                                   "write-protected?)")
                        .arg(path("copy"))));
    QVERIFY(!m_tree->exists(QStringLiteral("copy")));
}

void tst_CopyCommand::whatHasNoRoomIsRefused_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("place");

    QTest::newRow("a file") << QStringLiteral("copy build/large.pak copy.pak")
                            << QStringLiteral("copy.pak");
    QTest::newRow("a build") << QStringLiteral("copy build new/copy") << QStringLiteral("new/copy");
}

void tst_CopyCommand::whatHasNoRoomIsRefused()
{
    QFETCH(QString, words);
    QFETCH(QString, place);
    m_tree->write(QStringLiteral("build/large.pak"), QByteArray());
    if (!QFile::resize(path("build/large.pak"), qint64(15) << 40))
        QSKIP("no room for such a file, though it has no content");
    const Outcome outcome = run(words);
    QCOMPARE(outcome.status, WrongUsage);
    const QRegularExpression form(
        QStringLiteral("^pellox: error: %1: has no room: 15.0 TiB are needed, .* are free\n$")
            .arg(m_tree->path(place)));
    QVERIFY2(form.match(outcome.err).hasMatch(), qPrintable(outcome.err));
    QVERIFY(!m_tree->exists(place.section(QLatin1Char('/'), 0, 0)));
}

void tst_CopyCommand::aDiskThatIsFullEndsTheCopyOfAFile_data()
{
    QTest::addColumn<QString>("option");

    QTest::newRow("plain") << QString();
    QTest::newRow("partial files kept") << QStringLiteral(" --keep-partial");
}

void tst_CopyCommand::aDiskThatIsFullEndsTheCopyOfAFile()
{
    QFETCH(QString, option);
    const Outcome outcome = runWithFileLimit(
        QStringLiteral("copy build/data.pak copy.pak --block-size 4K") + option, m_tree->path());
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: cannot be written (is the disk full or "
                                   "write-protected?)")
                        .arg(path("copy.pak"))));
    QVERIFY(!m_tree->exists(QStringLiteral("copy.pak")));
}

/// Of zeros, which take no room on the disk.
void tst_CopyCommand::makeLargeFile(const char *name) const
{
    m_tree->write(QLatin1String(name), QByteArray());
    QVERIFY(QFile::resize(path(name), LargeSize));
}

/// A folder with files that "copy build copy --force" replaces, and one that it does not.
void tst_CopyCommand::makeOldFiles() const
{
    if (m_tree->exists(QStringLiteral("copy")))
        m_tree->remove(QStringLiteral("copy"));
    m_tree->write(QStringLiteral("copy/data.pak"), "my data");
    m_tree->write(QStringLiteral("copy/levels/grüße.map"), "my map");
    m_tree->write(QStringLiteral("copy/mine"), "mine");
}

FaultRun tst_CopyCommand::replaceWithFaults(const Faults &faults) const
{
    return runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("copy"), path("build"), path("copy"), QStringLiteral("--force")}, faults);
}

void tst_CopyCommand::whatCannotBeReadIsNamed()
{
    makeOldFiles();
    const auto before = TestTree::snapshot(m_tree->path());
    Faults noReading{path("build/data.pak"), "open", 1, QByteArray::number(EACCES)};
    noReading.later = true;
    const FaultRun run = replaceWithFaults(noReading);
    QCOMPARE(run.status, Failed);
    QCOMPARE(errorLines(QString::fromUtf8(run.errors)),
        QStringList(
            QStringLiteral("pellox: error: %1: cannot be read").arg(path("build/data.pak"))));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_CopyCommand::theOldFilesSurviveAFailure_data()
{
    QTest::addColumn<bool>("isDisk"); // a full one, else a limit of the size of files
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("reason");

    QTest::newRow("cannot be written")
        << false << Failed
        << QStringLiteral("cannot be written \\(is the disk full or write-protected\\?\\)");
    QTest::newRow("no room") << true << WrongUsage
                             << QStringLiteral("has no room: 195.3 KiB are needed, .* are free");
}

void tst_CopyCommand::theOldFilesSurviveAFailure()
{
    QFETCH(bool, isDisk);
    QFETCH(int, status);
    QFETCH(QString, reason);
    makeOldFiles();
    const QString words = QStringLiteral("copy build copy --force");
    const auto before = TestTree::snapshot(path("copy"));
    DiskRun run;
    if (isDisk) {
        if (!canMount())
            QSKIP("disks cannot be mounted here");
        QVERIFY(QFile::rename(path("copy"), path("old")));
        m_tree->makeFolder(QStringLiteral("copy"));
        run = runWithDisk(QStringLiteral("copy"), QStringLiteral("100k"), words, m_tree->path(),
            QStringLiteral("cp -r old/. copy"));
    } else {
        run.outcome = runWithFileLimit(words, m_tree->path());
        run.after = TestTree::snapshot(path("copy"));
    }
    QCOMPARE(run.outcome.status, status);
    const QRegularExpression form(
        QStringLiteral("^pellox: error: %1: %2$").arg(path("copy"), reason));
    const QStringList errors = errorLines(run.outcome.err);
    QCOMPARE(errors.size(), 1);
    QVERIFY2(form.match(errors.first()).hasMatch(), qPrintable(errors.first()));
    QCOMPARE(run.after, before);
}

void tst_CopyCommand::aLinkToTheFileItReplacesIsCopied()
{
    m_tree->write(QStringLiteral("copy/shared.pak"), "shared");
    m_tree->link(QStringLiteral("build/shared.pak"), QStringLiteral("../copy/shared.pak"));
    const Outcome outcome = run(QStringLiteral("copy build copy --force"));
    QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    QCOMPARE(m_tree->read(QStringLiteral("copy/shared.pak")), QByteArray("shared"));
    QCOMPARE(m_tree->read(QStringLiteral("build/shared.pak")), QByteArray("shared"));
}

/// The program dies before each call that changes a file, one after the other.
void tst_CopyCommand::noOldFileIsEverLost()
{
    const QByteArray newData = m_tree->read(QStringLiteral("build/data.pak"));
    int deaths = 0;
    for (bool died = true; died; ++deaths) {
        makeOldFiles();
        died
            = replaceWithFaults({path("copy"), "create,rename,remove", deaths + 1, "kill"}).crashed;
        const auto after = TestTree::snapshot(path("copy"));
        QCOMPARE(after.value(QStringLiteral("mine")), QByteArray("mine"));
        const QByteArray data = after.value(QStringLiteral("data.pak"));
        const QByteArray map = after.value(QStringLiteral("levels/grüße.map"));
        QVERIFY2(data == newData || data == "my data", data.constData());
        QVERIFY2(map == "map" || map == "my map", map.constData());
        const bool isComplete = data == newData && map == "map";
        for (const char *old : {"my data", "my map"})
            QVERIFY2(isComplete || after.values().contains(old), old);
    }
    QVERIFY2(deaths > 5, qPrintable(QString::number(deaths)));
}

void tst_CopyCommand::aRenameThatFailsChangesNothing()
{
    makeOldFiles();
    const auto before = TestTree::snapshot(m_tree->path());
    const Faults none{path("copy"), "rename"};
    const int renames = replaceWithFaults(none).calls.size();
    QVERIFY(renames > 4);
    for (int number = 1; number <= renames; ++number) {
        makeOldFiles();
        const FaultRun run
            = replaceWithFaults({path("copy"), "rename", number, QByteArray::number(EIO)});
        const auto after = TestTree::snapshot(m_tree->path());
        // Only what is known to be there already may be tried twice.
        if (run.status == Done)
            QCOMPARE(after.value(QStringLiteral("copy/levels/grüße.map")), QByteArray("map"));
        else
            QCOMPARE(after, before);
        QVERIFY(run.status == Done || run.status == Failed);
    }
}

/// Some file systems know no such renames.
void tst_CopyCommand::filesAreReplacedWhereNoneCanBeExchanged()
{
    makeOldFiles();
    auto expected = TestTree::snapshot(path("build"));
    expected.remove(QStringLiteral(".hidden"));
    expected.remove(QStringLiteral("empty/"));
    expected.insert(QStringLiteral("mine"), "mine");
    const QStringList calls = replaceWithFaults({path("copy"), "rename"}).calls;
    for (int number = 1; number <= calls.size(); ++number) {
        makeOldFiles();
        const FaultRun run
            = replaceWithFaults({path("copy"), "rename", number, QByteArray::number(EINVAL)});
        QVERIFY2(run.status == Done, run.errors.constData());
        QCOMPARE(TestTree::snapshot(path("copy")), expected);
    }
}

void tst_CopyCommand::whatAppearsMeanwhileIsNotReplaced()
{
    m_tree->write(QStringLiteral("copy/levels/mine"), "mine");
    Faults faults{path("copy"), "write", 1, "appear"};
    faults.appearing = m_tree->path(QStringLiteral("copy/levels/grüße.map"));
    const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("copy"), path("build"), path("copy")}, faults);
    QCOMPARE(run.status, Failed);
    QCOMPARE(errorLines(QString::fromUtf8(run.errors)),
        QStringList(QStringLiteral("pellox: error: %1: exists").arg(faults.appearing)));
    QCOMPARE(TestTree::snapshot(path("copy")),
        (QMap<QString, QByteArray>{{QStringLiteral("levels/"), QByteArray()},
            {QStringLiteral("levels/grüße.map"), "another file"},
            {QStringLiteral("levels/mine"), "mine"}}));
}

void tst_CopyCommand::linksOfTheDestinationAreNotFollowed()
{
    m_tree->write(QStringLiteral("elsewhere/grüße.map"), "mine");
    m_tree->makeFolder(QStringLiteral("copy"));
    m_tree->link(QStringLiteral("copy/levels"), QStringLiteral("../elsewhere"));
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(QStringLiteral("copy build copy --force"));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("pellox: error: %1: is a link, and a folder belongs there\n")
            .arg(path("copy/levels")));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_CopyCommand::anotherDiskInTheDestinationIsRefused()
{
    if (!canMount())
        QSKIP("disks cannot be mounted here");
    m_tree->makeFolder(QStringLiteral("copy/levels"));
    const DiskRun run = runWithDisk(QStringLiteral("copy/levels"), QStringLiteral("1m"),
        QStringLiteral("copy build copy"), m_tree->path());
    QCOMPARE(run.outcome.status, WrongUsage);
    QCOMPARE(run.outcome.err,
        QStringLiteral("pellox: error: %1: lies on another disk than %2; one that is filled as a "
                       "whole must lie on one disk\n")
            .arg(path("copy/levels"), path("copy")));
    QVERIFY(run.after.isEmpty());
    QCOMPARE(TestTree::snapshot(path("copy")).keys(), QStringList(QStringLiteral("levels/")));
}

void tst_CopyCommand::permissionsAreCopiedWithABuild()
{
    const fs::path file(path("build/data.pak").toStdString());
    const auto mode = fs::perms::owner_read | fs::perms::owner_exec | fs::perms::others_exec;
    fs::permissions(file, mode);
    QCOMPARE(run(QStringLiteral("copy build copy")).status, Done);
    QVERIFY(fs::status(path("copy/data.pak").toStdString()).permissions() == mode);
}

void tst_CopyCommand::namesMayBeginWithAColon()
{
    m_tree->write(QStringLiteral(":f"), "file");
    m_tree->write(QStringLiteral(":build/:levels/:map"), "map");
    for (const char *words : {"copy :f x", "copy x :g", "copy :g folder", "copy :build :copy"}) {
        const Outcome outcome = run(QLatin1String(words));
        QVERIFY2(outcome.status == Done, qPrintable(outcome.err));
    }
    for (const char *file : {"x", ":g", "folder/:g"})
        QCOMPARE(m_tree->read(QLatin1String(file)), QByteArray("file"));
    QCOMPARE(m_tree->read(QStringLiteral(":copy/:levels/:map")), QByteArray("map"));
}

void tst_CopyCommand::aBuildIsMeasuredInBytes()
{
    const Outcome outcome = run(QStringLiteral("copy build copy --json"));
    QCOMPARE(outcome.status, Done);
    QMap<QString, double> done;
    for (const QJsonObject &object : jsonLines(outcome.out)) {
        if (member(object, "event") != QLatin1String("progress"))
            continue;
        QCOMPARE(object.value(QLatin1String("total")).toInt(), 200003);
        done.insert(member(object, "stage"), object.value(QLatin1String("done")).toDouble());
    }
    QCOMPARE(done,
        (QMap<QString, double>{
            {QStringLiteral("compare"), 200003}, {QStringLiteral("copy"), 200003}}));
}

void tst_CopyCommand::interruptStopsAtTheNextBlock_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("kept");

    const QString keep = QStringLiteral("--keep-partial");
    QTest::newRow("partial removed")
        << QString() << QByteArray("interrupt") << Interrupted << false;
    QTest::newRow("partial kept") << keep << QByteArray("interrupt") << Interrupted << true;
    QTest::newRow("terminated") << QString() << QByteArray("terminate") << 128 + SIGTERM << false;
    QTest::newRow("terminal closed") << QString() << QByteArray("close") << 128 + SIGHUP << false;
}

void tst_CopyCommand::interruptStopsAtTheNextBlock()
{
    QFETCH(QString, option);
    QFETCH(QByteArray, signal);
    QFETCH(int, status);
    QFETCH(bool, kept);
    makeLargeFile("large");
    QStringList arguments{QStringLiteral("copy"), path("large"), path("copy"),
        QStringLiteral("--json"), QStringLiteral("--block-size"), QStringLiteral("64K")};
    if (!option.isEmpty())
        arguments.append(option);
    const FaultRun run = runWithFaults(
        QStringLiteral(PELLOX_PROGRAM), arguments, whileItWrites(path("copy"), signal));
    QCOMPARE(run.status, status);
    QCOMPARE(run.errors, QByteArray("pellox: interrupted\n"));
    QCOMPARE(member(jsonLines(QString::fromUtf8(run.output)).last(), "outcome"),
        QStringLiteral("interrupted"));
    QCOMPARE(m_tree->exists(QStringLiteral("copy")), kept);
    QVERIFY(QFileInfo(path("copy")).size() < LargeSize);
    QCOMPARE(QFileInfo(path("copy")).size() % (64 << 10), qint64(0));
}

void tst_CopyCommand::interruptStopsABuildAtTheNextBlock_data()
{
    QTest::addColumn<bool>("isForced"); // into a folder with files of its own

    QTest::newRow("new folder") << false;
    QTest::newRow("files replaced") << true;
}

void tst_CopyCommand::interruptStopsABuildAtTheNextBlock()
{
    QFETCH(bool, isForced);
    makeLargeFile("build/first.pak");
    makeLargeFile("build/levels/second.pak");
    QStringList arguments{QStringLiteral("copy"), path("build"), path("new/copy"),
        QStringLiteral("--block-size"), QStringLiteral("64K")};
    if (isForced) {
        m_tree->write(QStringLiteral("new/copy/mine"), "mine");
        m_tree->write(QStringLiteral("new/copy/levels/grüße.map"), "old");
        arguments.append(QStringLiteral("--force"));
    }
    const QStringList before = TestTree::snapshot(path("new")).keys();

    const FaultRun run = runWithFaults(
        QStringLiteral(PELLOX_PROGRAM), arguments, whileItWrites(path("new"), "interrupt"));
    QCOMPARE(run.status, Interrupted);
    QCOMPARE(errorLines(QString::fromUtf8(run.errors)), QStringList());
    QVERIFY2(run.errors.endsWith("pellox: interrupted\n"), run.errors);
    QCOMPARE(TestTree::snapshot(path("new")).keys(), before);
}

void tst_CopyCommand::interruptEndsTheComparison()
{
    const TestTree source;
    source.write(QStringLiteral("data.pak"), randomBytes(3000000, 2));
    // Nothing but the comparison reads what has been copied.
    const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("copy"), source.path(), path("copy")},
        {m_tree->path(), "read", 1, "interrupt"});
    QCOMPARE(run.status, Interrupted);
    QVERIFY(!m_tree->exists(QStringLiteral("copy")));
}

void tst_CopyCommand::aSecondInterruptEndsTheCopyOfAFile()
{
    m_tree->write(QStringLiteral("large"), "content");
    const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("copy"), path("large"), path("copy")},
        {path("copy"), "write", 1, "interrupts"});
    QCOMPARE(run.status, Interrupted);
    QVERIFY2(run.errors.endsWith("pellox: interrupted\n"), run.errors);
    QVERIFY(m_tree->exists(QStringLiteral("copy"))); // not taken away
}

/// As timeout(1) does: to the program, then to all of its group.
void tst_CopyCommand::oneCtrlCMayComeTwice()
{
    makeLargeFile("large");
    const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("copy"), path("large"), path("copy"), QStringLiteral("--block-size"),
            QStringLiteral("64K")},
        whileItWrites(path("copy"), "twice"));
    QCOMPARE(run.status, Interrupted);
    QVERIFY(!m_tree->exists(QStringLiteral("copy")));
}

void tst_CopyCommand::aSecondInterruptEndsTheCopyOfABuild()
{
    makeOldFiles();
    const auto before = TestTree::snapshot(path("copy"));
    const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("copy"), path("build"), path("copy"), QStringLiteral("--force")},
        {path("copy"), "write", 1, "interrupts"});
    QCOMPARE(run.status, Interrupted);
    const auto after = TestTree::snapshot(path("copy"));
    QVERIFY(after != before); // not taken away
    for (auto old = before.cbegin(); old != before.cend(); ++old)
        QCOMPARE(after.value(old.key()), old.value());
}

void tst_CopyCommand::otherSignalsToTheCopyOfABuildMayRepeat()
{
    makeLargeFile("huge/large");
    makeOldFiles();
    const auto before = TestTree::snapshot(path("copy"));
    Faults faults = whileItWrites(path("copy"), "terminate");
    faults.calls = "write,remove";
    faults.later = true;
    const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("copy"), path("huge"), path("copy"), QStringLiteral("--block-size"),
            QStringLiteral("64K")},
        faults);
    QCOMPARE(run.status, 128 + SIGTERM);
    QVERIFY2(run.calls.last().startsWith(QLatin1String("remove ")), qPrintable(run.calls.last()));
    QCOMPARE(TestTree::snapshot(path("copy")), before);
}

QTEST_GUILESS_MAIN(tst_CopyCommand)
#include "tst_copycommand.moc"
