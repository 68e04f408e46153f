// SPDX-License-Identifier: MIT
#include "patchseal.h"

#include "canonicalpath.h"
#include "ed25519.h"
#include "sealrun.h"

#include <QThread>

#include <algorithm>
#include <atomic>

namespace Pellox {

class PatchSeal::Private
{
public:
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
    d->isCancelled = false;
    d->wasCancelled = false;
    d->error.clear();
    if (patch.isEmpty() || oldSignatures.isEmpty()) {
        d->error = QStringLiteral("a folder is not given");
        return false;
    }
    const int threads = d->threadCount > 0 ? d->threadCount : QThread::idealThreadCount();
    SealRun run(
        {absoluteFolder(patch), absoluteFolder(oldSignatures), release, privateKeys, threads},
        d->isCancelled);
    const bool sealed = run.carryOut(progress);
    d->error = run.error();
    d->wasCancelled = !sealed && d->error.isEmpty();
    if (sealed && progress)
        progress(100);
    return sealed;
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
    const QString folder = absoluteFolder(patch);
    FileError problem;
    const auto keys = readPublicKeys(publicKeys, &problem);
    // All of them first: this finds what is wrong with the seal, or with one signature.
    const bool isSigned = keys && readSeal(folder, *keys, &problem);
    if (!isSigned && error)
        *error = problem;
    QStringList signers;
    for (int i = 0; isSigned && i < publicKeys.size(); ++i) {
        FileError ignored;
        const auto key = readPublicKeys({publicKeys.at(i)}, &ignored);
        if (key && readSeal(folder, *key, &ignored))
            signers.append(publicKeys.at(i));
    }
    return signers;
}

bool PatchSeal::generateKey(const QString &privateKey, const QString &publicKey, QString *error)
{
    QString ignored;
    return Ed25519::generateKey(privateKey, publicKey, error ? error : &ignored);
}

} // namespace Pellox
