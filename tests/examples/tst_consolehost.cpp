// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "gametree.h"
#include "literals.h"
#include "patience.h"

#include <Pellox/PatchSeal>

#include <QProcess>
#include <QtTest>

#include <optional>

/// The console host, as it was built against the installed package.
class tst_ConsoleHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_tree.emplace(); }
    void cleanup() { m_tree.reset(); }

    void fitsOnAScreen();
    void tellsWhatAnUpdateWouldDo();
    void updatesABuild();
    void takesAnArchive();
    void refusesAHostilePatch();
    void trustedKey();
    void fileThatIsNoKey();
    void damagedArchive();
    void archiveInAReadOnlyFolder();
    void ctrlCCancels();
    void progressOnATerminal();
    void clockThatIsSetBack();
    void verifiesAndRepairs();
    void repairWithoutTheRightFiles();
    void wrongUsage_data();
    void wrongUsage();

private:
    void startOnATerminal(bool isClockSetBack);
    void start(const QStringList &arguments);
    int statusAtTheEnd();
    QStringList linesWith(const QString &beginning) const;
    QString linesWithout(const QString &beginning) const;
    QString installed(const char *file) const { return "Lighthouse/"_s + QLatin1String(file); }

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

/// What follows @p beginning, in alphabetical order.
QStringList tst_ConsoleHost::linesWith(const QString &beginning) const
{
    QStringList found;
    for (const QString &line : m_output.split(QLatin1Char('\n'))) {
        if (line.startsWith(beginning))
            found.append(line.mid(beginning.size()));
    }
    found.sort();
    return found;
}

QString tst_ConsoleHost::linesWithout(const QString &beginning) const
{
    QStringList others;
    for (const QString &line : m_output.split(QLatin1Char('\n'))) {
        if (!line.startsWith(beginning))
            others.append(line);
    }
    return others.join(QLatin1Char('\n'));
}

/// As it says of itself.
void tst_ConsoleHost::fitsOnAScreen()
{
    QFile source(QStringLiteral(CONSOLE_HOST_SOURCE));
    QVERIFY(source.open(QIODevice::ReadOnly));
    QVERIFY(source.readAll().count('\n') < 80);
}

