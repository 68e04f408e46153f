// SPDX-License-Identifier: MIT
#include "testtree.h"

#include <Pellox/DeltaController>
#include <Pellox/patchhelp.h>
#include <Pellox/PatchInspector>
#include <Pellox/rules.h>
#include <Pellox/SignaturesController>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <memory>
#include <thread>

#include <sys/stat.h>
#include <sys/types.h>

using Pellox::InspectedFile;
using Pellox::PatchInspector;

Q_DECLARE_METATYPE(QJsonValue)

namespace {

/// A delta that copies 1000 bytes and carries 5.
QByteArray smallDelta()
{
    return QByteArray::fromHex("72730236") + QByteArray::fromHex("460003e8") + "\x05" + "abcde"
        + '\0';
}

QString anySha512()
{
    return QString(128, QLatin1Char('a'));
}

QJsonObject rule(const QString &name, const QString &path)
{
    return {{QStringLiteral("rule"), name}, {QStringLiteral("relative_path"), path}};
}

QJsonObject patchRule(const QString &path, const QJsonValue &size = 1005)
{
    QJsonObject members = rule(Pellox::PATCH_RULE, path);
    members.insert(QStringLiteral("sha512"), anySha512());
    members.insert(QStringLiteral("file_size"), size);
    return members;
}

QJsonObject copyRule(const QString &path)
{
    return rule(Pellox::COPY_RULE, path);
}

QJsonObject deleteRule(const QString &path)
{
    return rule(Pellox::DELETE_RULE, path);
}

QJsonObject without(QJsonObject members, const char *name)
{
    members.remove(QLatin1String(name));
    return members;
}

QJsonObject with(QJsonObject members, const char *name, const QJsonValue &value)
{
    members.insert(QLatin1String(name), value);
    return members;
}

/// Keeps what an inspector tells.
class Listener
{
public:
    explicit Listener(const PatchInspector &inspector)
    {
        QObject::connect(&inspector, &PatchInspector::inspectError,
            [this](const QString &message, const QString &path) {
                messages.append(message);
                paths.append(path);
            });
    }

    QStringList messages;
    QStringList paths;
};

} // namespace

class tst_PatchInspector : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void everyRule();
    void copiedAndLiteralBytesMakeTheNewFile();
    void realPatch_data();
    void realPatch();
    void emptyPatch();
    void emptyFiles();
    void formOfTheFolder_data();
    void formOfTheFolder();
    void linkWithinTheFolder();
    void sizesBeyond32Bits();
    void sumsThatNobodyCanCount_data();
    void sumsThatNobodyCanCount();
    void climbBehindALink();
    void unknownMembersArePassedOver();
    void changesNothing();

    void oldContentOfNewFiles();
    void oldSignaturesThatWillNotDo();
    void sealNamesWhatMoved();
    void slimPatch();
    void nothingElseMayBeLeftOut_data();
    void nothingElseMayBeLeftOut();

    void badManifest_data();
    void badManifest();
    void missingFolder();
    void manifestThatIsNoFile();
    void badRule_data();
    void badRule();
    void badPayload_data();
    void badPayload();
    void pipesDoNotHang();
    void everyErrorIsTold();
    void eachRunStartsAnew();
    void mutatedPatches_data();
    void mutatedPatches();

    void progressByRules();
    void callableOnAnyThread();

private:
    void writeManifest(const QJsonArray &rules) const
    {
        m_tree->write(QStringLiteral("patch/patchRules.json"), QJsonDocument(rules).toJson());
    }
    void writePayload(const QString &relativePath, const QByteArray &content) const
    {
        m_tree->write(QStringLiteral("patch") + relativePath, content);
    }
    QString patch(const QString &relativePath = QString()) const
    {
        return m_tree->path(QStringLiteral("patch")) + relativePath;
    }

    QByteArray sealedText() const;
    void writeSeal(const QByteArray &text) const;
    void writeSealedPatch() const;

    std::unique_ptr<TestTree> m_tree;
};

void tst_PatchInspector::initTestCase()
{
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
}

void tst_PatchInspector::init()
{
    m_tree = std::make_unique<TestTree>();
    m_tree->makeFolder(QStringLiteral("patch"));
}

