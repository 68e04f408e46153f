// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "sealedpatch.h"

#include <QStringList>

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
 *   TEXT       the sealed text, see sealedpatch.h, as a JSON string: with a backslash before each
 *              quotation mark and each backslash, nothing else escaped
 *   KEY        SHA-256 of the 32 bytes of the public key, 64 lowercase hexadecimal digits
 *   SIGNATURE  Ed25519 (RFC 8032, no context, no prehash) of the UTF-8 bytes of the sealed text by
 *              that key: 64 bytes in base64
 *
 * From 1 to 16 signatures, in ascending order of their keys, none twice. There is exactly one form
 * of each seal: a reader takes no other.
 */
inline const QString SealFileName = QStringLiteral("patchSeal.json");

constexpr std::size_t MostSignatures = 16;

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
