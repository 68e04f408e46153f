// SPDX-License-Identifier: MIT
#include "logcapture.h"
#include "patience.h"
#include "qtversion.h"
#include "testtree.h"

#include <Pellox/patchhelp.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QtConcurrent>
#include <QtEndian>
#include <QTest>
#include <QTextCodec>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <type_traits>
#include <utility>

using Progress = std::function<void(qint64, qint64)>;

static_assert(std::is_same_v<decltype(Pellox::rs_progress::reserved), quint64>);
static_assert(std::is_same_v<decltype(Pellox::rs_progress::user), void *>);
static_assert(std::is_same_v<decltype(Pellox::rs_progress::done), qint64>);
static_assert(std::is_same_v<decltype(Pellox::rs_progress::total), qint64>);
static_assert(offsetof(Pellox::rs_progress, reserved) < offsetof(Pellox::rs_progress, user));
static_assert(offsetof(Pellox::rs_progress, user) < offsetof(Pellox::rs_progress, done));
static_assert(offsetof(Pellox::rs_progress, done) < offsetof(Pellox::rs_progress, total));

namespace {

constexpr int OddSizes[] = {0, 1, 2, 3, 7, 15, 2047, 2048, 2049, 4096, 65535, 65537, 200000};

quint32 numberAt(const QByteArray &bytes, int offset)
{
    return qFromBigEndian<quint32>(bytes.constData() + offset);
}

/// A changed copy of @p content, the same for the same @p seed: pieces of it are overwritten,
/// put in, cut out, moved and repeated.
QByteArray mutated(QByteArray content, quint32 seed)
{
    QRandomGenerator random(seed);
    const int edits = 1 + random.bounded(4);
    for (int edit = 0; edit < edits; ++edit) {
        const int at = random.bounded(content.size() + 1);
        const int length = random.bounded(qMax(content.size() / 4, 2));
        switch (random.bounded(5)) {
        case 0:
            content.replace(at, qMin(length, content.size() - at), randomBytes(length, seed));
            break;
        case 1:
            content.insert(at, randomBytes(length, seed + 1));
            break;
        case 2:
            content.remove(at, length);
            break;
        case 3:
            content.append(content.mid(at, length));
            content.remove(at, length);
            break;
        default:
            content.insert(at, content.mid(random.bounded(content.size() + 1), length));
        }
    }
    return content;
}

struct Step
{
    qint64 done;
    qint64 total;
};

/// Switches the codec of the local 8-bit encoding while it lives.
class LocaleCodec
{
public:
    explicit LocaleCodec(const char *name)
        : m_previous(QTextCodec::codecForLocale())
    {
        QTextCodec::setCodecForLocale(QTextCodec::codecForName(name));
    }
    ~LocaleCodec() { QTextCodec::setCodecForLocale(m_previous); }
    LocaleCodec(const LocaleCodec &) = delete;
    LocaleCodec &operator=(const LocaleCodec &) = delete;

private:
    QTextCodec *m_previous;
};

} // namespace

/// What the delta primitives do when all goes well; tst_patchhelpfailures shows the rest.
class tst_PatchHelp : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void signatureFormat_data();
    void signatureFormat();
    void deltaFormat_data();
    void deltaFormat();
    void unchangedContentIsNotInTheDelta();
    void sameFilesAsRdiff_data();
    void sameFilesAsRdiff();
    void signaturesOfOtherKindsAreRead_data();
    void signaturesOfOtherKindsAreRead();

    void oddSizesMakeTheRoundTrip_data();
    void oddSizesMakeTheRoundTrip();
    void mutatedContentMakesTheRoundTrip_data();
    void mutatedContentMakesTheRoundTrip();

    void expectedSizeIsNotUsed_data();
    void expectedSizeIsNotUsed();
    void progressIsNeverCalled();
    void emptyProgressIsNotCalledEither();

    void existingOutputIsReplaced_data();
    void existingOutputIsReplaced();
    void outputThroughADanglingLinkIsCreated();
    void inputsAreNotChanged();

    void cStringsAndUnicodeStringsDoTheSame();
    void unicodePathEndsAtItsFirstNul();
    void unicodePathIsInTheLocalEncoding_data();
    void unicodePathIsInTheLocalEncoding();
    void dashIsAFileOfThatName();

    void manyThreadsAtOnce();

    void callbackGetsBothCountersInOrder_data();
    void callbackGetsBothCountersInOrder();
    void callbackIgnoresTheFirstWord();
    void callbackWithoutUserPointerDoesNothing();
    void callbackWithoutRecordDoesNothing();
    void emptyCallableThrows();

