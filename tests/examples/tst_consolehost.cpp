// SPDX-License-Identifier: MIT
#include "gametree.h"
#include "literals.h"

#include <QProcess>
#include <QtTest>

#include <csignal>
#include <optional>

namespace {

constexpr int Patience = 60000; // milliseconds

} // namespace

/// The console host, as it was built against the installed package.
class tst_ConsoleHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_tree.emplace(); }
    void cleanup() { m_tree.reset(); }

    void fitsOnAScreen();
    void updatesABuild();
    void takesAnArchive();
    void refusesAHostilePatch();
    void damagedArchive();
    void ctrlCCancels();
    void progressOnATerminal();
    void wrongUsage();

private:
    void start(const QStringList &arguments);
    int statusAtTheEnd();

    std::optional<GameTree> m_tree;
    std::unique_ptr<QProcess> m_process;
    QString m_output;
};

void tst_ConsoleHost::start(const QStringList &arguments)
{
    m_process = std::make_unique<QProcess>();
    m_process->setProcessChannelMode(QProcess::MergedChannels);
    m_process->start(QStringLiteral(CONSOLE_HOST), arguments);
}

int tst_ConsoleHost::statusAtTheEnd()
{
    [&] { QVERIFY(m_process->waitForFinished(Patience)); }();
    m_output = QString::fromUtf8(m_process->readAll());
    return m_process->exitStatus() == QProcess::NormalExit ? m_process->exitCode() : -1;
}

/// As it says of itself.
void tst_ConsoleHost::fitsOnAScreen()
{
    QFile source(QStringLiteral(CONSOLE_HOST_SOURCE));
    QVERIFY(source.open(QIODevice::ReadOnly));
    QVERIFY(source.readAll().count('\n') < 80);
}

void tst_ConsoleHost::updatesABuild()
{
    start({m_tree->game(), m_tree->patch()});
    QCOMPARE(statusAtTheEnd(), 0);
    QCOMPARE(m_output, "Checking\nStaging\nCommitting\nUpdated\n"_s);
    QCOMPARE(m_tree->installed(), m_tree->updated());
    start({m_tree->game(), m_tree->patch()});
    QCOMPARE(statusAtTheEnd(), 0);
    QCOMPARE(m_output, "Checking\nAlreadyUpToDate\n"_s);
}

void tst_ConsoleHost::takesAnArchive()
{
    const QString archive = m_tree->pack();
    start({m_tree->game(), archive});
    QCOMPARE(statusAtTheEnd(), 0);
    QCOMPARE(m_tree->installed(), m_tree->updated());
    QCOMPARE(TestTree::snapshot(m_tree->path("dl"_s)).keys(), QStringList("1.0-1.1.7z.001"_s));
}

void tst_ConsoleHost::refusesAHostilePatch()
{
    m_tree->addRule("/../../stolen.txt"_s);
    const auto before = TestTree::snapshot(m_tree->path());
    start({m_tree->game(), m_tree->patch()});
    QCOMPARE(statusAtTheEnd(), 1);
    QVERIFY2(m_output.contains("/../../stolen.txt\n  See whether this is the right folder"_s)
            && m_output.endsWith("\nRefused\n"_s),
        qPrintable(m_output));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_ConsoleHost::damagedArchive()
{
    m_tree->write("dl/1.0-1.1.7z"_s, randomBytes(5000, 9));
    const auto before = TestTree::snapshot(m_tree->path());
    start({m_tree->game(), m_tree->path("dl/1.0-1.1.7z"_s)});
    QCOMPARE(statusAtTheEnd(), 1);
    QVERIFY2(m_output.contains("ERROR"_s), qPrintable(m_output));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_ConsoleHost::ctrlCCancels()
{
    m_tree->addLargeFile();
    const auto before = m_tree->installed();
    start({m_tree->game(), m_tree->patch()});
    QTRY_VERIFY_WITH_TIMEOUT(m_tree->exists("Lighthouse/data/textures.pak.temp"_s), Patience);
    QCOMPARE(::kill(static_cast<pid_t>(m_process->processId()), SIGINT), 0);
    QCOMPARE(statusAtTheEnd(), 130);
    QCOMPARE(m_output, "Checking\nStaging\nCancelled\n"_s);
    QCOMPARE(m_tree->installed(), before);
}

void tst_ConsoleHost::progressOnATerminal()
{
    m_process = std::make_unique<QProcess>();
    m_process->start("script"_s,
        {"--quiet"_s, "--return"_s, "--command"_s,
            QStringLiteral(CONSOLE_HOST) + " %1 %2"_s.arg(m_tree->game(), m_tree->patch()),
            "/dev/null"_s});
    QCOMPARE(statusAtTheEnd(), 0);
    const QRegularExpression line("\r\x1b\\[K[0-9]+ %, [0-9.]+ MB/s, [0-9]+ s left\r"_s);
    QVERIFY2(line.match(m_output).hasMatch(), qPrintable(m_output));
    QVERIFY2(m_output.endsWith("\r\x1b[KUpdated\r\n"_s), qPrintable(m_output));
}

void tst_ConsoleHost::wrongUsage()
{
    start({m_tree->game()});
    QCOMPARE(statusAtTheEnd(), 2);
    QCOMPARE(m_output, "Usage: console-host BUILD PATCH\n"_s);
}

QTEST_GUILESS_MAIN(tst_ConsoleHost)
#include "tst_consolehost.moc"
