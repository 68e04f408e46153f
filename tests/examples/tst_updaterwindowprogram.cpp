// SPDX-License-Identifier: MIT
#include "gametree.h"
#include "literals.h"
#include "patience.h"
#include "virtualscreen.h"

#include <Pellox/PatchSeal>

#include <QProcess>
#include <QtTest>

#include <optional>

/// The example's program as it was built against the installed package, with its arguments.
class tst_UpdaterWindowProgram : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_tree.emplace(); }
    void cleanup() { m_tree.reset(); }

    void opensEmpty();
    void takesGameAndPatch();
    void trustedKeyRefusesUnsealedPatch();
    void trustedKeyTakesItsOwnersPatch();
    void eachTrustedKeyCounts();
    void tellsItsArguments();
    void unknownOption();

private:
    int run(const QStringList &arguments, const QByteArray &clicks = QByteArray());
    bool canSeal() const { return m_tree->exists("publisher.pub"_s); }
    void makeKey(const QString &name) const;
    void seal() const;
    QString key(const QString &name) const { return m_tree->path(name + ".pub"_s); }

    std::optional<GameTree> m_tree;
    QString m_output;
};

/// Until the player closes the window. The exit status, -1 after a crash.
int tst_UpdaterWindowProgram::run(const QStringList &arguments, const QByteArray &clicks)
{
    QProcess program;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("QT_PLUGIN_PATH"_s, QStringLiteral(PLAYER_FOLDER));
    environment.insert("QT_QPA_GENERIC_PLUGINS"_s, "player"_s);
    environment.insert("PLAYER_CLICKS"_s, QString::fromLatin1(clicks));
    program.setProcessEnvironment(environment);
    program.start(QStringLiteral(UPDATER_WINDOW), arguments);
    [&] { QVERIFY2(program.waitForFinished(Patience), qPrintable(program.errorString())); }();
    m_output = QString::fromUtf8(program.readAllStandardOutput());
    return program.exitStatus() == QProcess::NormalExit ? program.exitCode() : -1;
}

void tst_UpdaterWindowProgram::opensEmpty()
{
    QCOMPARE(run({}, "check"), 0);
    QVERIFY2(m_output.startsWith("opened with \"\" and \"\"\ncannot press check\n"_s),
        qPrintable(m_output));
}

void tst_UpdaterWindowProgram::takesGameAndPatch()
{
    QCOMPARE(run({m_tree->game(), m_tree->patch()}, "check update"), 0);
    QVERIFY2(m_output.startsWith("opened with \"%1\" and \"%2\"\nThe update is ready\n"_s.arg(
                 m_tree->game(), m_tree->patch())),
        qPrintable(m_output));
    QVERIFY2(m_output.endsWith("\nThe game is up to date\n"_s), qPrintable(m_output));
    QCOMPARE(m_tree->installed(), m_tree->updated());
}

/// "name.key" and "name.pub".
void tst_UpdaterWindowProgram::makeKey(const QString &name) const
{
    QString error;
    if (!Pellox::PatchSeal::generateKey(m_tree->path(name + ".key"_s), key(name), &error)) {
        QVERIFY2(error.contains("libcrypto"_s), qPrintable(error));
        QSKIP("built without libcrypto");
    }
}

void tst_UpdaterWindowProgram::seal() const
{
    Pellox::PatchSeal sealer;
    QVERIFY2(sealer.seal(m_tree->patch(), m_tree->path("signatures/1.0"_s), 2,
                 {m_tree->path("publisher.key"_s)}),
        qPrintable(sealer.error()));
}

void tst_UpdaterWindowProgram::trustedKeyRefusesUnsealedPatch()
{
    makeKey("publisher"_s);
    if (!canSeal())
        return;
    const auto before = TestTree::snapshot(m_tree->path());
    QCOMPARE(run({"--trusted-key"_s, key("publisher"_s), m_tree->game(), m_tree->patch()},
                 "check update"),
        0);
    QVERIFY2(m_output.contains("\nRefused. Nothing was changed.\n"
                               "Get the patch from its publisher; do not use this one.\n"_s),
        qPrintable(m_output));
    QVERIFY2(m_output.contains("\ncannot press update\n"_s), qPrintable(m_output));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_UpdaterWindowProgram::trustedKeyTakesItsOwnersPatch()
{
    makeKey("publisher"_s);
    if (!canSeal())
        return;
    seal();
    QCOMPARE(run({m_tree->game(), m_tree->patch(), "--trusted-key"_s, key("publisher"_s)},
                 "check update"),
        0);
    QVERIFY2(m_output.endsWith("\nThe game is up to date\n"_s), qPrintable(m_output));
    QVERIFY(m_tree->exists("Lighthouse/.pellox/release"_s));
}

void tst_UpdaterWindowProgram::eachTrustedKeyCounts()
{
    makeKey("publisher"_s);
    if (!canSeal())
        return;
    makeKey("successor"_s);
    seal();
    QCOMPARE(
        run({"--trusted-key"_s, key("successor"_s), m_tree->game(), m_tree->patch()}, "check"), 0);
    QVERIFY2(m_output.contains("\nRefused. Nothing was changed.\n"_s), qPrintable(m_output));
    QCOMPARE(run({"--trusted-key"_s, key("successor"_s), "--trusted-key"_s, key("publisher"_s),
                     m_tree->game(), m_tree->patch()},
                 "check"),
        0);
    QVERIFY2(m_output.contains("\nThe update is ready\n"_s), qPrintable(m_output));
}

void tst_UpdaterWindowProgram::tellsItsArguments()
{
    QCOMPARE(run({"--help"_s}), 0);
    for (const char *word : {"--trusted-key <file>", "build", "patch"})
        QVERIFY2(m_output.contains(QLatin1String(word)), qPrintable(m_output));
}

void tst_UpdaterWindowProgram::unknownOption()
{
    QCOMPARE(run({"--trusted"_s, m_tree->game()}), 1);
    QCOMPARE(m_output, QString());
}

int main(int argc, char **argv)
{
    useMemoryForFiles();
    const VirtualScreen screen;
    QCoreApplication application(argc, argv);
    tst_UpdaterWindowProgram test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_updaterwindowprogram.moc"
