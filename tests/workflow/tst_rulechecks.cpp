// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "memorylimit.h"
#include "rulechecks.h"
#include "testtree.h"
#include "updatescenario.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QtTest>

#include <functional>
#include <optional>
#include <vector>

#include <sys/stat.h>

using Pellox::NameSense;
using Pellox::UpdateController;
using Pellox::UpdateRule;
using Result = UpdateController::UpdateResult;

using Layout = std::function<void(const TestTree &)>;
Q_DECLARE_METATYPE(Layout)

namespace {

const QByteArray NewContent("new content");

QString sha512(const QByteArray &content)
{
    return QString::fromLatin1(
        QCryptographicHash::hash(content, QCryptographicHash::Sha512).toHex());
}

/// A delta that makes @p content of any file.
QByteArray deltaFor(const QByteArray &content)
{
    QByteArray delta = QByteArray::fromHex("72730236");
    delta += 'A'; // a literal whose length has one byte
    delta += static_cast<char>(content.size());
    return delta + content + '\0';
}

QJsonObject rule(const QString &kind, const QString &path)
{
    QJsonObject record{{"rule"_s, kind}, {"relative_path"_s, path}};
    if (kind == "patch"_s) {
        record.insert("sha512"_s, sha512(NewContent));
        record.insert("file_size"_s, NewContent.size());
    }
    return record;
}

/// What readRules() finds, its errors as texts.
std::vector<UpdateRule> rulesIn(
    const QString &path, QStringList *errors, const Pellox::GoOn &goOn = Pellox::GoOn())
{
    std::vector<Pellox::FileError> found;
    std::vector<UpdateRule> rules = Pellox::readRules(path, &found, goOn);
    for (const Pellox::FileError &error : found)
        errors->append(error);
    return rules;
}

QByteArray manifest(const QJsonArray &records)
{
    return QJsonDocument(records).toJson();
}

/// A folder "around" with a build and a patch in it, which fit each other, and other files.
void layWorld(const TestTree &tree)
{
    if (tree.exists("around"_s))
        tree.remove("around"_s);
    tree.write("around/canary"_s, "canary");
    tree.write("around/outside/canary"_s, "canary outside");
    tree.write("around/build-2/canary"_s, "canary beside");
    tree.write("around/build/keep"_s, "a save");
    tree.write("around/build/dir/keep"_s, "another save");
    tree.write("around/build/a"_s, "old content");
    tree.write("around/build/dir/b"_s, "old content");
    tree.write("around/build/gone"_s, "old content");
    tree.write("around/build/folder/x"_s, "old content");
    tree.write("around/patch/a"_s, deltaFor(NewContent));
    tree.write("around/patch/dir/b"_s, deltaFor(NewContent));
    tree.write("around/patch/new/c"_s, NewContent);
    tree.write("around/patch/patchRules.json"_s,
        manifest({rule("patch"_s, "/a"_s), rule("patch"_s, "/dir/b"_s), rule("copy"_s, "/new/c"_s),
            rule("delete"_s, "/gone"_s)}));
}

UpdateOutcome update(const TestTree &tree)
{
    return outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        updater.setThreadCount(1);
        return updater.update(tree.path("around/build"_s), tree.path("around/patch"_s));
    });
}

/// Puts something at @p path of the patch where that is possible at all.
void layPayload(const TestTree &tree, const QString &path, const QByteArray &content)
{
    if (path.contains(QChar(0)))
        return;
    const QString file = tree.path("around/patch"_s) + path;
    if (QFileInfo::exists(file) || !QDir().mkpath(QFileInfo(file).path()))
        return;
    QFile payload(file);
    if (payload.open(QIODevice::WriteOnly))
        payload.write(content);
}

} // namespace

class tst_RuleChecks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void theWorldIsAsItShould();
    void paths_data();
    void paths();
    void badPathsTouchNothing_data();
    void badPathsTouchNothing();
    void records_data();
    void records();
    void everyBadRecordIsNamed();
    void together_data();
    void together();
    void nameKeys_data();
    void nameKeys();
    void manifests_data();
    void manifests();
    void hugeManifest();
    void errorsAreBounded();
    void errorsTogetherAreBounded();
    void rulesAreBounded();
    void pathsAreBounded();
    void valuesAreBounded();
    void longPathIsToldInPart();
    void readingStops_data();
    void readingStops();
    void manifestThatIsTooLarge();
    void layouts_data();
    void layouts();
    void mutatedManifests_data();
    void mutatedManifests();

private:
    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
};

void tst_RuleChecks::initTestCase()
{
    useMemoryForFiles();
}

void tst_RuleChecks::init()
{
    m_log.emplace();
    m_tree.emplace();
    layWorld(*m_tree);
}

void tst_RuleChecks::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_tree.reset();
    m_log.reset();
}

/// What the tests below change is what makes the difference.
void tst_RuleChecks::theWorldIsAsItShould()
{
    const UpdateOutcome outcome = update(*m_tree);
    QCOMPARE(outcome.errors, QStringList());
    QCOMPARE(outcome.result, Result::Updated);
    QCOMPARE(m_tree->read("around/build/dir/b"_s), NewContent);
    QCOMPARE(m_tree->read("around/build/new/c"_s), NewContent);
    QVERIFY(!m_tree->exists("around/build/gone"_s));
}