void tst_PatchInspector::everyRule()
{
    writeManifest({deleteRule(QStringLiteral("/data/old.txt")),
        patchRule(QStringLiteral("/game.exe")), copyRule(QStringLiteral("/data/new.pak"))});
    writePayload(QStringLiteral("/game.exe"), smallDelta());
    writePayload(QStringLiteral("/data/new.pak"), QByteArray(300, 'n'));

    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY2(inspector.inspect(patch()), qPrintable(listener.messages.join(QLatin1Char('\n'))));
    QCOMPARE(listener.messages, QStringList());
    const QVector<InspectedFile> files = inspector.files();
    QCOMPARE(files.size(), 3);

    const InspectedFile &deleted = files.at(0);
    QCOMPARE(deleted.rule, Pellox::DELETE_RULE);
    QCOMPARE(deleted.relativePath, QStringLiteral("/data/old.txt"));
    QCOMPARE(deleted.newSize + deleted.patchBytes + deleted.copiedBytes + deleted.literalBytes
            + deleted.commands,
        qint64(0));

    const InspectedFile &patched = files.at(1);
    QCOMPARE(patched.rule, Pellox::PATCH_RULE);
    QCOMPARE(patched.relativePath, QStringLiteral("/game.exe"));
    QCOMPARE(patched.newSize, qint64(1005));
    QCOMPARE(patched.patchBytes, qint64(smallDelta().size()));
    QCOMPARE(patched.copiedBytes, qint64(1000));
    QCOMPARE(patched.literalBytes, qint64(5));
    QCOMPARE(patched.commands, qint64(2));

    const InspectedFile &copied = files.at(2);
    QCOMPARE(copied.rule, Pellox::COPY_RULE);
    QCOMPARE(copied.relativePath, QStringLiteral("/data/new.pak"));
    QCOMPARE(copied.newSize, qint64(300));
    QCOMPARE(copied.patchBytes, qint64(300));
    QCOMPARE(copied.copiedBytes, qint64(0));
    QCOMPARE(copied.literalBytes, qint64(300));
    QCOMPARE(copied.commands, qint64(0));
}

void tst_PatchInspector::copiedAndLiteralBytesMakeTheNewFile()
{
    writeManifest({deleteRule(QStringLiteral("/gone")), patchRule(QStringLiteral("/changed")),
        copyRule(QStringLiteral("/new"))});
    writePayload(QStringLiteral("/changed"), smallDelta());
    writePayload(QStringLiteral("/new"), "new");
    PatchInspector inspector;
    QVERIFY(inspector.inspect(patch()));
    for (const InspectedFile &file : inspector.files())
        QCOMPARE(file.copiedBytes + file.literalBytes, file.newSize);
}

void tst_PatchInspector::realPatch_data()
{
    QTest::addColumn<quint32>("seed");
    for (quint32 seed = 1; seed <= 5; ++seed)
        QTest::newRow(QByteArray::number(seed)) << seed;
}

/// What the core has made is found in full: sizes of the new files, and of those of the patch.
void tst_PatchInspector::realPatch()
{
    QFETCH(quint32, seed);
    QRandomGenerator random(seed);
    for (int i = 0; i < 40; ++i) {
        const QString name = QStringLiteral("/d%1/f%2").arg(random.bounded(4)).arg(i);
        const QByteArray content = randomBytes(random.bounded(30000), seed + quint32(i));
        if (random.bounded(4) != 0)
            m_tree->write(QStringLiteral("old") + name, content);
        if (random.bounded(4) != 0) {
            const int cut = random.bounded(content.size() + 1);
            m_tree->write(QStringLiteral("new") + name,
                content.mid(cut) + randomBytes(random.bounded(500), seed) + content.left(cut));
        }
    }
    Pellox::SignaturesController().createSignatures(
        m_tree->path(QStringLiteral("old")), m_tree->path(QStringLiteral("sigs")));
    QVERIFY(Pellox::DeltaController().createPatch(m_tree->path(QStringLiteral("new")),
        m_tree->path(QStringLiteral("sigs")), patch(), QStringList()));

    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY2(inspector.inspect(patch()), qPrintable(listener.messages.join(QLatin1Char('\n'))));
    const QJsonArray rules
        = QJsonDocument::fromJson(m_tree->read(QStringLiteral("patch/patchRules.json"))).array();
    const QVector<InspectedFile> files = inspector.files();
    QCOMPARE(files.size(), rules.size());
    qint64 copied = 0;
    for (int i = 0; i < files.size(); ++i) {
        const InspectedFile &file = files.at(i);
        const QJsonObject members = rules.at(i).toObject();
        QCOMPARE(file.rule, members.value(QLatin1String("rule")).toString());
        QCOMPARE(file.relativePath, members.value(QLatin1String("relative_path")).toString());
        QCOMPARE(file.copiedBytes + file.literalBytes, file.newSize);
        if (file.rule == Pellox::DELETE_RULE)
            continue;
        const QString newFile = m_tree->path(QStringLiteral("new")) + file.relativePath;
        QCOMPARE(file.newSize, QFileInfo(newFile).size());
        QCOMPARE(file.patchBytes, QFileInfo(patch(file.relativePath)).size());
        copied += file.copiedBytes;
    }
    QVERIFY(copied > 0);
}

void tst_PatchInspector::emptyPatch()
{
    writeManifest({});
    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY(inspector.inspect(patch()));
    QVERIFY(inspector.files().isEmpty());
    QCOMPARE(listener.messages, QStringList());
}

