// SPDX-License-Identifier: MIT
#include "folders.h"
#include "ignorelist.h"
#include "patience.h"
#include "testtree.h"

#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTest>

#include <sys/stat.h>

namespace {

IgnoreList listOf(const QString &lines)
{
    IgnoreList list;
    for (const QString &line : lines.split(QLatin1Char('\n')))
        list.addLine(line);
    return list;
}

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

/// What Git itself ignores among @p paths by the list of @p repository.
QStringList ignoredByGit(const TestTree &repository, const QStringList &paths)
{
    QProcess git;
    git.setWorkingDirectory(repository.path());
    git.start(QStringLiteral("git"),
        {QStringLiteral("check-ignore"), QStringLiteral("--no-index"), QStringLiteral("--stdin"),
            QStringLiteral("-z")});
    git.write(paths.join(QChar()).toUtf8());
    git.closeWriteChannel();
    // Status 1 tells that nothing is ignored.
    if (!git.waitForFinished(Patience) || git.exitStatus() != QProcess::NormalExit
        || git.exitCode() > 1)
        return {QStringLiteral("git failed: ") + QString::fromUtf8(git.readAllStandardError())};
    QStringList ignored;
    for (const QByteArray &path : git.readAllStandardOutput().split('\0')) {
        if (!path.isEmpty())
            ignored.append(QString::fromUtf8(path));
    }
    return ignored;
}

} // namespace

/// Patterns in the syntax of .gitignore, and what they leave out.
class tst_IgnoreList : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void ignores_data();
    void ignores();
    void gitIgnoresTheSame_data();
    void gitIgnoresTheSame();
    void charactersAreThoseOfUnicode_data();
    void charactersAreThoseOfUnicode();
    void globsMatchWholePaths_data();
    void globsMatchWholePaths();
    void tellsWhatIgnoresNothing_data();
    void tellsWhatIgnoresNothing();
    void countsLinesOfTheFile();
    void readsFiles_data();
    void readsFiles();
    void refusesWhatCannotBeRead_data();
    void refusesWhatCannotBeRead();
    void refusesWhatTakesTooLong();

private:
    TestTree m_repository;
    bool m_haveGit = false;
};

void tst_IgnoreList::initTestCase()
{
    // No list but that of the test counts, whoever runs it.
    for (const char *variable : {"GIT_CONFIG_GLOBAL", "GIT_CONFIG_SYSTEM"})
        qputenv(variable, "/dev/null");
    for (const char *variable : {"HOME", "XDG_CONFIG_HOME"})
        qputenv(variable, "/nonexistent");
    for (const char *variable : {"GIT_DIR", "GIT_WORK_TREE", "GIT_INDEX_FILE"})
        qunsetenv(variable);
    m_haveGit = QProcess::execute(QStringLiteral("git"),
                    {QStringLiteral("init"), QStringLiteral("--quiet"), m_repository.path()})
        == 0;
}

