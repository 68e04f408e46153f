// SPDX-License-Identifier: MIT
#include "buildwalk.h"
#include "literals.h"
#include "manifestfile.h"
#include "releasefolder.h"
#include "signaturefile.h"
#include "signatureset.h"
#include "testtree.h"

#include <QtTest>

#include <cstdlib>
#include <new>

using namespace Pellox;

namespace {

int allocationsLeft = -1; ///< below zero there is no end of them

} // namespace

// For all of this process, the standard library too.

void *operator new(std::size_t size)
{
    void *const memory = allocationsLeft == 0 ? nullptr : std::malloc(size);
    if (!memory)
        throw std::bad_alloc();
    allocationsLeft -= allocationsLeft > 0 ? 1 : 0;
    return memory;
}

void operator delete(void *memory) noexcept
{
    std::free(memory);
}

void operator delete(void *memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

namespace {

/// Says no from the call @p most on, and counts them.
GoOn stopAfter(int most, int *calls)
{
    *calls = 0;
    return [most, calls] { return ++*calls <= most; };
}

} // namespace

/// The pieces of a publishing run that may take long stop when they are told to, and say no error
/// then; and a lack of memory, at any moment, is thrown, where it could also end the process.
class tst_PublishParts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_tree.emplace(); }

    void walkStops();
    void walkWithoutMemory();
    void readingOfAManifestStops();
    void readingEndsAtABadRecord();
    void signedFilesAreBounded_data();
    void signedFilesAreBounded();
    void lookAtAReleaseStops();
    void emptyingStops();
    void readingOfASignatureStops();
    void copyOfASignatureStops();
    void fillingOfASetStops();

private:
    void writeManifest(const QString &file) const;

    static constexpr int Files = 20;
    std::optional<TestTree> m_tree;
    int m_calls = 0;
};

/// The form that is read record by record.
void tst_PublishParts::writeManifest(const QString &file) const
{
    QByteArray json = "[\n";
    for (int i = 0; i < Files; ++i) {
        json += "    {\n        \"relative_path\": \"/" + QByteArray::number(i) + "\"\n    }"
            + (i + 1 < Files ? ",\n" : "\n");
    }
    m_tree->write(file, json + "]\n");
}

void tst_PublishParts::walkStops()
{
    for (int i = 0; i < Files; ++i)
        m_tree->write("build/a/%1"_s.arg(i), "x");
    FileError error;
    QCOMPARE(walkBuild(m_tree->path("build"_s), &error)->size(), std::size_t(Files));
    QVERIFY(!walkBuild(m_tree->path("build"_s), &error, stopAfter(3, &m_calls)));
    QCOMPARE(m_calls, 4);
    QCOMPARE(error.text(), QString());
}

void tst_PublishParts::walkWithoutMemory()
{
    const QString folder = QString(100, QLatin1Char('f')); // long enough to be allocated
    for (int i = 0; i < Files; ++i)
        m_tree->write("build/%1/%2/%3"_s.arg(folder, folder).arg(i), "x");
    const QString build = m_tree->path("build"_s);
    std::optional<std::vector<BuildFile>> files;
    int thrown = 0;
    for (int most = 0; !files && most < 1000; ++most) {
        FileError error;
        allocationsLeft = most;
        try {
            files = walkBuild(build, &error);
        } catch (const std::bad_alloc &) {
            ++thrown;
        }
        allocationsLeft = -1;
        QCOMPARE(error.text(), QString());
    }
    QVERIFY(files);
    QCOMPARE(files->size(), std::size_t(Files));
    QVERIFY2(thrown > 2, qPrintable(QString::number(thrown)));
}

void tst_PublishParts::readingOfAManifestStops()
{
    writeManifest("signatures.json"_s);
    FileError error;
    QCOMPARE(readSignedFiles(m_tree->path(), &error)->size(), std::size_t(Files));
    QVERIFY(!readSignedFiles(m_tree->path(), &error, stopAfter(3, &m_calls)));
    QCOMPARE(m_calls, 4);
    QCOMPARE(error.text(), QString());
}

/// Where all of very many are bad, nothing is kept of them.
void tst_PublishParts::readingEndsAtABadRecord()
{
    const QByteArray bad = "    {\n    },\n";
    m_tree->write("signatures.json"_s, "[\n" + bad.repeated(1000) + "    {\n    }\n]\n");
    FileError error;
    QVERIFY(!readSignedFiles(m_tree->path(), &error, stopAfter(5000, &m_calls)));
    QVERIFY(m_calls < 3);
    QCOMPARE(error.path, m_tree->path("signatures.json"_s));
    QCOMPARE(error.reason,
        "record 1 has a relative path that does not begin with a separator; the rest was not "
        "looked at"_s);
    m_tree->write("signatures.json"_s, "[{}]");
    QVERIFY(!readSignedFiles(m_tree->path(), &error));
    QCOMPARE(error.reason, "record 1 has a relative path that does not begin with a separator"_s);
}

void tst_PublishParts::signedFilesAreBounded_data()
{
    QTest::addColumn<int>("records");
    QTest::addColumn<int>("pathSize");
    QTest::addColumn<bool>("isGood");
    QTest::newRow("many") << 1000000 << 7 << true;
    QTest::newRow("too many") << 1000001 << 7 << false;
    QTest::newRow("long paths") << 64 << 1000000 << true;
    QTest::newRow("too long paths") << 68 << 1000000 << false;
}