void tst_PatchInspector::emptyFiles()
{
    writeManifest({patchRule(QStringLiteral("/emptied"), 0), copyRule(QStringLiteral("/empty"))});
    writePayload(QStringLiteral("/emptied"), QByteArray::fromHex("7273023600"));
    writePayload(QStringLiteral("/empty"), QByteArray());
    PatchInspector inspector;
    QVERIFY(inspector.inspect(patch()));
    QCOMPARE(inspector.files().at(0).newSize, qint64(0));
    QCOMPARE(inspector.files().at(0).patchBytes, qint64(5));
    QCOMPARE(inspector.files().at(0).commands, qint64(0));
    QCOMPARE(inspector.files().at(1).patchBytes, qint64(0));
}

void tst_PatchInspector::formOfTheFolder_data()
{
    QTest::addColumn<QString>("form");

    QTest::newRow("absolute") << QStringLiteral("%1/patch");
    QTest::newRow("with a separator at the end") << QStringLiteral("%1/patch/");
    QTest::newRow("through dots") << QStringLiteral("%1/./patch/../patch");
    QTest::newRow("relative") << QStringLiteral("patch");
    QTest::newRow("through a link") << QStringLiteral("%1/link");
}

void tst_PatchInspector::formOfTheFolder()
{
    QFETCH(QString, form);
    m_tree->link(QStringLiteral("link"), patch());
    writeManifest({copyRule(QStringLiteral("/d/new"))});
    writePayload(QStringLiteral("/d/new"), "new");
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_tree->path()));
    PatchInspector inspector;
    const bool well = inspector.inspect(form.replace(QLatin1String("%1"), m_tree->path()));
    QDir::setCurrent(before);
    QVERIFY(well);
    QCOMPARE(inspector.files().at(0).patchBytes, qint64(3));
}

void tst_PatchInspector::linkWithinTheFolder()
{
    writeManifest({copyRule(QStringLiteral("/real")), copyRule(QStringLiteral("/link"))});
    writePayload(QStringLiteral("/real"), "same");
    m_tree->link(QStringLiteral("patch/link"), QStringLiteral("real"));
    PatchInspector inspector;
    QVERIFY(inspector.inspect(patch()));
    QCOMPARE(inspector.files().at(1).patchBytes, qint64(4));
}

void tst_PatchInspector::sizesBeyond32Bits()
{
    constexpr qint64 Length = qint64(5) << 30;
    const QByteArray copy = QByteArray::fromHex("48 00 0000000140000000");
    const QByteArray literalHead = QByteArray::fromHex("44 0000000140000000");
    writePayload(QStringLiteral("/huge"), QByteArray::fromHex("72730236") + copy + literalHead);
    // The bytes of the literal and the end of the delta are a hole in the file.
    QFile huge(patch(QStringLiteral("/huge")));
    QVERIFY(huge.resize(huge.size() + Length + 1));
    writeManifest({patchRule(QStringLiteral("/huge"), 2 * Length)});

    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY2(inspector.inspect(patch()), qPrintable(listener.messages.join(QLatin1Char('\n'))));
    const InspectedFile file = inspector.files().at(0);
    QCOMPARE(file.copiedBytes, Length);
    QCOMPARE(file.literalBytes, Length);
    QCOMPARE(file.patchBytes, huge.size());
}

void tst_PatchInspector::sumsThatNobodyCanCount_data()
{
    QTest::addColumn<int>("files");
    QTest::addColumn<bool>("taken");
    QTest::newRow("8 PiB") << 8 << true;
    QTest::newRow("more") << 9 << false;
    QTest::newRow("more than 64 bits") << 8200 << false;
}

/// Each of the files by itself is small enough.
void tst_PatchInspector::sumsThatNobodyCanCount()
{
    QFETCH(int, files);
    QFETCH(bool, taken);
    constexpr qint64 PiB = qint64(1) << 50;
    const QByteArray copy = QByteArray::fromHex("48 00 0004000000000000 00");
    QJsonArray rules;
    for (int i = 0; i < files; ++i) {
        const QString path = QStringLiteral("/%1").arg(i);
        writePayload(path, QByteArray::fromHex("72730236") + copy);
        rules.append(patchRule(path, PiB));
    }
    writeManifest(rules);
    PatchInspector inspector;
    const Listener listener(inspector);
    QCOMPARE(inspector.inspect(patch()), taken);
    QCOMPARE(listener.messages.size(), taken ? 0 : files - 8);
    QVERIFY(taken
        || listener.messages.first()
            == patch(QStringLiteral("/8: has a size that makes all together more than 8 PiB")));
}

void tst_PatchInspector::climbBehindALink()
{
    m_tree->makeFolder(QStringLiteral("elsewhere/deep"));
    m_tree->write(QStringLiteral("elsewhere/patch/patchRules.json"), "[]");
    m_tree->link(QStringLiteral("link"), m_tree->path(QStringLiteral("elsewhere/deep")));
    PatchInspector inspector;
    QVERIFY(inspector.inspect(m_tree->path(QStringLiteral("link/../patch"))));
}