void tst_RuleChecks::paths_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("isGood");
    const auto good = [](const QByteArray &name, const QString &path) {
        QTest::addRow("good: %s", name.constData()) << path << true;
    };
    const auto bad = [](const QByteArray &name, const QString &path) {
        QTest::addRow("bad: %s", name.constData()) << path << false;
    };

    good("plain", "/game"_s);
    good("in folders", "/w/x/y/z"_s);
    good("of one letter", "/x"_s);
    good("many folders", "/d"_s.repeated(500) + "/x"_s);
    bad("empty", QString());
    bad("separator alone", "/"_s);
    bad("no separator", "game"_s);
    bad("no separator, in a folder", "bin/game"_s);
    bad("separator at the end", "/bin/"_s);

    good("dots in a name", "/a..b"_s);
    good("dots before a name", "/..a"_s);
    good("a dot before a name", "/.a"_s);
    good("three dots before a name", "/...a"_s);
    good("dots in a folder's name", "/..a/.b/c..d/e"_s);
    bad("climbs out", "/../canary"_s);
    bad("climbs out later", "/a/../../canary"_s);
    bad("climbs and comes back", "/dir/../a"_s);
    bad("climbs out into the build", "/../build/a"_s);
    bad("climbs out into a folder of a longer name", "/../build-2/canary"_s);
    bad("climbs without a separator", "../canary"_s);
    bad("only dots", "/.."_s);
    bad("only dots at the end", "/dir/.."_s);
    bad("only a dot", "/."_s);
    bad("a dot at the begin", "/./a"_s);
    bad("a dot between", "/dir/./b"_s);
    bad("a dot at the end", "/dir/b/."_s);
    bad("three dots", "/..."_s);
    bad("four dots as a folder", "/..../a"_s);

    bad("doubled separator", "//a"_s);
    bad("doubled separator between", "/dir//b"_s);
    bad("tripled separator", "/dir///b"_s);
    bad("doubled separator at the end", "/dir//"_s);
    bad("absolute path", "//etc/passwd"_s);

    good("drive without a colon", "/C/game"_s);
    bad("drive letter", "C:/game"_s);
    bad("drive letter after a separator", "/C:/game"_s);
    bad("drive letter alone", "/c:"_s);
    bad("relative to a drive", "/C:game"_s);
    bad("stream of a file", "/game:stream"_s);
    bad("stream of a folder", "/dir::$INDEX_ALLOCATION/b"_s);
    bad("backslash", "/dir\\b"_s);
    bad("climbs by backslashes", "/..\\canary"_s);
    bad("climbs by backslashes later", "/dir\\..\\..\\canary"_s);
    bad("network path", "/\\\\server\\share\\x"_s);
    bad("device path", "/\\\\?\\C:\\x"_s);
    bad("backslash at the begin", "\\a"_s);

    good("blanks in a name", "/two  blanks"_s);
    good("blank before a name", "/ a"_s);
    bad("NUL", "/a"_s + QChar(0) + "b"_s);
    bad("NUL at the end", "/a"_s + QChar(0));
    bad("NUL before what climbs", "/a"_s + QChar(0) + "/../../canary"_s);
    bad("line break", "/a\nb"_s);
    bad("carriage return", "/a\rb"_s);
    bad("tab", "/a\tb"_s);
    bad("escape", "/a\x1b[31mb"_s);
    bad("bell", "/\x07"_s);
    bad("unit separator", "/a\x1f"_s);
    bad("delete", "/a\x7f"_s);
    bad("control character in a folder", "/d\x01/a"_s);
    bad("next line, of the second set", "/a"_s + QChar(0x85) + "b"_s);
    bad("control sequence introducer, of the second set", "/a"_s + QChar(0x9b) + "b"_s);
    good("no-break space", "/a"_s + QChar(0xa0) + "b"_s);

    bad("blank at the end", "/a "_s);
    bad("dot at the end", "/a."_s);
    bad("blank at a folder's end", "/dir /b"_s);
    bad("dot at a folder's end", "/dir./b"_s);
    bad("dots and blanks at the end", "/a. . "_s);
    bad("only a blank", "/ "_s);
    bad("a blank folder", "/ /a"_s);
    good("no-break space at the end", "/a"_s + QChar(0xa0));

    for (const char *device : {"CON", "PRN", "AUX", "NUL", "COM1", "COM9", "LPT1", "LPT9"}) {
        bad(device, "/"_s + QString::fromLatin1(device));
        bad(QByteArray(device) + " in small letters",
            "/"_s + QString::fromLatin1(device).toLower());
    }
    bad("device with an extension", "/nul.txt"_s);
    bad("device with extensions", "/Aux.tar.gz"_s);
    bad("device with a blank", "/con .txt"_s);
    bad("device as a folder", "/dir/prn/b"_s);
    bad("device for the console's input", "/CONIN$"_s);
    bad("device for the console's output", "/conout$.log"_s);
    bad("device with a raised one", "/COM\u00b9"_s);
    bad("device with a raised three", "/lpt\u00b3.txt"_s);
    good("console", "/console"_s);
    good("device in a name", "/a.nul"_s);
    good("device with a letter", "/nul1"_s);
    good("port without a number", "/com"_s);
    good("port of two digits", "/com10"_s);
    good("port with a letter", "/coma"_s);
    good("auxiliary", "/auxiliary/b"_s);

    good("name of 255 bytes", "/"_s + QString(255, QLatin1Char('n')));
    bad("name of 256 bytes", "/"_s + QString(256, QLatin1Char('n')));
    good("name of 254 bytes, of two each", "/"_s + "\u00fc"_s.repeated(127));
    bad("name of 256 bytes, of two each", "/"_s + "\u00fc"_s.repeated(128));
    bad("folder of 256 bytes", "/"_s + QString(256, QLatin1Char('d')) + "/a"_s);
    good("path of 4,000 bytes", ("/"_s + QString(199, QLatin1Char('d'))).repeated(20));
    bad("path of 4,200 bytes", ("/"_s + QString(199, QLatin1Char('d'))).repeated(21));
    bad("path of a million bytes", QString("/d"_s).repeated(500000));
    bad("second name of a long one", "/PROGRA~1"_s);
    bad("second name of the update's own folder", "/PELLOX~1/journal"_s);
    bad("second name in small letters", "/pellox~1"_s);
    bad("second name with an extension", "/dir/LONGNA~2.TXT"_s);
    bad("second name with a short extension", "/LONGNA~2.c"_s);
    bad("second name, the tenth", "/LONGN~10.TXT"_s);
    bad("second name of a short one", "/A~1"_s);
    bad("second name of a folder", "/FOLDER~1/a"_s);
    good("nine characters with a number", "/PROGRAM~1"_s);
    good("longer extension", "/PROGRA~1.text"_s);
    good("two extensions", "/PROGRA~1.a.b"_s);
    good("tilde without a number", "/backup~"_s);
    good("tilde with a letter", "/PROGRA~a"_s);
    good("tilde with a number and a letter", "/PROGR~1a"_s);
    good("tilde at the beginning", "/~1"_s);

    for (const uint ignorable : {0xadU, 0x34fU, 0x200bU, 0x200fU, 0x202aU, 0x202eU, 0x2060U,
             0x2064U, 0x206fU, 0xfeffU, 0xfe00U, 0xfe0fU, 0x180eU, 0xe0001U, 0xe0100U, 0xe0fffU}) {
        const QString text = QString::fromStdU32String({static_cast<char32_t>(ignorable)});
        const QByteArray number = QByteArray::number(ignorable, 16);
        bad("own folder, and " + number, "/.pel"_s + text + "lox/journal"_s);
        bad("own folder behind " + number, "/"_s + text + ".PELLOX"_s);
        good("another name with " + number, "/a"_s + text + "b"_s);
    }
    good("own folder with a letter more", "/.pelloxx/a"_s);
    good("own folder elsewhere", "/dir/.pellox/a"_s);
    bad("half of a surrogate pair", "/a"_s + QChar(0xd83d));
    bad("surrogates in the wrong order", "/a"_s + QChar(0xde00) + QChar(0xd83d));
    good("surrogate pair", "/"_s + QString::fromUtf8("\xf0\x9f\x98\x80"));
    good("letters of all kinds", "/\u65e5\u672c\u8a9e/Gro\u0308\u00dfe"_s);
    good("other characters", "/#a&b;c|d'e\"f(g)[h]{i}~$%1!"_s);

    good("temporary name", "/a.temp"_s);
    bad("own folder", "/.pellox"_s);
    bad("own journal", "/.pellox/journal"_s);
    bad("what is kept", "/.pellox/previous/a"_s);
    bad("own folder in capitals", "/.PELLOX/journal"_s);
    bad("own folder in mixed letters", "/.Pellox"_s);
    good("longer than the own folder's name", "/.pelloxx"_s);
    good("shorter than the own folder's name", "/.pello/x"_s);
    good("own folder's name without the dot", "/pellox/journal"_s);
    good("own folder's name deeper", "/dir/.pellox/x"_s);
}

