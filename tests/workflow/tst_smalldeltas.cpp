// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "memorylimit.h"
#include "patience.h"
#include "randombuild.h"
#include "testtree.h"

#include <Pellox/deltacontroller.h>
#include <Pellox/patchhelp.h>
#include <Pellox/publishcontroller.h>
#include <Pellox/signaturescontroller.h>

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

#include <atomic>
#include <functional>
#include <optional>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

using Pellox::PublishController;
using Effort = PublishController::DeltaEffort;

namespace {

/// A file whose bytes are other ones from some reading on, as those of a failing disk.
struct FailingDisk
{
    std::atomic<ino_t> file{0};
    std::atomic<int> goodReadings{0};
};
FailingDisk failingDisk;

} // namespace

/// The library's, in front of the system's own.
extern "C" ssize_t pread(int handle, void *buffer, size_t size, off_t position)
{
    static const auto real
        = reinterpret_cast<ssize_t (*)(int, void *, size_t, off_t)>(dlsym(RTLD_NEXT, "pread"));
    const ssize_t got = real(handle, buffer, size, position);
    struct stat status = {};
    if (got > 0 && failingDisk.file != 0 && ::fstat(handle, &status) == 0
        && status.st_ino == failingDisk.file && failingDisk.goodReadings-- <= 0)
        static_cast<char *>(buffer)[0] ^= 1;
    return got;
}

namespace {

constexpr int KiB = 1024;
constexpr int MiB = 1024 * KiB;

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

/// Text of words, so that short pieces of it are everywhere.
QByteArray words(int size, quint32 seed)
{
    const QByteArray random = randomBytes(size, seed);
    QByteArray text;
    for (int i = 0; text.size() < size; ++i) {
        const auto word = static_cast<uchar>(random[i]) % 64;
        text += "word" + QByteArray::number(word) + (word % 8 == 0 ? "\n" : " ");
    }
    return text.left(size);
}

/// One file "file" of two builds.
class Pair
{
public:
    Pair(const QByteArray &before, const QByteArray &after)
    {
        m_tree.write("old/file"_s, before);
        m_tree.write("new/file"_s, after);
        sign();
        QObject::connect(&publisher, &PublishController::publishError, &publisher,
            [this](const QString &message) { errors.append(message); });
        publisher.setOldBuild(path("old"_s));
    }

    void sign()
    {
        Pellox::SignaturesController().createSignatures(path("old"_s), path("signatures"_s));
    }

    QString path(const QString &relative) const { return m_tree.path(relative); }
    const TestTree &tree() const { return m_tree; }

    bool publish()
    {
        return publisher.publish(
            path("new"_s), path("signatures"_s), path("patch"_s), path("signatures of new"_s));
    }

    QByteArray delta() const { return m_tree.read("patch/file"_s); }
    QByteArray rebuilt() const
    {
        const qint64 size = m_tree.read("new/file"_s).size();
        return Pellox::applyPatch(
                   path("old/file"_s), path("patch/file"_s), path("rebuilt"_s), size, nullptr)
            ? m_tree.read("rebuilt"_s)
            : QByteArray("cannot be applied");
    }