private:
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }
    void write(const char *relative, const QByteArray &content) const
    {
        m_tree->write(QLatin1String(relative), content);
    }
    QByteArray read(const char *relative) const { return m_tree->read(QLatin1String(relative)); }
    /// "old" and "new" become "signature", "delta" and "patched".
    void runAll() const;
    /// Runs the rdiff program in the test folder.
    void rdiff(const QStringList &arguments) const;

    std::unique_ptr<TestTree> m_tree;
    std::unique_ptr<LogCapture> m_log;
};

void tst_PatchHelp::init()
{
    m_tree = std::make_unique<TestTree>();
    m_log = std::make_unique<LogCapture>();
}

void tst_PatchHelp::cleanup()
{
    QDir::setCurrent(QDir::rootPath());
    QCOMPARE(m_log->troubleLeft(), QStringList());
    QCOMPARE(m_log->takeAll("PatchHelper"), QStringList());
    m_log.reset();
    // Qt alone cannot remove a file whose name is in another encoding.
    std::filesystem::remove_all(QFile::encodeName(m_tree->path()).toStdString());
    m_tree.reset();
}

void tst_PatchHelp::runAll() const
{
    QVERIFY(Pellox::createSignature(path("old"), path("signature")));
    QVERIFY(Pellox::createDelta(path("signature"), path("new"), path("delta")));
    QVERIFY(Pellox::applyPatch(
        path("old"), path("delta"), path("patched"), QFileInfo(path("new")).size(), nullptr));
}

void tst_PatchHelp::rdiff(const QStringList &arguments) const
{
    QProcess process;
    process.setWorkingDirectory(m_tree->path());
    process.start(QStringLiteral(RDIFF_PROGRAM), arguments);
    QVERIFY2(process.waitForFinished(Patience), qPrintable(process.errorString()));
    QVERIFY2(process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0,
        process.readAllStandardError().constData());
}

void tst_PatchHelp::signatureFormat_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("blocks");

    QTest::newRow("empty file") << 0 << 0;
    QTest::newRow("one byte") << 1 << 1;
    QTest::newRow("one short of a block") << 2047 << 1;
    QTest::newRow("a block") << 2048 << 1;
    QTest::newRow("one over a block") << 2049 << 2;
    QTest::newRow("many blocks") << 200000 << 98;
}

void tst_PatchHelp::signatureFormat()
{
    QFETCH(int, size);
    QFETCH(int, blocks);
    write("old", randomBytes(size, 1));
    QVERIFY(Pellox::createSignature(path("old"), path("signature")));

    const QByteArray signature = read("signature");
    QCOMPARE(numberAt(signature, 0), 0x72730137U);
    QCOMPARE(numberAt(signature, 4), 2048U);
    QCOMPARE(numberAt(signature, 8), 32U);
    // A weak sum of 4 bytes and a strong sum of 32 for each block.
    QCOMPARE(signature.size(), 12 + blocks * 36);
}

void tst_PatchHelp::deltaFormat_data()
{
    QTest::addColumn<QByteArray>("oldContent");
    QTest::addColumn<QByteArray>("newContent");
    QTest::addColumn<QByteArray>("delta");

    const QByteArray block(2048, 'a');
    QTest::newRow("nothing from nothing")
        << QByteArray("") << QByteArray("") << QByteArray::fromHex("72730236 00");
    QTest::newRow("nothing from something")
        << QByteArray("old") << QByteArray("") << QByteArray::fromHex("72730236 00");
    QTest::newRow("new content only")
        << QByteArray("") << QByteArray("abc") << QByteArray::fromHex("72730236 03 616263 00");
    QTest::newRow("a copied block")
        << block << block << QByteArray::fromHex("72730236 46 00 0800 00");
    QTest::newRow("a copied block and new content")
        << block << block + "abc" << QByteArray::fromHex("72730236 46 00 0800 03 616263 00");
}

void tst_PatchHelp::deltaFormat()
{
    QFETCH(QByteArray, oldContent);
    QFETCH(QByteArray, newContent);
    QFETCH(QByteArray, delta);
    write("old", oldContent);
    write("new", newContent);
    runAll();
    QCOMPARE(read("delta").toHex(), delta.toHex());
    QCOMPARE(read("patched"), newContent);
}