void tst_RuleChecks::paths()
{
    QFETCH(QString, path);
    QFETCH(bool, isGood);
    const QString problem = Pellox::problemOfRelativePath(path);
    QVERIFY2(problem.isEmpty() == isGood, qPrintable(problem));
}

void tst_RuleChecks::badPathsTouchNothing_data()
{
    paths_data();
}

/// As a rule of each kind, beside good ones. Good paths work.
void tst_RuleChecks::badPathsTouchNothing()
{
    QFETCH(QString, path);
    QFETCH(bool, isGood);
    for (const QString &kind : {"copy"_s, "patch"_s, "delete"_s}) {
        layWorld(*m_tree);
        layPayload(*m_tree, path, kind == "copy"_s ? NewContent : deltaFor(NewContent));
        m_tree->write("around/patch/patchRules.json"_s,
            manifest({rule("patch"_s, "/dir/b"_s), rule(kind, path), rule("delete"_s, "/gone"_s)}));
        const auto before = TestTree::snapshot(m_tree->path());
        const UpdateOutcome outcome = update(*m_tree);
        if (isGood && kind == "copy"_s) {
            QVERIFY2(outcome.errors.isEmpty(), qPrintable(outcome.errors.join(QLatin1Char(';'))));
            QCOMPARE(outcome.result, Result::Updated);
            QCOMPARE(m_tree->read("around/build"_s + path), NewContent);
        }
        if (isGood)
            continue;
        QCOMPARE(outcome.result, Result::Refused);
        QCOMPARE(outcome.errors.size(), 1);
        const QString begin = m_tree->path("around/patch/patchRules.json: record 2 "_s);
        QVERIFY2(outcome.errors.at(0).startsWith(begin), qPrintable(outcome.errors.at(0)));
        QCOMPARE(TestTree::snapshot(m_tree->path()), before);
    }
}

void tst_RuleChecks::records_data()
{
    QTest::addColumn<QJsonValue>("record");
    QTest::addColumn<bool>("isGood");
    const auto good = [](const QByteArray &name, const QJsonValue &record) {
        QTest::addRow("good: %s", name.constData()) << record << true;
    };
    const auto bad = [](const QByteArray &name, const QJsonValue &record) {
        QTest::addRow("bad: %s", name.constData()) << record << false;
    };
    const auto with = [](const QString &kind, const QString &member, const QJsonValue &value) {
        QJsonObject record = rule(kind, "/a"_s);
        record.insert(member, value);
        return record;
    };
    const auto without = [](const QString &kind, const QString &member) {
        QJsonObject record = rule(kind, "/a"_s);
        record.remove(member);
        return record;
    };

    for (const QString &kind : {"patch"_s, "copy"_s, "delete"_s})
        good(qPrintable(kind), rule(kind, "/a"_s));
    bad("null", QJsonValue());
    bad("number", 1);
    bad("text", "patch"_s);
    bad("array", QJsonArray{"patch"_s, "/a"_s});
    bad("empty object", QJsonObject());

    bad("no rule", without("copy"_s, "rule"_s));
    bad("rule \"none\"", with("copy"_s, "rule"_s, "none"_s));
    bad("unknown rule", with("copy"_s, "rule"_s, "move"_s));
    bad("rule in capitals", with("copy"_s, "rule"_s, "COPY"_s));
    bad("rule with a blank", with("copy"_s, "rule"_s, "copy "_s));
    bad("rule with NUL", with("copy"_s, "rule"_s, "copy"_s + QChar(0)));
    bad("empty rule", with("copy"_s, "rule"_s, QString()));
    bad("rule is a number", with("copy"_s, "rule"_s, 1));
    bad("rule is an array", with("copy"_s, "rule"_s, QJsonArray{"copy"_s}));

    for (const QString &kind : {"patch"_s, "copy"_s, "delete"_s}) {
        const auto named
            = [&](const char *name) { return QByteArray(name) + ", " + kind.toLatin1(); };
        bad(named("no path"), without(kind, "relative_path"_s));
        bad(named("path is null"), with(kind, "relative_path"_s, QJsonValue()));
        bad(named("path is a number"), with(kind, "relative_path"_s, 1));
        bad(named("path is an array"), with(kind, "relative_path"_s, QJsonArray{"/a"_s}));
        bad(named("path is an object"), with(kind, "relative_path"_s, QJsonObject()));
        good(named("another member"), with(kind, "comment"_s, "whatever"_s));
    }

    const QString right = sha512(NewContent);
    bad("no checksum", without("patch"_s, "sha512"_s));
    bad("empty checksum", with("patch"_s, "sha512"_s, QString()));
    bad("checksum of 127 digits", with("patch"_s, "sha512"_s, right.left(127)));
    bad("checksum of 129 digits", with("patch"_s, "sha512"_s, right + QLatin1Char('0')));
    bad("checksum in capitals", with("patch"_s, "sha512"_s, QString(128, QLatin1Char('A'))));
    bad("checksum with another letter",
        with("patch"_s, "sha512"_s, right.left(127) + QLatin1Char('g')));
    bad("checksum with a blank", with("patch"_s, "sha512"_s, right.left(127) + QLatin1Char(' ')));
    bad("checksum of another kind", with("patch"_s, "sha512"_s, QString(64, QLatin1Char('0'))));
    bad("checksum is a number", with("patch"_s, "sha512"_s, 1e127));
    bad("checksum is null", with("patch"_s, "sha512"_s, QJsonValue()));
    good("checksum of zeros", with("patch"_s, "sha512"_s, QString(128, QLatin1Char('0'))));

    good("size 0", with("patch"_s, "file_size"_s, 0));
    good("size 1", with("patch"_s, "file_size"_s, 1));
    good("size 2^53", with("patch"_s, "file_size"_s, 9007199254740992.0));
    bad("size beyond 2^53", with("patch"_s, "file_size"_s, 9007199254740994.0));
    bad("no size", without("patch"_s, "file_size"_s));
    bad("size -1", with("patch"_s, "file_size"_s, -1));
    bad("size far below", with("patch"_s, "file_size"_s, -1e300));
    bad("size far above", with("patch"_s, "file_size"_s, 1e300));
    bad("size 2^63", with("patch"_s, "file_size"_s, 9223372036854775808.0));
    bad("size with a fraction", with("patch"_s, "file_size"_s, 11.5));
    bad("size nearly 0", with("patch"_s, "file_size"_s, 1e-300));
    bad("size is text", with("patch"_s, "file_size"_s, "11"_s));
    bad("size is true", with("patch"_s, "file_size"_s, true));
    bad("size is null", with("patch"_s, "file_size"_s, QJsonValue()));
    bad("size is an array", with("patch"_s, "file_size"_s, QJsonArray{11}));
}