void tst_IgnoreList::ignores_data()
{
    QTest::addColumn<QString>("lines");
    QTest::addColumn<QString>("ignored"); // paths with "|" between two
    QTest::addColumn<QString>("kept");

    const auto row
        = [](const char *name, const char *lines, const char *ignored, const char *kept) {
              QTest::newRow(name) << QString::fromUtf8(lines) << QString::fromUtf8(ignored)
                                  << QString::fromUtf8(kept);
          };
    // Names and paths
    row("name", "a", "a|x/a|x/y/a", "ab|ba|x/ab");
    row("name ignores a folder's content", "a", "a/b|x/a/b/c", "b/x");
    row("no list", "", "", "a|a/b");
    row("case counts", "A", "A", "a");
    row("leading separator", "/a", "a|a/b", "x/a");
    row("separator within", "x/a", "x/a|x/a/b", "a|y/x/a");
    row("leading separator and one within", "/x/a", "x/a", "y/x/a");
    row("two leading separators", "//a", "", "a|x/a");
    row("separator alone", "/", "", "a|a/b");
    row("two separators in a row", "x//a", "", "x/a");
    row("dot in front", "./a", "", "a|x/a");
    row("trailing separator", "a/", "a/b|x/a/b", "a|x/a");
    row("anchored folder", "/a/", "a/b", "a|x/a/b");
    row("path of a folder", "x/a/", "x/a/b", "x/a|y/x/a/b");
    // Stars and question marks
    row("star", "*.pdb", "a.pdb|.pdb|x/b.pdb", "a.pdb.x|pdb");
    row("star alone", "*", "a|x/a", "");
    row("star within", "a*b", "ab|axb|x/axxb", "axbx|a/b");
    row("star stays in its folder", "x/*", "x/a|x/y/b", "a|y/x/a");
    row("anchored star", "/*.txt", "a.txt", "x/a.txt");
    row("star for a folder", "*/a", "x/a", "a|x/y/a");
    row("question mark", "a?", "ab|x/ac", "a|abc|a/b");
    row("question mark is no separator", "x?a", "xya", "x/a");
    // Two stars
    row("two stars in front", "**/a", "a|x/a|x/y/a|a/b", "xa|x/xa");
    row("two stars in front of a path", "**/x/a", "x/a|y/x/a|y/z/x/a", "xx/a|x/y/a");
    row("two stars behind", "x/**", "x/a|x/y/a", "x|y/x/a");
    row("two stars between", "x/**/a", "x/a|x/y/a|x/y/z/a", "xa|x/ya|y/x/a");
    row("two stars twice", "x/**/y/**/a", "x/y/a|x/1/y/2/3/a", "x/a|x/y");
    row("two stars alone", "**", "a|x/a", "");
    row("anchored two stars", "/**", "a|x/a", "");
    row("two stars for folders", "**/", "x/a", "a");
    row("two stars in a name", "a**b", "ab|axb", "a/b|ax/yb");
    row("two stars in a name of a path", "x/a**b", "x/axb", "x/a/b");
    row("three stars", "x/***/a", "x/a|x/y/z/a", "xa");
    row("two stars and an escaped separator", "**\\/a", "x/a|x/y/a", "a|xa");
    row("the same between", "x/**\\/a", "x/y/a|x/y/z/a", "x/a|xa");
    row("two stars and another escape", "x/**\\a", "x/a|x/ya", "x/y/a");
    // Brackets
    row("set", "[ab].c", "a.c|b.c", "c.c|ab.c");
    row("range", "v[0-3]", "v0|v3", "v4|v|v03");
    row("negated by !", "[!a]x", "bx", "ax|x");
    row("negated by ^", "[^a]x", "bx", "ax|x");
    row("bracket in a set", "[]a]", "]|a", "[]");
    row("bracket in a negated set", "[!]a]", "b", "]|a");
    row("hyphen in a set", "[a-]", "a|-", "b");
    row("opening bracket in a set", "[[]", "[", "]");
    row("range from back to front", "[c-a]", "c", "a|b");
    row("class", "[[:digit:]]x", "1x", "ax|:x");
    row("class and others", "[[:upper:]_]", "A|_", "a|-");
    row("unknown class", "[[:nope:]]", "", "n|:");
    row("set that never ends", "[a", "", "[a|a");
    row("no separator in a set", "x[/]a", "", "x/a|x[/]a");
    row("no separator in a negated set", "x[!a]b", "xcb", "x/b");
    row("escape in a set", "[\\]]", "]", "\\|[");
    // Backslashes
    row("escaped star", "a\\*", "a*", "ab|a\\b");
    row("escaped question mark", "a\\?", "a?", "ab");
    row("escaped bracket", "\\[a]", "[a]", "a");
    row("escaped letter", "\\a\\b", "ab", "\\a\\b");
    row("escaped backslash", "a\\\\", "a\\", "a");
    row("backslash at the end", "a\\", "", "a|a\\");
    row("escaped exclamation mark", "\\!a", "!a", "a");
    row("escaped hash", "\\#a", "#a", "a");
    // Lines
    row("comment", "#a\na", "a", "#a|b");
    row("hash further back", "a#b", "a#b", "a");
    row("blank lines", "\na\n\n   \nb", "a|b", " |c");
    row("trailing blanks", "a   ", "a", "a   ");
    row("leading blanks", "  a", "  a", "a");
    row("blanks within", "a b", "a b", "a|b");
    row("escaped trailing blank", "a\\ ", "a ", "a");
    row("blanks behind an escaped one", "a\\   ", "a ", "a|a   ");
    row("trailing tab", "a\t", "a\t", "a");
    row("folder and trailing blanks", "a/  ", "a/b", "a");
    // Taking back
    row("taken back", "*.log\n!keep.log", "a.log|x/b.log", "keep.log|x/keep.log");
    row("the last one counts", "a\n!a\na", "a", "b");
    row("taken back too early", "!a\na", "a", "b");
    row("a folder's content stays", "x/\n!x/keep", "x/keep|x/a", "y");
    row("a folder's files can be taken back", "x/*\n!x/keep", "x/a|x/y/b", "x/keep");
    row("a folder taken back", "/*\n!/x", "a|y/x", "x/a|x/y/b");
    row("step by step", "/*\n!/x/\n/x/*\n!/x/y", "a|x/a", "x/y|x/y/b");
    row("all but a kind", "*\n!*/\n!*.txt", "a|x/b", "a.txt|x/y/b.txt");
    row("taken back with an escape", "a*\n!a\\*", "ab", "a*");
    row("exclamation mark alone", "a\n!", "a", "!|b");
}