void tst_PatchInspector::unknownMembersArePassedOver()
{
    writeManifest({with(deleteRule(QStringLiteral("/x")), "colour", QStringLiteral("red"))});
    PatchInspector inspector;
    QVERIFY(inspector.inspect(patch()));
    QCOMPARE(inspector.files().size(), 1);
}

void tst_PatchInspector::changesNothing()
{
    writeManifest({patchRule(QStringLiteral("/changed")), deleteRule(QStringLiteral("/gone"))});
    writePayload(QStringLiteral("/changed"), smallDelta());
    const auto before = TestTree::snapshot(m_tree->path());
    PatchInspector inspector;
    QVERIFY(inspector.inspect(patch()));
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

void tst_PatchInspector::badManifest_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("reason");

    QTest::newRow("empty file") << QByteArray() << QStringLiteral("is not JSON: *");
    QTest::newRow("cut off") << QByteArray("[{\"rule\":") << QStringLiteral("is not JSON: *");
    QTest::newRow("bytes behind it")
        << QByteArray("[] x") << QStringLiteral("is not JSON: * at byte 3");
    QTest::newRow("nested without end")
        << QByteArray(100000, '[') << QStringLiteral("is not JSON: *");
    QTest::newRow("object") << QByteArray("{}") << QStringLiteral("is not a JSON array");
    QTest::newRow("number for a rule")
        << QByteArray("[7]") << QStringLiteral("has no object as rule 1");
    QTest::newRow("second rule is null")
        << QByteArray("[{\"rule\":\"delete\",\"relative_path\":\"/x\"},null]")
        << QStringLiteral("has no object as rule 2");
    QTest::newRow("no rule name") << QByteArray("[{\"relative_path\":\"/x\"}]")
                                  << QStringLiteral("has no text as \"rule\" of rule 1");
    QTest::newRow("rule name is a number") << QByteArray("[{\"rule\":1,\"relative_path\":\"/x\"}]")
                                           << QStringLiteral("has no text as \"rule\" of rule 1");
    QTest::newRow("no path") << QByteArray("[{\"rule\":\"delete\"}]")
                             << QStringLiteral("has no text as \"relative_path\" of rule 1");
}

void tst_PatchInspector::badManifest()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, reason);
    const QString manifest = patch(QStringLiteral("/patchRules.json"));
    m_tree->write(QStringLiteral("patch/patchRules.json"), json);
    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY(!inspector.inspect(patch()));
    QVERIFY(inspector.files().isEmpty());
    QCOMPARE(listener.paths, QStringList{manifest});
    const QString message = listener.messages.at(0);
    QVERIFY2(message.startsWith(manifest + QLatin1String(": ")), qPrintable(message));
    const QString told = message.mid(manifest.size() + 2);
    const QStringList parts = reason.split(QLatin1Char('*'));
    QVERIFY2(told.startsWith(parts.first()) && told.endsWith(parts.last()), qPrintable(told));
}

void tst_PatchInspector::missingFolder()
{
    const QString nowhere = m_tree->path(QStringLiteral("nowhere"));
    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY(!inspector.inspect(nowhere));
    QCOMPARE(
        listener.messages, QStringList{nowhere + QLatin1String("/patchRules.json: is missing")});
}

void tst_PatchInspector::manifestThatIsNoFile()
{
    m_tree->makeFolder(QStringLiteral("patch/patchRules.json"));
    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY(!inspector.inspect(patch()));
    QCOMPARE(listener.messages,
        QStringList{patch(QStringLiteral("/patchRules.json: is no regular file"))});
}