void tst_RuleChecks::records()
{
    QFETCH(QJsonValue, record);
    QFETCH(bool, isGood);
    m_tree->write(
        "rules.json"_s, manifest({rule("delete"_s, "/x"_s), record, rule("copy"_s, "/y"_s)}));
    QStringList errors;
    const std::vector<UpdateRule> rules = rulesIn(m_tree->path("rules.json"_s), &errors);
    if (isGood) {
        QCOMPARE(errors, QStringList());
        QCOMPARE(rules.size(), std::size_t(3));
        QCOMPARE(rules[1].relativePath, "/a"_s);
        QCOMPARE(rules[0].kind, UpdateRule::Kind::Delete);
        QCOMPARE(rules[2].kind, UpdateRule::Kind::Copy);
        if (rules[1].kind == UpdateRule::Kind::Patch) {
            const QJsonObject object = record.toObject();
            QCOMPARE(rules[1].size, static_cast<qint64>(object.value("file_size"_s).toDouble()));
            QCOMPARE(rules[1].sha512.toText(), object.value("sha512"_s).toString());
        }
        return;
    }
    QCOMPARE(errors.size(), 1);
    QVERIFY2(
        errors.at(0).startsWith(m_tree->path("rules.json: record 2 "_s)), qPrintable(errors.at(0)));
}

void tst_RuleChecks::everyBadRecordIsNamed()
{
    m_tree->write("rules.json"_s,
        manifest({1, rule("copy"_s, "/a"_s), rule("copy"_s, "/../b"_s), rule("move"_s, "/c"_s),
            rule("delete"_s, "/d"_s), rule("patch"_s, "e"_s)}));
    QStringList errors;
    rulesIn(m_tree->path("rules.json"_s), &errors);
    QCOMPARE(errors.size(), 4);
    const QList<int> numbers{1, 3, 4, 6};
    for (int i = 0; i < 4; ++i) {
        const QString begin = m_tree->path("rules.json: record %1 "_s.arg(numbers.at(i)));
        QVERIFY2(errors.at(i).startsWith(begin), qPrintable(errors.at(i)));
    }
    QVERIFY(errors.at(1).endsWith(": /../b"_s));
}

void tst_RuleChecks::together_data()
{
    QTest::addColumn<QStringList>("rules"); // "+" and a path is written, "-" is deleted
    QTest::addColumn<bool>("foldsCase");
    QTest::addColumn<bool>("foldsUnicode");
    QTest::addColumn<int>("errors");
    const auto row = [](const char *name, const QStringList &rules, int errors) {
        for (const bool folds : {false, true})
            QTest::addRow("%s%s", name, folds ? ", folded" : "")
                << rules << folds << folds << errors;
    };
    row("different files", {"+/a"_s, "+/b"_s, "-/c"_s}, 0);
    row("same name in other folders", {"+/a/x"_s, "+/b/x"_s}, 0);
    row("written twice", {"+/a"_s, "+/a"_s}, 1);
    row("written three times", {"+/a"_s, "+/a"_s, "+/a"_s}, 2);
    row("deleted twice", {"-/a"_s, "-/a"_s}, 1);
    row("written and deleted", {"+/a"_s, "-/a"_s}, 1);
    row("deleted and written", {"-/a"_s, "+/a"_s}, 1);

    row("file in a written file", {"+/a"_s, "+/a/b"_s}, 1);
    row("file in a file that is written later", {"+/a/b"_s, "+/a"_s}, 1);
    row("file deep in a written file", {"+/a"_s, "+/a/b/c/d"_s}, 1);
    row("name that only begins so", {"+/a"_s, "+/ab/c"_s, "+/a-b/c"_s}, 0);
    row("file becomes a folder", {"-/a"_s, "+/a/b"_s}, 0);
    row("folder becomes a file", {"+/a"_s, "-/a/b"_s, "-/a/c/d"_s}, 0);

    row("temporary name", {"+/a"_s, "+/a.temp"_s}, 1);
    row("temporary name before", {"+/a.temp"_s, "+/a"_s}, 1);
    row("temporary name deleted", {"+/a"_s, "-/a.temp"_s}, 1);
    row("temporary name of a deleted file", {"-/a"_s, "+/a.temp"_s}, 0);
    row("temporary name in another folder", {"+/a"_s, "+/b/a.temp"_s}, 0);
    row("temporary name of a temporary name", {"+/a.temp"_s, "+/b"_s}, 0);
    row("longer than the temporary name", {"+/a"_s, "+/a.temp2"_s}, 0);
    row("temporary name as a folder", {"+/a"_s, "+/a.temp/b"_s}, 1);
    row("temporary name as a folder, deep", {"+/a"_s, "+/a.temp/b/c"_s}, 1);

    const auto sense = [](const char *name, const QStringList &rules, bool foldsCase,
                           bool foldsUnicode, int errors) {
        QTest::addRow("%s", name) << rules << foldsCase << foldsUnicode << errors;
    };
    sense("case, told apart", {"+/Fusion1"_s, "+/fusion1"_s}, false, false, 0);
    sense("case, the same", {"+/Fusion1"_s, "+/fusion1"_s}, true, false, 1);
    sense("case of folders, the same", {"+/Data/a"_s, "+/data/A"_s}, true, false, 1);
    sense("case of folders, other files", {"+/Data/a"_s, "+/data/b"_s}, true, false, 0);
    sense("renamed to other case", {"-/Fusion1"_s, "+/fusion1"_s}, true, false, 0);
    sense("renamed to other case, the other order", {"+/fusion1"_s, "-/Fusion1"_s}, true, false, 0);
    sense("renamed to other case, but twice", {"-/Fusion1"_s, "+/fusion1"_s, "+/FUSION1"_s}, true,
        false, 1);
    sense("both cases deleted", {"-/Fusion1"_s, "-/fusion1"_s}, true, false, 1);
    sense("sharp s", {"+/stra\u00dfe"_s, "+/STRASSE"_s}, true, false, 0);
    sense("umlaut, the same case", {"+/\u00c4"_s, "+/\u00e4"_s}, true, false, 1);
    sense("file in a file of other case", {"+/A"_s, "+/a/b"_s}, true, false, 1);
    sense("file in a file of other case, told apart", {"+/A"_s, "+/a/b"_s}, false, false, 0);
    sense("temporary name of other case", {"+/a"_s, "+/A.TEMP"_s}, true, false, 1);
    sense("temporary name of other case, told apart", {"+/a"_s, "+/A.TEMP"_s}, false, false, 0);
    sense("composed, told apart", {"+/\u00e4"_s, "+/a\u0308"_s}, false, false, 0);
    sense("composed, the same", {"+/\u00e4"_s, "+/a\u0308"_s}, false, true, 1);
    sense("composed folder", {"+/\u00e4/x"_s, "+/a\u0308/x"_s}, false, true, 1);
    sense("composed and of other case", {"+/\u00c4"_s, "+/a\u0308"_s}, true, true, 1);
    sense("composed and of other case, half told apart", {"+/\u00c4"_s, "+/a\u0308"_s}, false, true,
        0);
    sense("compatible is not the same", {"+/\ufb01"_s, "+/fi"_s}, false, true, 0);
}

