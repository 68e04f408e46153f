// SPDX-License-Identifier: MIT
#include "digest.h"
#include "logcapture.h"
#include "testtree.h"

#include <QBuffer>
#include <QFile>
#include <QIODevice>
#include <QMetaEnum>
#include <QTest>

#include <cstring>
#include <limits>
#include <memory>

#ifdef PELLOX_HAVE_LIBCRYPTO
#include <dlfcn.h>
#include <openssl/evp.h>

static bool s_refuses = false;

// Digest calls this instead of libcrypto's.
extern "C" int EVP_DigestInit_ex(EVP_MD_CTX *context, const EVP_MD *algorithm, ENGINE *engine)
{
    static const auto original
        = reinterpret_cast<decltype(&EVP_DigestInit_ex)>(::dlsym(RTLD_NEXT, "EVP_DigestInit_ex"));
    return s_refuses ? 0 : original(context, algorithm, engine);
}
#endif

Q_DECLARE_METATYPE(QCryptographicHash::Algorithm)

using Pellox::Digest;
using Pellox::digestOf;

namespace {

constexpr int BlockSize = 64 * 1024; // what digestOf() reads at a time

/// Gives its content in pieces, and fails for good where it is told to.
class FickleDevice : public QIODevice
{
public:
    FickleDevice(const QByteArray &content, int pieceSize, int failsAt = -1)
        : m_content(content)
        , m_pieceSize(pieceSize)
        , m_failsAt(failsAt)
    {
        open(ReadOnly | Unbuffered);
    }

    bool isSequential() const override { return true; }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        if (m_at == m_failsAt)
            return -1;
        const int end = m_failsAt < 0 ? m_content.size() : m_failsAt;
        const int size = qMin(qMin(m_pieceSize, end - m_at), static_cast<int>(maxSize));
        std::memcpy(data, m_content.constData() + m_at, static_cast<size_t>(size));
        m_at += size;
        return size;
    }
    qint64 writeData(const char *, qint64) override { return -1; }

private:
    QByteArray m_content;
    int m_pieceSize;
    int m_failsAt;
    int m_at = 0;
};

QByteArray digestOfRead(const QByteArray &content, QCryptographicHash::Algorithm algorithm)
{
    QByteArray bytes = content;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    return digestOf(buffer, algorithm);
}

} // namespace

/// Run once with libcrypto and once with Qt alone: the results are the same.
class tst_Digest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void knownAnswers_data();
    void knownAnswers();
    void everyAlgorithmMatchesQt_data();
    void everyAlgorithmMatchesQt();
    void piecesMakeNoDifference_data();
    void piecesMakeNoDifference();
    void digestsRunSideBySide();
#ifdef PELLOX_HAVE_LIBCRYPTO
    void refusedAlgorithmIsTakenFromQt();
#endif

    void shortReadsMakeNoDifference_data();
    void shortReadsMakeNoDifference();
    void onlyWhatTheDeviceStillHoldsCounts();
    void filesAreRead();

    void failedReadGivesNothing_data();
    void failedReadGivesNothing();
    void unreadableFileGivesNothing();
    void closedDeviceGivesNothing();

private:
    std::unique_ptr<LogCapture> m_log;
};

void tst_Digest::init()
{
    m_log = std::make_unique<LogCapture>();
}

