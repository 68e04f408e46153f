// SPDX-License-Identifier: MIT
#include "program.h"
#include "testtree.h"

#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <csignal>
#include <memory>

#include <sys/types.h>

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
        << QStringLiteral("copy build/data.pak copy.pak --block-size 1T")
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
}

void tst_CopyCommand::refuses()
{
    QFETCH(QString, words);
    QFETCH(QString, message);
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(words);
    message.replace(QLatin1Char('~'), m_tree->path());
    QCOMPARE(outcome.err, QLatin1String("pellox: error: ") + message + QLatin1Char('\n'));
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
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