void tst_RuleChecks::together()
{
    QFETCH(QStringList, rules);
    QFETCH(bool, foldsCase);
    QFETCH(bool, foldsUnicode);
    QFETCH(int, errors);
    std::vector<UpdateRule> parsed;
    for (const QString &text : rules) {
        UpdateRule parsedRule;
        parsedRule.kind
            = text.startsWith(QLatin1Char('+')) ? UpdateRule::Kind::Copy : UpdateRule::Kind::Delete;
        parsedRule.relativePath = text.mid(1);
        parsed.push_back(parsedRule);
    }
    QStringList found;
    Pellox::checkTogether(parsed, NameSense{foldsCase, foldsUnicode}, &found);
    QVERIFY2(found.size() == errors, qPrintable(found.join(QLatin1Char(';'))));
}

void tst_RuleChecks::nameKeys_data()
{
    QTest::addColumn<QString>("one");
    QTest::addColumn<QString>("other");
    QTest::addColumn<bool>("foldsCase");
    QTest::addColumn<bool>("foldsUnicode");
    QTest::addColumn<bool>("same");
    QTest::newRow("same") << "/a"_s
                          << "/a"_s << false << false << true;
    QTest::newRow("other") << "/a"_s
                           << "/b"_s << true << true << false;
    QTest::newRow("case") << "/a"_s
                          << "/A"_s << true << false << true;
    QTest::newRow("case counts") << "/a"_s
                                 << "/A"_s << false << true << false;
    QTest::newRow("form") << "/\u00e9"_s
                          << "/e\u0301"_s << false << true << true;
    QTest::newRow("form counts") << "/\u00e9"_s
                                 << "/e\u0301"_s << true << false << false;
    QTest::newRow("both") << "/\u00c9"_s
                          << "/e\u0301"_s << true << true << true;
    QTest::newRow("overlooked character") << "/a\u200db"_s
                                          << "/ab"_s << true << false << true;
    QTest::newRow("overlooked character beyond the first plane")
        << "/a\U000e0101b"_s
        << "/ab"_s << false << true << true;
    QTest::newRow("overlooked character counts") << "/a\u200db"_s
                                                 << "/ab"_s << false << false << false;
    QTest::newRow("character beyond the first plane") << "/\U0001F600"_s
                                                      << "/\U0001F601"_s << true << true << false;
    QTest::newRow("final sigma") << "/\u03c3"_s
                                 << "/\u03c2"_s << true << false << true;
}

void tst_RuleChecks::nameKeys()
{
    QFETCH(QString, one);
    QFETCH(QString, other);
    QFETCH(bool, foldsCase);
    QFETCH(bool, foldsUnicode);
    QFETCH(bool, same);
    const NameSense sense{foldsCase, foldsUnicode};
    QCOMPARE(sense.key(one) == sense.key(other), same);
}

void tst_RuleChecks::manifests_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("isGood");
    QTest::newRow("no rules") << QByteArray("[]") << true;
    QTest::newRow("blanks around") << QByteArray(" \n[ ] \n") << true;
    QTest::newRow("empty") << QByteArray("") << false;
    QTest::newRow("blank") << QByteArray("  \n") << false;
    QTest::newRow("NUL") << QByteArray(1, '\0') << false;
    QTest::newRow("an object") << QByteArray("{}") << false;
    QTest::newRow("a number") << QByteArray("1") << false;
    QTest::newRow("a text") << QByteArray("\"a\"") << false;
    QTest::newRow("null") << QByteArray("null") << false;
    QTest::newRow("cut short") << manifest({rule("copy"_s, "/a"_s)}).left(40) << false;
    QTest::newRow("not closed") << QByteArray("[") << false;
    QTest::newRow("more behind") << QByteArray("[] []") << false;
    QTest::newRow("comma too many") << QByteArray("[1,]") << false;
    const QByteArray two = manifest({rule("delete"_s, "/x"_s), rule("delete"_s, "/y"_s)});
    QTest::newRow("two records") << two << true;
    QTest::newRow("comma missing between records") << QByteArray(two).replace("},", "}") << false;
    QTest::newRow("comma behind the last record")
        << QByteArray(two).replace("}\n]", "},\n]") << false;
    QTest::newRow("more behind the records") << two + "[]\n" << false;
    QTest::newRow("a comment") << QByteArray("[] // none") << false;
    QTest::newRow("single quotes") << QByteArray("['a']") << false;
    QTest::newRow("bytes that are no text") << QByteArray("[\"\xff\xfe\"]") << false;
    QTest::newRow("another encoding") << QByteArray("[\0]\0", 4) << false;
    QTest::newRow("nested deeply") << QByteArray(100000, '[') + QByteArray(100000, ']') << false;
    QTest::newRow("nested deeply in a record")
        << "[" + QByteArray("{\"a\":").repeated(5000) + "1" + QByteArray(5000, '}') + "]" << false;
    QTest::newRow("a long text") << "[\"" + QByteArray(1 << 20, 'x') + "\"]" << false;
    // The core would take the path of the name with a byte order mark, which Qt takes away.
    const QByteArray twoPaths
        = "[{\"rule\": \"delete\", \"relative_path\": \"/x\", \"?relative_path\": \"/y\"}]";
    QTest::newRow("a path beside another") << twoPaths << true;
    QTest::newRow("a path behind another")
        << QByteArray(twoPaths).replace("?", "\xef\xbb\xbf") << false;
    QTest::newRow("a number too large for any type") << "[1" + QByteArray(5000, '0') + "]" << false;
}

