// SPDX-License-Identifier: MIT
#include "publishcontroller.h"

#include "canonicalpath.h"
#include "publishrun.h"
#include "releasefolder.h"
#include "rules.h"
#include "signatureformat.h"

#include <QThread>

#include <algorithm>
#include <new>
#include <stdexcept>

namespace Pellox {

namespace {

constexpr int MostThreads = 1024;
constexpr qint64 LeastDeltaMemory = 1 << 20;

SearchEffort searchEffortOf(PublishController::DeltaEffort effort)
{
    switch (effort) {
    case PublishController::DeltaEffort::Fastest:
        return FastestSearch;
    case PublishController::DeltaEffort::Balanced:
        break;
    case PublishController::DeltaEffort::Smallest:
        return SmallestSearch;
    }
    return BalancedSearch;
}

QString problemOf(const QString &folder, const QString &manifestName)
{
    ReleaseFolder release(absoluteFolder(folder), manifestName);
    return release.check() ? QString() : release.error();
}

} // namespace

class PublishController::Private
{
public:
    explicit Private(PublishController &controller)
        : q(controller)
    {
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

    /// The rules where they are @p wanted. Nothing after publishError(), or when it was cancelled.
    std::optional<QVariantList> carryOut(const PublishFolders &folders,
        const QStringList &ignoreFiles, const PROGRESS_CALLBACK &progress, bool wantsRules = false)
    {
        isCancelled = false;
        wasCancelled = false;
        movedFiles.clear();
        QString error;
        try {
            PublishRun run(absolute(folders),
                {ignoreFiles, threadCount > 0 ? threadCount : QThread::idealThreadCount(),
                    {searchEffortOf(deltaEffort), deltaMemory, areDeltasVerified}},
                isCancelled);
            if (run.carryOut(progress)) {
                movedFiles = run.movedFiles();
                auto rules = wantsRules ? run.rulesWithSizes() : QVariantList();
                if (progress)
                    progress(Percent);
                return rules;
            }
            error = run.error();
            wasCancelled = error.isEmpty();
        } catch (const std::bad_alloc &) {
            error = outOfMemory(folders);
        } catch (const std::length_error &) { // of a container that became too large
            error = outOfMemory(folders);
        }
        if (!wasCancelled)
            Q_EMIT q.publishError(error);
        return {};
    }

    PublishController &q;
    int threadCount = 0;
    QString oldBuild;
    DeltaEffort deltaEffort = DeltaEffort::Balanced;
    qint64 deltaMemory = 1 << 30;
    bool areDeltasVerified = true;
    QVector<MovedFile> movedFiles;
    std::atomic<bool> isCancelled{false};
    std::atomic<bool> wasCancelled{false};

private:
    static constexpr double Percent = 100;

    static PublishFolders absolute(const PublishFolders &folders)
    {
        return {absoluteFolder(folders.newBuild), absoluteFolder(folders.oldSignatures),
            absoluteFolder(folders.patch), absoluteFolder(folders.newSignatures),
            absoluteFolder(folders.oldBuild)};
    }
    static QString outOfMemory(const PublishFolders &folders)
    {
        return aboutFile(absoluteFolder(folders.newBuild), QStringLiteral("out of memory"));
    }
};

PublishController::PublishController(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(*this))
{
}

PublishController::~PublishController() = default;

void PublishController::setThreadCount(int count)
{
    d->threadCount = std::clamp(count, 0, MostThreads);
}

int PublishController::threadCount() const
{
    return d->threadCount;
}

void PublishController::setOldBuild(const QString &folder)
{
    d->oldBuild = folder;
}

QString PublishController::oldBuild() const
{
    return d->oldBuild;
}

void PublishController::setDeltaEffort(DeltaEffort effort)
{
    d->deltaEffort = effort;
}

PublishController::DeltaEffort PublishController::deltaEffort() const
{
    return d->deltaEffort;
}

void PublishController::setDeltaMemory(qint64 bytes)
{
    d->deltaMemory = std::max(bytes, LeastDeltaMemory);
}

qint64 PublishController::deltaMemory() const
{
    return d->deltaMemory;
}

void PublishController::setDeltasVerified(bool verified)
{
    d->areDeltasVerified = verified;
}

bool PublishController::areDeltasVerified() const
{
    return d->areDeltasVerified;
}

bool PublishController::createSignatures(
    const QString &build, const QString &signatures, const PROGRESS_CALLBACK &progress)
{
    return d->areGiven({build, signatures})
        && d->carryOut({build, QString(), QString(), signatures, QString()}, {}, progress);
}

bool PublishController::createPatch(const QString &newBuild, const QString &signatures,
    const QString &patch, const QStringList &ignoreFiles, const PROGRESS_CALLBACK &progress)
{
    return d->areGiven({newBuild, signatures, patch})
        && d->carryOut(
            {newBuild, signatures, patch, QString(), d->oldBuild}, ignoreFiles, progress);
}

bool PublishController::publish(const QString &newBuild, const QString &oldSignatures,
    const QString &patch, const QString &newSignatures, const QStringList &ignoreFiles,
    const PROGRESS_CALLBACK &progress)
{
    return d->areGiven({newBuild, oldSignatures, patch, newSignatures})
        && d->carryOut(
            {newBuild, oldSignatures, patch, newSignatures, d->oldBuild}, ignoreFiles, progress);
}

QVector<PublishController::MovedFile> PublishController::movedFiles() const
{
    return d->movedFiles;
}

std::optional<QVariantList> PublishController::plan(const QString &newBuild,
    const QString &signatures, const QStringList &ignoreFiles, const PROGRESS_CALLBACK &progress)
{
    if (!d->areGiven({newBuild, signatures}))
        return {};
    return d->carryOut(
        {newBuild, signatures, QString(), QString(), QString()}, ignoreFiles, progress, true);
}

QString PublishController::problemOfPatchFolder(const QString &folder)
{
    return problemOf(folder, PATCH_RULES_FILE);
}

QString PublishController::problemOfSignaturesFolder(const QString &folder)
{
    return problemOf(folder, SIGNATURES_FILE);
}

std::optional<QStringList> PublishController::signedFiles(const QString &signatures, QString *error)
{
    FileError problem;
    const auto files = readSignedFiles(absoluteFolder(signatures), &problem);
    if (!files) {
        *error = problem;
        return {};
    }
    QStringList paths;
    paths.reserve(static_cast<int>(files->size()));
    for (const SignedFile &file : *files)
        paths.append(file.relativePath);
    return paths;
}

qint64 PublishController::signatureSize(qint64 fileSize)
{
    return SignatureFormat::sizeFor(fileSize);
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
