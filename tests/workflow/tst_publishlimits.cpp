// SPDX-License-Identifier: MIT
#include "foldercompare.h"
#include "leftovers.h"
#include "literals.h"
#include "logcapture.h"
#include "memorylimit.h"
#include "testtree.h"

#include <Pellox/deltacontroller.h>
#include <Pellox/patchinspector.h>
#include <Pellox/publishcontroller.h>
#include <Pellox/signaturescontroller.h>

#include <QFile>
#include <QtEndian>
#include <QThread>
#include <QThreadPool>
#include <QtTest>

#include <atomic>
#include <cerrno>
#include <optional>

#include <dlfcn.h>
#include <pthread.h>

using Pellox::DeltaController;
using Pellox::PatchInspector;
using Pellox::PublishController;
using Pellox::SignaturesController;

namespace {

constexpr int Block = 2048;
constexpr int MiB = 1 << 20;

std::atomic<int> s_threadsLeft{-1}; // that the system gives; -1: as many as it has
std::atomic<int> s_digestsLeft{-1}; // that libcrypto computes

/// Whether one more is to be had.
bool take(std::atomic<int> &left)
{
    int now = left;
    while (now > 0 && !left.compare_exchange_weak(now, now - 1)) { }
    return now != 0;
}

template <typename Function> Function *original(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The library calls these instead of those of the system and of the other libraries.
extern "C" {
__attribute__((visibility("default"))) int pthread_create(pthread_t *thread,
    const pthread_attr_t *attributes, void *(*start)(void *), void *argument) noexcept
{
    static auto *const create = original<decltype(pthread_create)>("pthread_create");
    return take(s_threadsLeft) ? create(thread, attributes, start, argument) : EAGAIN;
}

struct evp_md_ctx_st;
__attribute__((visibility("default"))) int EVP_DigestFinal_ex(
    evp_md_ctx_st *context, unsigned char *digest, unsigned *size)
{
    using Final = int(evp_md_ctx_st *, unsigned char *, unsigned *);
    static auto *const final = original<Final>("EVP_DigestFinal_ex");
    return take(s_digestsLeft) ? final(context, digest, size) : 0;
}
}

/// PublishController and PatchInspector where the system or a library has no more to give, and
/// with inputs that were made to ask for much.
class tst_PublishLimits : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void worksOnAsManyThreadsAsAreSet_data();
    void worksOnAsManyThreadsAsAreSet();
    void fewerThreadsThanAreWanted_data();
    void fewerThreadsThanAreWanted();
    void noThreadAtAll();
    void digestThatCannotBeComputed_data();
    void digestThatCannotBeComputed();
    void outOfMemory_data();
    void outOfMemory();
    void outOfMemoryInAPatch();
    void manifestInAnotherFormMustBeSmall_data();
    void manifestInAnotherFormMustBeSmall();
    void manyBlocksOfOneWeakSum();

private:
    QString path(const QString &relative) const { return m_tree->path(relative); }
    bool publish();
    void expectFailure(const QString &begin);
    void makeExpectation() const;
    QString differenceToExpectation() const;

    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
    std::optional<PublishController> m_publisher;
    QStringList m_errors;
    Leftovers m_leftovers;
};

void tst_PublishLimits::initTestCase()
{
    m_leftovers.begin();
}

void tst_PublishLimits::init()
{
    m_log.emplace();
    m_tree.emplace();
    const QByteArray large = randomBytes(3 * MiB, 1);
    m_tree->write("old/same"_s, "same");
    m_tree->write("new/same"_s, "same");
    m_tree->write("old/changed"_s, randomBytes(5 * Block, 2));
    m_tree->write("new/changed"_s, randomBytes(5 * Block, 3));
    m_tree->write("old/large"_s, large);
    m_tree->write("new/large"_s, large.mid(1000));
    m_tree->write("new/added"_s, "added");
    SignaturesController().createSignatures(path("old"_s), path("old signatures"_s));
    m_publisher.emplace();
    connect(&*m_publisher, &PublishController::publishError, this,
        [this](const QString &message) { m_errors.append(message); });
}

void tst_PublishLimits::cleanup()
{
    s_threadsLeft = s_digestsLeft = -1;
    QThreadPool::globalInstance()->waitForDone();
    QCOMPARE(m_leftovers.found(), QByteArray());
    QCOMPARE(m_log->troubleLeft(), QStringList());
    const QStringList errors = m_errors;
    m_errors.clear();
    m_publisher.reset();
    m_tree.reset();
    m_log.reset();
    QCOMPARE(errors, QStringList());
}

bool tst_PublishLimits::publish()
{
    return m_publisher->publish(
        path("new"_s), path("old signatures"_s), path("patch"_s), path("signatures"_s));
}

/// One error that begins like that, which is taken, and nothing left; the next run is well.
void tst_PublishLimits::expectFailure(const QString &begin)
{
    s_threadsLeft = s_digestsLeft = -1;
    QCOMPARE(m_errors.size(), 1);
    const QString error = m_errors.takeFirst();
    QVERIFY2(error.startsWith(begin), qPrintable(error));
    QVERIFY(!m_publisher->wasCancelled());
    QVERIFY(!m_tree->exists("patch"_s));
    QVERIFY(!m_tree->exists("signatures"_s));
    makeExpectation();
    QVERIFY(publish());
    QCOMPARE(differenceToExpectation(), QString());
}

void tst_PublishLimits::makeExpectation() const
{
    SignaturesController().createSignatures(path("new"_s), path("expected/signatures"_s));
    QVERIFY(DeltaController().createPatch(path("new"_s), path("old signatures"_s),
        path("expected/patch"_s), QStringList(), PROGRESS_CALLBACK()));
    QThreadPool::globalInstance()->waitForDone();
}

QString tst_PublishLimits::differenceToExpectation() const
{
    return differenceBetween(path("expected/patch"_s), path("patch"_s))
        + differenceBetween(path("expected/signatures"_s), path("signatures"_s));
}

void tst_PublishLimits::worksOnAsManyThreadsAsAreSet_data()
{
    QTest::addColumn<int>("set");
    QTest::addColumn<int>("expected");
    QTest::newRow("1") << 1 << 1;
    QTest::newRow("2") << 2 << 2;
    QTest::newRow("5") << 5 << 5;
    QTest::newRow("one for each core") << 0 << QThread::idealThreadCount();
}

/// The calling thread may be one of them, or only report.
void tst_PublishLimits::worksOnAsManyThreadsAsAreSet()
{
    QFETCH(int, set);
    QFETCH(int, expected);
    constexpr int Many = 100000;
    m_publisher->setThreadCount(set);
    s_threadsLeft = Many;
    const bool done = m_publisher->createSignatures(path("new"_s), path("signatures"_s));
    const int started = Many - s_threadsLeft.exchange(-1);
    QVERIFY(done);
    QVERIFY2(started >= expected - 1 && started <= expected, qPrintable(QString::number(started)));
}

void tst_PublishLimits::fewerThreadsThanAreWanted_data()
{
    QTest::addColumn<int>("given");
    QTest::newRow("1") << 1;
    QTest::newRow("3") << 3;
}

void tst_PublishLimits::fewerThreadsThanAreWanted()
{
    QFETCH(int, given);
    makeExpectation();
    m_publisher->setThreadCount(1024);
    s_threadsLeft = given;
    const bool done = publish();
    QCOMPARE(s_threadsLeft.exchange(-1), 0);
    QVERIFY(done);
    QCOMPARE(differenceToExpectation(), QString());
}

void tst_PublishLimits::noThreadAtAll()
{
    s_threadsLeft = 0;
    QVERIFY(!publish());
    expectFailure(path("new: the system gives no thread"_s));
}

void tst_PublishLimits::digestThatCannotBeComputed_data()
{
    QTest::addColumn<int>("before");
    for (int before = 0; before < 4; ++before)
        QTest::addRow("%d before it", before) << before;
}

void tst_PublishLimits::digestThatCannotBeComputed()
{
    QFETCH(int, before);
    m_publisher->setThreadCount(1);
    s_digestsLeft = before;
    const bool done = publish();
    if (s_digestsLeft == before && done)
        QSKIP("the library does not use libcrypto here");
    QVERIFY(!done);
    QVERIFY2(m_errors.value(0).endsWith(": cannot be hashed"_s), qPrintable(m_errors.value(0)));
    expectFailure(path("new/"_s));
}

namespace {

/// A manifest in the library's own form with paths that are long enough to fill the memory.
QByteArray hugeManifest(const QByteArray &members)
{
    constexpr int Records = 200;
    constexpr int Length = 400000;
    QByteArray json = "[\n";
    for (int i = 0; i < Records; ++i) {
        json += "    {\n" + members + "        \"relative_path\": \"/" + QByteArray::number(i)
            + QByteArray(Length, 'n') + "\"\n    }" + (i + 1 < Records ? ",\n" : "\n");
    }
    return json + "]\n";
}

constexpr rlim_t LittleMemory = 32 << 20; // much less than the paths need

} // namespace

void tst_PublishLimits::outOfMemory_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("diff") << "diff"_s;
    QTest::newRow("publish") << "publish"_s;
    QTest::newRow("plan") << "plan"_s;
}

