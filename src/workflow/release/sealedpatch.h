// SPDX-License-Identifier: MIT
#pragma once

#include "rulechecks.h"
#include "sha512.h"

#include <map>
#include <optional>

namespace Pellox {

/*
 * The sealed text, what the keys sign: JSON of one line, with the members in this order and without
 * blanks:
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
 * the UTF-8 bytes of their paths, no path twice. There is exactly one form of each text: a reader
 * takes no other.
 */
constexpr qint64 LargestRelease = (1LL << 53) - 1;

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

/// Reads what sealedText() writes. Nothing after @p problem about what is signed.
std::optional<SealedPatch> readSealedText(const QByteArray &text, QString *problem);

} // namespace Pellox