void tst_RuleChecks::manifests()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, isGood);
    m_tree->write("around/patch/patchRules.json"_s, json);
    const auto before = TestTree::snapshot(m_tree->path());
    const UpdateOutcome outcome = update(*m_tree);
    QCOMPARE(outcome.result, isGood ? Result::AlreadyUpToDate : Result::Refused);
    QCOMPARE(outcome.errors.isEmpty(), isGood);
    for (const QString &error : outcome.errors)
        QVERIFY2(
            error.startsWith(m_tree->path("around/patch/patchRules.json: "_s)), qPrintable(error));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_RuleChecks::hugeManifest()
{
    constexpr int Count = 100000;
    QJsonArray records;
    for (int i = 0; i < Count; ++i)
        records.append(rule("delete"_s, "/folder %1/file %2"_s.arg(i % 100).arg(i)));
    records.append(rule("copy"_s, "/new/c"_s));
    m_tree->write("around/patch/patchRules.json"_s, manifest(records));
    QCOMPARE(update(*m_tree).result, Result::Updated);
    records.append(rule("copy"_s, "/folder 7/../../canary"_s));
    m_tree->write("around/patch/patchRules.json"_s, manifest(records));
    const UpdateOutcome outcome = update(*m_tree);
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.errors.size(), 1);
    QVERIFY(outcome.errors.at(0).contains("record 100002 "_s));
}

namespace {

/// @p count records in the form of the library, with the paths that @p path gives.
QByteArray manyRecords(int count, const std::function<QByteArray(int)> &path)
{
    QByteArray json = "[\n";
    for (int i = 0; i < count; ++i) {
        json += R"(    {
        "relative_path": ")"
            + path(i) + R"(",
        "rule": "delete"
    })";
        json += i + 1 < count ? ",\n" : "\n";
    }
    return json + "]\n";
}

QByteArray numbered(int number)
{
    return "/" + QByteArray::number(number);
}

} // namespace

/// Very many of them say no more than some do.
void tst_RuleChecks::errorsAreBounded()
{
    for (const int count : {100, 101, 250000}) {
        m_tree->write(
            "rules.json"_s, manyRecords(count, [](int) { return QByteArray("no path"); }));
        QStringList errors;
        QVERIFY(rulesIn(m_tree->path("rules.json"_s), &errors).empty());
        QCOMPARE(errors.size(), std::min(count, 101));
        QVERIFY(errors.at(99).startsWith(m_tree->path("rules.json: record 100 "_s)));
        if (count > 100)
            QCOMPARE(errors.at(100), m_tree->path("rules.json: and %1 more"_s.arg(count - 100)));
    }
}

void tst_RuleChecks::errorsTogetherAreBounded()
{
    std::vector<UpdateRule> rules(5001);
    for (UpdateRule &same : rules)
        same.relativePath = "/same"_s;
    QStringList errors;
    Pellox::checkTogether(rules, NameSense(), &errors);
    QCOMPARE(errors.size(), 101);
    QCOMPARE(errors.last(), "and 4900 more"_s);
}

void tst_RuleChecks::rulesAreBounded()
{
    constexpr int Most = 1000000;
    m_tree->write("rules.json"_s, manyRecords(Most + 1, numbered));
    QStringList errors;
    const auto rules = rulesIn(m_tree->path("rules.json"_s), &errors);
    QCOMPARE(errors,
        QStringList(m_tree->path("rules.json: has more rules or longer paths than any build"_s)));
    QCOMPARE(rules.size(), std::size_t(Most) + 1); // it was let up to there
}

/// Long paths are no way around it.
void tst_RuleChecks::pathsAreBounded()
{
    if (HasSanitizer)
        QSKIP("the sanitizer needs the memory itself");
    const QByteArray folders = ("/" + QByteArray(250, 'n')).repeated(15);
    m_tree->write(
        "rules.json"_s, manyRecords(40000, [&](int number) { return folders + numbered(number); }));
    QStringList errors;
    {
        const MemoryLimit limit(256 << 20); // all of them take more
        rulesIn(m_tree->path("rules.json"_s), &errors);
    }
    QCOMPARE(errors,
        QStringList(m_tree->path("rules.json: has more rules or longer paths than any build"_s)));
}

/// In another form than the library's each takes much more memory than text.
void tst_RuleChecks::valuesAreBounded()
{
    if (HasSanitizer)
        QSKIP("the sanitizer needs the memory itself");
    constexpr int Pairs = 20 << 20;
    m_tree->write("rules.json"_s, "[[]" + QByteArray(",[]").repeated(Pairs) + "]");
    QStringList errors;
    {
        const MemoryLimit limit(256 << 20);
        rulesIn(m_tree->path("rules.json"_s), &errors);
    }
    QCOMPARE(errors.size(), 1);
    QVERIFY2(errors.at(0).contains("has too many parts"_s), qPrintable(errors.at(0)));
}

void tst_RuleChecks::longPathIsToldInPart()
{
    m_tree->write(
        "rules.json"_s, manyRecords(1, [](int) { return "/" + QByteArray(500000, 'n'); }));
    QStringList errors;
    rulesIn(m_tree->path("rules.json"_s), &errors);
    QCOMPARE(errors.size(), 1);
    QVERIFY(errors.at(0).size() < 10000);
}

void tst_RuleChecks::readingStops_data()
{
    QTest::addColumn<QByteArray>("json");
    const QByteArray json = manyRecords(1000, numbered);
    QTest::newRow("in the library's form") << json;
    QTest::newRow("in another") << QJsonDocument::fromJson(json).toJson(QJsonDocument::Compact);
}

void tst_RuleChecks::readingStops()
{
    QFETCH(QByteArray, json);
    m_tree->write("rules.json"_s, json);
    QStringList errors;
    int asked = 0;
    const auto rules = rulesIn(m_tree->path("rules.json"_s), &errors, [&] { return ++asked < 10; });
    QCOMPARE(errors, QStringList());
    QCOMPARE(asked, 10);
    QVERIFY(rules.size() < 20);
}

void tst_RuleChecks::manifestThatIsTooLarge()
{
    m_tree->write("around/patch/patchRules.json"_s, "[");
    QVERIFY(QFile::resize(m_tree->path("around/patch/patchRules.json"_s), (1LL << 30) + 1));
    const UpdateOutcome outcome = update(*m_tree);
    QCOMPARE(outcome.result, Result::Refused);
    QCOMPARE(outcome.errors.size(), 1);
    QVERIFY2(outcome.errors.at(0).contains("too large"_s), qPrintable(outcome.errors.at(0)));
}

