// SPDX-License-Identifier: MIT
#include "program.h"
#include "programhelp.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>

namespace {

QString pagePath(const QString &command)
{
    const QString name = command.isEmpty() ? QString() : QLatin1Char('-') + command;
    return QStringLiteral(SHARE_FOLDER "/man/man1/pellox%1.1").arg(name);
}

/// The page as it is read, without what the language of the manual puts between the letters.
QString pageText(const QString &command)
{
    QFile file(pagePath(command));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QString text = QString::fromUtf8(file.readAll());
    text.replace(QLatin1String("\\-"), QLatin1String("-"));
    return text.remove(QRegularExpression(QStringLiteral("\\\\f[BIR]")));
}

void addPages()
{
    QTest::addColumn<QString>("command");

    QTest::newRow("pellox") << QString();
    for (const QString &command : programCommands())
        QTest::newRow(qPrintable(command)) << command;
}

} // namespace

/// The manual pages, against the program's help and against those who read manual pages.
class tst_Manual : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void hasAPageForEachCommandAndNoOther();
    void namesEveryCommand();
    void namesEveryOption_data() { addPages(); }
    void namesEveryOption();
    void hasAllSections_data() { addPages(); }
    void hasAllSections();
    void leadsToPagesThatAreThere_data() { addPages(); }
    void leadsToPagesThatAreThere();
    void isTakenWithoutAWarning_data() { addPages(); }
    void isTakenWithoutAWarning();
};

void tst_Manual::hasAPageForEachCommandAndNoOther()
{
    QStringList expected{QStringLiteral("pellox.1")};
    for (const QString &command : programCommands())
        expected.append(QStringLiteral("pellox-%1.1").arg(command));
    expected.sort();
    const QDir folder(QStringLiteral(SHARE_FOLDER "/man/man1"));
    QStringList pages = folder.entryList(QDir::Files);
    pages.sort();
    QCOMPARE(pages, expected);
}

void tst_Manual::namesEveryCommand()
{
    const QString text = pageText(QString());
    for (const QString &command : programCommands())
        QVERIFY2(text.contains(QStringLiteral("\n.BR pellox-%1 (1)\n").arg(command)),
            qPrintable(command));
}

void tst_Manual::namesEveryOption()
{
    QFETCH(QString, command);
    const QString text = pageText(command);
    for (const QString &option : commandOptions(command)) {
        const QRegularExpression entry(
            QStringLiteral("\n\\.TP\n(-[a-z], )?%1[ ,\n]").arg(QRegularExpression::escape(option)));
        QVERIFY2(text.contains(entry), qPrintable(option));
    }
}

void tst_Manual::hasAllSections()
{
    QFETCH(QString, command);
    const QString text = pageText(command);
    for (const char *section :
        {"NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "EXAMPLES", "SEE ALSO"}) {
        const QRegularExpression filled(
            QStringLiteral("\n\\.SH %1\n(?!\\.SH)[^\n]").arg(QLatin1String(section)));
        QVERIFY2(text.contains(filled), section);
    }
    QVERIFY2(text.contains(QStringLiteral("\npellox %1").arg(command)), "an example of its own");
}

void tst_Manual::leadsToPagesThatAreThere()
{
    QFETCH(QString, command);
    const QString text = pageText(command);
    const QRegularExpression reference(QStringLiteral("\n\\.BR (\\S+) \\(1\\)"));
    int count = 0;
    QRegularExpressionMatchIterator matches = reference.globalMatch(text);
    for (; matches.hasNext(); ++count) {
        const QString page = matches.next().captured(1);
        QVERIFY2(QFile::exists(QStringLiteral(SHARE_FOLDER "/man/man1/%1.1").arg(page)),
            qPrintable(page));
    }
    QVERIFY(count > 0);
}

void tst_Manual::isTakenWithoutAWarning()
{
    QFETCH(QString, command);
    const QString page = pagePath(command);
    const QString mandoc = QStandardPaths::findExecutable(QStringLiteral("mandoc"));
    const QString groff = QStandardPaths::findExecutable(QStringLiteral("groff"));
    if (mandoc.isEmpty() && groff.isEmpty())
        QSKIP("neither groff nor mandoc is there");
    QProcess process;
    if (!groff.isEmpty()) {
        startProgram(process, groff,
            {QStringLiteral("-man"), QStringLiteral("-ww"), QStringLiteral("-z"),
                QStringLiteral("-Kutf8"), QStringLiteral("-Tutf8"), page},
            QDir::tempPath());
        const Outcome outcome = outcomeOf(process);
        QCOMPARE(outcome.err, QString());
        QCOMPARE(outcome.status, 0);
    }
    if (!mandoc.isEmpty()) {
        startProgram(process, mandoc,
            {QStringLiteral("-T"), QStringLiteral("lint"), QStringLiteral("-W"),
                QStringLiteral("warning"), page},
            QDir::tempPath());
        const Outcome outcome = outcomeOf(process);
        QCOMPARE(outcome.out, QString());
        QCOMPARE(outcome.status, 0);
    }
}

QTEST_GUILESS_MAIN(tst_Manual)
#include "tst_manual.moc"
