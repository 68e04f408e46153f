// SPDX-License-Identifier: MIT
#pragma once

#include "loglevel.h"
#include "pellox_export.h"

#include <QString>

#include <functional>

namespace Pellox {

/*
 * Delta primitives: each is one whole-file operation of librsync, done when the call
 * returns. Memory stays small whatever the file size, but for createDelta(), which
 * holds the signature. They keep no state and may run on any number of threads at
 * once, on different files.
 *
 * Paths as C strings are in the local 8-bit encoding; QString paths are converted to
 * it and end at their first NUL. A path that does not open, a null one included, is a
 * false result; "-" is a file of that name. An existing output is replaced, except
 * where it is one of the call's own inputs: that does not open. What a failed call has
 * written stays where it is; output that does not reach the file is librsync's RS_IO_ERROR,
 * also at its very end. Failures of createSignature() and createDelta() are
 * explained by debug lines of the category "PatchHelper"; applyPatch() logs nothing.
 */

/**
 * Writes the librsync signature of @p basisFilePath (BLAKE2, blocks of 2048 bytes,
 * full-length strong sums) to @p signatureFilePath.
 * True exactly when librsync reports RS_DONE.
 */
PELLOX_EXPORT bool createSignature(const char *basisFilePath, const char *signatureFilePath);
/// The same.
PELLOX_EXPORT bool createSignature(const QString &basisFilePath, const QString &signatureFilePath);

/**
 * Writes to @p deltaFilePath the librsync delta that makes @p newFilePath out of the
 * file that @p signatureFilePath describes. The signature is held in memory.
 * True exactly when librsync reports RS_DONE. A signature whose block length asks for more
 * memory than there is cannot be loaded.
 *
 * When all three files open but the signature cannot be loaded, they stay open for the
 * life of the process; this is promised and will not change.
 */
PELLOX_EXPORT bool createDelta(
    const char *signatureFilePath, const char *newFilePath, const char *deltaFilePath);
/// The same.
PELLOX_EXPORT bool createDelta(
    const QString &signatureFilePath, const QString &newFilePath, const QString &deltaFilePath);

/**
 * Applies @p deltaFilePath to @p basisFilePath and writes the result to @p newFilePath.
 * @p fileSize (the new file's size in bytes) and @p progress are accepted and not used:
 * librsync reports no progress while it patches.
 * True exactly when librsync reports RS_DONE.
 */
PELLOX_EXPORT bool applyPatch(const char *basisFilePath, const char *deltaFilePath,
    const char *newFilePath, qint64 fileSize, std::function<void(qint64, qint64)> *progress);
/// The same.
PELLOX_EXPORT bool applyPatch(const QString &basisFilePath, const QString &deltaFilePath,
    const QString &newFilePath, qint64 fileSize, std::function<void(qint64, qint64)> *progress);

/// A progress report in the layout of librsync builds that have a progress hook.
struct rs_progress
{
    quint64 reserved; ///< not read here
    void *user;       ///< a std::function<void(qint64, qint64)> *, or null
    qint64 done;      ///< bytes
    qint64 total;     ///< bytes
};

/**
 * Hands the counters of @p p to the callable that its user pointer names; does nothing
 * without one. Throws std::bad_function_call when that callable is empty.
 */
PELLOX_EXPORT void onCallBac(rs_progress *p);

/**
 * Sets the least severe level that librsync reports, for the whole process; until the
 * first call librsync's own default holds. Call it from the main thread before any work.
 */
PELLOX_EXPORT void setRsyncLogLevel(loglevel level);

/**
 * Sends librsync's messages to @p fn, for the whole process; the last call wins. Every
 * BinariesController installs trace(). @p fn is called on whatever thread librsync runs.
 */
PELLOX_EXPORT void setRsyncLogOutput(void (*fn)(loglevel, const char *));

} // namespace Pellox