    PublishController publisher;
    QStringList errors;

private:
    const TestTree m_tree;
};

bool rebuildsByRdiff(const QString &oldFile, const QString &delta, const QString &newFile)
{
    // Into a pipe: files above 4 GiB are as large as they look there.
    QProcess rdiff;
    QProcess compare;
    rdiff.setStandardOutputProcess(&compare);
    rdiff.start(QStringLiteral(RDIFF_PROGRAM), {"patch"_s, oldFile, delta, "-"_s});
    compare.start("cmp"_s, {"-"_s, newFile});
    constexpr int Milliseconds = 300000;
    const bool ended = rdiff.waitForFinished(Milliseconds) && compare.waitForFinished(Milliseconds);
    return ended && rdiff.exitCode() == 0 && compare.exitCode() == 0;
}

/// A release of @p seed through the core and with the old build at hand. What went wrong, or
/// nothing.
QString compareRelease(quint64 seed, RandomSizes sizes, Effort effort, int threads)
{
    const RandomRelease release = randomRelease(seed, sizes);
    const TestTree tree;
    layBuild(release.before, tree.path("1.0"_s));
    layBuild(release.after, tree.path("1.1"_s));
    Pellox::SignaturesController core;
    core.createSignatures(tree.path("1.0"_s), tree.path("signatures of 1.0"_s));
    core.createSignatures(tree.path("1.1"_s), tree.path("signatures of 1.1"_s));
    QStringList ignored;
    for (const QString &path : release.ignored)
        ignored.append(tree.path("1.1/"_s + path));
    if (!Pellox::DeltaController().createPatch(tree.path("1.1"_s), tree.path("signatures of 1.0"_s),
            tree.path("core"_s), ignored, PROGRESS_CALLBACK()))
        return "the core fails"_s;

    PublishController publisher;
    publisher.setThreadCount(threads);
    publisher.setOldBuild(tree.path("1.0"_s));
    publisher.setDeltaEffort(effort);
    QString error;
    QObject::connect(&publisher, &PublishController::publishError, &publisher,
        [&](const QString &message) { error = message; });
    if (!publisher.publish(tree.path("1.1"_s), tree.path("signatures of 1.0"_s),
            tree.path("patch"_s), tree.path("signatures"_s), ignored))
        return "publish fails: "_s + error;
    if (TestTree::snapshot(tree.path("signatures"_s))
        != TestTree::snapshot(tree.path("signatures of 1.1"_s)))
        return "the signatures are others than the core's"_s;
    if (tree.read("patch/patchRules.json"_s) != tree.read("core/patchRules.json"_s))
        return "the rules are others than the core's"_s;

    qint64 bytes = 0;
    qint64 bytesOfCore = 0;
    const QJsonArray rules = QJsonDocument::fromJson(tree.read("patch/patchRules.json"_s)).array();
    for (const QJsonValue &rule : rules) {
        const QString path = rule["relative_path"_s].toString();
        const QByteArray content = contentOf(tree.path("1.1"_s) + path);
        if (rule["rule"_s] == "copy"_s && tree.read("patch"_s + path) != content)
            return "the copy is wrong: "_s + path;
        if (rule["rule"_s] != "patch"_s)
            continue;
        const QString oldFile = tree.path("1.0"_s) + path;
        const QString delta = tree.path("patch"_s) + path;
        if (!Pellox::applyPatch(oldFile, delta, tree.path("rebuilt"_s), content.size(), nullptr)
            || tree.read("rebuilt"_s) != content)
            return "the delta is wrong: "_s + path;
        if (seed % 4 == 0 && !rebuildsByRdiff(oldFile, delta, tree.path("1.1"_s) + path))
            return "rdiff cannot apply the delta: "_s + path;
        bytes += contentOf(delta).size();
        bytesOfCore += tree.read("core"_s + path).size();
    }
    return bytes <= bytesOfCore || effort == Effort::Fastest
        ? QString()
        : "the deltas are larger than the core's: %1 against %2"_s.arg(bytes).arg(bytesOfCore);
}

int numberFromEnvironment(const char *name, int otherwise)
{
    bool isNumber = false;
    const int number = qEnvironmentVariableIntValue(name, &isNumber);
    return isNumber ? number : otherwise;
}

} // namespace

Q_DECLARE_METATYPE(Effort)
Q_DECLARE_METATYPE(RandomSizes)

/// Deltas made from the old build itself. PELLOX_TREES says how many releases are generated; with
/// PELLOX_HUGE files above 4 GiB are among them.
class tst_SmallDeltas : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_log.emplace(); }
    void cleanup();

    void everyDeltaMakesTheNewFile_data();
    void everyDeltaMakesTheNewFile();
    void deltasAreTheSameForAnyNumberOfThreads();

    void whatIsOldIsNotSentAgain_data();
    void whatIsOldIsNotSentAgain();
    void largeFilesAreSearchedAsWhole();
    void lessMemoryMakesLargerDeltas();
    void memoryIsEnoughForAllThreads_data();
    void memoryIsEnoughForAllThreads();
    void filesAbove4GiB();

    void deltaThatDoesNotMakeTheNewFile();
    void oldFileThatWasNotSigned();
    void oldFileThatIsNoFile();
    void anOlderReleaseStaysWhereAnOldFileIsMissing();
    void oldBuildThatIsNotThere();
    void oldBuildInsideOfThePatch();
    void withoutVerification();
    void settingsAreKept();
    void movedFilesAreTold();

private:
    std::optional<LogCapture> m_log;
};

