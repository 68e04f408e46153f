// SPDX-License-Identifier: MIT
#include "program.h"

#include <QDir>
#include <QRegularExpression>
#include <QTest>

namespace {

Outcome run(const QString &words)
{
    return runPellox(words.split(QLatin1Char(' '), Qt::SkipEmptyParts), QDir::tempPath());
}

} // namespace

/// What the program says to a command line that is wrong, or asks for help.
class tst_Usage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aWrongCommandLineIsExplained_data();
    void aWrongCommandLineIsExplained();
    void helpIsACommandToo_data();
    void helpIsACommandToo();
    void helpHasNoTwoEmptyLines();
    void helpTellsOnlyWhatTheCommandCanDo_data();
    void helpTellsOnlyWhatTheCommandCanDo();
};

void tst_Usage::aWrongCommandLineIsExplained_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("command"); // whose help is named; empty where none was found

    const QString sign = QStringLiteral("sign");
    QTest::newRow("nothing") << QString() << QStringLiteral("no command is given") << QString();
    QTest::newRow("mistyped") << QStringLiteral("sing a b")
                              << QStringLiteral("sing: no such command; did you mean sign?")
                              << QString();
    QTest::newRow("like no command") << QStringLiteral("download a b")
                                     << QStringLiteral("download: no such command") << QString();
    QTest::newRow("help for what is none")
        << QStringLiteral("help sing")
        << QStringLiteral("sing: no such command; did you mean sign?") << QString();
    QTest::newRow("option first") << QStringLiteral(
        "-q sign a b") << QStringLiteral("-q: options stand behind the command: pellox sign -q")
                                  << QString();
    QTest::newRow("long option first")
        << QStringLiteral("--json apply a b")
        << QStringLiteral("--json: options stand behind the command: pellox apply --json")
        << QString();
    QTest::newRow("option alone")
        << QStringLiteral("--json")
        << QStringLiteral("--json: options stand behind the command: pellox COMMAND --json")
        << QString();
    QTest::newRow("too few") << QStringLiteral("sign a") << QStringLiteral("SIGNATURES is required")
                             << sign;
    QTest::newRow("too many") << QStringLiteral("sign a b c")
                              << QStringLiteral("The following argument was not expected: c")
                              << sign;
    QTest::newRow("unknown option")
        << QStringLiteral("sign a b --fast-please")
        << QStringLiteral("--fast-please: no such option; did you mean --fast?") << sign;
    const QString diff = QStringLiteral("diff");
    QTest::newRow("mistyped option with a value")
        << QStringLiteral("diff a b c --ingore x")
        << QStringLiteral("--ingore: no such option; did you mean --ignore?") << diff;
    QTest::newRow("mistyped option with a value behind a sign")
        << QStringLiteral("diff a b c --thread=x")
        << QStringLiteral("--thread: no such option; did you mean --threads?") << diff;
    QTest::newRow("mistyped option that takes a folder's place")
        << QStringLiteral("publish a --old-bild b --patch c --signatures d")
        << QStringLiteral("--old-bild: no such option; did you mean --old-build?")
        << QStringLiteral("publish");
    QTest::newRow("like no option") << QStringLiteral("sign a b --bandwidth")
                                    << QStringLiteral("--bandwidth: no such option") << sign;
}

void tst_Usage::aWrongCommandLineIsExplained()
{
    QFETCH(QString, words);
    QFETCH(QString, error);
    QFETCH(QString, command);
    const Outcome outcome = run(words);
    QCOMPARE(outcome.status, WrongUsage);
    QCOMPARE(outcome.out, QString());
    QStringList lines = outcome.err.split(QLatin1Char('\n'));
    QCOMPARE(lines.takeFirst(), QLatin1String("pellox: error: ") + error);
    if (command.isEmpty()) {
        const QString list = lines.takeFirst();
        QVERIFY2(list.startsWith(QLatin1String("Commands: sign, diff, ")), qPrintable(list));
        QVERIFY2(list.contains(QLatin1String("unpack")), qPrintable(list));
    }
    const QString program = QStringLiteral("pellox ") + command;
    QCOMPARE(lines.takeFirst(),
        QStringLiteral("Run \"%1 --help\" for more information.").arg(program.trimmed()));
    QCOMPARE(lines, QStringList(QString()));
}