void tst_PublishLimits::outOfMemory()
{
    QFETCH(QString, name);
    if (HasSanitizer)
        QSKIP("the sanitizer needs the memory itself");
    m_tree->write("huge/signatures.json"_s, hugeManifest(QByteArray()));
    bool done = true;
    {
        const MemoryLimit limit(LittleMemory);
        if (name == "plan"_s)
            done = m_publisher->plan(path("new"_s), path("huge"_s)).has_value();
        else if (name == "diff"_s)
            done = m_publisher->createPatch(path("new"_s), path("huge"_s), path("patch"_s));
        else
            done = m_publisher->publish(
                path("new"_s), path("huge"_s), path("patch"_s), path("signatures"_s));
    }
    QVERIFY(!done);
    expectFailure(path("new: out of memory"_s));
}

void tst_PublishLimits::outOfMemoryInAPatch()
{
    if (HasSanitizer)
        QSKIP("the sanitizer needs the memory itself");
    m_tree->write("huge/patchRules.json"_s, hugeManifest("        \"rule\": \"delete\",\n"));
    PatchInspector inspector;
    QStringList errors;
    connect(&inspector, &PatchInspector::inspectError, this,
        [&](const QString &message) { errors.append(message); });
    {
        const MemoryLimit limit(LittleMemory);
        QVERIFY(!inspector.inspect(path("huge"_s)));
    }
    QCOMPARE(errors, QStringList(path("huge: out of memory"_s)));
    QVERIFY(inspector.files().isEmpty());
}