void tst_SmallDeltas::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_SmallDeltas::everyDeltaMakesTheNewFile_data()
{
    QTest::addColumn<Effort>("effort");
    QTest::addColumn<RandomSizes>("sizes");
    QTest::addColumn<int>("releases");
    const int releases = numberFromEnvironment("PELLOX_TREES", 16);
    QTest::newRow("fastest") << Effort::Fastest << RandomSizes::Small << releases;
    QTest::newRow("balanced") << Effort::Balanced << RandomSizes::Small << 2 * releases;
    QTest::newRow("smallest") << Effort::Smallest << RandomSizes::Small << releases;
    QTest::newRow("fastest, large") << Effort::Fastest << RandomSizes::Large << releases / 4;
    QTest::newRow("balanced, large") << Effort::Balanced << RandomSizes::Large << releases / 2;
    QTest::newRow("smallest, large") << Effort::Smallest << RandomSizes::Large << releases / 8;
}

void tst_SmallDeltas::everyDeltaMakesTheNewFile()
{
    QFETCH(Effort, effort);
    QFETCH(RandomSizes, sizes);
    QFETCH(int, releases);
    for (int seed = numberFromEnvironment("PELLOX_SEED", 1); seed <= releases; ++seed) {
        const QString difference
            = compareRelease(static_cast<quint64>(seed), sizes, effort, seed % 3 + 1);
        QVERIFY2(difference.isEmpty(),
            qPrintable("seed %1: %2"_s.arg(QString::number(seed), difference)));
    }
}

void tst_SmallDeltas::deltasAreTheSameForAnyNumberOfThreads()
{
    const QByteArray before = words(5 * MiB, 1);
    QByteArray after = before;
    for (int i = 1; i < 200; ++i)
        after.insert(i * 25000, randomBytes(i % 60, static_cast<quint32>(i)));
    Pair pair(before, after);
    QByteArrayList deltas;
    for (const int threads : {1, 2, 5}) {
        pair.publisher.setThreadCount(threads);
        QVERIFY2(pair.publish(), qPrintable(pair.errors.join(QLatin1Char('\n'))));
        deltas.append(pair.delta());
    }
    QCOMPARE(pair.rebuilt(), after);
    QVERIFY(deltas[0] == deltas[1]);
    QVERIFY(deltas[0] == deltas[2]);
}

/// Sizes are those of the commands that are needed at least, and a little more.
void tst_SmallDeltas::whatIsOldIsNotSentAgain_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::addColumn<int>("most");
    const QByteArray content = randomBytes(100 * KiB, 1);
    const int half = content.size() / 2;
    // Magic number, end, and a copy of up to 4 + 4 bytes.
    QTest::newRow("a byte changed")
        << content << content.left(half) + '?' + content.mid(half + 1) << 5 + 2 * 9 + 2;
    QTest::newRow("a byte inserted")
        << content << content.left(half) + '?' + content.mid(half) << 5 + 2 * 9 + 2;
    QTest::newRow("a byte removed")
        << content << content.left(half) + content.mid(half + 1) << 5 + 2 * 9;
    QTest::newRow("halves exchanged")
        << content << content.mid(half) + content.left(half) << 5 + 2 * 9;
    QTest::newRow("doubled") << content << content + content << 5 + 2 * 9;
    QTest::newRow("less than a block is left") << content << content.mid(777, 500) << 5 + 9;
    QTest::newRow("shorter than any window") << QByteArray("abc") << QByteArray("abd") << 5 + 1 + 3;
    QTest::newRow("old one empty") << QByteArray() << QByteArray("new") << 5 + 1 + 3;
    QTest::newRow("new one empty") << content << QByteArray() << 5;
    QByteArray sprinkled = content;
    for (int i = 1000; i < sprinkled.size(); i += 1000)
        sprinkled[i] = static_cast<char>(~sprinkled[i]);
    QTest::newRow("a byte changed in every thousand")
        << content << sprinkled << 5 + 103 * (1 + 4 + 2 + 2);
    for (const int period : {1, 3, 7}) {
        const QByteArray run = QByteArray("\xff\x10\x20\x30\x40\x50\x60").left(period);
        QTest::addRow("a run with period %d grows", period)
            << content + run.repeated(200 * KiB / period)
            << content + run.repeated(500 * KiB / period) << 5 + 5 * 11;
    }
    QTest::newRow("zeros") << QByteArray(64 * KiB, '\0') << QByteArray(80 * KiB, '\0') << 5 + 2 * 9;
    // Repeated content has one window alone, which must not be the one that the index leaves out.
    for (const char byte : {'\0', '\3', '\7'}) {
        for (quint32 seed = 1; seed <= 12; ++seed) {
            const QByteArray run(2 * KiB, byte);
            const QByteArray head = randomBytes(2 * KiB, seed);
            QTest::addRow("a run of %d behind content %u", byte, seed)
                << head + run << head + run + run << 5 + 4 * 9;
        }
    }
    QByteArray pieces;
    for (int i = 0; i < 100; ++i)
        pieces += content.mid((i * 37 % 100) * KiB, KiB);
    QTest::newRow("pieces of less than a block, shuffled") << content << pieces << 5 + 100 * 9;
}

