// SPDX-License-Identifier: MIT
#include "program.h"
#include "testtree.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <memory>

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

bool hasOpen(pid_t process, const QString &path)
{
    const QFileInfoList files = QDir(QStringLiteral("/proc/%1/fd").arg(process))
                                    .entryInfoList(QDir::System | QDir::Files);
    return std::any_of(files.cbegin(), files.cend(),
        [&](const QFileInfo &file) { return file.symLinkTarget() == path; });
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
    void theReasonIsGivenOnce_data();
    void theReasonIsGivenOnce();
    void interruptStopsAtTheNextBlock_data();
    void interruptStopsAtTheNextBlock();
    void interruptStopsABuildAtTheNextFile_data();
    void interruptStopsABuildAtTheNextFile();
    void aSecondInterruptEndsAtOnce();

private:
    Outcome run(const QString &words) const
    {
        return runPellox(words.split(QLatin1Char(' ')), m_tree->path());
    }
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }

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
        QStringLiteral("pellox: error: %1: lies inside %2; the two must lie apart\n")
            .arg(path("folder/levels"), path("build")));
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
        QStringList(
            QStringLiteral("pellox: error: %1: cannot be created").arg(m_tree->path(tooLong))));
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
        QStringLiteral("pellox: error: %1: cannot be created\n").arg(m_tree->path(tooLong)));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_CopyCommand::theReasonIsGivenOnce_data()
{
    QTest::addColumn<qint64>("size"); // of a file that does not fit
    QTest::addColumn<QString>("reason");

    QTest::newRow("cannot be written") << qint64(
        300000) << QStringLiteral("cannot be written \\(is the disk full or write-protected\\?\\)");
    QTest::newRow("larger than the disk")
        << (qint64(15) << 40)
        << QStringLiteral("cannot be written, the disk is full: 15.0 TiB are needed, .* are free");
}

void tst_CopyCommand::theReasonIsGivenOnce()
{
    QFETCH(qint64, size);
    QFETCH(QString, reason);
    m_tree->write(QStringLiteral("build/large.pak"), QByteArray());
    if (!QFile::resize(path("build/large.pak"), size))
        QSKIP("no room for such a file, though it has no content");
    QProcess process;
    // A limit of the size of files stands for the disk.
    startProgram(process, QStringLiteral("sh"),
        {QStringLiteral("-c"),
            QStringLiteral("trap '' XFSZ; ulimit -f 16; exec " PELLOX_PROGRAM " copy build copy")},
        m_tree->path());
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Failed);
    QStringList errors = errorLines(outcome.err);
    QCOMPARE(errors.size(), 3);
    const QRegularExpression last(
        QStringLiteral("^pellox: error: %1: %2$").arg(path("copy"), reason));
    QVERIFY2(last.match(errors.takeLast()).hasMatch(), qPrintable(outcome.err));
    errors.sort();
    for (const char *file : {"build/data.pak", "build/large.pak"}) {
        QCOMPARE(errors.takeFirst(),
            QStringLiteral("pellox: error: %1: did not arrive in %2")
                .arg(path(file), path("copy")));
    }
}

void tst_CopyCommand::interruptStopsAtTheNextBlock_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<int>("signal");
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("kept");

    const QString keep = QStringLiteral(" --keep-partial");
    QTest::newRow("partial removed") << QString() << SIGINT << Interrupted << false;
    QTest::newRow("partial kept") << keep << SIGINT << Interrupted << true;
    QTest::newRow("terminated") << QString() << SIGTERM << 143 << false;
    QTest::newRow("terminal closed") << QString() << SIGHUP << 129 << false;
}

void tst_CopyCommand::interruptStopsAtTheNextBlock()
{
    QFETCH(QString, option);
    QFETCH(int, signal);
    QFETCH(int, status);
    QFETCH(bool, kept);
    m_tree->write(QStringLiteral("large"), QByteArray());
    QVERIFY(QFile::resize(path("large"), qint64(16) << 30));

    QProcess process;
    startProgram(process, QStringLiteral(PELLOX_PROGRAM),
        (QStringLiteral("copy large copy --json --block-size 1M") + option).split(QLatin1Char(' ')),
        m_tree->path());
    QTRY_VERIFY(QFileInfo(path("copy")).size() > 0);
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), signal), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, status);
    QCOMPARE(outcome.err, QStringLiteral("pellox: interrupted\n"));
    QCOMPARE(member(jsonLines(outcome.out).last(), "outcome"), QStringLiteral("interrupted"));
    QCOMPARE(m_tree->exists(QStringLiteral("copy")), kept);
    QCOMPARE(QFileInfo(path("copy")).size() % (1 << 20), qint64(0));
}

void tst_CopyCommand::interruptStopsABuildAtTheNextFile_data()
{
    QTest::addColumn<bool>("isForced"); // into a folder with files of its own

    QTest::newRow("new folder") << false;
    QTest::newRow("files replaced") << true;
}

void tst_CopyCommand::interruptStopsABuildAtTheNextFile()
{
    QFETCH(bool, isForced);
    // A good part of a second each, so one of them is under way when the signal comes.
    for (const char *name : {"build/first.pak", "build/levels/second.pak"}) {
        m_tree->write(QLatin1String(name), QByteArray());
        QVERIFY(QFile::resize(path(name), qint64(256) << 20));
    }
    QStringList arguments{
        QStringLiteral("copy"), QStringLiteral("build"), QStringLiteral("new/copy")};
    if (isForced) {
        m_tree->write(QStringLiteral("new/copy/mine"), "mine");
        m_tree->write(QStringLiteral("new/copy/levels/grüße.map"), "old");
        arguments.append(QStringLiteral("--force"));
    }
    const QStringList before = TestTree::snapshot(path("new")).keys();

    QProcess process;
    startProgram(process, QStringLiteral(PELLOX_PROGRAM), arguments, m_tree->path());
    const QStringList underWay{QStringLiteral("qt_temp.*"), QStringLiteral("*.pak")};
    QTRY_VERIFY(QDirIterator(
        path("new"), underWay, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories)
                    .hasNext());
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Interrupted);
    QCOMPARE(errorLines(outcome.err), QStringList());
    QVERIFY2(outcome.err.endsWith(QLatin1String("pellox: interrupted\n")), qPrintable(outcome.err));
    QCOMPARE(TestTree::snapshot(path("new")).keys(), before);
}

void tst_CopyCommand::aSecondInterruptEndsAtOnce()
{
    // The first waits for the end of this file, far off.
    m_tree->write(QStringLiteral("build/large.pak"), QByteArray());
    if (!QFile::resize(path("build/large.pak"), qint64(64) << 30))
        QSKIP("no room for such a file, though it has no content");
    QProcess process;
    startProgram(process, QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("copy"), QStringLiteral("build"), QStringLiteral("copy")}, m_tree->path());
    const auto id = static_cast<pid_t>(process.processId());
    QTRY_VERIFY(hasOpen(id, path("build/large.pak")));
    QCOMPARE(::kill(id, SIGINT), 0);
    QVERIFY(!process.waitForFinished(300));
    QCOMPARE(::kill(id, SIGINT), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Interrupted);
    QVERIFY2(outcome.err.endsWith(QLatin1String("pellox: interrupted\n")), qPrintable(outcome.err));
    QVERIFY(m_tree->exists(QStringLiteral("copy"))); // not taken away
}

QTEST_GUILESS_MAIN(tst_CopyCommand)
#include "tst_copycommand.moc"
