// SPDX-License-Identifier: MIT
#include "sealfile.h"

#include "ed25519.h"
#include "filesystem.h"
#include "manifest.h"
#include "sealjson.h"
#include "wholefile.h"

#include <algorithm>
#include <cerrno>

namespace Pellox {

using namespace SealJson;

namespace {

constexpr qint64 LargestSeal = 1LL << 28;

// What stands before each value. Values in quotation marks have the first of them here.
constexpr char BeforeText[] = R"({"sealed":")";
constexpr char BeforeSignatures[] = R"(,"signatures":[)";
constexpr char BeforeKey[] = R"({"key":")";
constexpr char BeforeSignature[] = R"(,"signature":")";
constexpr char SealEnd[] = "]}\n";

const QString NoForm = QStringLiteral("is damaged: it has not the form of a seal");

struct Signature
{
    QByteArray key; ///< its id
    QByteArray bytes;
};

/// A seal whose signatures nobody has looked at.
struct SealParts
{
    QByteArray text;
    std::vector<Signature> signatures;
};

QByteArray toBytes(const SealParts &seal)
{
    QByteArray bytes = BeforeText + escaped(seal.text) + Quote + BeforeSignatures;
    for (const Signature &signature : seal.signatures) {
        if (&signature != &seal.signatures.front())
            bytes += Comma;
        bytes += BeforeKey + signature.key + Quote + BeforeSignature + signature.bytes.toBase64()
            + Quote + RecordEnd;
    }
    return bytes + SealEnd;
}

Signature takeSignature(Scanner &scanner)
{
    constexpr int KeySize = 64;
    scanner.expect(BeforeKey);
    const QByteArray key = scanner.string();
    scanner.expect(BeforeSignature);
    const QByteArray base64 = scanner.string();
    const QByteArray bytes = QByteArray::fromBase64(base64);
    // Decoding overlooks more than it should, so only the way back tells.
    if (key.size() != KeySize || QByteArray::fromHex(key).toHex() != key
        || bytes.size() != Ed25519::SignatureSize || bytes.toBase64() != base64)
        scanner.fail();
    scanner.expect(RecordEnd);
    return {key, bytes};
}

/// Reads what toBytes() writes.
std::optional<SealParts> readParts(const QByteArray &bytes)
{
    Scanner scanner(bytes);
    SealParts seal;
    scanner.expect(BeforeText);
    seal.text = scanner.string();
    scanner.expect(BeforeSignatures);
    do {
        Signature signature = takeSignature(scanner);
        if (seal.signatures.size() == MostSignatures
            || (!seal.signatures.empty() && signature.key <= seal.signatures.back().key))
            scanner.fail();
        seal.signatures.push_back(std::move(signature));
    } while (scanner.skip(Comma));
    scanner.expect(SealEnd);
    if (!scanner.isAtEnd())
        return {};
    return seal;
}

/// Of @p text, which may begin with @p path.
FileError errorAbout(const QString &path, const QString &text)
{
    const QString begin = aboutFile(path, QString());
    return {path, text.startsWith(begin) ? text.mid(begin.size()) : text};
}

} // namespace

std::optional<QByteArray> readSealFile(const QString &patch, FileError *error)
{
    const QString path = Manifest::pathIn(patch, SealFileName);
    const auto status = statusOf(path);
    const bool isMissing = !status && (errno == ENOENT || errno == ENOTDIR);
    const auto fail = [&](const QString &reason) {
        *error = {path, reason};
        return std::nullopt;
    };
    if (isMissing)
        return fail(QStringLiteral("is missing, so the patch is not sealed"));
    if (status && !S_ISREG(status->st_mode))
        return fail(QStringLiteral("is damaged: it is no regular file"));
    InputFile file;
    if (!file.open(path)) {
        *error = file.error();
        return {};
    }
    if (file.size() > LargestSeal)
        return fail(QStringLiteral("is damaged: it is larger than any seal"));
    QString text; // the same as the file's own error
    auto bytes = readWhole(file, LargestSeal, &text);
    if (!bytes)
        *error = file.error();
    return bytes;
}

bool writeSeal(const QString &folder, const SealedPatch &patch,
    const std::vector<Ed25519::PrivateKey> &keys, QString *error)
{
    const QString path = Manifest::pathIn(folder, SealFileName);
    const auto fail = [&](const QString &reason) {
        *error = aboutFile(path, reason);
        return false;
    };
    SealParts seal{sealedText(patch), {}};
    QString problem;
    if (!readSealedText(seal.text, &problem)) // nobody could read it
        return fail(QStringLiteral("cannot be made: it ") + problem);
    for (const Ed25519::PrivateKey &key : keys)
        seal.signatures.push_back({key.id(), key.sign(seal.text)});
    std::sort(seal.signatures.begin(), seal.signatures.end(),
        [](const Signature &one, const Signature &other) { return one.key < other.key; });
    const bool isSigned = std::all_of(seal.signatures.cbegin(), seal.signatures.cend(),
        [](const Signature &signature) { return !signature.bytes.isEmpty(); });
    if (!isSigned)
        return fail(QStringLiteral("cannot be signed: libcrypto refuses"));
    const QByteArray bytes = toBytes(seal);
    if (bytes.size() > LargestSeal)
        return fail(QStringLiteral("would be too large: the patch has too many files"));
    return replaceWhole(path, bytes, error);
}

std::optional<std::vector<Ed25519::PublicKey>> readPublicKeys(
    const QStringList &files, FileError *error)
{
    std::vector<Ed25519::PublicKey> keys;
    for (const QString &file : files) {
        QString text = Ed25519::problemOfLibrary(file);
        auto key = text.isEmpty() ? Ed25519::PublicKey::read(file, &text) : std::nullopt;
        if (!key) {
            *error = errorAbout(file, text);
            return {};
        }
        keys.push_back(std::move(*key));
    }
    return keys;
}

std::optional<SealedPatch> readSeal(
    const QString &patch, const std::vector<Ed25519::PublicKey> &trusted, FileError *error)
{
    const auto bytes = readSealFile(patch, error);
    if (!bytes)
        return {};
    QString problem;
    auto sealed = readSealBytes(*bytes, trusted, &problem);
    if (!sealed)
        *error = {Manifest::pathIn(patch, SealFileName), problem};
    return sealed;
}

std::optional<SealedPatch> readSealOfAnybody(const QByteArray &bytes, QString *problem)
{
    const auto seal = readParts(bytes);
    if (seal)
        return readSealedText(seal->text, problem);
    *problem = NoForm;
    return {};
}

std::optional<SealedPatch> readSealBytes(
    const QByteArray &bytes, const std::vector<Ed25519::PublicKey> &trusted, QString *problem)
{
    const auto seal = readParts(bytes);
    if (!seal) {
        *problem = NoForm;
        return {};
    }
    bool isTrusted = false;
    for (const Signature &signature : seal->signatures) {
        const auto key = std::find_if(trusted.cbegin(), trusted.cend(),
            [&](const Ed25519::PublicKey &known) { return known.id() == signature.key; });
        if (key == trusted.cend())
            continue;
        if (!key->verifies(seal->text, signature.bytes)) {
            *problem = QStringLiteral("is damaged: its signature does not hold");
            return {};
        }
        isTrusted = true;
    }
    if (isTrusted)
        return readSealedText(seal->text, problem);
    *problem = QStringLiteral("is not by a trusted key");
    return {};
}

} // namespace Pellox