void tst_SmallDeltas::whatIsOldIsNotSentAgain()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    QFETCH(int, most);
    Pair pair(before, after);
    for (const Effort effort : {Effort::Balanced, Effort::Smallest}) {
        pair.publisher.setDeltaEffort(effort);
        QVERIFY2(pair.publish(), qPrintable(pair.errors.join(QLatin1Char('\n'))));
        QCOMPARE(pair.rebuilt(), after);
        QVERIFY(rebuildsByRdiff(
            pair.path("old/file"_s), pair.path("patch/file"_s), pair.path("new/file"_s)));
        QVERIFY2(pair.delta().size() <= most,
            qPrintable("%1 bytes with effort %2"_s.arg(pair.delta().size()).arg(int(effort))));
    }
}

/// Content comes from any distance, also where all threads work on one file.
void tst_SmallDeltas::largeFilesAreSearchedAsWhole()
{
    const QByteArray content = randomBytes(9 * MiB, 1);
    const int third = 3 * MiB + 12345;
    const QByteArray after
        = content.mid(2 * third) + content.left(third) + content.mid(third, third);
    Pair pair(content, after);
    QVERIFY2(pair.publish(), qPrintable(pair.errors.join(QLatin1Char('\n'))));
    QCOMPARE(pair.rebuilt(), after);
    QVERIFY2(
        pair.delta().size() <= 5 + 3 * 9 + 64, qPrintable(QString::number(pair.delta().size())));
}

/// Never a failure, whatever little there is.
void tst_SmallDeltas::lessMemoryMakesLargerDeltas()
{
    const QByteArray content = randomBytes(24 * MiB, 1);
    QByteArray after;
    constexpr int Size = 512;
    constexpr int Pieces = 24 * MiB / Size;
    for (int i = 0; i < Pieces; ++i) // each somewhere else
        after += content.mid(static_cast<int>(i * 20011LL % Pieces) * Size, Size);
    Pair pair(content, after);
    QVERIFY2(pair.publish(), qPrintable(pair.errors.join(QLatin1Char('\n'))));
    const int size = pair.delta().size();
    QVERIFY2(size < Pieces * 12, qPrintable(QString::number(size)));
    pair.publisher.setDeltaMemory(1);
    QVERIFY2(pair.publish(), qPrintable(pair.errors.join(QLatin1Char('\n'))));
    QCOMPARE(pair.rebuilt(), after);
    QVERIFY2(pair.delta().size() > size, qPrintable(QString::number(pair.delta().size())));
    QVERIFY2(pair.delta().size() < after.size() / 4 * 3,
        qPrintable(QString::number(pair.delta().size())));
}

void tst_SmallDeltas::memoryIsEnoughForAllThreads_data()
{
    QTest::addColumn<PublishController::DeltaEffort>("effort");
    QTest::addColumn<int>("mebibytes");
    QTest::newRow("balanced") << PublishController::DeltaEffort::Balanced << 64;
    QTest::newRow("smallest") << PublishController::DeltaEffort::Smallest << 96;
}

