// SPDX-License-Identifier: MIT
#include "publishcontroller.h"

#include "publishrun.h"

#include <QDir>
#include <QThread>

#include <algorithm>

namespace Pellox {

namespace {

/// @p path absolute and without a separator at its end. Empty stays empty, not the current folder.
QString folder(const QString &path)
{
    return path.isEmpty() ? path : QDir::cleanPath(QDir(path).absolutePath());
}

} // namespace

class PublishController::Private
{
public:
    explicit Private(PublishController &controller)
        : q(controller)
    {
    }

    PublishRun run(const PublishFolders &folders, const QStringList &ignoreFiles) const
    {
        return {folders, ignoreFiles, threadCount > 0 ? threadCount : QThread::idealThreadCount(),
            isCancelled};
    }

    /// False after publishError() when one of @p folders is empty.
    bool areGiven(const QStringList &folders)
    {
        wasCancelled = false;
        const bool given = !folders.contains(QString());
        if (!given)
            Q_EMIT q.publishError(QStringLiteral("a folder is not given"));
        return given;
    }

    bool carryOut(PublishRun &run, const PROGRESS_CALLBACK &progress)
    {
        isCancelled = false;
        wasCancelled = false;
        if (run.carryOut(progress)) {
            if (progress)
                progress(100);
            return true;
        }
        wasCancelled = run.error().isEmpty();
        if (!wasCancelled)
            Q_EMIT q.publishError(run.error());
        return false;
    }

    PublishController &q;
    int threadCount = 0;
    std::atomic<bool> isCancelled{false};
    std::atomic<bool> wasCancelled{false};
};

PublishController::PublishController(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(*this))
{
}

PublishController::~PublishController() = default;

void PublishController::setThreadCount(int count)
{
    d->threadCount = std::max(0, count);
}

int PublishController::threadCount() const
{
    return d->threadCount;
}

bool PublishController::createSignatures(
    const QString &build, const QString &signatures, const PROGRESS_CALLBACK &progress)
{
    if (!d->areGiven({build, signatures}))
        return false;
    PublishRun run = d->run({folder(build), QString(), QString(), folder(signatures)}, {});
    return d->carryOut(run, progress);
}

bool PublishController::createPatch(const QString &newBuild, const QString &signatures,
    const QString &patch, const QStringList &ignoreFiles, const PROGRESS_CALLBACK &progress)
{
    if (!d->areGiven({newBuild, signatures, patch}))
        return false;
    PublishRun run
        = d->run({folder(newBuild), folder(signatures), folder(patch), QString()}, ignoreFiles);
    return d->carryOut(run, progress);
}

bool PublishController::publish(const QString &newBuild, const QString &oldSignatures,
    const QString &patch, const QString &newSignatures, const QStringList &ignoreFiles,
    const PROGRESS_CALLBACK &progress)
{
    if (!d->areGiven({newBuild, oldSignatures, patch, newSignatures}))
        return false;
    PublishRun run
        = d->run({folder(newBuild), folder(oldSignatures), folder(patch), folder(newSignatures)},
            ignoreFiles);
    return d->carryOut(run, progress);
}

QVariantList PublishController::plan(const QString &newBuild, const QString &signatures,
    const QStringList &ignoreFiles, const PROGRESS_CALLBACK &progress)
{
    if (!d->areGiven({newBuild, signatures}))
        return {};
    PublishRun run
        = d->run({folder(newBuild), folder(signatures), QString(), QString()}, ignoreFiles);
    return d->carryOut(run, progress) ? run.rulesWithSizes() : QVariantList();
}

void PublishController::cancel()
{
    d->isCancelled = true;
}

bool PublishController::wasCancelled() const
{
    return d->wasCancelled;
}

} // namespace Pellox