void tst_Usage::helpIsACommandToo_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("same");

    QTest::newRow("help") << QStringLiteral("help") << QStringLiteral("--help");
    QTest::newRow("help for a command")
        << QStringLiteral("help sign") << QStringLiteral("sign --help");
}

void tst_Usage::helpIsACommandToo()
{
    QFETCH(QString, words);
    QFETCH(QString, same);
    const Outcome outcome = run(words);
    QCOMPARE(outcome.status, Done);
    QVERIFY2(outcome.out.contains(QLatin1String("Usage: pellox")), qPrintable(outcome.out));
    QCOMPARE(outcome.out, run(same).out);
    QCOMPARE(outcome.err, QString());
}

/// "update" has an option that help does not show.
void tst_Usage::helpHasNoTwoEmptyLines()
{
    const QString help = run(QStringLiteral("update --help")).out;
    QVERIFY2(help.contains(QLatin1String("--threads")), qPrintable(help));
    QVERIFY2(!help.contains(QLatin1String("\n\n\n")), qPrintable(help));
}

void tst_Usage::helpTellsOnlyWhatTheCommandCanDo_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QStringList>("told");
    QTest::addColumn<QStringList>("ofOthers");

    const QString fallback = QStringLiteral("--fallback");
    const QString from = QStringLiteral("--from");
    const QString intact = QStringLiteral("0   all is intact");
    const QString notIntact = QStringLiteral("1   something is not intact");
    const QString patch = QStringLiteral("15  the patch");
    const QString signatures = QStringLiteral("15  signatures.json");
    const QString ignored = QStringLiteral("what is to be ignored");
    QTest::newRow("update") << QStringLiteral("update") << QStringList{fallback, patch}
                            << QStringList{from, intact, notIntact, signatures, ignored};
    QTest::newRow("repair") << QStringLiteral("repair") << QStringList{from, signatures}
                            << QStringList{fallback, intact, notIntact, patch};
    QTest::newRow("check") << QStringLiteral("check") << QStringList{intact, notIntact, signatures}
                           << QStringList{fallback, from, patch};
    QTest::newRow("record") << QStringLiteral("record") << QStringList{patch}
                            << QStringList{fallback, from, intact, notIntact};
    for (const char *command : {"recover", "rollback", "discard"}) {
        QTest::newRow(command) << QString::fromLatin1(command) << QStringList()
                               << QStringList{fallback, from, intact, notIntact, patch, signatures};
    }
    QTest::newRow("diff") << QStringLiteral("diff") << QStringList{ignored} << QStringList{from};
    QTest::newRow("sign") << QStringLiteral("sign") << QStringList()
                          << QStringList{ignored, fallback};
    const QString units = QStringLiteral("bytes, or with K, M, G, T, P or E");
    for (const char *command : {"copy", "pack", "publish"})
        QTest::newRow(command) << QString::fromLatin1(command) << QStringList{units}
                               << QStringList{from};
}

void tst_Usage::helpTellsOnlyWhatTheCommandCanDo()
{
    QFETCH(QString, command);
    QFETCH(QStringList, told);
    QFETCH(QStringList, ofOthers);
    const Outcome outcome = run(command + QLatin1String(" --help"));
    QCOMPARE(outcome.status, Done);
    for (const QString &text : told)
        QVERIFY2(
            outcome.out.contains(text), qPrintable(text + QLatin1String(" in\n") + outcome.out));
    for (const QString &text : ofOthers) {
        const QRegularExpression word(QRegularExpression::escape(text) + QLatin1String("\\b"));
        QVERIFY2(
            !outcome.out.contains(word), qPrintable(text + QLatin1String(" in\n") + outcome.out));
    }
}

QTEST_GUILESS_MAIN(tst_Usage)
#include "tst_usage.moc"
