// SPDX-License-Identifier: MIT
#include "ed25519.h"

#include "diskfile.h"

#ifdef PELLOX_HAVE_LIBCRYPTO

#include "digest.h"
#include "wholefile.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <unistd.h>

#endif

namespace Pellox::Ed25519 {

#ifdef PELLOX_HAVE_LIBCRYPTO

namespace {

constexpr char Algorithm[] = "ED25519";

struct BioFree
{
    void operator()(BIO *bio) const { BIO_free(bio); }
};
using BioHandle = std::unique_ptr<BIO, BioFree>;

struct ContextFree
{
    void operator()(EVP_MD_CTX *context) const { EVP_MD_CTX_free(context); }
};
using ContextHandle = std::unique_ptr<EVP_MD_CTX, ContextFree>;

/// Takes away the errors that calls leave with the thread, which the host's own use of libcrypto
/// would take for its own.
class ErrorMark
{
public:
    ErrorMark() { ERR_set_mark(); }
    ~ErrorMark() { ERR_pop_to_mark(); }
    ErrorMark(const ErrorMark &) = delete;
    ErrorMark &operator=(const ErrorMark &) = delete;
};

/// Instead of the question on the terminal that libcrypto would ask.
int noPassword(char *, int, int, void *)
{
    return -1;
}

const unsigned char *bytesOf(const QByteArray &text)
{
    return reinterpret_cast<const unsigned char *>(text.constData());
}

/// The text of a key file; whoever takes it wipes it. Nothing after @p error.
std::optional<QByteArray> readKeyFile(InputFile &file, QString *error)
{
    constexpr qint64 Largest = 1 << 14; // with room for what openssl prints about a key
    auto text = readWhole(file, Largest, error);
    if (text && text->isEmpty()) {
        *error = aboutFile(file.path(), QStringLiteral("is empty"));
        return {};
    }
    return text;
}

QString problemOfKey(const EVP_PKEY *key, const QByteArray &text, const char *kind)
{
    if (!key)
        return QStringLiteral("holds no %1 key in PEM form").arg(QLatin1String(kind));
    if (EVP_PKEY_is_a(key, Algorithm) != 1)
        return QStringLiteral("is no Ed25519 key");
    if (text.count("-----BEGIN ") > 1)
        return QStringLiteral("holds more than one key");
    return {};
}

/// Empty when libcrypto refuses.
QByteArray idOf(const EVP_PKEY *key)
{
    constexpr int Size = 32;
    QByteArray raw(Size, '\0');
    std::size_t size = Size;
    auto *bytes = reinterpret_cast<unsigned char *>(raw.data());
    if (EVP_PKEY_get_raw_public_key(key, bytes, &size) != 1 || size != Size)
        return {};
    return digestOf(raw, QCryptographicHash::Sha256).toHex();
}

/// A file that is there only once it is complete, or else is removed.
class NewFile
{
public:
    NewFile() = default;
    ~NewFile();
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;

    /// Not where anything stands. With those permissions from its first moment, so that nobody
    /// opens it before it is closed to him.
    bool create(const QString &path, mode_t permissions);
    /// All of it, and waits until that is on the disk.
    bool write(BIO *text);
    void keep() { m_isMine = false; }

    QString error() const { return m_error; }

private:
    bool writeAll(const char *data, std::size_t size);
    bool fail(const QString &reason);

    QString m_path;
    int m_handle = -1;
    bool m_isMine = false;
    QString m_error;
};

NewFile::~NewFile()
{
    if (m_handle >= 0)
        ::close(m_handle);
    if (m_isMine)
        ::unlink(QFile::encodeName(m_path).constData());
}

bool NewFile::create(const QString &path, mode_t permissions)
{
    m_path = path;
    m_handle = ::open(
        QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, permissions);
    m_isMine = m_handle >= 0;
    if (m_isMine)
        return true;
    return fail(errno == EEXIST ? QStringLiteral("exists already, and keys are never written over")
                                : QLatin1String("cannot be made: ") + lastSystemError());
}

bool NewFile::write(BIO *text)
{
    char *data = nullptr;
    const long size = BIO_get_mem_data(text, &data);
    const bool written = writeAll(data, static_cast<std::size_t>(size)) && ::fsync(m_handle) == 0;
    if (::close(std::exchange(m_handle, -1)) == 0 && written)
        return syncFolderOf(m_path, &m_error);
    return fail(QLatin1String("cannot be written: ") + lastSystemError());
}

bool NewFile::writeAll(const char *data, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(m_handle, data, size);
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0) {
            data += written;
            size -= static_cast<std::size_t>(written);
        }
    }
    return true;
}

bool NewFile::fail(const QString &reason)
{
    m_error = aboutFile(m_path, reason);
    return false;
}

} // namespace

QString problemOfLibrary(const QString &)
{
    return {};
}

void KeyFree::operator()(evp_pkey_st *key) const
{
    EVP_PKEY_free(key);
}

PublicKey::PublicKey(KeyHandle key)
    : m_key(std::move(key))
    , m_id(idOf(m_key.get()))
{
}