void tst_IgnoreList::ignores()
{
    QFETCH(QString, lines);
    QFETCH(QString, ignored);
    QFETCH(QString, kept);
    const QStringList expected = ignored.split(QLatin1Char('|'), Qt::SkipEmptyParts);
    const QStringList others = kept.split(QLatin1Char('|'), Qt::SkipEmptyParts);
    QVERIFY(!(expected + others).isEmpty());
    QCOMPARE(listOf(lines).ignoredAmong(expected + others), expected);
}

void tst_IgnoreList::gitIgnoresTheSame_data()
{
    ignores_data();
}

void tst_IgnoreList::gitIgnoresTheSame()
{
    QFETCH(QString, lines);
    QFETCH(QString, ignored);
    QFETCH(QString, kept);
    if (!m_haveGit)
        QSKIP("no git to compare with");
    m_repository.write(QStringLiteral(".git/info/exclude"), lines.toUtf8());
    const QStringList expected = ignored.split(QLatin1Char('|'), Qt::SkipEmptyParts);
    const QStringList others = kept.split(QLatin1Char('|'), Qt::SkipEmptyParts);
    QCOMPARE(sorted(ignoredByGit(m_repository, expected + others)), sorted(expected));
}

void tst_IgnoreList::charactersAreThoseOfUnicode_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("ignored");

    QTest::newRow("letter") << QStringLiteral("gr?ße") << QStringLiteral("grüße") << true;
    QTest::newRow("one for two") << QStringLiteral("gr?e") << QStringLiteral("grüße") << false;
    QTest::newRow("set") << QStringLiteral("[äü]") << QStringLiteral("ü") << true;
    QTest::newRow("range") << QStringLiteral("[α-ω]") << QStringLiteral("λ") << true;
    QTest::newRow("beyond 16 bits") << QStringLiteral("?") << QStringLiteral("🎮") << true;
    QTest::newRow("beyond 16 bits, itself") << QStringLiteral("🎮*") << QStringLiteral("🎮a") << true;
    QTest::newRow("case") << QStringLiteral("Ü") << QStringLiteral("ü") << false;
}

void tst_IgnoreList::charactersAreThoseOfUnicode()
{
    QFETCH(QString, line);
    QFETCH(QString, path);
    QFETCH(bool, ignored);
    QCOMPARE(!listOf(line).ignoredAmong({path}).isEmpty(), ignored);
}

void tst_IgnoreList::globsMatchWholePaths_data()
{
    QTest::addColumn<QString>("glob");
    QTest::addColumn<QStringList>("ignored");

    QTest::newRow("at the top") << QStringLiteral("*.pdb") << QStringList{QStringLiteral("a.pdb")};
    QTest::newRow("anywhere") << QStringLiteral("**/*.pdb")
                              << QStringList{QStringLiteral("a.pdb"), QStringLiteral("x/b.pdb")};
    QTest::newRow("in a folder") << QStringLiteral("x/*")
                                 << QStringList{QStringLiteral("x/b.pdb"), QStringLiteral("x/c")};
    QTest::newRow("a folder and a file")
        << QStringLiteral("[wx]")
        << QStringList{QStringLiteral("x/b.pdb"), QStringLiteral("x/c"), QStringLiteral("w")};
    QTest::newRow("a folder, and no file")
        << QStringLiteral("?/") << QStringList{QStringLiteral("x/b.pdb"), QStringLiteral("x/c")};
    QTest::newRow("no comment and nothing taken back")
        << QStringLiteral("[#!]*") << QStringList{QStringLiteral("#y"), QStringLiteral("!z")};
    QTest::newRow("taken by its word") << QStringLiteral("!z") << QStringList{QStringLiteral("!z")};
}

void tst_IgnoreList::globsMatchWholePaths()
{
    QFETCH(QString, glob);
    QFETCH(QStringList, ignored);
    IgnoreList list;
    list.addGlob(glob);
    const QStringList files{QStringLiteral("a.pdb"), QStringLiteral("x/b.pdb"),
        QStringLiteral("x/c"), QStringLiteral("w"), QStringLiteral("#y"), QStringLiteral("!z")};
    QCOMPARE(list.ignoredAmong(files), ignored);
}

void tst_IgnoreList::tellsWhatIgnoresNothing_data()
{
    QTest::addColumn<QString>("lines");
    QTest::addColumn<QString>("unused"); // with "|" between two

    QTest::newRow("none") << QStringLiteral("a\nx/") << QString();
    QTest::newRow("not there") << QStringLiteral("a\n*.tmp") << QStringLiteral("*.tmp");
    QTest::newRow("a file that is no folder") << QStringLiteral("a/") << QStringLiteral("a/");
    QTest::newRow("in an ignored folder") << QStringLiteral("x\nb") << QStringLiteral("b");
    QTest::newRow("taken back in vain") << QStringLiteral("x\n!x/b") << QStringLiteral("!x/b");
    QTest::newRow("taken back") << QStringLiteral("x/*\n!x/b") << QString();
    QTest::newRow("comments and blank lines") << QStringLiteral("# a\n\n!\n  ") << QString();
}

