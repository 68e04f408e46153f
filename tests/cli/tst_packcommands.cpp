// SPDX-License-Identifier: MIT
#include "program.h"
#include "testtree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <csignal>
#include <memory>

#include <sys/types.h>

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
    void unpackNeverOverwrites();
    void aMissingVolumeIsNamed();
    void aTruncatedVolumeIsRefused();
    void damagedContentFailsAndLeavesNothing();
    void aMissingSevenZipIsOneClearSentence();

    void interruptLeavesNothing_data();
    void interruptLeavesNothing();

private:
    Outcome run(const QString &words) const;
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }
    QStringList filesBeside(const QString &pattern) const;

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
}

void tst_PackCommands::packRefuses()
{
    QFETCH(QString, words);
    QFETCH(QString, message);
    m_tree->makeFolder(QStringLiteral("folder.7z"));
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
    for (const QString &left : TestTree::snapshot(path("got")).keys())
        QVERIFY2(left.endsWith(QLatin1Char('/')), qPrintable(left));
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
    QTest::addColumn<QString>("result");

    QTest::newRow("pack") << QStringLiteral("pack large a.7z") << QStringLiteral("a.7z*")
                          << QStringLiteral("a.7z*");
    QTest::newRow("unpack") << QStringLiteral("unpack large.7z got") << QStringLiteral("got")
                            << QStringLiteral("got/file");
}

void tst_PackCommands::interruptLeavesNothing()
{
    QFETCH(QString, words);
    QFETCH(QString, sign);
    QFETCH(QString, result);
    // Seconds of work: bytes that do not compress, and many zeros to unpack.
    m_tree->write(QStringLiteral("large/file"), randomBytes(12 << 20, 3));
    if (words.startsWith(QLatin1String("unpack"))) {
        QVERIFY(QFile::resize(path("large/file"), qint64(300) << 20));
        QCOMPARE(run(QStringLiteral("pack large large.7z")).status, Done);
    }

    QProcess process;
    startProgram(
        process, QStringLiteral(PELLOX_PROGRAM), words.split(QLatin1Char(' ')), m_tree->path());
    const auto entries = [&](const QString &pattern) {
        return QDir(m_tree->path()).entryList({pattern}, QDir::AllEntries | QDir::NoDotAndDotDot);
    };
    QTRY_VERIFY(!entries(sign).isEmpty());
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    const Outcome outcome = outcomeOf(process);
    QVERIFY2(outcome.status == Interrupted, qPrintable(outcome.out + outcome.err));
    QVERIFY(entries(result).isEmpty());
    QVERIFY(!m_tree->exists(result));
}

QTEST_GUILESS_MAIN(tst_PackCommands)
#include "tst_packcommands.moc"
