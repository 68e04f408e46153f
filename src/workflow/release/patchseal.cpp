// SPDX-License-Identifier: MIT
#include "patchseal.h"

#include "canonicalpath.h"
#include "ed25519.h"
#include "sealrun.h"
#include "slimrun.h"

#include <QThread>

#include <algorithm>
#include <atomic>
#include <new>
#include <optional>
#include <stdexcept>

namespace Pellox {

namespace {

/// What @p job returns; nothing where there is not the memory for it.
template <typename Job> auto withMemory(const Job &job) -> std::optional<decltype(job())>
{
    try {
        return job();
    } catch (const std::bad_alloc &) {
    } catch (const std::length_error &) { // of a container that would become too large
    }
    return {};
}

FileError outOfMemory(const QString &path)
{
    return {path, QStringLiteral("out of memory")};
}

/// Those of @p publicKeys whose owners have signed the seal in folder @p patch; none after @p
/// error.
QStringList signersIn(const QString &patch, const QStringList &publicKeys, FileError *error)
{
    const auto keys = readPublicKeys(publicKeys, error);
    // All of them first: this finds what is wrong with the seal, or with one signature.
    if (!keys || !readSeal(patch, *keys, error))
        return {};
    QStringList signers;
    for (const QString &file : publicKeys) {
        FileError ignored;
        const auto key = readPublicKeys({file}, &ignored);
        if (key && readSeal(patch, *key, &ignored))
            signers.append(file);
    }
    return signers;
}

} // namespace

class PatchSeal::Private
{
public:
    /// The run that @p make makes for a number of threads.
    template <typename Make>
    bool carryOut(const QStringList &folders, const PROGRESS_CALLBACK &progress, const Make &make)
    {
        isCancelled = false;
        wasCancelled = false;
        error.clear();
        if (folders.contains(QString())) {
            error = QStringLiteral("a folder is not given");
            return false;
        }
        const auto done = withMemory([&] {
            auto run = make(threadCount > 0 ? threadCount : QThread::idealThreadCount());
            const bool isDone = run.carryOut(progress);
            error = run.error();
            return isDone;
        });
        if (!done)
            error = outOfMemory(absoluteFolder(folders.first()));
        wasCancelled = done == false && error.isEmpty();
        if (done == true && progress)
            progress(100);
        return done == true;
    }

    int threadCount = 0;
    std::atomic<bool> isCancelled{false};
    std::atomic<bool> wasCancelled{false};
    QString error;
};

PatchSeal::PatchSeal(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
}

PatchSeal::~PatchSeal() = default;

void PatchSeal::setThreadCount(int count)
{
    d->threadCount = std::max(0, count);
}

int PatchSeal::threadCount() const
{
    return d->threadCount;
}

bool PatchSeal::seal(const QString &patch, const QString &oldSignatures, qint64 release,
    const QStringList &privateKeys, const PROGRESS_CALLBACK &progress)
{
    return d->carryOut({patch, oldSignatures}, progress, [&](int threads) {
        return SealRun(
            {absoluteFolder(patch), absoluteFolder(oldSignatures), release, privateKeys, threads},
            d->isCancelled);
    });
}

bool PatchSeal::writeSlim(
    const QString &patch, const QString &slim, const PROGRESS_CALLBACK &progress)
{
    return d->carryOut({patch, slim}, progress, [&](int threads) {
        return SlimRun({absoluteFolder(patch), absoluteFolder(slim), threads}, d->isCancelled);
    });
}

void PatchSeal::cancel()
{
    d->isCancelled = true;
}

bool PatchSeal::wasCancelled() const
{
    return d->wasCancelled;
}

QString PatchSeal::error() const
{
    return d->error;
}

QStringList PatchSeal::signersOf(
    const QString &patch, const QStringList &publicKeys, QString *error)
{
    FileError problem;
    const auto signers
        = withMemory([&] { return signersIn(absoluteFolder(patch), publicKeys, &problem); });
    if (!signers)
        problem = outOfMemory(absoluteFolder(patch));
    if (error && !problem.isEmpty())
        *error = problem;
    return signers.value_or(QStringList());
}

bool PatchSeal::generateKey(const QString &privateKey, const QString &publicKey, QString *error)
{
    QString problem;
    const auto made
        = withMemory([&] { return Ed25519::generateKey(privateKey, publicKey, &problem); });
    if (!made)
        problem = outOfMemory(privateKey);
    if (error && made != true)
        *error = problem;
    return made == true;
}

} // namespace Pellox