void tst_PatchInspector::badRule_data()
{
    QTest::addColumn<QJsonValue>("rule");
    QTest::addColumn<QString>("error"); // behind the folder

    const QString there = QStringLiteral("/there");
    const auto row = [](const char *name, const QJsonObject &rule, const QString &error) {
        QTest::newRow(name) << QJsonValue(rule) << error;
    };
    row("reserved rule", rule(Pellox::NONE_RULE, there),
        QStringLiteral("/there: has the unknown rule \"none\""));
    row("unknown rule", rule(QStringLiteral("Patch"), there),
        QStringLiteral("/there: has the unknown rule \"Patch\""));
    row("rule without a name", rule(QString(), there),
        QStringLiteral("/there: has the unknown rule \"\""));

    const QString out = QStringLiteral("leads out of the folder");
    const QString oddPart = QStringLiteral("has a path with an empty part or a dot for a part");
    const QString noSeparator
        = QStringLiteral("has a relative path that does not begin with a separator");
    const auto path = [&](const char *name, const QString &relativePath, const QString &error) {
        row(name, deleteRule(relativePath), relativePath + QLatin1String(": ") + error);
    };
    path("climbs out", QStringLiteral("/../there"), out);
    path("climbs out deeper", QStringLiteral("/a/../../there"), out);
    path("climbs and comes back", QStringLiteral("/a/../there"), out);
    path("climbs at the end", QStringLiteral("/a/.."), out);
    path("dot", QStringLiteral("/./there"), oddPart);
    path("dot at the end", QStringLiteral("/there/."), oddPart);
    path("two separators", QStringLiteral("/a//there"), oddPart);
    path("separator at the end", QStringLiteral("/there/"), oddPart);
    path("nothing but a separator", QStringLiteral("/"), oddPart);
    path("zero character", QStringLiteral("/the") + QChar(QChar::Null) + QStringLiteral("re"),
        QStringLiteral("has a path with a zero character in it"));
    row("no separator", deleteRule(QStringLiteral("there")),
        QStringLiteral("/there: ") + noSeparator);
    row("empty path", deleteRule(QString()), QStringLiteral("/: ") + noSeparator);
    row("neighbour of the folder", deleteRule(QStringLiteral("-2/there")),
        QStringLiteral("/-2/there: ") + noSeparator);

    const QString noChecksum = QStringLiteral("/there: has a rule without a SHA-512");
    const QJsonObject patched = patchRule(there);
    row("no checksum", without(patched, "sha512"), noChecksum);
    row("short checksum", with(patched, "sha512", anySha512().mid(1)), noChecksum);
    row("long checksum", with(patched, "sha512", anySha512() + QLatin1Char('a')), noChecksum);
    row("checksum with a line break", with(patched, "sha512", anySha512() + QLatin1Char('\n')),
        noChecksum);
    row("upper-case checksum", with(patched, "sha512", anySha512().toUpper()), noChecksum);
    row("checksum is a number", with(patched, "sha512", 1), noChecksum);

    const QString noSize = QStringLiteral("/there: has a rule without a file size");
    row("no size", without(patched, "file_size"), noSize);
    row("size is text", with(patched, "file_size", QStringLiteral("1005")), noSize);
    row("negative size", with(patched, "file_size", -1), noSize);
    row("broken size", with(patched, "file_size", 1005.5), noSize);
    row("size that no number holds", with(patched, "file_size", 1e300), noSize);
    row("size of another file", with(patched, "file_size", 1004),
        QStringLiteral("/there: makes a file of 1005 bytes; its rule says 1004"));
    row("manifest as a new file", copyRule(QStringLiteral("/patchRules.json")),
        QStringLiteral("/patchRules.json: has a rule of its own, but is the manifest"));
}

void tst_PatchInspector::badRule()
{
    QFETCH(QJsonValue, rule);
    QFETCH(QString, error);
    writePayload(QStringLiteral("/there"), smallDelta());
    writePayload(QStringLiteral("/a/there"), smallDelta());
    m_tree->write(QStringLiteral("there"), smallDelta());
    writeManifest({rule});
    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY(!inspector.inspect(patch()));
    QVERIFY(inspector.files().isEmpty());
    QCOMPARE(listener.messages, QStringList{patch(error)});
    QVERIFY(listener.messages.at(0).startsWith(listener.paths.at(0) + QLatin1String(": ")));
}

void tst_PatchInspector::badPayload_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("reason");

    QTest::newRow("missing") << QStringLiteral("/nowhere")
                             << QStringLiteral("is missing from the patch");
    QTest::newRow("behind a file")
        << QStringLiteral("/file/x") << QStringLiteral("is missing from the patch");
    QTest::newRow("folder") << QStringLiteral("/folder") << QStringLiteral("is no regular file");
    QTest::newRow("link that leads nowhere")
        << QStringLiteral("/dangling") << QStringLiteral("is missing from the patch");
    QTest::newRow("link to a device")
        << QStringLiteral("/zero") << QStringLiteral("is no regular file");
    QTest::newRow("link to a file outside")
        << QStringLiteral("/outside") << QStringLiteral("leads out of the patch folder by a link");
    QTest::newRow("file in a linked folder outside") << QStringLiteral(
        "/way out/delta") << QStringLiteral("leads out of the patch folder by a link");
    QTest::newRow("folder beside it with a longer name") << QStringLiteral(
        "/neighbour/delta") << QStringLiteral("leads out of the patch folder by a link");
}