void tst_PublishLimits::manifestInAnotherFormMustBeSmall_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<bool>("taken");
    QTest::newRow("large enough") << qint64(1) * MiB << true;
    QTest::newRow("largest") << qint64(64) * MiB << true;
    QTest::newRow("too large") << qint64(64) * MiB + 1 << false;
    QTest::newRow("much too large") << qint64(900) * MiB << false;
}

/// What is not read record by record takes many times its size in memory.
void tst_PublishLimits::manifestInAnotherFormMustBeSmall()
{
    QFETCH(qint64, size);
    QFETCH(bool, taken);
    const auto write = [&](const QString &file) {
        m_tree->write(file, "[]");
        QFile manifest(path(file));
        if (!manifest.open(QIODevice::ReadWrite) || !manifest.seek(2))
            return false;
        const QByteArray blanks(MiB, ' ');
        for (qint64 left = qMin(size, qint64(65) * MiB) - 2; left > 0; left -= blanks.size()) {
            if (manifest.write(blanks, qMin<qint64>(left, blanks.size())) < 0)
                return false;
        }
        return manifest.resize(size);
    };
    QVERIFY(write("huge/patchRules.json"_s));
    PatchInspector inspector;
    QStringList errors;
    connect(&inspector, &PatchInspector::inspectError, this,
        [&](const QString &message) { errors.append(message); });
    QCOMPARE(inspector.inspect(path("huge"_s)), taken);
    QCOMPARE(errors.size(), taken ? 0 : 1);
    QVERIFY(taken || errors.first().startsWith(path("huge/patchRules.json: is too large"_s)));

    m_tree->remove("huge"_s);
    QVERIFY(write("huge/signatures.json"_s));
    QCOMPARE(m_publisher->plan(path("new"_s), path("huge"_s)).has_value(), taken);
    QCOMPARE(m_errors.size(), taken ? 0 : 1);
    QVERIFY(taken || m_errors.takeFirst().startsWith(path("huge/signatures.json: is too large"_s)));
}

/// A search among them one after the other would take hours.
void tst_PublishLimits::manyBlocksOfOneWeakSum()
{
    constexpr int Blocks = 1000000;
    const QByteArray head = m_tree->read("old signatures/changed"_s).left(12);
    QByteArray signature = head;
    for (int i = 0; i < Blocks; ++i) {
        QByteArray record(36, 'x');
        qToLittleEndian<qint32>(i, record.data() + 4 + i % 8 * 4); // the weak sum stays the same
        signature += record;
    }
    const QByteArray last = randomBytes(Block, 9);
    m_tree->write("block"_s, last);
    m_tree->write("old signatures/changed"_s, signature);
    QVERIFY(publish());

    // The last of them is found as well.
    SignaturesController().createSignatures(path("new"_s), path("new signatures"_s));
    const QByteArray record = m_tree->read("new signatures/changed"_s).mid(12, 36);
    for (int i = 0; i < Blocks; ++i)
        signature.replace(12 + 36 * i, 4, record.left(4));
    m_tree->write("old signatures/changed"_s, signature + record);
    QVERIFY(publish());
    // Copy, from 2,048,000,000 on, 2,048 bytes
    QVERIFY(m_tree->read("patch/changed"_s).contains(QByteArray::fromHex("4e7a1200000800")));
}

QTEST_GUILESS_MAIN(tst_PublishLimits)

#include "tst_publishlimits.moc"