void tst_Digest::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_Digest::knownAnswers_data()
{
    QTest::addColumn<QCryptographicHash::Algorithm>("algorithm");
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QByteArray>("digest");

    const QByteArray abc("abc");
    const QByteArray empty("");
    const QByteArray million(1000000, 'a');
    // The two-block messages of FIPS 180.
    const QByteArray twoBlocksOf512("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq");
    const QByteArray twoBlocksOf1024("abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmn"
                                     "hijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu");

    QTest::newRow("MD5, empty") << QCryptographicHash::Md5 << empty
                                << QByteArray("d41d8cd98f00b204e9800998ecf8427e");
    QTest::newRow("MD5, abc") << QCryptographicHash::Md5 << abc
                              << QByteArray("900150983cd24fb0d6963f7d28e17f72");
    QTest::newRow("SHA-1, empty") << QCryptographicHash::Sha1 << empty
                                  << QByteArray("da39a3ee5e6b4b0d3255bfef95601890afd80709");
    QTest::newRow("SHA-1, abc") << QCryptographicHash::Sha1 << abc
                                << QByteArray("a9993e364706816aba3e25717850c26c9cd0d89d");
    QTest::newRow("SHA-1, two blocks") << QCryptographicHash::Sha1 << twoBlocksOf512
                                       << QByteArray("84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    QTest::newRow("SHA-1, a million a's") << QCryptographicHash::Sha1 << million
                                          << QByteArray("34aa973cd4c4daa4f61eeb2bdbad27316534016f");
    QTest::newRow("SHA-224, empty")
        << QCryptographicHash::Sha224 << empty
        << QByteArray("d14a028c2a3a2bc9476102bb288234c415a2b01f828ea62ac5b3e42f");
    QTest::newRow("SHA-224, abc")
        << QCryptographicHash::Sha224 << abc
        << QByteArray("23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7");
    QTest::newRow("SHA-224, two blocks")
        << QCryptographicHash::Sha224 << twoBlocksOf512
        << QByteArray("75388b16512776cc5dba5da1fd890150b0c6455cb4f58b1952522525");
    QTest::newRow("SHA-224, a million a's")
        << QCryptographicHash::Sha224 << million
        << QByteArray("20794655980c91d8bbb4c1ea97618a4bf03f42581948b2ee4ee7ad67");
    QTest::newRow("SHA-256, empty")
        << QCryptographicHash::Sha256 << empty
        << QByteArray("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    QTest::newRow("SHA-256, abc")
        << QCryptographicHash::Sha256 << abc
        << QByteArray("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    QTest::newRow("SHA-256, two blocks")
        << QCryptographicHash::Sha256 << twoBlocksOf512
        << QByteArray("248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    QTest::newRow("SHA-256, a million a's")
        << QCryptographicHash::Sha256 << million
        << QByteArray("cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    QTest::newRow("SHA-384, empty")
        << QCryptographicHash::Sha384 << empty
        << QByteArray("38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da"
                      "274edebfe76f65fbd51ad2f14898b95b");
    QTest::newRow("SHA-384, abc")
        << QCryptographicHash::Sha384 << abc
        << QByteArray("cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed"
                      "8086072ba1e7cc2358baeca134c825a7");
    QTest::newRow("SHA-384, two blocks")
        << QCryptographicHash::Sha384 << twoBlocksOf1024
        << QByteArray("09330c33f71147e83d192fc782cd1b4753111b173b3b05d22fa08086e3b0f712"
                      "fcc7c71a557e2db966c3e9fa91746039");
    QTest::newRow("SHA-384, a million a's")
        << QCryptographicHash::Sha384 << million
        << QByteArray("9d0e1809716474cb086e834e310a4a1ced149e9c00f248527972cec5704c2a5b"
                      "07b8b3dc38ecc4ebae97ddd87f3d8985");
    QTest::newRow("SHA-512, empty")
        << QCryptographicHash::Sha512 << empty
        << QByteArray("cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
                      "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e");
    QTest::newRow("SHA-512, abc")
        << QCryptographicHash::Sha512 << abc
        << QByteArray("ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                      "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
    QTest::newRow("SHA-512, two blocks")
        << QCryptographicHash::Sha512 << twoBlocksOf1024
        << QByteArray("8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018"
                      "501d289e4900f7e4331b99dec4b5433ac7d329eeb6dd26545e96e55b874be909");
    QTest::newRow("SHA-512, a million a's")
        << QCryptographicHash::Sha512 << million
        << QByteArray("e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
                      "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b");
    QTest::newRow("SHA3-224, empty")
        << QCryptographicHash::RealSha3_224 << empty
        << QByteArray("6b4e03423667dbb73b6e15454f0eb1abd4597f9a1b078e3f5b5a6bc7");
    QTest::newRow("SHA3-224, abc")
        << QCryptographicHash::RealSha3_224 << abc
        << QByteArray("e642824c3f8cf24ad09234ee7d3c766fc9a3a5168d0c94ad73b46fdf");
    QTest::newRow("SHA3-256, empty")
        << QCryptographicHash::RealSha3_256 << empty
        << QByteArray("a7ffc6f8bf1ed76651c14756a061d662f580ff4de43b49fa82d80a4b80f8434a");
    QTest::newRow("SHA3-256, abc")
        << QCryptographicHash::RealSha3_256 << abc
        << QByteArray("3a985da74fe225b2045c172d6bd390bd855f086e3e9d525b46bfe24511431532");
    QTest::newRow("SHA3-384, empty")
        << QCryptographicHash::RealSha3_384 << empty
        << QByteArray("0c63a75b845e4f7d01107d852e4c2485c51a50aaaa94fc61995e71bbee983a2a"
                      "c3713831264adb47fb6bd1e058d5f004");
    QTest::newRow("SHA3-384, abc")
        << QCryptographicHash::RealSha3_384 << abc
        << QByteArray("ec01498288516fc926459f58e2c6ad8df9b473cb0fc08c2596da7cf0e49be4b2"
                      "98d88cea927ac7f539f1edf228376d25");
    QTest::newRow("SHA3-512, empty")
        << QCryptographicHash::RealSha3_512 << empty
        << QByteArray("a69f73cca23a9ac5c8b567dc185a756e97c982164fe25859e0d1dcc1475c80a6"
                      "15b2123af1f5f94c11e3e9402c3ac558f500199d95b6d3e301758586281dcd26");
    QTest::newRow("SHA3-512, abc")
        << QCryptographicHash::RealSha3_512 << abc
        << QByteArray("b751850b1a57168a5693cd924b6b096e08f621827444f70d884f5d0240d2712e"
                      "10e116e9192af3c91a7ec57647e3934057340b4cf408d5a56592f8274eec53f0");
    QTest::newRow("SHA3-512, a million a's")
        << QCryptographicHash::RealSha3_512 << million
        << QByteArray("3c3a876da14034ab60627c077bb98f7e120a2a5370212dffb3385a18d4f38859"
                      "ed311d0a9d5141ce9cc5c66ee689b266a8aa18ace8282a0e0db596c90b0a7b87");
    QTest::newRow("MD4, abc") << QCryptographicHash::Md4 << abc
                              << QByteArray("a448017aaf21d8525fc10ae87aa6729d");
    QTest::newRow("Keccak-256, empty")
        << QCryptographicHash::Keccak_256 << empty
        << QByteArray("c5d2460186f7233c927e7db2dcc703c0e500b653ca82273b7bfad8045d85a470");
    QTest::newRow("Keccak-256, abc")
        << QCryptographicHash::Keccak_256 << abc
        << QByteArray("4e03657aea45a94fc7d47ba826c8d667c0d1e6e33a64a036ec44f58fa12d6c45");
}

void tst_Digest::knownAnswers()
{
    QFETCH(QCryptographicHash::Algorithm, algorithm);
    QFETCH(QByteArray, message);
    QFETCH(QByteArray, digest);

    QCOMPARE(digestOfRead(message, algorithm).toHex(), digest);
    QCOMPARE(digestOf(message, algorithm).toHex(), digest);
    Digest running(algorithm);
    running.add(message.constData(), message.size());
    QCOMPARE(running.finish().toHex(), digest);
}

void tst_Digest::everyAlgorithmMatchesQt_data()
{
    QTest::addColumn<QCryptographicHash::Algorithm>("algorithm");

    const QMetaEnum algorithms = QMetaEnum::fromType<QCryptographicHash::Algorithm>();
    QVERIFY(algorithms.keyCount() >= 15);
    for (int index = 0; index < algorithms.keyCount(); ++index)
        QTest::newRow(algorithms.key(index))
            << static_cast<QCryptographicHash::Algorithm>(algorithms.value(index));
}

void tst_Digest::everyAlgorithmMatchesQt()
{
    QFETCH(QCryptographicHash::Algorithm, algorithm);
    const QByteArray content = randomBytes(3 * BlockSize, 1);
    for (const int size :
        {0, 1, 2, 3, 7, 15, 55, 56, 63, 64, 65, 111, 112, 127, 128, 129, BlockSize - 1, BlockSize,
            BlockSize + 1, 2 * BlockSize - 1, 2 * BlockSize, 2 * BlockSize + 1, 3 * BlockSize}) {
        const QByteArray part = content.left(size);
        QVERIFY2(digestOfRead(part, algorithm) == QCryptographicHash::hash(part, algorithm),
            QByteArray::number(size).constData());
    }
}

void tst_Digest::piecesMakeNoDifference_data()
{
    everyAlgorithmMatchesQt_data();
}

void tst_Digest::piecesMakeNoDifference()
{
    QFETCH(QCryptographicHash::Algorithm, algorithm);
    const QByteArray content = randomBytes(1000, 1);
    for (const int pieceSize : {1, 3, 63, 64, 65, 128, 999, 1000}) {
        Digest digest(algorithm);
        for (int at = 0; at < content.size(); at += pieceSize) {
            digest.add(content.constData() + at, qMin(pieceSize, content.size() - at));
            digest.add(content.constData(), 0);
        }
        QCOMPARE(digest.finish(), QCryptographicHash::hash(content, algorithm));
    }
}

void tst_Digest::digestsRunSideBySide()
{
    Digest first(QCryptographicHash::Sha512);
    Digest second(QCryptographicHash::Sha512);
    first.add("a", 1);
    second.add("x", 1);
    first.add("bc", 2);
    second.add("yz", 2);
    QCOMPARE(first.finish(), QCryptographicHash::hash("abc", QCryptographicHash::Sha512));
    QCOMPARE(second.finish(), QCryptographicHash::hash("xyz", QCryptographicHash::Sha512));
}

#ifdef PELLOX_HAVE_LIBCRYPTO
/// A libcrypto that is set up to allow some algorithms alone refuses the others when they begin.
void tst_Digest::refusedAlgorithmIsTakenFromQt()
{
    const QByteArray content(3 * BlockSize + 1, 'x');
    s_refuses = true;
    const QByteArray whole = digestOf(content, QCryptographicHash::Md5);
    const QByteArray read = digestOfRead(content, QCryptographicHash::Sha512);
    s_refuses = false;
    QCOMPARE(whole, QCryptographicHash::hash(content, QCryptographicHash::Md5));
    QCOMPARE(read, QCryptographicHash::hash(content, QCryptographicHash::Sha512));
}
#endif

void tst_Digest::shortReadsMakeNoDifference_data()
{
    QTest::addColumn<int>("pieceSize");

    QTest::newRow("one byte") << 1;
    QTest::newRow("seven bytes") << 7;
    QTest::newRow("one short of a block") << BlockSize - 1;
    QTest::newRow("a block") << BlockSize;
    QTest::newRow("all") << std::numeric_limits<int>::max();
}

void tst_Digest::shortReadsMakeNoDifference()
{
    QFETCH(int, pieceSize);
    const QByteArray content = randomBytes(2 * BlockSize + 1, 1);
    FickleDevice device(content, pieceSize);
    QCOMPARE(digestOf(device, QCryptographicHash::Sha512),
        QCryptographicHash::hash(content, QCryptographicHash::Sha512));
}

void tst_Digest::onlyWhatTheDeviceStillHoldsCounts()
{
    QByteArray content("not this, but this");
    QBuffer buffer(&content);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    buffer.read(10);
    QCOMPARE(digestOf(buffer, QCryptographicHash::Sha512),
        QCryptographicHash::hash("but this", QCryptographicHash::Sha512));
    QCOMPARE(digestOf(buffer, QCryptographicHash::Sha512),
        QCryptographicHash::hash("", QCryptographicHash::Sha512));
}

void tst_Digest::filesAreRead()
{
    const TestTree tree;
    const QByteArray content = randomBytes(5 * BlockSize + 3, 1);
    tree.write(QStringLiteral("file"), content);
    QFile file(tree.path(QStringLiteral("file")));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(digestOf(file, QCryptographicHash::Sha512),
        QCryptographicHash::hash(content, QCryptographicHash::Sha512));
}

void tst_Digest::failedReadGivesNothing_data()
{
    QTest::addColumn<int>("failsAt");

    QTest::newRow("at once") << 0;
    QTest::newRow("after a byte") << 1;
    QTest::newRow("one short of a block") << BlockSize - 1;
    QTest::newRow("after a block") << BlockSize;
    QTest::newRow("in the second block") << BlockSize + 1;
    QTest::newRow("at the end") << 3 * BlockSize;
}

void tst_Digest::failedReadGivesNothing()
{
    QFETCH(int, failsAt);
    const QByteArray content = randomBytes(3 * BlockSize, 1);
    for (const auto algorithm : {QCryptographicHash::Sha512, QCryptographicHash::Md4}) {
        FickleDevice device(content, 10000, failsAt);
        QCOMPARE(digestOf(device, algorithm), QByteArray());
    }
}

void tst_Digest::unreadableFileGivesNothing()
{
    QFile unreadable(QStringLiteral("/proc/self/mem"));
    QVERIFY(unreadable.open(QIODevice::ReadOnly));
    QCOMPARE(digestOf(unreadable, QCryptographicHash::Sha512), QByteArray());
}

void tst_Digest::closedDeviceGivesNothing()
{
    QBuffer closed;
    QCOMPARE(digestOf(closed, QCryptographicHash::Sha512), QByteArray());
    QCOMPARE(m_log->take(QtWarningMsg, "default"),
        QStringList(QStringLiteral("QIODevice::read (QBuffer): device not open")));
}

QTEST_GUILESS_MAIN(tst_Digest)
#include "tst_digest.moc"
