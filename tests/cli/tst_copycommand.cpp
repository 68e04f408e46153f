// SPDX-License-Identifier: MIT
#include "program.h"
#include "testtree.h"

#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <csignal>
#include <memory>

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

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
    void blockSizesOutOfRangeAreRefused_data();
    void blockSizesOutOfRangeAreRefused();
    void aFileThatCannotBeReadIsNamed();
    void everyFileThatDidNotArriveIsNamed();
    void interruptStopsAtTheNextBlock_data();
    void interruptStopsAtTheNextBlock();

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
    QTest::newRow("a build below a file") << QStringLiteral(
        "copy build build2/file/copy") << QStringLiteral("~/build2/file/copy: cannot be created");
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

void tst_CopyCommand::blockSizesOutOfRangeAreRefused_data()
{
    QTest::addColumn<QString>("size");

    for (const char *size : {"0", "-1", "2E", "9223372036854775808", "block"})
        QTest::newRow(size) << QString::fromLatin1(size);
}

void tst_CopyCommand::blockSizesOutOfRangeAreRefused()
{
    QFETCH(QString, size);
    const Outcome outcome = run(QStringLiteral("copy build/data.pak copy --block-size=") + size);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.err,
        QStringLiteral("--block-size: %1 is no size from 1 byte to 1 EiB, such as 500M\n"
                       "Run with --help for more information.\n")
            .arg(size));
    QVERIFY(!m_tree->exists(QStringLiteral("copy")));
}

void tst_CopyCommand::aFileThatCannotBeReadIsNamed()
{
    const Outcome outcome = run(QStringLiteral("copy build/data.pak nosuch/copy.pak"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(
            QStringLiteral("pellox: error: %1: cannot be created").arg(path("nosuch/copy.pak"))));
}

void tst_CopyCommand::everyFileThatDidNotArriveIsNamed()
{
    m_tree->makeFolder(QStringLiteral("copy/data.pak"));
    const Outcome outcome = run(QStringLiteral("copy build copy"));
    QCOMPARE(outcome.status, Failed);
    QCOMPARE(errorLines(outcome.err),
        QStringList(QStringLiteral("pellox: error: %1: did not arrive in %2")
                        .arg(path("build/data.pak"), path("copy"))));
    QCOMPARE(m_tree->read(QStringLiteral("copy/levels/grüße.map")), QByteArray("map"));
}

void tst_CopyCommand::interruptStopsAtTheNextBlock_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<bool>("kept");

    QTest::newRow("partial removed") << QString() << false;
    QTest::newRow("partial kept") << QStringLiteral(" --keep-partial") << true;
}

void tst_CopyCommand::interruptStopsAtTheNextBlock()
{
    QFETCH(QString, option);
    QFETCH(bool, kept);
    m_tree->write(QStringLiteral("large"), QByteArray());
    QVERIFY(QFile::resize(path("large"), qint64(16) << 30));

    QProcess process;
    startProgram(process, QStringLiteral(PELLOX_PROGRAM),
        (QStringLiteral("copy large copy --json --block-size 1M") + option).split(QLatin1Char(' ')),
        m_tree->path());
    QTRY_VERIFY(QFileInfo(path("copy")).size() > 0);
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), SIGINT), 0);
    const Outcome outcome = outcomeOf(process);
    QCOMPARE(outcome.status, Interrupted);
    QCOMPARE(member(jsonLines(outcome.out).last(), "outcome"), QStringLiteral("interrupted"));
    QCOMPARE(m_tree->exists(QStringLiteral("copy")), kept);
    QCOMPARE(QFileInfo(path("copy")).size() % (1 << 20), qint64(0));
}

QTEST_GUILESS_MAIN(tst_CopyCommand)
#include "tst_copycommand.moc"