std::optional<PublicKey> PublicKey::read(const QString &path, QString *error)
{
    const ErrorMark mark;
    InputFile file;
    if (!file.open(path)) {
        *error = file.error();
        return {};
    }
    auto text = readKeyFile(file, error);
    if (!text)
        return {};
    const BioHandle bio(BIO_new_mem_buf(text->constData(), static_cast<int>(text->size())));
    KeyHandle handle(PEM_read_bio_PUBKEY(bio.get(), nullptr, &noPassword, nullptr));
    QString problem = problemOfKey(handle.get(), *text, "public");
    if (!handle && text->contains("PRIVATE KEY-----")) {
        OPENSSL_cleanse(text->data(), static_cast<std::size_t>(text->size()));
        problem = QStringLiteral("holds a private key where the public one belongs");
    }
    if (problem.isEmpty()) {
        PublicKey key(std::move(handle));
        if (!key.id().isEmpty())
            return key;
        problem = QStringLiteral("cannot be used: libcrypto refuses it");
    }
    *error = aboutFile(path, problem);
    return {};
}

bool PublicKey::verifies(const QByteArray &text, const QByteArray &signature) const
{
    const ErrorMark mark;
    const ContextHandle context(EVP_MD_CTX_new());
    return context
        && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, m_key.get()) == 1
        && EVP_DigestVerify(context.get(), bytesOf(signature),
               static_cast<std::size_t>(signature.size()), bytesOf(text),
               static_cast<std::size_t>(text.size()))
        == 1;
}

PrivateKey::PrivateKey(KeyHandle key)
    : m_key(std::move(key))
    , m_id(idOf(m_key.get()))
{
}

std::optional<PrivateKey> PrivateKey::read(const QString &path, QString *error)
{
    constexpr mode_t OfOthers = S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
    const auto fail = [&](const QString &problem) {
        *error = aboutFile(path, problem);
        return std::nullopt;
    };
    const ErrorMark mark;
    InputFile file;
    if (!file.open(path)) {
        *error = file.error();
        return {};
    }
    if ((file.permissions() & OfOthers) != 0)
        return fail(
            QStringLiteral("is a private key that others may read or write; chmod 600 ends that"));
    auto text = readKeyFile(file, error);
    if (!text)
        return {};
    const BioHandle bio(BIO_new_mem_buf(text->constData(), static_cast<int>(text->size())));
    KeyHandle handle(PEM_read_bio_PrivateKey(bio.get(), nullptr, &noPassword, nullptr));
    const QString problem = !handle && text->contains("ENCRYPTED")
        ? QStringLiteral("has a password; only a key without one can be used")
        : problemOfKey(handle.get(), *text, "private");
    OPENSSL_cleanse(text->data(), static_cast<std::size_t>(text->size()));
    if (!problem.isEmpty())
        return fail(problem);
    PrivateKey key(std::move(handle));
    if (key.id().isEmpty())
        return fail(QStringLiteral("cannot be used: libcrypto refuses it"));
    return key;
}

QByteArray PrivateKey::sign(const QByteArray &text) const
{
    const ErrorMark mark;
    const ContextHandle context(EVP_MD_CTX_new());
    QByteArray signature(SignatureSize, '\0');
    std::size_t size = SignatureSize;
    const bool isSigned = context
        && EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, m_key.get()) == 1
        && EVP_DigestSign(context.get(), reinterpret_cast<unsigned char *>(signature.data()), &size,
               bytesOf(text), static_cast<std::size_t>(text.size()))
            == 1
        && size == SignatureSize;
    return isSigned ? signature : QByteArray();
}

bool generateKey(const QString &privateKey, const QString &publicKey, QString *error)
{
    constexpr mode_t OwnerAlone = 0600;
    constexpr mode_t Everybody = 0644;
    const ErrorMark mark;
    const KeyHandle key(EVP_PKEY_Q_keygen(nullptr, nullptr, Algorithm));
    const BioHandle privateText(BIO_new(BIO_s_mem())); // wiped by libcrypto at its end
    const BioHandle publicText(BIO_new(BIO_s_mem()));
    if (!key || !privateText || !publicText
        || PEM_write_bio_PKCS8PrivateKey(
               privateText.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr)
            != 1
        || PEM_write_bio_PUBKEY(publicText.get(), key.get()) != 1) {
        *error = aboutFile(privateKey, QStringLiteral("cannot be made: libcrypto refuses"));
        return false;
    }
    NewFile privateFile;
    NewFile publicFile;
    const auto failAs = [&](const NewFile &file) {
        *error = file.error();
        return false;
    };
    if (!privateFile.create(privateKey, OwnerAlone))
        return failAs(privateFile);
    if (!publicFile.create(publicKey, Everybody) || !publicFile.write(publicText.get()))
        return failAs(publicFile);
    if (!privateFile.write(privateText.get()))
        return failAs(privateFile);
    privateFile.keep();
    publicFile.keep();
    return true;
}

#else

QString problemOfLibrary(const QString &path)
{
    return aboutFile(path,
        QStringLiteral("seals and their keys need OpenSSL's libcrypto, and this library is built "
                       "without it"));
}

void KeyFree::operator()(evp_pkey_st *) const { }

PublicKey::PublicKey(KeyHandle key)
    : m_key(std::move(key))
{
}

std::optional<PublicKey> PublicKey::read(const QString &path, QString *error)
{
    *error = problemOfLibrary(path);
    return {};
}

bool PublicKey::verifies(const QByteArray &, const QByteArray &) const
{
    return false;
}

PrivateKey::PrivateKey(KeyHandle key)
    : m_key(std::move(key))
{
}

std::optional<PrivateKey> PrivateKey::read(const QString &path, QString *error)
{
    *error = problemOfLibrary(path);
    return {};
}

QByteArray PrivateKey::sign(const QByteArray &) const
{
    return {};
}

bool generateKey(const QString &privateKey, const QString &, QString *error)
{
    *error = problemOfLibrary(privateKey);
    return false;
}

#endif

} // namespace Pellox::Ed25519