void tst_RuleChecks::layouts_data()
{
    QTest::addColumn<Layout>("change");
    QTest::addColumn<QString>("named"); // empty: the update works
    const auto row = [](const char *name, const QString &named, const Layout &change) {
        QTest::newRow(name) << change << named;
    };
    const auto replaceByLink = [](const QString &path, const QString &target) -> Layout {
        return [=](const TestTree &tree) {
            if (tree.exists(path))
                tree.remove(path);
            tree.link(path, tree.path(target));
        };
    };
    const auto replaceByFolder = [](const QString &path) -> Layout {
        return [=](const TestTree &tree) {
            tree.remove(path);
            tree.write(path + "/inside"_s, "inside");
        };
    };
    const auto replaceByPipe = [](const QString &path) -> Layout {
        return [=](const TestTree &tree) {
            tree.remove(path);
            if (::mkfifo(tree.path(path).toLocal8Bit().constData(), 0600) != 0)
                qFatal("cannot make a pipe");
        };
    };

    // In the build.
    row("link to a file in place of a patched file", "build/a"_s,
        replaceByLink("around/build/a"_s, "around/canary"_s));
    row("link to a file in place of a deleted file", "build/gone"_s,
        replaceByLink("around/build/gone"_s, "around/canary"_s));
    row("link to a file in place of a new file", "build/new/c"_s,
        replaceByLink("around/build/new/c"_s, "around/canary"_s));
    row("link to nowhere in place of a new file", "build/new/c"_s,
        replaceByLink("around/build/new/c"_s, "around/nowhere"_s));
    row("link in place of a folder", "build/dir"_s,
        replaceByLink("around/build/dir"_s, "around/outside"_s));
    row("link in place of a new folder", "build/new"_s,
        replaceByLink("around/build/new"_s, "around/outside"_s));
    row("link to nowhere in place of a new folder", "build/new"_s,
        replaceByLink("around/build/new"_s, "around/nowhere"_s));
    row("link to a folder of the build itself", "build/dir"_s,
        replaceByLink("around/build/dir"_s, "around/build/folder"_s));
    row("folder in place of a patched file", "build/a"_s, replaceByFolder("around/build/a"_s));
    row("pipe in place of a patched file", "build/a"_s, replaceByPipe("around/build/a"_s));
    row("pipe in place of a deleted file", "build/gone"_s, replaceByPipe("around/build/gone"_s));
    row("file in place of a new folder", "build/new"_s,
        [](const TestTree &tree) { tree.write("around/build/new"_s, "a file"); });
    row("file in place of a patched file's folder", "build/dir"_s, [](const TestTree &tree) {
        tree.remove("around/build/dir"_s);
        tree.write("around/build/dir"_s, "a file");
    });
    row("patched file is missing", "build/a"_s,
        [](const TestTree &tree) { tree.remove("around/build/a"_s); });
    row("patched file's folder is missing", "build/dir/b"_s,
        [](const TestTree &tree) { tree.remove("around/build/dir"_s); });
    row("deleted file is missing", QString(),
        [](const TestTree &tree) { tree.remove("around/build/gone"_s); });
    row("new file is there with another content", QString(),
        [](const TestTree &tree) { tree.write("around/build/new/c"_s, "other"); });
    row("own folder is a file", "build/.pellox"_s,
        [](const TestTree &tree) { tree.write("around/build/.pellox"_s, "a file"); });
    row("own folder is a link", "build/.pellox"_s,
        replaceByLink("around/build/.pellox"_s, "around/outside"_s));
    row("link of the temporary name", QString(),
        replaceByLink("around/build/a.temp"_s, "around/canary"_s));
    row("link to nowhere of the temporary name", QString(),
        replaceByLink("around/build/new/c.temp"_s, "around/nowhere"_s));
    row("link beside", QString(), replaceByLink("around/build/link"_s, "around/canary"_s));
    row("the whole build is a link", QString(), [](const TestTree &tree) {
        if (!QDir().rename(tree.path("around/build"_s), tree.path("around/real build"_s)))
            qFatal("cannot rename");
        tree.link("around/build"_s, tree.path("around/real build"_s));
    });

    // In the patch.
    row("link in place of a delta", "patch/a"_s,
        replaceByLink("around/patch/a"_s, "around/canary"_s));
    row("link in place of a new file of the patch", "patch/new/c"_s,
        replaceByLink("around/patch/new/c"_s, "around/canary"_s));
    row("link in place of a folder of the patch", "patch/dir/b"_s, [](const TestTree &tree) {
        tree.write("around/outside/b"_s, deltaFor(NewContent));
        tree.remove("around/patch/dir"_s);
        tree.link("around/patch/dir"_s, tree.path("around/outside"_s));
    });
    row("link in place of a folder above", "patch/new/deep/d"_s, [](const TestTree &tree) {
        tree.write("around/outside/deep/d"_s, NewContent);
        tree.remove("around/patch/new"_s);
        tree.link("around/patch/new"_s, tree.path("around/outside"_s));
        tree.write("around/patch/patchRules.json"_s, manifest({rule("copy"_s, "/new/deep/d"_s)}));
    });
    row("delta is missing", "patch/a"_s,
        [](const TestTree &tree) { tree.remove("around/patch/a"_s); });
    row("new file of the patch is missing", "patch/new/c"_s,
        [](const TestTree &tree) { tree.remove("around/patch/new"_s); });
    row("folder in place of a delta", "patch/a"_s, replaceByFolder("around/patch/a"_s));
    row("folder in place of a new file of the patch", "patch/new/c"_s,
        replaceByFolder("around/patch/new/c"_s));
    row("pipe in place of a delta", "patch/a"_s, replaceByPipe("around/patch/a"_s));
    row("pipe in place of a new file of the patch", "patch/new/c"_s,
        replaceByPipe("around/patch/new/c"_s));
    row("pipe in place of the manifest", "patch/patchRules.json"_s,
        replaceByPipe("around/patch/patchRules.json"_s));
    row("folder in place of the manifest", "patch/patchRules.json"_s,
        replaceByFolder("around/patch/patchRules.json"_s));
    row("delta of another file", "patch/a"_s,
        [](const TestTree &tree) { tree.write("around/patch/a"_s, deltaFor("shorter")); });
    row("files that no rule names", QString(), [](const TestTree &tree) {
        tree.write("around/patch/unused"_s, "unused");
        tree.link("around/patch/unused link"_s, tree.path("around/canary"_s));
    });
}

