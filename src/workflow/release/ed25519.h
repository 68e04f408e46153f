// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>

struct evp_pkey_st;

namespace Pellox::Ed25519 {

/*
 * Keys and signatures by OpenSSL's libcrypto. Where the library is built without it, no key can be
 * read or made, and the error says so.
 */

/// Why there are no keys here, about @p path; empty when there are.
QString problemOfLibrary(const QString &path);

constexpr int SignatureSize = 64; ///< bytes

struct KeyFree
{
    void operator()(evp_pkey_st *key) const;
};
using KeyHandle = std::unique_ptr<evp_pkey_st, KeyFree>;

class PublicKey
{
public:
    /// From a PEM file, as "openssl pkey -pubout" writes it. Nothing after @p error.
    static std::optional<PublicKey> read(const QString &path, QString *error);

    /// The SHA-256 of the key's 32 bytes, in lowercase hexadecimal digits.
    QByteArray id() const { return m_id; }
    bool verifies(const QByteArray &text, const QByteArray &signature) const;

private:
    explicit PublicKey(KeyHandle key);

    KeyHandle m_key;
    QByteArray m_id;
};

class PrivateKey
{
public:
    /**
     * From a PEM file, as "openssl genpkey -algorithm ed25519" writes it. Nothing after @p error,
     * also when others than the file's owner may read or write it, or when it has a password.
     */
    static std::optional<PrivateKey> read(const QString &path, QString *error);

    /// That of its public key.
    QByteArray id() const { return m_id; }
    /// Empty when libcrypto refuses.
    QByteArray sign(const QByteArray &text) const;

private:
    explicit PrivateKey(KeyHandle key);

    KeyHandle m_key;
    QByteArray m_id;
};

/**
 * Makes a key and writes both its files, the private one for its owner alone. False after
 * @p error, and then neither is left; a file that is there already stays as it is.
 */
bool generateKey(const QString &privateKey, const QString &publicKey, QString *error);

} // namespace Pellox::Ed25519