void tst_PatchHelp::unchangedContentIsNotInTheDelta()
{
    const QByteArray content = randomBytes(200000, 1);
    write("old", content);
    write("new", content.left(50000) + "in the middle" + content.mid(50000));
    runAll();
    QVERIFY2(read("delta").size() < 2100, QByteArray::number(read("delta").size()).constData());
}

void tst_PatchHelp::sameFilesAsRdiff_data()
{
    QTest::addColumn<QByteArray>("oldContent");
    QTest::addColumn<QByteArray>("newContent");

    const QByteArray large = randomBytes(200000, 1);
    QTest::newRow("both empty") << QByteArray("") << QByteArray("");
    QTest::newRow("from empty") << QByteArray("") << randomBytes(70000, 2);
    QTest::newRow("to empty") << large << QByteArray("");
    QTest::newRow("unchanged") << large << large;
    QTest::newRow("unrelated") << large << randomBytes(100001, 3);
    QTest::newRow("one block") << large.left(2048) << large.left(2048);
    QTest::newRow("short last block") << large.left(4097) << large.mid(2048, 2049);
    QTest::newRow("zeros") << QByteArray(150000, '\0') << QByteArray(100001, '\0');
    for (const int size : {1, 15, 2049, 65537, 200000}) {
        for (quint32 seed = 1; seed <= 3; ++seed)
            QTest::addRow("%d bytes, mutation %u", size, seed)
                << large.left(size) << mutated(large.left(size), seed);
    }
}

void tst_PatchHelp::sameFilesAsRdiff()
{
    QFETCH(QByteArray, oldContent);
    QFETCH(QByteArray, newContent);
    write("old", oldContent);
    write("new", newContent);
    runAll();
    rdiff({QStringLiteral("-b2048"), QStringLiteral("-S0"), QStringLiteral("-Hblake2"),
        QStringLiteral("-Rrollsum"), QStringLiteral("signature"), QStringLiteral("old"),
        QStringLiteral("rdiff signature")});
    rdiff({QStringLiteral("delta"), QStringLiteral("signature"), QStringLiteral("new"),
        QStringLiteral("rdiff delta")});
    rdiff({QStringLiteral("patch"), QStringLiteral("old"), QStringLiteral("delta"),
        QStringLiteral("rdiff patched")});
    QVERIFY(read("signature") == read("rdiff signature"));
    QVERIFY(read("delta") == read("rdiff delta"));
    QVERIFY(read("patched") == read("rdiff patched"));
}

void tst_PatchHelp::signaturesOfOtherKindsAreRead_data()
{
    QTest::addColumn<QStringList>("options");

    QTest::newRow("rdiff's default") << QStringList();
    QTest::newRow("MD4") << QStringList(QStringLiteral("-Hmd4"));
    QTest::newRow("other block length") << QStringList(QStringLiteral("-b999"));
    QTest::newRow("short strong sums") << QStringList(QStringLiteral("-S8"));
}

void tst_PatchHelp::signaturesOfOtherKindsAreRead()
{
    QFETCH(QStringList, options);
    const QByteArray content = randomBytes(20000, 1);
    write("old", content);
    write("new", mutated(content, 2));
    rdiff(options
        + QStringList{
            QStringLiteral("signature"), QStringLiteral("old"), QStringLiteral("signature")});
    QVERIFY(Pellox::createDelta(path("signature"), path("new"), path("delta")));
    QVERIFY(Pellox::applyPatch(path("old"), path("delta"), path("patched"), 0, nullptr));
    QVERIFY(read("patched") == read("new"));
}

void tst_PatchHelp::oddSizesMakeTheRoundTrip_data()
{
    QTest::addColumn<int>("oldSize");

    for (const int size : OddSizes)
        QTest::addRow("%d bytes", size) << size;
}

void tst_PatchHelp::oddSizesMakeTheRoundTrip()
{
    QFETCH(int, oldSize);
    const QByteArray content = randomBytes(200000, 1);
    write("old", content.left(oldSize));
    for (const int newSize : OddSizes) {
        const QByteArray unrelated = randomBytes(newSize, 2);
        for (const QByteArray &wanted :
            {content.left(newSize), content.mid(content.size() - newSize), unrelated}) {
            write("new", wanted);
            runAll();
            QVERIFY2(read("patched") == wanted, QByteArray::number(newSize).constData());
        }
    }
}

