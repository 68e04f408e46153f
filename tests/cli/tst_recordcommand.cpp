// SPDX-License-Identifier: MIT
#include "events.h"
#include "faultrun.h"
#include "releasetree.h"

#include <QTest>

#include <cerrno>
#include <memory>

/// "pellox record".
class tst_RecordCommand : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { useMemoryForFiles(); }
    void init();

    void recordsTheRelease();
    void refusesWhatIsNotTheRelease_data();
    void refusesWhatIsNotTheRelease();
    void unreadablePatchIsNoSealsFault();
    void wrongUsage_data();
    void wrongUsage();
    void helpTeaches();

private:
    Outcome run(const QString &words) const { return m_tree->run(words); }
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }

    std::unique_ptr<ReleaseTree> m_tree;
};

namespace {

const QString Record
    = QStringLiteral("record new sigs-new patch --trusted-key a.pub --trusted-key b.pub");

} // namespace

void tst_RecordCommand::init()
{
    m_tree = std::make_unique<ReleaseTree>();
    const bool needsKeys = qstrcmp(QTest::currentTestFunction(), "helpTeaches") != 0;
    const Outcome keygen = run(QStringLiteral("keygen a.key a.pub"));
    if (needsKeys && keygen.err.contains(QLatin1String("libcrypto")))
        QSKIP("the library is built without libcrypto");
    if (!needsKeys)
        return;
    QCOMPARE(keygen.status, Done);
    QCOMPARE(run(QStringLiteral("keygen b.key b.pub")).status, Done);
    const Outcome seal
        = run(QStringLiteral("seal patch --signatures sigs-old --release 2 --key a.key"));
    QVERIFY2(seal.status == Done, qPrintable(seal.err));
}

void tst_RecordCommand::recordsTheRelease()
{
    const Outcome recorded = run(Record);
    QVERIFY2(recorded.status == Done, qPrintable(recorded.err));
    QVERIFY(recorded.out.contains(QLatin1String("Recorded which release is installed: ")));
    QVERIFY(m_tree->exists(QStringLiteral("new/.pellox/release")));
    const Outcome again = run(Record + QStringLiteral(" --json"));
    QCOMPARE(again.status, NothingToDo);
    QCOMPARE(member(jsonLines(again.out).last(), "outcome"), QStringLiteral("nothing-to-do"));
    const QString python = pythonWithJsonSchema();
    if (!python.isEmpty())
        QCOMPARE(schemaViolations(python, again.out), QStringList());
    QCOMPARE(run(QStringLiteral("update new patch --trusted-key a.pub")).status, NothingToDo);
}

void tst_RecordCommand::refusesWhatIsNotTheRelease_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("says");
    const auto words = [](const char *build, const char *signatures, const char *key) {
        return QStringLiteral("record %1 %2 patch --trusted-key %3")
            .arg(QString::fromLatin1(build), QString::fromLatin1(signatures),
                QString::fromLatin1(key));
    };
    QTest::newRow("another build")
        << words("installed", "sigs-new", "a.pub") << DamagedInstall
        << QStringLiteral("pellox: nothing was changed: run \"pellox repair\" first\n");
    QTest::newRow("signatures of another build")
        << words("installed", "sigs-old", "a.pub") << RefusedPatch
        << QStringLiteral("is of another build than the one that the patch leads to");
    QTest::newRow("stranger's key") << words("new", "sigs-new", "b.pub") << RefusedPatch
                                    << QStringLiteral("is not by a trusted key");
    QTest::newRow("later release is known")
        << words("later", "sigs-new", "a.pub") << RefusedPatch
        << QStringLiteral("says that release 9 is installed, which is no older than 2");
}

void tst_RecordCommand::refusesWhatIsNotTheRelease()
{
    QFETCH(QString, words);
    QFETCH(int, status);
    QFETCH(QString, says);
    QCOMPARE(run(QStringLiteral("copy new later --quiet")).status, Done);
    m_tree->write(QStringLiteral("later/.pellox/release"),
        "{\"build\":\"" + QByteArray(128, 'a') + "\",\"release\":9}");
    const auto before = TestTree::snapshot(m_tree->path());
    const Outcome outcome = run(words);
    QVERIFY2(outcome.status == status, qPrintable(outcome.err));
    QVERIFY2(outcome.err.contains(says), qPrintable(outcome.err));
    QVERIFY(outcome.err.contains(QLatin1String("pellox: nothing was changed: ")));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

/// "Do not use this one" would be wrong of it.
void tst_RecordCommand::unreadablePatchIsNoSealsFault()
{
    const auto before = m_tree->installed();
    for (const char *file : {"patch/game.exe", "patch/patchSeal.json"}) {
        const FaultRun run = runWithFaults(QStringLiteral(PELLOX_PROGRAM),
            {QStringLiteral("update"), path("installed"), path("patch"),
                QStringLiteral("--trusted-key"), path("a.pub"), QStringLiteral("--json")},
            {path(file), "read", 1, QByteArray::number(EIO), true});
        QVERIFY2(run.status == Unchanged, run.output);
        QStringList codes;
        for (const QJsonObject &event : jsonLines(QString::fromUtf8(run.output))) {
            if (member(event, "event") == QLatin1String("error"))
                codes.append(member(event, "code") + QLatin1Char(' ') + member(event, "file"));
        }
        QCOMPARE(codes, QStringList(QLatin1String("read-or-write ") + path(file)));
        QCOMPARE(m_tree->installed(), before);
    }
}

void tst_RecordCommand::wrongUsage_data()
{
    QTest::addColumn<QString>("words");
    QTest::newRow("no key") << QStringLiteral("record new sigs-new patch");
    QTest::newRow("no patch") << QStringLiteral("record new sigs-new --trusted-key a.pub");
    QTest::newRow("no such patch")
        << QStringLiteral("record new sigs-new nosuch --trusted-key a.pub");
    QTest::newRow("private key") << QStringLiteral("record new sigs-new patch --trusted-key a.key");
    QTest::newRow("no signatures") << QStringLiteral("record new old patch --trusted-key a.pub");
    QTest::newRow("patch in the build")
        << QStringLiteral("record new sigs-new new/levels --trusted-key a.pub");
}

void tst_RecordCommand::wrongUsage()
{
    QFETCH(QString, words);
    const Outcome outcome = run(words);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(errorLines(outcome.err).size(), 1);
    QVERIFY(!m_tree->exists(QStringLiteral("new/.pellox")));
}

void tst_RecordCommand::helpTeaches()
{
    const Outcome outcome = run(QStringLiteral("record --help"));
    QCOMPARE(outcome.status, Done);
    QVERIFY2(outcome.out.contains(QLatin1String("pellox record installed/game signatures/1.1 "
                                                "patches/1.0-1.1 --trusted-key publisher.pub")),
        qPrintable(outcome.out));
    QVERIFY(outcome.out.contains(QLatin1String("Exit status:")));
}

QTEST_GUILESS_MAIN(tst_RecordCommand)
#include "tst_recordcommand.moc"
