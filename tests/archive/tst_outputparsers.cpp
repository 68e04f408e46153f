// SPDX-License-Identifier: MIT
#include "texts.h"

#include <Pellox/outputparsers.h>

#include <QTest>

#include <type_traits>

using TextFunction = QString (*)(const QString &);
static_assert(std::is_same_v<decltype(&strip), TextFunction>);
static_assert(std::is_same_v<decltype(&checkErrors), TextFunction>);
static_assert(std::is_same_v<decltype(&getPercents), QStringList (*)(const QString &)>);
static_assert(std::is_same_v<decltype(&isEverythingIsOk), bool (*)(const QString &)>);

class tst_OutputParsers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void stripCleansAChunk_data();
    void stripCleansAChunk();
    void stripLeavesWhatASecondStripTakes();
    void percentsAreCutAtTheMarks_data();
    void percentsAreCutAtTheMarks();
    void successLineIsFound_data();
    void successLineIsFound();
    void errorLineGivesTheWholeText_data();
    void errorLineGivesTheWholeText();
};

void tst_OutputParsers::stripCleansAChunk_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("stripped");
    const auto row = [](const char *name, const char *text, const char *stripped) {
        QTest::newRow(name) << QString::fromUtf8(text) << QString::fromUtf8(stripped);
    };

    row("empty", "", "");
    row("nothing to clean", "a b", "a b");
    row("all at once", "  a\b\bb\r\n\r\nc  ", "ab\nc");

    row("blanks at the ends", "  a  ", "a");
    row("tabs and line ends at the ends", "\t\r\n a \n\v\f", "a");
    row("a no-break space at the end", "a\u00A0", "a");
    row("blanks alone", " \t\n ", "");
    row("blanks within", "a  b", "a  b");
    row("blanks at a line's ends", "a \n b", "a \n b");

    row("backspaces at the ends", "\b\ba\b\b", "a");
    row("backspaces alone", "\b\b\b", "");
    row("a backspace takes no letter with it", "ab\bc", "abc");
    row("blanks behind a backspace are trimmed too late", "\b a \b", " a ");
    row("blanks outside of backspaces", " \ba\b ", "a");
    row("a bell is no backspace", "a\ab", "a\ab");

    row("carriage return and line feed", "a\r\nb", "a\nb");
    row("a carriage return alone", "a\rb", "a\rb");
    row("the wrong way round", "a\n\rb", "a\n\rb");
    row("two carriage returns", "a\r\r\nb", "a\r\nb");
    row("a backspace parts the pair", "a\r\b\nb", "a\nb");

    row("two line feeds", "a\n\nb", "a\nb");
    row("three line feeds, one pass", "a\n\n\nb", "a\n\nb");
    row("four line feeds", "a\n\n\n\nb", "a\n\nb");
    row("five line feeds", "a\n\n\n\n\nb", "a\n\n\nb");
    row("a backspace parts the line feeds", "a\n\b\nb", "a\nb");
    row("a blank parts the line feeds", "a\n \nb", "a\n \nb");
    row("both kinds of line ends", "a\r\n\nb", "a\nb");
    row("letters stay", "gr\u00FC\u00DFe \u65E5", "gr\u00FC\u00DFe \u65E5");
}

void tst_OutputParsers::stripCleansAChunk()
{
    QFETCH(const QString, text);
    QTEST(strip(text), "stripped");
}

void tst_OutputParsers::stripLeavesWhatASecondStripTakes()
{
    const QString once = strip(QStringLiteral("a\n\n\nb"));
    QCOMPARE(once, QStringLiteral("a\n\nb"));
    QCOMPARE(strip(once), QStringLiteral("a\nb"));
}