void tst_PatchHelp::mutatedContentMakesTheRoundTrip_data()
{
    QTest::addColumn<QByteArray>("oldContent");
    QTest::addColumn<QByteArray>("newContent");

    for (const int size : OddSizes) {
        const QByteArray content = randomBytes(size, 1);
        for (quint32 seed = 1; seed <= 8; ++seed)
            QTest::addRow("%d bytes, mutation %u", size, seed) << content << mutated(content, seed);
    }
}

void tst_PatchHelp::mutatedContentMakesTheRoundTrip()
{
    QFETCH(QByteArray, oldContent);
    QFETCH(QByteArray, newContent);
    write("old", oldContent);
    write("new", newContent);
    runAll();
    QVERIFY(read("patched") == newContent);

    write("old", newContent);
    write("new", oldContent);
    runAll();
    QVERIFY(read("patched") == oldContent);
}

void tst_PatchHelp::expectedSizeIsNotUsed_data()
{
    QTest::addColumn<qint64>("fileSize");

    QTest::newRow("right") << qint64(5000);
    QTest::newRow("none") << qint64(0);
    QTest::newRow("too small") << qint64(1);
    QTest::newRow("too large") << qint64(5001);
    QTest::newRow("negative") << qint64(-1);
    QTest::newRow("lowest") << std::numeric_limits<qint64>::min();
    QTest::newRow("highest") << std::numeric_limits<qint64>::max();
}

void tst_PatchHelp::expectedSizeIsNotUsed()
{
    QFETCH(qint64, fileSize);
    write("old", randomBytes(4000, 1));
    write("new", randomBytes(5000, 1));
    runAll();
    QVERIFY(Pellox::applyPatch(path("old"), path("delta"), path("patched"), fileSize, nullptr));
    QVERIFY(read("patched") == read("new"));
}

void tst_PatchHelp::progressIsNeverCalled()
{
    QList<Step> steps;
    Progress progress = [&](qint64 done, qint64 total) { steps.append({done, total}); };
    write("old", randomBytes(200000, 1));
    write("new", mutated(read("old"), 2));
    runAll();
    QVERIFY(
        Pellox::applyPatch(path("old"), path("delta"), path("with progress"), 200000, &progress));
    QVERIFY(read("with progress") == read("patched"));
    QCOMPARE(steps.size(), 0);
}

void tst_PatchHelp::emptyProgressIsNotCalledEither()
{
    Progress progress;
    write("old", "old content");
    write("new", "new content");
    runAll();
    QVERIFY(Pellox::applyPatch(path("old"), path("delta"), path("patched"), 11, &progress));
    QCOMPARE(read("patched"), QByteArray("new content"));
}

void tst_PatchHelp::existingOutputIsReplaced_data()
{
    QTest::addColumn<QByteArray>("before");

    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("shorter") << QByteArray("x");
    QTest::newRow("longer") << QByteArray(300000, 'x');
}

void tst_PatchHelp::existingOutputIsReplaced()
{
    QFETCH(QByteArray, before);
    write("old", randomBytes(5000, 1));
    write("new", mutated(read("old"), 2));
    runAll();
    const auto expected = TestTree::snapshot(m_tree->path());
    for (const char *output : {"signature", "delta", "patched"})
        write(output, before);
    runAll();
    QCOMPARE(TestTree::snapshot(m_tree->path()), expected);
}

void tst_PatchHelp::outputThroughADanglingLinkIsCreated()
{
    write("old", "old content");
    write("new", "new content");
    m_tree->link(QStringLiteral("patched"), path("elsewhere"));
    runAll();
    QCOMPARE(read("elsewhere"), QByteArray("new content"));
    QVERIFY(QFileInfo(path("patched")).isSymLink());
}

void tst_PatchHelp::inputsAreNotChanged()
{
    const QByteArray oldContent = randomBytes(5000, 1);
    const QByteArray newContent = mutated(oldContent, 2);
    write("old", oldContent);
    write("new", newContent);
    QVERIFY(Pellox::createSignature(path("old"), path("signature")));
    const QByteArray signature = read("signature");
    QVERIFY(Pellox::createDelta(path("signature"), path("new"), path("delta")));
    const QByteArray delta = read("delta");
    QVERIFY(Pellox::applyPatch(path("old"), path("delta"), path("patched"), 0, nullptr));
    QCOMPARE(TestTree::snapshot(m_tree->path()),
        (QMap<QString, QByteArray>{{QStringLiteral("old"), oldContent},
            {QStringLiteral("new"), newContent}, {QStringLiteral("signature"), signature},
            {QStringLiteral("delta"), delta}, {QStringLiteral("patched"), newContent}}));
}