void tst_ConsoleHost::tellsWhatAnUpdateWouldDo()
{
    const auto before = TestTree::snapshot(m_tree->path());
    start({"check"_s, m_tree->game(), m_tree->patch()});
    QCOMPARE(statusAtTheEnd(), 0);
    QCOMPARE(linesWith("To patch: "_s), QStringList({"/data/harbour.pak"_s, "/lighthouse"_s}));
    QCOMPARE(linesWith("To add: "_s).size(), int(GameTree::Levels.size()));
    QCOMPARE(linesWith("To delete: "_s), QStringList("/data/intro.txt"_s));
    QCOMPARE(linesWithout("To "_s), "done\n"_s);
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_ConsoleHost::updatesABuild()
{
    start({"update"_s, m_tree->game(), m_tree->patch()});
    QCOMPARE(statusAtTheEnd(), 0);
    QCOMPARE(linesWithout("Written: "_s), "Checking\nWriting\nPutting in place\ndone\n"_s);
    QStringList written{"/data/harbour.pak"_s, "/lighthouse"_s};
    for (const char *level : GameTree::Levels)
        written.append(QLatin1Char('/') + QLatin1String(level));
    written.sort();
    QCOMPARE(linesWith("Written: "_s), written);
    QCOMPARE(m_tree->installed(), m_tree->updated());
    start({"update"_s, m_tree->game(), m_tree->patch()});
    QCOMPARE(statusAtTheEnd(), 0);
    QCOMPARE(m_output, "Checking\nnothing-to-do\n"_s);
}

void tst_ConsoleHost::takesAnArchive()
{
    const QString archive = m_tree->pack();
    start({"update"_s, m_tree->game(), archive});
    QCOMPARE(statusAtTheEnd(), 0);
    QCOMPARE(m_tree->installed(), m_tree->updated());
    QCOMPARE(TestTree::snapshot(m_tree->path("dl"_s)).keys(), QStringList("1.0-1.1.7z.001"_s));
}

void tst_ConsoleHost::refusesAHostilePatch()
{
    m_tree->addRule("/../../stolen.txt"_s);
    const auto before = TestTree::snapshot(m_tree->path());
    start({"update"_s, m_tree->game(), m_tree->patch()});
    QCOMPARE(statusAtTheEnd(), 1);
    QVERIFY2(m_output.contains("/../../stolen.txt\n  See whether this is the right folder"_s)
            && m_output.endsWith("\nrefused\n"_s),
        qPrintable(m_output));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_ConsoleHost::trustedKey()
{
    const QString privateKey = m_tree->path("publisher.key"_s);
    const QString publicKey = m_tree->path("publisher.pub"_s);
    QString error;
    if (!Pellox::PatchSeal::generateKey(privateKey, publicKey, &error)) {
        QVERIFY2(error.contains("libcrypto"_s), qPrintable(error));
        QSKIP("built without libcrypto");
    }
    const auto before = m_tree->installed();
    start({"update"_s, m_tree->game(), m_tree->patch(), publicKey});
    QCOMPARE(statusAtTheEnd(), 1);
    QVERIFY2(m_output.contains("\n  Get the patch from its publisher; do not use this one.\n"_s)
            && m_output.endsWith("\nrefused\n"_s),
        qPrintable(m_output));
    QCOMPARE(m_tree->installed(), before);

    Pellox::PatchSeal sealer;
    QVERIFY2(sealer.seal(m_tree->patch(), m_tree->path("signatures/1.0"_s), 2, {privateKey}),
        qPrintable(sealer.error()));
    start({"check"_s, m_tree->game(), m_tree->patch(), publicKey});
    QCOMPARE(statusAtTheEnd(), 0);
    start({"update"_s, m_tree->game(), m_tree->patch(), publicKey});
    QCOMPARE(statusAtTheEnd(), 0);
    QVERIFY(m_tree->exists("Lighthouse/.pellox/release"_s));
}

void tst_ConsoleHost::fileThatIsNoKey()
{
    const auto before = m_tree->installed();
    for (const QString &key : {m_tree->path("no key"_s), QString()}) {
        start({"update"_s, m_tree->game(), m_tree->patch(), key});
        QCOMPARE(statusAtTheEnd(), 1);
        QCOMPARE(m_tree->installed(), before);
    }
}

void tst_ConsoleHost::damagedArchive()
{
    m_tree->write("dl/1.0-1.1.7z"_s, randomBytes(5000, 9));
    const auto before = TestTree::snapshot(m_tree->path());
    start({"update"_s, m_tree->game(), m_tree->path("dl/1.0-1.1.7z"_s)});
    QCOMPARE(statusAtTheEnd(), 1);
    QVERIFY2(
        m_output.contains("ERROR"_s) && m_output.endsWith("\nfailed\n"_s), qPrintable(m_output));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

/// Nothing can be made beside it. As root the system's own files are such.
void tst_ConsoleHost::archiveInAReadOnlyFolder()
{
    start({"update"_s, m_tree->game(), "/proc/version"_s});
    QCOMPARE(statusAtTheEnd(), 1);
    const QRegularExpression line(
        "^cannot make /proc/version\\.[^:]*: No such file or directory\n$"_s);
    QVERIFY2(line.match(m_output).hasMatch(), qPrintable(m_output));
}

void tst_ConsoleHost::ctrlCCancels()
{
    m_tree->addLargeFile();
    const auto before = m_tree->installed();
    const FaultRun run
        = runWithFaults(QStringLiteral(CONSOLE_HOST), {"update"_s, m_tree->game(), m_tree->patch()},
            {m_tree->path(installed("data/textures.pak.temp")), "write", 1, "interrupt"});
    QCOMPARE(run.status, 130);
    m_output = QString::fromUtf8(run.output);
    QCOMPARE(linesWithout("Written: "_s), "Checking\nWriting\ncancelled\n"_s);
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(m_tree->installed(), before);
}

void tst_ConsoleHost::startOnATerminal(bool isClockSetBack)
{
    m_process = std::make_unique<QProcess>();
    if (isClockSetBack) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("LD_PRELOAD"_s, QStringLiteral(CLOCK_SET_BACK));
        m_process->setProcessEnvironment(environment);
    }
    m_process->start("script"_s,
        {"--quiet"_s, "--return"_s, "--command"_s,
            QStringLiteral(CONSOLE_HOST) + " update %1 %2"_s.arg(m_tree->game(), m_tree->patch()),
            "/dev/null"_s});
}

void tst_ConsoleHost::progressOnATerminal()
{
    startOnATerminal(false);
    QCOMPARE(statusAtTheEnd(), 0);
    const QRegularExpression line(
        "\r\x1b\\[K[0-9.]+ of 3\\.[0-9] MB, [0-9.]+ MB/s, [0-9]+ s left\r"_s);
    QVERIFY2(line.match(m_output).hasMatch(), qPrintable(m_output));
    QVERIFY2(m_output.endsWith("\r\x1b[Kdone\r\n"_s), qPrintable(m_output));
}

void tst_ConsoleHost::clockThatIsSetBack()
{
    startOnATerminal(true);
    QCOMPARE(statusAtTheEnd(), 0);
    QVERIFY2(m_output.contains(" MB/s, "_s), qPrintable(m_output));
    QVERIFY2(!m_output.contains(", -"_s), qPrintable(m_output)); // neither speed nor time
}

void tst_ConsoleHost::verifiesAndRepairs()
{
    const QString signatures = m_tree->path("signatures/1.0"_s);
    const auto before = m_tree->installed();
    start({"verify"_s, m_tree->game(), signatures});
    QCOMPARE(statusAtTheEnd(), 0);
    QCOMPARE(m_output, "Checking\nNot of the game: /saves/slot1.sav\ndone\n"_s);

    m_tree->write(installed("lighthouse"), "harmed");
    m_tree->remove(installed("data/intro.txt"));
    const auto damaged = m_tree->installed();
    start({"verify"_s, m_tree->game(), signatures});
    QCOMPARE(statusAtTheEnd(), 1);
    const QString found = "Changed: /lighthouse\nMissing: /data/intro.txt\n"
                          "Not of the game: /saves/slot1.sav\n"_s;
    QCOMPARE(m_output, "Checking\n"_s + found + "not-intact\n"_s);
    QCOMPARE(m_tree->installed(), damaged);

    start({"repair"_s, m_tree->game(), signatures, m_tree->path("releases/1.0"_s)});
    QCOMPARE(statusAtTheEnd(), 0);
    QCOMPARE(m_output, "Checking\nWriting\nPutting in place\n"_s + found + "done\n"_s);
    QCOMPARE(m_tree->installed(), before);
}

void tst_ConsoleHost::repairWithoutTheRightFiles()
{
    m_tree->write(installed("lighthouse"), "harmed");
    const auto before = m_tree->installed();
    start({"repair"_s, m_tree->game(), m_tree->path("signatures/1.0"_s),
        m_tree->path("releases/1.1"_s)});
    QCOMPARE(statusAtTheEnd(), 1);
    QVERIFY2(m_output.contains("releases/1.1/lighthouse: "_s), qPrintable(m_output));
    QCOMPARE(m_tree->installed(), before);
}

void tst_ConsoleHost::wrongUsage_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("nothing") << QStringList();
    QTest::newRow("no job") << QStringList({"build"_s, "patch"_s, "more"_s});
    QTest::newRow("no patch") << QStringList({"update"_s, "build"_s});
    QTest::newRow("no source") << QStringList({"repair"_s, "build"_s, "signatures"_s});
    QTest::newRow("one key more") << QStringList(
        {"update"_s, "build"_s, "patch"_s, "key"_s, "key"_s});
    QTest::newRow("key for a repair")
        << QStringList({"repair"_s, "build"_s, "signatures"_s, "source"_s, "key"_s});
    QTest::newRow("too much") << QStringList({"verify"_s, "build"_s, "signatures"_s, "more"_s});
}

void tst_ConsoleHost::wrongUsage()
{
    QFETCH(const QStringList, arguments);
    start(arguments);
    QCOMPARE(statusAtTheEnd(), 2);
    QVERIFY2(m_output.startsWith("Usage: console-host check|update BUILD PATCH [TRUSTED_KEY]\n"_s),
        qPrintable(m_output));
}

QTEST_GUILESS_MAIN(tst_ConsoleHost)
#include "tst_consolehost.moc"
