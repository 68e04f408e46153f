// SPDX-License-Identifier: MIT
#include "patchhelp.h"

#include "deltafile.h"
#include "logcategories.h"

#include <QtEndian>

#include <librsync.h>

#include <array>
#include <cstdio>
#include <limits>
#include <new>

QLoggingCategory logCatPH("PatchHelper");

namespace Pellox {

namespace {

constexpr size_t SignatureBlockLength = 2048;
constexpr size_t FullStrongSumLength = 0; // librsync's word for the longest of the kind

struct SignatureSetFree
{
    void operator()(rs_signature_t *set) const { rs_free_sumset(set); }
};
using SignatureSet = std::unique_ptr<rs_signature_t, SignatureSetFree>;

/**
 * True when @p file is a signature by its magic and librsync could not get the buffer that it
 * sizes by the block length: it would end the process then.
 */
bool asksForTooLargeABuffer(std::FILE *file)
{
    std::array<uchar, 8> header{}; // magic and block length, big-endian
    const bool complete = std::fread(header.data(), header.size(), 1, file) == 1;
    std::rewind(file);
    const auto magic = qFromBigEndian<quint32>(header.data());
    const bool isSignature = magic == RS_MD4_SIG_MAGIC || magic == RS_BLAKE2_SIG_MAGIC
        || magic == RS_RK_MD4_SIG_MAGIC || magic == RS_RK_BLAKE2_SIG_MAGIC;
    if (!complete || !isSignature)
        return false;
    // Four blocks and a little, computed in an int.
    const quint64 bufferSize = 4ULL * qFromBigEndian<quint32>(header.data() + 4) + 10;
    return bufferSize > std::numeric_limits<int>::max()
        || !std::unique_ptr<char[]>(new (std::nothrow) char[bufferSize]);
}

/// @p result of writing @p output, or the error of what stdio has still held back: on a full disk
/// the end of a file must not get lost in the close.
rs_result completed(rs_result result, std::FILE *output)
{
    return result == RS_DONE && std::fflush(output) != 0 ? RS_IO_ERROR : result;
}

void logRsyncFailure(const char *message, const char *path, rs_result result)
{
    qCDebug(logCatPH) << message << path;
    qCDebug(logCatPH) << "Rsync error code:" << static_cast<int>(result);
}

} // namespace

bool createSignature(const char *basisFilePath, const char *signatureFilePath)
{
    // Both are opened before either is tested: hosts see a message for each that failed.
    DeltaFile basis = openInput(basisFilePath);
    DeltaFile signature = openOutput(signatureFilePath, {basisFilePath});
    if (!basis)
        qCDebug(logCatPH) << "ERROR: Can't open basic file for signature creating" << basisFilePath;
    if (!signature) {
        qCDebug(logCatPH) << "ERROR: Can't open signature file for signature creating"
                          << signatureFilePath;
    }
    if (!basis || !signature)
        return false;

    rs_stats_t stats;
    const rs_result result
        = completed(rs_sig_file(basis.get(), signature.get(), SignatureBlockLength,
                        FullStrongSumLength, RS_BLAKE2_SIG_MAGIC, &stats),
            signature.get());
    if (result != RS_DONE)
        logRsyncFailure("ERROR: Rsync can't create signature file", signatureFilePath, result);

    signature.reset();
    basis.reset();
    return result == RS_DONE;
}

bool createDelta(const char *signatureFilePath, const char *newFilePath, const char *deltaFilePath)
{
    DeltaFile signature = openInput(signatureFilePath);
    DeltaFile newFile = openInput(newFilePath);
    DeltaFile delta = openOutput(deltaFilePath, {signatureFilePath, newFilePath});
    if (!signature) {
        qCDebug(logCatPH) << "ERROR: Rsync can't open signature file for patch creating"
                          << signatureFilePath;
    }
    if (!newFile)
        qCDebug(logCatPH) << "ERROR: Rsync can't open new file for patch creating" << newFilePath;
    if (!delta)
        qCDebug(logCatPH) << "ERROR: Rsync can't open delta file for patch creating"
                          << deltaFilePath;
    if (!signature || !newFile || !delta) {
        delta.reset();
        newFile.reset();
        signature.reset();
        return false;
    }

    // Promised to hosts: when the signature cannot be used, everything stays open.
    const auto leaveAllOpen = [&] {
        static_cast<void>(signature.release());
        static_cast<void>(newFile.release());
        static_cast<void>(delta.release());
    };

    rs_stats_t stats;
    rs_signature_t *loaded = nullptr;
    rs_result result = asksForTooLargeABuffer(signature.get())
        ? RS_CORRUPT
        : rs_loadsig_file(signature.get(), &loaded, &stats);
    if (result != RS_DONE) {
        logRsyncFailure("ERROR: Rsync can't load signature file", signatureFilePath, result);
        leaveAllOpen();
        return false;
    }
    result = rs_build_hash_table(loaded);
    if (result != RS_DONE) {
        logRsyncFailure("ERROR: Rsync can't build hash table", signatureFilePath, result);
        leaveAllOpen();
        return false;
    }

    const SignatureSet signatureSet(loaded);
    result = completed(
        rs_delta_file(signatureSet.get(), newFile.get(), delta.get(), &stats), delta.get());
    if (result != RS_DONE)
        logRsyncFailure("ERROR: Rsync can't create delta file", deltaFilePath, result);

    delta.reset();
    newFile.reset();
    signature.reset();
    return result == RS_DONE;
}

bool applyPatch(const char *basisFilePath, const char *deltaFilePath, const char *newFilePath,
    qint64 fileSize, std::function<void(qint64, qint64)> *progress)
{
    Q_UNUSED(fileSize)
    Q_UNUSED(progress)

    DeltaFile basis = openInput(basisFilePath);
    DeltaFile delta = openInput(deltaFilePath);
    DeltaFile newFile = openOutput(newFilePath, {basisFilePath, deltaFilePath});

    rs_result result = RS_IO_ERROR;
    if (basis && delta && newFile) {
        rs_stats_t stats;
        result = completed(
            rs_patch_file(basis.get(), delta.get(), newFile.get(), &stats), newFile.get());
    }

    newFile.reset();
    delta.reset();
    basis.reset();
    return result == RS_DONE;
}

bool createSignature(const QString &basisFilePath, const QString &signatureFilePath)
{
    const QByteArray basis = basisFilePath.toLocal8Bit();
    const QByteArray signature = signatureFilePath.toLocal8Bit();
    return createSignature(basis.constData(), signature.constData());
}

bool createDelta(
    const QString &signatureFilePath, const QString &newFilePath, const QString &deltaFilePath)
{
    const QByteArray signature = signatureFilePath.toLocal8Bit();
    const QByteArray newFile = newFilePath.toLocal8Bit();
    const QByteArray delta = deltaFilePath.toLocal8Bit();
    return createDelta(signature.constData(), newFile.constData(), delta.constData());
}

bool applyPatch(const QString &basisFilePath, const QString &deltaFilePath,
    const QString &newFilePath, qint64 fileSize, std::function<void(qint64, qint64)> *progress)
{
    const QByteArray basis = basisFilePath.toLocal8Bit();
    const QByteArray delta = deltaFilePath.toLocal8Bit();
    const QByteArray newFile = newFilePath.toLocal8Bit();
    return applyPatch(
        basis.constData(), delta.constData(), newFile.constData(), fileSize, progress);
}

void onCallBac(rs_progress *p)
{
    if (!p || !p->user)
        return;
    const auto &callable = *static_cast<std::function<void(qint64, qint64)> *>(p->user);
    callable(p->done, p->total);
}

void setRsyncLogLevel(loglevel level)
{
    rs_trace_set_level(static_cast<rs_loglevel>(level));
}

void setRsyncLogOutput(void (*fn)(loglevel, const char *))
{
    // librsync's callback type but for the name of the level's type, which has the same numbers.
    rs_trace_to(reinterpret_cast<rs_trace_fn_t *>(fn));
}

} // namespace Pellox