void tst_PatchHelp::cStringsAndUnicodeStringsDoTheSame()
{
    write("old", randomBytes(5000, 1));
    write("new", mutated(read("old"), 2));
    runAll();
    QDir::setCurrent(m_tree->path());
    QVERIFY(Pellox::createSignature("old", "c signature"));
    QVERIFY(Pellox::createDelta("c signature", "new", "c delta"));
    QVERIFY(Pellox::applyPatch("old", "c delta", "c patched", 5000, nullptr));
    QVERIFY(read("c signature") == read("signature"));
    QVERIFY(read("c delta") == read("delta"));
    QVERIFY(read("c patched") == read("patched"));
}

void tst_PatchHelp::unicodePathEndsAtItsFirstNul()
{
    const QString tail = QChar(QChar::Null) + QStringLiteral("tail");
    write("old", "old content");
    write("new", "new content");
    QVERIFY(Pellox::createSignature(path("old") + tail, path("signature") + tail));
    QVERIFY(
        Pellox::createDelta(path("signature") + tail, path("new") + tail, path("delta") + tail));
    QVERIFY(Pellox::applyPatch(
        path("old") + tail, path("delta") + tail, path("patched") + tail, 11, nullptr));
    QCOMPARE(QDir(m_tree->path()).entryList(QDir::Files),
        (QStringList{QStringLiteral("delta"), QStringLiteral("new"), QStringLiteral("old"),
            QStringLiteral("patched"), QStringLiteral("signature")}));
    QCOMPARE(read("patched"), QByteArray("new content"));
}

void tst_PatchHelp::unicodePathIsInTheLocalEncoding_data()
{
    QTest::addColumn<QByteArray>("codec");
    QTest::addColumn<QByteArray>("nameOnDisk");

    const QByteArray utf8("gr\xc3\xbc\xc3\x9f"
                          "e");
    const QByteArray latin1("gr\xfc\xdf"
                            "e");
    QTest::newRow("UTF-8") << QByteArray("UTF-8") << utf8;
    QTest::newRow("Latin-1") << QByteArray("ISO 8859-1") << (LocalEncodingIsUtf8 ? utf8 : latin1);
}

void tst_PatchHelp::unicodePathIsInTheLocalEncoding()
{
    QFETCH(QByteArray, codec);
    QFETCH(QByteArray, nameOnDisk);
    const QString name = QStringLiteral("grüße");
    QDir::setCurrent(m_tree->path());
    const LocaleCodec locale(codec.constData());
    const QByteArray signature = nameOnDisk + ".signature";
    const QByteArray delta = nameOnDisk + ".delta";

    write("plain", "content");
    QVERIFY(Pellox::createSignature("plain", "signature"));
    QVERIFY(Pellox::createDelta("signature", "plain", "delta"));
    QVERIFY(Pellox::applyPatch("plain", "delta", nameOnDisk.constData(), 7, nullptr));

    QVERIFY(Pellox::createSignature(name, name + QLatin1String(".signature")));
    QVERIFY(Pellox::createDelta(
        name + QLatin1String(".signature"), name, name + QLatin1String(".delta")));
    QVERIFY(Pellox::applyPatch(
        name, name + QLatin1String(".delta"), name + QLatin1String(".patched"), 7, nullptr));
    for (const char *ending : {".signature", ".delta", ".patched"})
        QVERIFY2(Pellox::createSignature((nameOnDisk + ending).constData(), "again"), ending);
}

void tst_PatchHelp::dashIsAFileOfThatName()
{
    const QString dash = QStringLiteral("-");
    QDir::setCurrent(m_tree->path());
    write("-", "old content");
    write("new", "new content");
    write("signature", "");
    QVERIFY(Pellox::createSignature("-", "signature"));
    QCOMPARE(read("signature").size(), 12 + 36);

    QVERIFY(Pellox::createSignature("new", "-"));
    QVERIFY(Pellox::createDelta(dash, QStringLiteral("new"), QStringLiteral("delta")));
    QCOMPARE(read("-").size(), 12 + 36);

    QVERIFY(Pellox::createDelta("signature", "new", "-"));
    QVERIFY(Pellox::applyPatch("new", "-", "patched", 11, nullptr));
    QCOMPARE(read("patched"), QByteArray("new content"));

    QVERIFY(Pellox::applyPatch(QStringLiteral("new"), QStringLiteral("delta"), dash, 11, nullptr));
    QCOMPARE(read("-"), QByteArray("new content"));
    QVERIFY(Pellox::createDelta("signature", "-", "delta"));
    QVERIFY(Pellox::applyPatch("-", "delta", "patched", 11, nullptr));
    QCOMPARE(read("patched"), QByteArray("new content"));
}

