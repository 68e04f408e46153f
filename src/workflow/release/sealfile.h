// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "rulechecks.h"
#include "sha512.h"

#include <QStringList>

#include <map>
#include <optional>
#include <vector>

namespace Pellox {

namespace Ed25519 {
class PrivateKey;
class PublicKey;
} // namespace Ed25519

/*
 * patchSeal.json, directly in the patch folder: one line of JSON in UTF-8, a line feed at its end,
 * no blanks between its parts.
 *
 *   {"sealed":"TEXT","signatures":[{"key":"KEY","signature":"SIGNATURE"},...]}
 *
 *   TEXT       the sealed text as a JSON string: with a backslash before each quotation mark and
 *              each backslash, nothing else escaped
 *   KEY        SHA-256 of the 32 bytes of the public key, 64 lowercase hexadecimal digits
 *   SIGNATURE  Ed25519 (RFC 8032, no context, no prehash) of the UTF-8 bytes of the sealed text by
 *              that key: 64 bytes in base64
 *
 * From 1 to 16 signatures, in ascending order of their keys, none twice.
 *
 * The sealed text is JSON of one line itself, with the members in this order and without blanks:
 *
 *   {"format":"pellox-patch-seal","version":1,"release":7,"from":"SHA512","to":"SHA512",
 *    "files":[{"path":"/data/x.pak","size":12,"sha512":"SHA512"},...],
 *    "rules":[{"path":"/data/x.pak","rule":"patch","old_sha512":"SHA512","size":30,
 *              "sha512":"SHA512"},
 *             {"path":"/gone","rule":"delete","old_sha512":"SHA512"},
 *             {"path":"/new","rule":"copy","size":5,"sha512":"SHA512"},
 *             {"path":"/to","rule":"copy","size":9,"sha512":"SHA512","source":"/from"},...]}
 *
 *   release   from 1 to 2^53 - 1; the later release has the greater number
 *   from, to  the builds that the patch leads between, see identityOf(): that of signatures.json,
 *             and the same after all rules; files that publishing ignored are in both as they were
 *   files     every file of the patch folder but the seal, patchRules.json among them
 *   rules     those of patchRules.json: the file of the old build, and the size and content of the
 *             new file
 *   source    a file of the old build that has the content of the copied one, which is not empty;
 *             there where the old build has such a file. A slim patch may lack the copied one
 *
 * SHA512 is lowercase hexadecimal text, sizes are bytes. Files and rules are in ascending order of
 * the UTF-8 bytes of their paths, no path twice. There is exactly one form of each seal: a reader
 * takes no other.
 */
inline const QString SealFileName = QStringLiteral("patchSeal.json");

constexpr qint64 LargestRelease = (1LL << 53) - 1;
constexpr std::size_t MostSignatures = 16;

/// Orders texts as their UTF-8 bytes are ordered, by code points.
struct InByteOrder
{
    bool operator()(const QString &text, const QString &other) const;
};

template <typename Value>
using ByPath = std::map<QString, Value, InByteOrder>; ///< relative paths, with a separator in front

struct SealedFile
{
    qint64 size = 0;
    Sha512 sha512;
};

struct SealedRule
{
    UpdateRule::Kind kind = UpdateRule::Kind::Delete;
    Sha512 oldSha512; ///< of a patched or deleted file
    qint64 size = 0;  ///< of the new content, patched or copied
    Sha512 sha512;    ///< likewise
    QString source;   ///< of a copied file: one of the old build with its content; may be empty
};

/// What a seal says of a patch.
struct SealedPatch
{
    qint64 release = 0;
    Sha512 from;
    Sha512 to;
    ByPath<SealedFile> files; ///< of the patch folder
    ByPath<SealedRule> rules; ///< by the path in the build
};

/// Whether a slim patch may lack @p path, a file of @p patch: players have its content already.
bool mayBeLeftOut(const SealedPatch &patch, const QString &path);

/**
 * What tells a build from all others: SHA-512 over one record for each of its files, in the order
 * of the map: the SHA-512 of its content in lowercase hexadecimal text, two blanks, its path, a
 * zero byte. "sha512sum --zero" writes such records.
 */
Sha512 identityOf(const ByPath<Sha512> &build);

/// The sealed text of @p patch.
QByteArray sealedText(const SealedPatch &patch);

/**
 * Seals @p patch with each of @p keys, and replaces the seal in folder @p folder. False after
 * @p error, and then an older seal is as it was.
 */
bool writeSeal(const QString &folder, const SealedPatch &patch,
    const std::vector<Ed25519::PrivateKey> &keys, QString *error);

/// The public keys in @p files, which are PEM files. Nothing after @p error, about the first that
/// holds none.
std::optional<std::vector<Ed25519::PublicKey>> readPublicKeys(
    const QStringList &files, FileError *error);

/**
 * What the seal in folder @p patch says. At least one of the @p trusted keys must have signed it,
 * and each signature by one of them must hold. Only then is the sealed text looked at. Nothing
 * after @p error about the seal, which says "is missing", "is not by a trusted key", "is damaged",
 * or what this library does not take in a text that such a key has signed.
 */
std::optional<SealedPatch> readSeal(
    const QString &patch, const std::vector<Ed25519::PublicKey> &trusted, FileError *error);

/// The same for a seal's bytes. @p problem is without a path.
std::optional<SealedPatch> readSealBytes(
    const QByteArray &bytes, const std::vector<Ed25519::PublicKey> &trusted, QString *problem);

/// The bytes of the seal in folder @p patch. Nothing after @p error.
std::optional<QByteArray> readSealFile(const QString &patch, FileError *error);

/// What a seal's bytes say, whoever has made it: for those who look at a patch or copy it, never
/// for those who install it. @p problem is without a path.
std::optional<SealedPatch> readSealOfAnybody(const QByteArray &bytes, QString *problem);

} // namespace Pellox