void tst_IgnoreList::tellsWhatIgnoresNothing()
{
    QFETCH(QString, lines);
    QFETCH(QString, unused);
    IgnoreList list = listOf(lines);
    list.ignoredAmong({QStringLiteral("a"), QStringLiteral("x/b"), QStringLiteral("x/c")});
    QStringList told;
    for (const IgnoreList::Unused &pattern : list.unused())
        told.append(pattern.text);
    QCOMPARE(told.join(QLatin1Char('|')), unused);
}

void tst_IgnoreList::countsLinesOfTheFile()
{
    const IgnoreList list = listOf(QStringLiteral("# comment\n\na  \n\nb"));
    QCOMPARE(list.unused().size(), std::size_t(2));
    QCOMPARE(list.unused().front().line, 3);
    QCOMPARE(list.unused().back().line, 5);
}

void tst_IgnoreList::readsFiles_data()
{
    QTest::addColumn<QByteArray>("content");

    QTest::newRow("lines") << QByteArray("a\nb\n");
    QTest::newRow("no line end at the end") << QByteArray("a\nb");
    QTest::newRow("Windows line ends") << QByteArray("a\r\nb\r\n");
    QTest::newRow("Windows line ends but the last") << QByteArray("a\r\nb\r");
    QTest::newRow("byte order mark") << QByteArray("\xef\xbb\xbf"
                                                   "a\nb\n");
}

void tst_IgnoreList::readsFiles()
{
    QFETCH(QByteArray, content);
    const TestTree tree;
    tree.write(QStringLiteral("list"), content);
    IgnoreList list = IgnoreList::fromFile(tree.path(QStringLiteral("list")));
    const QStringList expected{QStringLiteral("a"), QStringLiteral("b")};
    QCOMPARE(list.ignoredAmong(expected + QStringList{QStringLiteral("a\r"), QStringLiteral("c")}),
        expected);

    if (m_haveGit) {
        m_repository.write(QStringLiteral(".git/info/exclude"), content);
        QCOMPARE(sorted(ignoredByGit(m_repository, expected)), expected);
    }
}

void tst_IgnoreList::refusesWhatCannotBeRead_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("reason");

    QTest::newRow("missing") << QStringLiteral("nosuch") << QStringLiteral("there is no such file");
    QTest::newRow("folder") << QStringLiteral("folder") << QStringLiteral("cannot be read");
    QTest::newRow("encoding") << QStringLiteral("latin1")
                              << QStringLiteral("is not text in the encoding of the locale");
    QTest::newRow("zero byte") << QStringLiteral("zero")
                               << QStringLiteral("is not text in the encoding of the locale");
    QTest::newRow("pipe") << QStringLiteral("pipe")
                          << QStringLiteral("is a pipe, socket or device, not a list");
    QTest::newRow("failing read") << QStringLiteral("memory") << QStringLiteral("cannot be read");
}

void tst_IgnoreList::refusesWhatCannotBeRead()
{
    QFETCH(QString, path);
    QFETCH(QString, reason);
    const TestTree tree;
    tree.makeFolder(QStringLiteral("folder"));
    tree.write(QStringLiteral("latin1"),
        "gr\xfc\xdf"
        "e\n");
    tree.write(QStringLiteral("zero"), QByteArray("a\0b\n", 4));
    tree.link(QStringLiteral("memory"), QStringLiteral("/proc/self/mem"));
    const QString pipe = tree.path(QStringLiteral("pipe"));
    QCOMPARE(::mkfifo(QFile::encodeName(pipe).constData(), S_IRUSR | S_IWUSR), 0);
    try {
        IgnoreList::fromFile(tree.path(path));
        QFAIL("was read");
    } catch (const Refusal &refusal) {
        QCOMPARE(refusal.path(), tree.path(path));
        QCOMPARE(refusal.reason(), reason);
    }
}

void tst_IgnoreList::refusesWhatTakesTooLong()
{
    IgnoreList list = listOf(QStringLiteral("*a*a*a*a*a*a*a*a*a*a*a*a*[bc]"));
    QVERIFY_EXCEPTION_THROWN(list.ignoredAmong({QString(250, QLatin1Char('a'))}), Refusal);
}

QTEST_GUILESS_MAIN(tst_IgnoreList)
#include "tst_ignorelist.moc"