void tst_PatchHelp::manyThreadsAtOnce()
{
    const QByteArray content = randomBytes(65537, 1);
    QList<quint32> seeds;
    for (quint32 seed = 1; seed <= 64; ++seed)
        seeds.append(seed);
    write("shared", content);
    const auto at = [this](quint32 seed, const char *name) {
        return m_tree->path(QString::number(seed) + QLatin1Char(' ') + QLatin1String(name));
    };
    const std::function<bool(const quint32 &)> run = [&](const quint32 &seed) {
        m_tree->write(QStringLiteral("%1 new").arg(seed), mutated(content, seed));
        return Pellox::createSignature(path("shared"), at(seed, "signature"))
            && Pellox::createDelta(at(seed, "signature"), at(seed, "new"), at(seed, "delta"))
            && Pellox::applyPatch(
                path("shared"), at(seed, "delta"), at(seed, "patched"), 0, nullptr);
    };
    const QList<bool> results = QtConcurrent::blockingMapped<QList<bool>>(seeds, run);
    QCOMPARE(results.count(true), seeds.size());
    for (const quint32 seed : std::as_const(seeds)) {
        QVERIFY2(m_tree->read(QStringLiteral("%1 patched").arg(seed)) == mutated(content, seed),
            QByteArray::number(seed).constData());
    }
}

void tst_PatchHelp::callbackGetsBothCountersInOrder_data()
{
    QTest::addColumn<qint64>("done");
    QTest::addColumn<qint64>("total");

    QTest::newRow("begun") << qint64(1) << qint64(2);
    QTest::newRow("nothing to do") << qint64(0) << qint64(0);
    QTest::newRow("done is above the total") << qint64(7) << qint64(3);
    QTest::newRow("negative") << qint64(-1) << qint64(-2);
    QTest::newRow("ends of the range")
        << std::numeric_limits<qint64>::min() << std::numeric_limits<qint64>::max();
}

void tst_PatchHelp::callbackGetsBothCountersInOrder()
{
    QFETCH(qint64, done);
    QFETCH(qint64, total);
    QList<Step> steps;
    Progress progress = [&](qint64 first, qint64 second) { steps.append({first, second}); };
    Pellox::rs_progress record{0, &progress, done, total};
    Pellox::onCallBac(&record);
    QCOMPARE(steps.size(), 1);
    QCOMPARE(steps.first().done, done);
    QCOMPARE(steps.first().total, total);
}

void tst_PatchHelp::callbackIgnoresTheFirstWord()
{
    QList<Step> steps;
    Progress progress = [&](qint64 first, qint64 second) { steps.append({first, second}); };
    Pellox::rs_progress record{std::numeric_limits<quint64>::max(), &progress, 1, 2};
    Pellox::onCallBac(&record);
    QCOMPARE(steps.size(), 1);
    QCOMPARE(steps.first().done, qint64(1));
    QCOMPARE(steps.first().total, qint64(2));
}

void tst_PatchHelp::callbackWithoutUserPointerDoesNothing()
{
    Pellox::rs_progress record{9, nullptr, 1, 2};
    Pellox::onCallBac(&record);
    QCOMPARE(record.reserved, quint64(9));
    QCOMPARE(record.user, static_cast<void *>(nullptr));
    QCOMPARE(record.done, qint64(1));
    QCOMPARE(record.total, qint64(2));
}

void tst_PatchHelp::callbackWithoutRecordDoesNothing()
{
    Pellox::onCallBac(nullptr);
    QCOMPARE(m_log->takeAll("PatchHelper"), QStringList());
}

void tst_PatchHelp::emptyCallableThrows()
{
    Progress empty;
    Pellox::rs_progress record{0, &empty, 1, 2};
    QVERIFY_EXCEPTION_THROWN(Pellox::onCallBac(&record), std::bad_function_call);
}

QTEST_GUILESS_MAIN(tst_PatchHelp)
#include "tst_patchhelp.moc"
