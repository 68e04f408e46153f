// SPDX-License-Identifier: MIT
#include "job.h"

#include "patchseal.h"
#include "publishcontroller.h"

using namespace Pellox;

namespace {

PROGRESS_CALLBACK progressTo(RunEvents &events)
{
    constexpr double PartsOfPercent = 100;
    return [&events](double percent) {
        events.tell(RunProgress{static_cast<qint64>(percent * PartsOfPercent), WholeProgress});
    };
}

int resultOf(bool done, bool wasCancelled)
{
    if (done)
        return PELLOX_DONE;
    return wasCancelled ? PELLOX_CANCELLED : PELLOX_FAILED;
}

using PublishCall
    = std::function<bool(PublishController &controller, const PROGRESS_CALLBACK &progress)>;

int publishBy(pellox_job &job, const PublishCall &call)
{
    RunEvents events;
    PublishController controller;
    controller.setThreadCount(job.settings.threads);
    controller.setOldBuild(job.settings.oldBuild);
    controller.setDeltaEffort(job.settings.deltaEffort);
    controller.setDeltaMemory(job.settings.deltaMemory);
    QObject::connect(&controller, &PublishController::publishError,
        [&](const QString &message) { events.tell(otherProblem(message)); });
    return runOnThread(
        job, events,
        [&] {
            const bool done = call(controller, progressTo(events));
            return resultOf(done, controller.wasCancelled());
        },
        [&](QThread &) { controller.cancel(); });
}

using SealCall = std::function<bool(PatchSeal &seal, const PROGRESS_CALLBACK &progress)>;

int sealBy(pellox_job &job, const SealCall &call)
{
    RunEvents events;
    PatchSeal seal;
    seal.setThreadCount(job.settings.threads);
    return runOnThread(
        job, events,
        [&] {
            const bool done = call(seal, progressTo(events));
            if (!done && !seal.wasCancelled())
                events.tell(otherProblem(seal.error()));
            return resultOf(done, seal.wasCancelled());
        },
        [&](QThread &) { seal.cancel(); });
}

} // namespace

int pellox_create_signatures(pellox_job *job, const char *build, const char *signatures)
{
    return startRun(job, {build, signatures}, [](pellox_job &usedJob, const QStringList &paths) {
        return publishBy(usedJob, [&](PublishController &controller, const auto &progress) {
            return controller.createSignatures(paths[0], paths[1], progress);
        });
    });
}

int pellox_create_patch(
    pellox_job *job, const char *new_build, const char *old_signatures, const char *patch)
{
    return startRun(
        job, {new_build, old_signatures, patch}, [](pellox_job &usedJob, const QStringList &paths) {
            return publishBy(usedJob, [&](PublishController &controller, const auto &progress) {
                return controller.createPatch(
                    paths[0], paths[1], paths[2], usedJob.settings.ignoredFiles, progress);
            });
        });
}

int pellox_publish(pellox_job *job, const char *new_build, const char *old_signatures,
    const char *patch, const char *new_signatures)
{
    return startRun(job, {new_build, old_signatures, patch, new_signatures},
        [](pellox_job &usedJob, const QStringList &paths) {
            return publishBy(usedJob, [&](PublishController &controller, const auto &progress) {
                return controller.publish(paths[0], paths[1], paths[2], paths[3],
                    usedJob.settings.ignoredFiles, progress);
            });
        });
}

int pellox_seal(pellox_job *job, const char *patch, const char *old_signatures, int64_t release)
{
    return startRun(
        job, {patch, old_signatures}, [release](pellox_job &usedJob, const QStringList &paths) {
            return sealBy(usedJob, [&](PatchSeal &seal, const auto &progress) {
                return seal.seal(
                    paths[0], paths[1], release, usedJob.settings.privateKeys, progress);
            });
        });
}

int pellox_write_slim(pellox_job *job, const char *patch, const char *slim)
{
    return startRun(job, {patch, slim}, [](pellox_job &usedJob, const QStringList &paths) {
        return sealBy(usedJob, [&](PatchSeal &seal, const auto &progress) {
            return seal.writeSlim(paths[0], paths[1], progress);
        });
    });
}

int pellox_generate_key(pellox_job *job, const char *private_key, const char *public_key)
{
    return startRun(
        job, {private_key, public_key}, [](pellox_job &usedJob, const QStringList &paths) {
            RunEvents events;
            QString error;
            if (PatchSeal::generateKey(paths[0], paths[1], &error)) {
                events.end(PELLOX_DONE);
            } else {
                events.post(otherProblem(error));
                events.end(PELLOX_FAILED);
            }
            return tellUntilEnd(usedJob, events, [] {});
        });
}
