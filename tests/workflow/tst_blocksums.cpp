// SPDX-License-Identifier: MIT
#include "blocksums.h"
#include "testtree.h"

#include <QTest>

#include <librsync.h>

#include <dlfcn.h>

using namespace Pellox;

namespace {

bool s_hasMemory = true;

} // namespace

/// Called instead of librsync's own.
extern "C" __attribute__((visibility("default"))) rs_job_t *rs_sig_begin(
    size_t blockLength, size_t strongLength, rs_magic_number magic)
{
    static auto *const begin
        = reinterpret_cast<decltype(rs_sig_begin) *>(dlsym(RTLD_NEXT, "rs_sig_begin"));
    return s_hasMemory ? begin(blockLength, strongLength, magic) : nullptr;
}

/// Every way to compute the sums of blocks gives what librsync gives.
class tst_BlockSums : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void anySize_data();
    void anySize();
    void anyContent_data();
    void anyContent();
    void theFastestIsTaken();
    void librsyncWithoutMemory();

private:
    static void addRowForEachMethod();
    static std::vector<BlockRecord> sumsOf(const BlockSumMethod &method, const QByteArray &bytes);
    static std::vector<BlockRecord> librsyncsSumsOf(const QByteArray &bytes);

    QByteArray m_random;
};

void tst_BlockSums::initTestCase()
{
    m_random = randomBytes(40 * static_cast<int>(SignatureFormat::BlockLength), 7);
}

void tst_BlockSums::addRowForEachMethod()
{
    QTest::addColumn<int>("index");
    const auto methods = blockSumMethods();
    for (std::size_t i = 1; i < methods.size(); ++i)
        QTest::newRow(methods[i].name) << static_cast<int>(i);
}

std::vector<BlockRecord> tst_BlockSums::sumsOf(
    const BlockSumMethod &method, const QByteArray &bytes)
{
    std::vector<BlockRecord> records(3); // to be replaced
    const auto *data = reinterpret_cast<const uchar *>(bytes.constData());
    method.compute(data, static_cast<std::size_t>(bytes.size()), &records);
    return records;
}

std::vector<BlockRecord> tst_BlockSums::librsyncsSumsOf(const QByteArray &bytes)
{
    return sumsOf(blockSumMethods().front(), bytes);
}

void tst_BlockSums::anySize_data()
{
    addRowForEachMethod();
}

void tst_BlockSums::anySize()
{
    QFETCH(int, index);
    const BlockSumMethod method = blockSumMethods().at(static_cast<std::size_t>(index));
    constexpr auto BlockLength = static_cast<int>(SignatureFormat::BlockLength);
    for (int size = 0; size <= 2 * BlockLength + 1; ++size) {
        const QByteArray bytes = m_random.left(size); // of its own, so that no byte behind is read
        QVERIFY2(
            sumsOf(method, bytes) == librsyncsSumsOf(bytes), qPrintable(QString::number(size)));
    }
    for (int blocks = 1; blocks < 40; ++blocks) {
        for (const int rest : {0, 1, BlockLength - 1}) {
            const QByteArray bytes = m_random.mid(3, blocks * BlockLength + rest);
            QVERIFY2(sumsOf(method, bytes) == librsyncsSumsOf(bytes),
                qPrintable(QStringLiteral("%1 blocks and %2").arg(blocks).arg(rest)));
        }
    }
}

void tst_BlockSums::anyContent_data()
{
    addRowForEachMethod();
}

/// Sums that run over their ends too.
void tst_BlockSums::anyContent()
{
    QFETCH(int, index);
    const BlockSumMethod method = blockSumMethods().at(static_cast<std::size_t>(index));
    for (int value = 0; value < 256; ++value) {
        const QByteArray bytes(5000, static_cast<char>(value));
        QVERIFY2(
            sumsOf(method, bytes) == librsyncsSumsOf(bytes), qPrintable(QString::number(value)));
    }
}

void tst_BlockSums::theFastestIsTaken()
{
    std::vector<BlockRecord> records;
    const auto *data = reinterpret_cast<const uchar *>(m_random.constData());
    computeBlockSums(data, static_cast<std::size_t>(m_random.size()), &records);
    QCOMPARE(records, sumsOf(blockSumMethods().back(), m_random));
    QVERIFY(records == librsyncsSumsOf(m_random));
#if defined(__GNUC__) && Q_BYTE_ORDER == Q_LITTLE_ENDIAN
    QVERIFY(blockSumMethods().size() > 1);
#endif
}

void tst_BlockSums::librsyncWithoutMemory()
{
    s_hasMemory = false;
    QVERIFY_EXCEPTION_THROWN(librsyncsSumsOf(m_random), std::bad_alloc);
    s_hasMemory = true;
    QCOMPARE(librsyncsSumsOf(m_random).size(), std::size_t(40));
}

QTEST_APPLESS_MAIN(tst_BlockSums)

#include "tst_blocksums.moc"