void tst_PatchInspector::badPayload()
{
    QFETCH(QString, path);
    QFETCH(QString, reason);
    writePayload(QStringLiteral("/file"), smallDelta());
    m_tree->makeFolder(QStringLiteral("patch/folder"));
    m_tree->write(QStringLiteral("secrets/delta"), smallDelta());
    m_tree->write(QStringLiteral("patch-2/delta"), smallDelta());
    m_tree->link(QStringLiteral("patch/dangling"), QStringLiteral("nowhere"));
    m_tree->link(QStringLiteral("patch/zero"), QStringLiteral("/dev/zero"));
    m_tree->link(QStringLiteral("patch/outside"), QStringLiteral("../secrets/delta"));
    m_tree->link(QStringLiteral("patch/way out"), m_tree->path(QStringLiteral("secrets")));
    m_tree->link(QStringLiteral("patch/neighbour"), m_tree->path(QStringLiteral("patch-2")));

    for (const QJsonObject &rule : {patchRule(path), copyRule(path)}) {
        writeManifest({rule});
        PatchInspector inspector;
        const Listener listener(inspector);
        QVERIFY(!inspector.inspect(patch()));
        QCOMPARE(listener.messages, QStringList{patch(path) + QLatin1String(": ") + reason});
        QCOMPARE(listener.paths, QStringList{patch(path)});
    }
}

void tst_PatchInspector::pipesDoNotHang()
{
    QCOMPARE(mkfifo(QFile::encodeName(patch(QStringLiteral("/pipe"))).constData(), 0600), 0);
    writeManifest({patchRule(QStringLiteral("/pipe"))});
    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY(!inspector.inspect(patch()));
    QCOMPARE(listener.messages, QStringList{patch(QStringLiteral("/pipe: is no regular file"))});

    m_tree->remove(QStringLiteral("patch/patchRules.json"));
    QCOMPARE(
        mkfifo(QFile::encodeName(patch(QStringLiteral("/patchRules.json"))).constData(), 0600), 0);
    QVERIFY(!inspector.inspect(patch()));
}

void tst_PatchInspector::everyErrorIsTold()
{
    writeManifest({copyRule(QStringLiteral("/missing")), deleteRule(QStringLiteral("/fine")),
        patchRule(QStringLiteral("/broken")), copyRule(QStringLiteral("/twice")),
        deleteRule(QStringLiteral("/twice"))});
    writePayload(QStringLiteral("/broken"), "no delta");
    writePayload(QStringLiteral("/twice"), "new");
    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY(!inspector.inspect(patch()));
    QCOMPARE(listener.messages,
        (QStringList{patch(QStringLiteral("/missing: is missing from the patch")),
            patch(QStringLiteral("/broken: is no delta")),
            patch(QStringLiteral("/twice: has more than one rule"))}));
    QVERIFY(inspector.files().isEmpty());
}

void tst_PatchInspector::eachRunStartsAnew()
{
    writeManifest({copyRule(QStringLiteral("/new"))});
    PatchInspector inspector;
    QVERIFY(!inspector.inspect(patch()));
    writePayload(QStringLiteral("/new"), "new");
    QVERIFY(inspector.inspect(patch()));
    QCOMPARE(inspector.files().size(), 1);
    QVERIFY(inspector.inspect(patch()));
    QCOMPARE(inspector.files().size(), 1);
    m_tree->remove(QStringLiteral("patch/new"));
    QVERIFY(!inspector.inspect(patch()));
    QVERIFY(inspector.files().isEmpty());
}

void tst_PatchInspector::mutatedPatches_data()
{
    QTest::addColumn<quint32>("seed");
    for (quint32 seed = 1; seed <= 20; ++seed)
        QTest::newRow(QByteArray::number(seed)) << seed;
}

/// A damaged patch is either told to be one, with a path in it, or still makes the right sizes.
void tst_PatchInspector::mutatedPatches()
{
    QFETCH(quint32, seed);
    const QByteArray content = randomBytes(20000, seed);
    m_tree->write(QStringLiteral("old"), content);
    m_tree->write(QStringLiteral("new"), content.mid(5000) + "edit" + content.left(9000));
    const auto path = [&](const char *name) { return m_tree->path(QLatin1String(name)); };
    QVERIFY(Pellox::createSignature(path("old"), path("sig")));
    QVERIFY(Pellox::createDelta(path("sig"), path("new"), path("patch/delta")));
    const int newSize = 15000 + 4 + 9000;
    writeManifest({patchRule(QStringLiteral("/delta"), newSize)});
    const QByteArray delta = m_tree->read(QStringLiteral("patch/delta"));
    const QByteArray manifest = m_tree->read(QStringLiteral("patch/patchRules.json"));

    QRandomGenerator random(seed);
    const auto mutated = [&](QByteArray bytes) {
        const int at = random.bounded(bytes.size());
        if (random.bounded(3) == 0)
            bytes.truncate(at);
        else
            bytes[at] = static_cast<char>(random.bounded(256));
        return bytes;
    };
    int refused = 0;
    for (int round = 0; round < 60; ++round) {
        const bool inManifest = random.bounded(2) == 1;
        m_tree->write(
            QStringLiteral("patch/patchRules.json"), inManifest ? mutated(manifest) : manifest);
        writePayload(QStringLiteral("/delta"), inManifest ? delta : mutated(delta));
        PatchInspector inspector;
        const Listener listener(inspector);
        if (inspector.inspect(patch())) {
            QCOMPARE(listener.messages, QStringList());
            for (const InspectedFile &file : inspector.files())
                QCOMPARE(file.copiedBytes + file.literalBytes, file.newSize);
            continue;
        }
        ++refused;
        QVERIFY(!listener.messages.isEmpty());
        for (const QString &message : listener.messages)
            QVERIFY2(message.startsWith(patch(QStringLiteral("/"))), qPrintable(message));
    }
    QVERIFY(refused > 10);
}

