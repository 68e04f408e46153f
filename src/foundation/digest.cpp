// SPDX-License-Identifier: MIT
#include "digest.h"

#include <QIODevice>

#ifdef PELLOX_HAVE_LIBCRYPTO
#include <openssl/evp.h>
#endif

namespace Pellox {

namespace {

constexpr int ReadSize = 64 * 1024;

} // namespace

#ifdef PELLOX_HAVE_LIBCRYPTO

namespace {

struct AlgorithmFree
{
    void operator()(EVP_MD *algorithm) const { EVP_MD_free(algorithm); }
};

/**
 * What all manifests use, fetched when the library is loaded. Fetched for each file it would
 * leave state of libcrypto with every pool thread, which a process that ends may leak.
 */
const std::unique_ptr<EVP_MD, AlgorithmFree> Sha512(EVP_MD_fetch(nullptr, "SHA512", nullptr));

/// Null where libcrypto has nothing to offer.
const EVP_MD *evpAlgorithm(QCryptographicHash::Algorithm algorithm)
{
    switch (algorithm) {
    case QCryptographicHash::Md5:
        return EVP_md5();
    case QCryptographicHash::Sha1:
        return EVP_sha1();
    case QCryptographicHash::Sha224:
        return EVP_sha224();
    case QCryptographicHash::Sha256:
        return EVP_sha256();
    case QCryptographicHash::Sha384:
        return EVP_sha384();
    case QCryptographicHash::Sha512:
        return Sha512.get();
    case QCryptographicHash::RealSha3_224:
        return EVP_sha3_224();
    case QCryptographicHash::RealSha3_256:
        return EVP_sha3_256();
    case QCryptographicHash::RealSha3_384:
        return EVP_sha3_384();
    case QCryptographicHash::RealSha3_512:
        return EVP_sha3_512();
    default:
        return nullptr;
    }
}

} // namespace

void Digest::ContextFree::operator()(evp_md_ctx_st *context) const
{
    EVP_MD_CTX_free(context);
}

Digest::Digest(QCryptographicHash::Algorithm algorithm)
    : m_qtHash(algorithm)
{
    const EVP_MD *evp = evpAlgorithm(algorithm);
    if (!evp)
        return;
    m_context.reset(EVP_MD_CTX_new());
    // A restricted libcrypto refuses some algorithms only here.
    if (m_context && EVP_DigestInit_ex(m_context.get(), evp, nullptr) != 1)
        m_context.reset();
}

void Digest::add(const char *data, qint64 size)
{
    if (m_context)
        m_failed |= EVP_DigestUpdate(m_context.get(), data, static_cast<size_t>(size)) != 1;
    else
        m_qtHash.addData(QByteArray::fromRawData(data, static_cast<int>(size)));
}

QByteArray Digest::finish()
{
    if (!m_context)
        return m_qtHash.result();
    QByteArray digest(EVP_MD_CTX_size(m_context.get()), Qt::Uninitialized);
    auto *bytes = reinterpret_cast<unsigned char *>(digest.data());
    m_failed |= EVP_DigestFinal_ex(m_context.get(), bytes, nullptr) != 1;
    return m_failed ? QByteArray() : digest;
}

#else

void Digest::ContextFree::operator()(evp_md_ctx_st *) const { }

Digest::Digest(QCryptographicHash::Algorithm algorithm)
    : m_qtHash(algorithm)
{
}

void Digest::add(const char *data, qint64 size)
{
    m_qtHash.addData(QByteArray::fromRawData(data, static_cast<int>(size)));
}

QByteArray Digest::finish()
{
    return m_qtHash.result();
}

#endif

QByteArray digestOf(const QByteArray &bytes, QCryptographicHash::Algorithm algorithm)
{
    Digest digest(algorithm);
    digest.add(bytes.constData(), bytes.size());
    return digest.finish();
}

QByteArray digestOf(QIODevice &device, QCryptographicHash::Algorithm algorithm)
{
    Digest digest(algorithm);
    QByteArray block(ReadSize, Qt::Uninitialized);
    for (;;) {
        const qint64 got = device.read(block.data(), block.size());
        if (got < 0)
            return {};
        if (got == 0)
            return digest.finish();
        digest.add(block.constData(), got);
    }
}

} // namespace Pellox