/// However many they are, and on a file that is larger.
void tst_SmallDeltas::memoryIsEnoughForAllThreads()
{
    if (HasSanitizer)
        QSKIP("a sanitizer needs memory itself");
    QFETCH(PublishController::DeltaEffort, effort);
    QFETCH(int, mebibytes);
    constexpr int ProcessItself = 16 * MiB;
    QByteArray content = randomBytes(128 * MiB, 1);
    const TestTree tree;
    tree.write("old/file"_s, content);
    for (int at = 0; at < content.size(); at += 50 * KiB)
        content[at] = static_cast<char>(content.at(at) + 1);
    tree.write("new/file"_s, content);
    PublishController publisher;
    QVERIFY(publisher.createSignatures(tree.path("old"_s), tree.path("signatures"_s)));

    QProcess call;
    call.start(QStringLiteral(PUBLISHCALL_PROGRAM),
        {"64"_s, "small"_s, tree.path("new"_s), tree.path("signatures"_s), tree.path("patch"_s),
            tree.path("old"_s), QString::number(static_cast<int>(effort)),
            QString::number(qint64(mebibytes) * MiB)});
    QVERIFY(call.waitForFinished(Patience));
    QCOMPARE(call.exitCode(), 0);
    const qint64 size = QFileInfo(tree.path("patch/file"_s)).size();
    QVERIFY2(size < content.size() / 20, qPrintable(QString::number(size)));
    const qint64 peak = call.readAllStandardOutput().trimmed().toLongLong();
    QVERIFY2(peak > mebibytes * MiB / 2 && peak <= mebibytes * MiB + ProcessItself,
        qPrintable(QString::number(peak)));
}

/// Places behind 4 GiB take wider fields, in the delta and in the index.
void tst_SmallDeltas::filesAbove4GiB()
{
    if (!qEnvironmentVariableIsSet("PELLOX_HUGE"))
        QSKIP("takes a minute; scripts/campaigns.sh deltas runs it");
    constexpr qint64 Size = (4LL << 30) + 3 * MiB;
    const QByteArray mark = randomBytes(MiB, 7);
    const TestTree tree;
    const auto make = [&](const QString &name, qint64 markAt) {
        tree.write(name, QByteArray());
        QFile file(tree.path(name));
        return file.open(QIODevice::ReadWrite) && file.resize(Size) && file.seek(markAt)
            && file.write(mark) == mark.size();
    };
    if (!make("old/file"_s, Size - 2 * MiB) || !make("new/file"_s, Size - 2 * MiB + 777))
        QSKIP("no file system here for files of that size");
    PublishController publisher;
    QVERIFY(publisher.createSignatures(tree.path("old"_s), tree.path("signatures"_s)));
    publisher.setOldBuild(tree.path("old"_s));
    publisher.setDeltaMemory(64 * MiB);
    QVERIFY(
        publisher.createPatch(tree.path("new"_s), tree.path("signatures"_s), tree.path("patch"_s)));
    const qint64 size = QFileInfo(tree.path("patch/file"_s)).size();
    QVERIFY2(size < 256 * KiB, qPrintable(QString::number(size)));
    QVERIFY(rebuildsByRdiff(
        tree.path("old/file"_s), tree.path("patch/file"_s), tree.path("new/file"_s)));
}

/// What the delta takes from the old file is read once more, by librsync, and is not what it was.
void tst_SmallDeltas::deltaThatDoesNotMakeTheNewFile()
{
    const QByteArray before = randomBytes(100 * KiB, 1);
    Pair pair(before, before + "more");
    struct stat status = {};
    QCOMPARE(::stat(QFile::encodeName(pair.path("old/file"_s)).constData(), &status), 0);
    failingDisk.goodReadings = 1;
    failingDisk.file = status.st_ino;
    const bool published = pair.publish();
    failingDisk.goodReadings = 1;
    pair.publisher.setDeltasVerified(false);
    const bool publishedUnverified = pair.publish();
    failingDisk.file = 0;
    QVERIFY(!published);
    QCOMPARE(
        pair.errors, QStringList(pair.path("patch/file"_s) + ": does not make the new file"_s));
    QVERIFY(publishedUnverified);
}

void tst_SmallDeltas::oldFileThatWasNotSigned()
{
    Pair pair("as players have it", "as it is to be");
    pair.tree().write("old/file"_s, "as nobody has it");
    QVERIFY(!pair.publish());
    QCOMPARE(pair.errors,
        QStringList(pair.path("old/file"_s) + ": is not the file that the signatures describe"_s));
    QVERIFY(!pair.tree().exists("patch/patchRules.json"_s));
    QVERIFY(!pair.tree().exists("signatures of new/signatures.json"_s));
}

void tst_SmallDeltas::oldFileThatIsNoFile()
{
    Pair pair("as players have it", "as it is to be");
    pair.tree().remove("old/file"_s);
    pair.tree().makeFolder("old/file"_s);
    QVERIFY(!pair.publish());
    QCOMPARE(pair.errors.size(), 1);
    QVERIFY2(pair.errors.first().startsWith(pair.path("old/file"_s) + ": "_s),
        qPrintable(pair.errors.first()));
}