void tst_PatchInspector::progressByRules()
{
    QJsonArray rules;
    for (int i = 0; i < 4; ++i)
        rules.append(deleteRule(QStringLiteral("/gone%1").arg(i)));
    writeManifest(rules);
    QVector<double> percents;
    const auto note = [&](double percent) { percents.append(percent); };
    PatchInspector inspector;
    QVERIFY(inspector.inspect(patch(), note));
    QCOMPARE(percents, (QVector<double>{0, 25, 50, 75, 100}));

    writeManifest({});
    percents.clear();
    QVERIFY(inspector.inspect(patch(), note));
    QCOMPARE(percents, (QVector<double>{0, 100}));
}

void tst_PatchInspector::callableOnAnyThread()
{
    writeManifest({copyRule(QStringLiteral("/missing"))});
    bool well = true;
    std::thread::id signalled;
    std::thread worker([&] {
        PatchInspector inspector;
        QObject::connect(&inspector, &PatchInspector::inspectError,
            [&](const QString &) { signalled = std::this_thread::get_id(); });
        well = inspector.inspect(patch());
    });
    const std::thread::id started = worker.get_id();
    worker.join();
    QVERIFY(!well);
    QVERIFY(signalled == started);
}

/// By the old build's signatures.
void tst_PatchInspector::oldContentOfNewFiles()
{
    const QByteArray content = randomBytes(20480, 1);
    m_tree->write(QStringLiteral("old/a"), content);
    m_tree->write(QStringLiteral("old/b"), "b");
    Pellox::SignaturesController().createSignatures(
        m_tree->path(QStringLiteral("old")), m_tree->path(QStringLiteral("sigs")));
    writeManifest({deleteRule(QStringLiteral("/a")), copyRule(QStringLiteral("/moved")),
        copyRule(QStringLiteral("/part")), copyRule(QStringLiteral("/new")),
        copyRule(QStringLiteral("/empty")), patchRule(QStringLiteral("/b"))});
    writePayload(QStringLiteral("/moved"), content);
    writePayload(QStringLiteral("/part"), "x" + content.left(10240));
    writePayload(QStringLiteral("/new"), randomBytes(5000, 2));
    writePayload(QStringLiteral("/empty"), QByteArray());
    writePayload(QStringLiteral("/b"), smallDelta());

    PatchInspector inspector;
    const Listener listener(inspector);
    inspector.setOldSignatures(m_tree->path(QStringLiteral("sigs/")));
    QVector<double> progress;
    QVERIFY2(inspector.inspect(patch(), [&](double percent) { progress.append(percent); }),
        qPrintable(listener.messages.join(QLatin1Char('\n'))));
    QVERIFY(std::is_sorted(progress.cbegin(), progress.cend()));
    QCOMPARE(progress.first(), 0.0);
    QCOMPARE(progress.last(), 100.0);
    QStringList found;
    for (const InspectedFile &file : inspector.files()) {
        QVERIFY(!file.isLeftOut && !file.isOldEstimated);
        found.append(QStringLiteral("%1 %2 %3 %4")
                         .arg(file.relativePath, file.oldPath, QString::number(file.oldBytes),
                             file.isMoved ? QStringLiteral("whole") : QString())
                         .simplified());
    }
    QCOMPARE(found,
        (QStringList{QStringLiteral("/a 0"), QStringLiteral("/moved /a 20480 whole"),
            QStringLiteral("/part /a 10240"), QStringLiteral("/new 0"), QStringLiteral("/empty 0"),
            QStringLiteral("/b 0")}));
    inspector.setOldSignatures(QString());
    QVERIFY(inspector.inspect(patch()));
    QCOMPARE(inspector.files().at(1).oldPath, QString());
}

void tst_PatchInspector::oldSignaturesThatWillNotDo()
{
    writeManifest({copyRule(QStringLiteral("/new"))});
    writePayload(QStringLiteral("/new"), randomBytes(5000, 1));
    PatchInspector inspector;
    const Listener listener(inspector);
    inspector.setOldSignatures(m_tree->path(QStringLiteral("sigs")));
    QVERIFY(!inspector.inspect(patch()));
    QCOMPARE(listener.paths, QStringList(m_tree->path(QStringLiteral("sigs/signatures.json"))));

    m_tree->write(QStringLiteral("sigs/signatures.json"),
        QJsonDocument(QJsonArray{with(rule(QString(), QStringLiteral("/old")), "sha512",
                          QString(128, QLatin1Char('b')))})
            .toJson());
    QVERIFY(!inspector.inspect(patch()));
    QCOMPARE(listener.paths.last(), m_tree->path(QStringLiteral("sigs/old")));
    QVERIFY(listener.messages.last().startsWith(listener.paths.last() + QLatin1String(": ")));
}