/// All is refused before anything is touched, with the path in question named.
void tst_RuleChecks::layouts()
{
    QFETCH(Layout, change);
    QFETCH(QString, named);
    change(*m_tree);
    const auto state = [this] {
        auto snapshot = TestTree::snapshot(m_tree->path("around/outside"_s));
        snapshot.insert("canary"_s, m_tree->read("around/canary"_s));
        snapshot.insert("nowhere"_s, m_tree->exists("around/nowhere"_s) ? "there" : "");
        return snapshot;
    };
    const auto entries = [this] { // no pipe is read
        QStringList list;
        QDirIterator walk(m_tree->path("around"_s),
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
            QDirIterator::Subdirectories);
        while (walk.hasNext()) {
            walk.next();
            list.append("%1 %2 %3"_s.arg(walk.filePath(), walk.fileInfo().symLinkTarget(),
                walk.fileInfo().lastModified().toString(Qt::ISODateWithMs)));
        }
        list.sort();
        return list;
    };
    const auto outside = state();
    const QStringList before = entries();
    const UpdateOutcome outcome = update(*m_tree);
    QCOMPARE(state(), outside);
    QCOMPARE(m_tree->read("around/build/keep"_s), QByteArray("a save"));
    if (named.isEmpty()) {
        QVERIFY2(outcome.errors.isEmpty(), qPrintable(outcome.errors.join(QLatin1Char(';'))));
        QCOMPARE(outcome.result, Result::Updated);
        QCOMPARE(m_tree->read("around/build/a"_s), NewContent);
        QCOMPARE(m_tree->read("around/build/new/c"_s), NewContent);
        QVERIFY(!QFileInfo(m_tree->path("around/build/a"_s)).isSymLink());
        return;
    }
    QCOMPARE(outcome.result, Result::Refused);
    QVERIFY2(!outcome.errors.isEmpty()
            && outcome.errors.at(0).startsWith(m_tree->path("around/"_s + named + ": "_s)),
        qPrintable(outcome.errors.join(QLatin1Char(';'))));
    QCOMPARE(entries(), before);
}

void tst_RuleChecks::mutatedManifests_data()
{
    QTest::addColumn<quint32>("seed");
    for (quint32 seed = 1; seed <= 8; ++seed)
        QTest::addRow("%u", seed) << seed;
}

namespace {

int below(QRandomGenerator &random, int end)
{
    return static_cast<int>(random.bounded(end));
}

QByteArray mutatedText(QRandomGenerator &random, QByteArray json)
{
    static const QByteArrayList snippets{"..", "/", "\\\\", "\\u0000", "\"", "[", "]", "{", "}",
        ",", ":", "-1", "1e308", "null", "true", "\xff", "0", " ", "/../canary"};
    const int at = below(random, json.size());
    switch (below(random, 4)) { // the text is never empty: what is removed is short
    case 0:
        json[at] = static_cast<char>(below(random, 256));
        return json;
    case 1:
        return json.remove(at, 1 + below(random, 10));
    case 2:
        return json.insert(at, json.mid(below(random, json.size()), below(random, 200)));
    default:
        return json.insert(at, snippets.at(below(random, snippets.size())));
    }
}

QString mutatedPath(QRandomGenerator &random, QString path)
{
    static const QStringList snippets{"/"_s, "."_s, ".."_s, "/.."_s, "/../canary"_s,
        "/../outside/canary"_s, "/../build-2/canary"_s, "\\"_s, ":"_s, " "_s, "\n"_s, ".temp"_s,
        "/.pellox"_s, "a"_s, "b"_s, "c"_s, "/dir"_s, "/new"_s, "/gone"_s, "A"_s, "\u0308"_s};
    const int end = path.size() + 1;
    if (below(random, 4) == 0)
        return path.remove(below(random, end), 1 + below(random, 3));
    const int at = below(random, 2) == 0 ? path.size() : below(random, end);
    return path.insert(at, snippets.at(below(random, snippets.size())));
}

/// Stays JSON, and mostly a manifest.
QByteArray mutatedRecords(QRandomGenerator &random, const QByteArray &json)
{
    static const QStringList kinds{"copy"_s, "patch"_s, "delete"_s, "none"_s};
    QJsonArray records = QJsonDocument::fromJson(json).array();
    if (records.isEmpty())
        return json;
    const int at = below(random, records.size());
    const int other = below(random, records.size());
    QJsonObject record = records.at(at).toObject();
    const QString path = record.value("relative_path"_s).toString("/"_s);
    switch (below(random, 7)) {
    case 0:
        records.removeAt(at);
        return manifest(records);
    case 1:
        records.insert(other, record);
        return manifest(records);
    case 2:
        record.insert("rule"_s, kinds.at(below(random, kinds.size())));
        break;
    case 3:
        record.insert("file_size"_s, below(random, 25) - 2);
        break;
    case 4:
        record.insert("relative_path"_s, records.at(other).toObject().value("relative_path"_s));
        break;
    default:
        record.insert("relative_path"_s, mutatedPath(random, path));
    }
    records[at] = record;
    return manifest(records);
}

} // namespace

/// Whatever a manifest says, nothing outside of the build is touched, nor what it does not name.
void tst_RuleChecks::mutatedManifests()
{
    QFETCH(quint32, seed);
    constexpr int Rounds = 80;
    QRandomGenerator random(seed);
    int updated = 0;
    for (int round = 0; round < Rounds; ++round) {
        layWorld(*m_tree);
        QByteArray json = m_tree->read("around/patch/patchRules.json"_s);
        for (int count = 1 + below(random, 3); count > 0; --count)
            json = round % 4 == 0 ? mutatedText(random, json) : mutatedRecords(random, json);
        m_tree->write("around/patch/patchRules.json"_s, json);
        auto before = TestTree::snapshot(m_tree->path());
        const UpdateOutcome outcome = update(*m_tree);
        auto after = TestTree::snapshot(m_tree->path());
        const bool good
            = outcome.result == Result::Updated || outcome.result == Result::AlreadyUpToDate;
        QVERIFY2(good == outcome.errors.isEmpty(), json.constData());
        QVERIFY2(outcome.result != Result::Interrupted, json.constData());
        updated += good ? 1 : 0;
        if (!good)
            QVERIFY2(after == before, json.constData());
        for (auto *snapshot : {&before, &after}) {
            for (const QString &path : snapshot->keys()) {
                if (path.startsWith("around/build/"_s) && !path.endsWith("keep"_s))
                    snapshot->remove(path);
            }
        }
        QVERIFY2(after == before, json.constData());
    }
    QVERIFY2(updated > Rounds / 20, qPrintable(QString::number(updated)));
    QVERIFY2(updated < Rounds * 3 / 4, qPrintable(QString::number(updated)));
}

QTEST_GUILESS_MAIN(tst_RuleChecks)

#include "tst_rulechecks.moc"