void tst_PublishParts::signedFilesAreBounded()
{
    QFETCH(int, records);
    QFETCH(int, pathSize);
    QFETCH(bool, isGood);
    QByteArray json = "[\n";
    for (int i = 0; i < records; ++i)
        json += "    {\n        \"relative_path\": \"/"
            + QByteArray::number(i).rightJustified(pathSize, 'n') + "\"\n    },\n";
    json.chop(2);
    m_tree->write("signatures.json"_s, json + "\n]\n");
    FileError error;
    const auto files = readSignedFiles(m_tree->path(), &error);
    QCOMPARE(files.has_value(), isGood);
    if (isGood)
        QCOMPARE(files->size(), std::size_t(records));
    else
        QVERIFY2(error.reason.startsWith("has more files or longer paths than any build"_s),
            qPrintable(error.reason));
}

void tst_PublishParts::lookAtAReleaseStops()
{
    writeManifest("patch/patchRules.json"_s);
    for (int i = 0; i < Files; ++i)
        m_tree->write("patch/%1"_s.arg(i), "x");
    const auto before = TestTree::snapshot(m_tree->path());
    ReleaseFolder folder(m_tree->path("patch"_s), "patchRules.json"_s);
    QVERIFY(folder.check(stopAfter(1000, &m_calls)));
    const int all = m_calls;
    QVERIFY(all >= 2 * Files); // records, and what is there
    for (int most = 0; most < all; ++most) {
        QVERIFY(!folder.check(stopAfter(most, &m_calls)));
        QCOMPARE(m_calls, most + 1);
        QCOMPARE(folder.error(), QString());
    }
    QCOMPARE(TestTree::snapshot(m_tree->path()), before);
}

/// What is left of the earlier release then is known to the next run.
void tst_PublishParts::emptyingStops()
{
    writeManifest("patch/patchRules.json"_s);
    for (int i = 0; i < Files; ++i)
        m_tree->write("patch/%1"_s.arg(i), "x");
    const auto noNames = [](const auto &) {};
    bool isStopped = false;
    {
        ReleaseFolder folder(m_tree->path("patch"_s), "patchRules.json"_s);
        QVERIFY(folder.check());
        isStopped = !folder.begin(noNames,
            [&] { return TestTree::snapshot(m_tree->path("patch"_s)).size() > Files / 2; });
        QCOMPARE(folder.error(), QString());
    }
    QVERIFY(isStopped);
    QVERIFY(!m_tree->exists("patch/patchRules.json"_s));
    QVERIFY(TestTree::snapshot(m_tree->path("patch"_s)).size() >= Files / 2 - 1);
    {
        ReleaseFolder folder(m_tree->path("patch"_s), "patchRules.json"_s);
        QVERIFY2(folder.check(), qPrintable(folder.error()));
        QVERIFY2(folder.begin(noNames), qPrintable(folder.error()));
    }
    QCOMPARE(TestTree::snapshot(m_tree->path("patch"_s)).size(), 0);
}

namespace {

QByteArray signatureOf(int blocks)
{
    QByteArray signature = QByteArray::fromHex("727301370000080000000020");
    for (int i = 0; i < blocks; ++i)
        signature += QByteArray::number(i).rightJustified(36, '0');
    return signature;
}

constexpr int ManyBlocks = 50000;

} // namespace

void tst_PublishParts::readingOfASignatureStops()
{
    m_tree->write("signature"_s, signatureOf(ManyBlocks));
    SignatureFile signature;
    QVERIFY(signature.open(m_tree->path("signature"_s)));
    std::vector<BlockRecord> records;
    QVERIFY(signature.readAll(&records, stopAfter(100, &m_calls)));
    QVERIFY(m_calls > 3);
    QCOMPARE(QByteArray(reinterpret_cast<const char *>(records.data()), 36 * ManyBlocks),
        signatureOf(ManyBlocks).mid(12));
    QVERIFY(!signature.readAll(&records, stopAfter(2, &m_calls)));
    QCOMPARE(m_calls, 3);
    QCOMPARE(signature.error(), QString());
}

void tst_PublishParts::copyOfASignatureStops()
{
    m_tree->write("signature"_s, signatureOf(ManyBlocks));
    SignatureFile signature;
    QVERIFY(signature.open(m_tree->path("signature"_s)));
    OutputFile whole;
    QVERIFY(whole.open(m_tree->path("whole"_s)));
    QVERIFY(signature.copyTo(whole, GoOn()) && whole.close());
    QCOMPARE(m_tree->read("whole"_s), signatureOf(ManyBlocks));
    OutputFile part;
    QVERIFY(part.open(m_tree->path("part"_s)));
    QVERIFY(!signature.copyTo(part, stopAfter(2, &m_calls)));
    QCOMPARE(m_calls, 3);
    QCOMPARE(signature.error(), QString());
}

void tst_PublishParts::fillingOfASetStops()
{
    std::vector<BlockRecord> records(ManyBlocks);
    for (std::size_t i = 0; i < records.size(); ++i) {
        const QByteArray text = QByteArray::number(static_cast<int>(i)).rightJustified(36, '0');
        std::copy(text.cbegin(), text.cend(), records[i].begin());
    }
    const SignatureSet set(records, stopAfter(100, &m_calls));
    QVERIFY(m_calls > 2);
    for (const std::size_t i : {std::size_t(0), records.size() / 2, records.size() - 1})
        QCOMPARE(set.blockWith(records[i]), static_cast<quint32>(i));
    const SignatureSet part(records, stopAfter(1, &m_calls));
    QCOMPARE(m_calls, 2);
    QCOMPARE(part.blockWith(records.back()), quint32(SignatureSet::None));
}

QTEST_GUILESS_MAIN(tst_PublishParts)

#include "tst_publishparts.moc"