/// That of writeSealedPatch().
QByteArray tst_PatchInspector::sealedText() const
{
    const QByteArray sha512(128, 'a');
    const auto file = [&](const char *path, int size) {
        return QByteArray("{\"path\":\"") + path + "\",\"size\":" + QByteArray::number(size)
            + ",\"sha512\":\"" + sha512 + "\"}";
    };
    return R"({"format":"pellox-patch-seal","version":1,"release":1,"from":")" + sha512
        + R"(","to":")" + sha512 + R"(","files":[)" + file("/moved", 300) + ',' + file("/new", 5)
        + ',' + file("/patchRules.json", 1) + R"(],"rules":[{"path":"/moved","rule":"copy","size":)"
        + "300,\"sha512\":\"" + sha512 + R"(","source":"/old/place"},)"
        + R"({"path":"/new","rule":"copy","size":5,"sha512":")" + sha512 + R"("}]})";
}

/// Signed by nobody.
void tst_PatchInspector::writeSeal(const QByteArray &text) const
{
    QByteArray escaped = text;
    escaped.replace('"', "\\\"");
    m_tree->write(QStringLiteral("patch/patchSeal.json"),
        "{\"sealed\":\"" + escaped + R"(","signatures":[{"key":")" + QByteArray(64, '0')
            + R"(","signature":")" + QByteArray(64, 's').toBase64() + "\"}]}\n");
}

void tst_PatchInspector::writeSealedPatch() const
{
    writeManifest({copyRule(QStringLiteral("/moved")), copyRule(QStringLiteral("/new"))});
    writePayload(QStringLiteral("/moved"), QByteArray(300, 'm'));
    writePayload(QStringLiteral("/new"), "12345");
    writeSeal(sealedText());
}

void tst_PatchInspector::sealNamesWhatMoved()
{
    writeSealedPatch();
    PatchInspector inspector;
    QVERIFY(inspector.inspect(patch()));
    const InspectedFile moved = inspector.files().at(0);
    QCOMPARE(moved.oldPath, QStringLiteral("/old/place"));
    QCOMPARE(moved.oldBytes, qint64(300));
    QVERIFY(moved.isMoved && !moved.isLeftOut && !moved.isOldEstimated);
    QCOMPARE(moved.patchBytes, qint64(300));
    QCOMPARE(inspector.files().at(1).oldPath, QString());
    // What stands there is another file.
    writePayload(QStringLiteral("/moved"), "other");
    QVERIFY(inspector.inspect(patch()));
    QCOMPARE(inspector.files().at(0).oldPath, QString());
}

void tst_PatchInspector::slimPatch()
{
    writeSealedPatch();
    m_tree->remove(QStringLiteral("patch/moved"));
    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY2(inspector.inspect(patch()), qPrintable(listener.messages.join(QLatin1Char('\n'))));
    const InspectedFile moved = inspector.files().at(0);
    QVERIFY(moved.isLeftOut && moved.isMoved);
    QCOMPARE(moved.oldPath, QStringLiteral("/old/place"));
    QCOMPARE(moved.newSize, qint64(300));
    QCOMPARE(moved.copiedBytes, qint64(300));
    QCOMPARE(moved.literalBytes + moved.patchBytes + moved.commands, qint64(0));
    QVERIFY(!inspector.files().at(1).isLeftOut);
}

void tst_PatchInspector::nothingElseMayBeLeftOut_data()
{
    QTest::addColumn<QString>("missing");
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::newRow("without a source") << QStringLiteral("/new") << QByteArray() << QByteArray();
    QTest::newRow("without a seal") << QStringLiteral("/moved") << QByteArray("pellox-patch-seal")
                                    << QByteArray("another format");
    QTest::newRow("by a seal of another form")
        << QStringLiteral("/moved") << QByteArray("\"release\":1") << QByteArray("\"release\": 1");
    QTest::newRow("by a source that climbs")
        << QStringLiteral("/moved") << QByteArray("/old/place") << QByteArray("/../place");
}

void tst_PatchInspector::nothingElseMayBeLeftOut()
{
    QFETCH(QString, missing);
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    writeSealedPatch();
    QByteArray text = sealedText();
    if (!before.isEmpty())
        writeSeal(text.replace(before, after));
    m_tree->remove(QStringLiteral("patch") + missing);
    PatchInspector inspector;
    const Listener listener(inspector);
    QVERIFY(!inspector.inspect(patch()));
    QCOMPARE(listener.messages,
        QStringList(patch(missing) + QLatin1String(": is missing from the patch")));
}

QTEST_GUILESS_MAIN(tst_PatchInspector)
#include "tst_patchinspector.moc"