/// Found before an older release goes.
void tst_SmallDeltas::anOlderReleaseStaysWhereAnOldFileIsMissing()
{
    Pair pair("as players have it", "as it is to be");
    QVERIFY2(pair.publish(), qPrintable(pair.errors.join(QLatin1Char('\n'))));
    const auto patch = TestTree::snapshot(pair.path("patch"_s));
    pair.tree().remove("old/file"_s);
    QVERIFY(!pair.publish());
    QCOMPARE(
        pair.errors, QStringList(pair.path("old/file"_s) + ": is missing from the old build"_s));
    QCOMPARE(TestTree::snapshot(pair.path("patch"_s)), patch);
}

void tst_SmallDeltas::oldBuildThatIsNotThere()
{
    Pair pair("before", "after");
    pair.publisher.setOldBuild(pair.path("elsewhere"_s));
    QVERIFY(!pair.publish());
    QCOMPARE(pair.errors, QStringList(pair.path("elsewhere"_s) + ": there is no such folder"_s));
}

void tst_SmallDeltas::oldBuildInsideOfThePatch()
{
    Pair pair("before", "after");
    pair.publisher.setOldBuild(pair.path("patch/old"_s));
    pair.tree().write("patch/old/file"_s, "before");
    QVERIFY(!pair.publish());
    QCOMPARE(pair.errors.size(), 1);
    QVERIFY(pair.errors.first().contains("must not be, hold or lie inside of"_s));
    QCOMPARE(pair.tree().read("patch/old/file"_s), QByteArray("before"));
}

void tst_SmallDeltas::withoutVerification()
{
    const QByteArray before = words(300 * KiB, 1);
    const QByteArray after = before.left(1000) + "inserted" + before.mid(1000);
    Pair pair(before, after);
    QVERIFY2(pair.publish(), qPrintable(pair.errors.join(QLatin1Char('\n'))));
    const QByteArray delta = pair.delta();
    pair.publisher.setDeltasVerified(false);
    QVERIFY2(pair.publish(), qPrintable(pair.errors.join(QLatin1Char('\n'))));
    QCOMPARE(pair.delta(), delta);
    QCOMPARE(pair.rebuilt(), after);
}

void tst_SmallDeltas::settingsAreKept()
{
    PublishController publisher;
    QCOMPARE(publisher.oldBuild(), QString());
    QCOMPARE(publisher.deltaEffort(), Effort::Balanced);
    QCOMPARE(publisher.deltaMemory(), qint64(1) << 30);
    QVERIFY(publisher.areDeltasVerified());
    publisher.setOldBuild("old"_s);
    publisher.setDeltaEffort(Effort::Fastest);
    publisher.setDeltaMemory(100 * MiB);
    publisher.setDeltasVerified(false);
    QCOMPARE(publisher.oldBuild(), "old"_s);
    QCOMPARE(publisher.deltaEffort(), Effort::Fastest);
    QCOMPARE(publisher.deltaMemory(), qint64(100 * MiB));
    QVERIFY(!publisher.areDeltasVerified());
    publisher.setDeltaMemory(-1);
    QCOMPARE(publisher.deltaMemory(), qint64(MiB));
}

/// Of two old files with the content, the one that stays is told.
void tst_SmallDeltas::movedFilesAreTold()
{
    Pair pair("twice", "twice");
    pair.tree().write("old/gone"_s, "twice");
    pair.tree().write("old/large"_s, "another content");
    pair.tree().write("new/copy"_s, "twice");
    pair.tree().write("new/moved"_s, "another content");
    pair.tree().write("new/empty"_s, "");
    pair.sign();
    QVERIFY2(pair.publish(), qPrintable(pair.errors.join(QLatin1Char('\n'))));
    const auto moved = pair.publisher.movedFiles();
    QCOMPARE(moved.size(), 2);
    QCOMPARE(moved[0].relativePath, "/moved"_s);
    QCOMPARE(moved[0].oldRelativePath, "/large"_s);
    QCOMPARE(moved[0].size, qint64(15));
    QCOMPARE(moved[1].relativePath, "/copy"_s);
    QCOMPARE(moved[1].oldRelativePath, "/file"_s);
    QVERIFY(pair.publisher.createPatch(
        pair.path("new"_s), pair.path("signatures"_s), pair.path("patch"_s)));
    QVERIFY(pair.publisher.movedFiles().isEmpty());
}

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    useMemoryForFiles();
    tst_SmallDeltas test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_smalldeltas.moc"