void tst_OutputParsers::percentsAreCutAtTheMarks_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("parts");
    const auto row = [](const char *name, const char *text, const QStringList &parts) {
        QTest::newRow(name) << QString::fromUtf8(text) << parts;
    };

    row("empty", "", {});
    row("no percent sign", "Scanning", {});
    row("marks, but no percent sign", "a U b + c - d", {});

    row("a file that is added", " 45% 12 + dir/file", texts({" 45", "12", "dir/file"}));
    row("a file that is taken out", " 45% 12 - dir/file", texts({" 45", "12", "dir/file"}));
    row("a file that is updated", " 45% 12 U dir/file", texts({" 45", "12", " dir/file"}));
    row("no count", "  7% + file", texts({"  7", "+ file"}));
    row("the percentage alone", "100%", texts({"100%"}));
    row("a blank behind the percentage", "100% ", texts({"100", ""}));
    row("the sign alone", "%", texts({"%"}));
    row("the sign and a blank", "% ", texts({"", ""}));
    row("two percentages", "1% 2% 3", texts({"1", "2", "3"}));
    row("a mark in front of the sign", "a + 5%", texts({"a", "5%"}));
    row("the blank of a percentage serves no second mark", "45% U x", texts({"45", "U x"}));
    row("two blanks behind a percentage", "45%  U x", texts({"45", "", " x"}));
    row("empty parts are kept", "1% 2 +  - x", texts({"1", "2", "", "x"}));
    row("U begins a word", "1% 2 Up", texts({"1", "2", "p"}));
    row("lines are nothing special", "1% 2 + a\n3% 4", texts({"1", "2", "a\n3", "4"}));

    row("no blank at the plus", "1% 2+x", texts({"1", "2+x"}));
    row("no blank behind the plus", "1% 2 +x", texts({"1", "2 +x"}));
    row("no blank behind the minus", "1% 2 -x", texts({"1", "2 -x"}));
    row("no blank in front of U", "1% 2U x", texts({"1", "2U x"}));
    row("a small u", "1% 2 u x", texts({"1", "2 u x"}));
    row("a tab for a blank", "1%\t2\t+\tx", texts({"1%\t2\t+\tx"}));
}

void tst_OutputParsers::percentsAreCutAtTheMarks()
{
    QFETCH(const QString, text);
    QTEST(getPercents(text), "parts");
}

void tst_OutputParsers::successLineIsFound_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("found");
    const auto row = [](const char *name, const char *text, bool found) {
        QTest::newRow(name) << QString::fromUtf8(text) << found;
    };

    row("as 7-Zip writes it", "Everything is Ok", true);
    row("capitals", "EVERYTHING IS OK", true);
    row("small letters, two blanks", "everything  is ok", true);
    row("no blanks", "EverythingisOk", true);
    row("blanks in the words", "E very thing i s O k", true);
    row("among other lines", "Volumes: 1\nEverything is Ok\n\nSize: 3", true);
    row("within a line", "4% xEverything is Okay", true);

    row("empty", "", false);
    row("broken in the phrase", "Everything\nis Ok", false);
    row("a carriage return in the phrase", "Everything is\r Ok", false);
    row("a tab in the phrase", "Everything\tis Ok", false);
    row("a no-break space in the phrase", "Everything\u00A0is Ok", false);
    row("a backspace in the phrase", "Everything is O\bk", false);
    row("cut off", "Everything is O", false);
    row("its rest", "verything is Ok", false);
    row("other words", "Everything was Ok", false);
    row("a digit for a letter", "Everything is 0k", false);
}

void tst_OutputParsers::successLineIsFound()
{
    QFETCH(const QString, text);
    QTEST(isEverythingIsOk(text), "found");
}

void tst_OutputParsers::errorLineGivesTheWholeText_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("error");
    const auto row = [](const char *name, const char *text, const char *error) {
        QTest::newRow(name) << QString::fromUtf8(text) << QString::fromUtf8(error);
    };

    row("among other lines", "x\nERROR: Can not open the file\ny",
        "x\nERROR: Can not open the file\ny");
    row("nothing is cleaned", " \bERROR: x\r\n\n ", " \bERROR: x\r\n\n ");
    row("within a word", "xERROR:y", "xERROR:y");
    row("the mark alone", "ERROR:", "ERROR:");
    row("of the system", "System ERROR:\nerrno=28", "System ERROR:\nerrno=28");
    row("a file of that name", " 45% 12 + ERROR: x", " 45% 12 + ERROR: x");

    row("empty", "", "");
    row("mixed case", "Error: x", "");
    row("small letters", "error: x", "");
    row("no colon", "ERROR x", "");
    row("a blank in front of the colon", "ERROR : x", "");
    row("more than one", "ERRORS:\nUnexpected end of archive", "");
    row("broken", "ERROR\n: x", "");
    row("a warning", "WARNING: x", "");
}

void tst_OutputParsers::errorLineGivesTheWholeText()
{
    QFETCH(const QString, text);
    QTEST(checkErrors(text), "error");
}

QTEST_GUILESS_MAIN(tst_OutputParsers)
#include "tst_outputparsers.moc"
