// SPDX-License-Identifier: MIT
#include "job.h"

#include "ownapplication.h"

#include <exception>
#include <new>

using Pellox::PublishController;
using Pellox::useJob;
using Pellox::useJobWith;

namespace {

/// Sets what @p member points to.
template <typename Member>
int set(pellox_job *job, Member Pellox::JobSettings::*member, Member value)
{
    return useJob(job, [=](pellox_job &usedJob) {
        usedJob.settings.*member = value;
        return PELLOX_DONE;
    });
}

int setFolder(pellox_job *job, QString Pellox::JobSettings::*member, const char *folder)
{
    if (!folder)
        return useJob(job, [=](pellox_job &usedJob) {
            (usedJob.settings.*member).clear();
            return PELLOX_DONE;
        });
    return useJobWith(job, {folder}, [=](pellox_job &usedJob, const QStringList &paths) {
        usedJob.settings.*member = paths.first();
        return PELLOX_DONE;
    });
}

int addPath(pellox_job *job, QStringList Pellox::JobSettings::*member, const char *path)
{
    return useJobWith(job, {path}, [=](pellox_job &usedJob, const QStringList &paths) {
        (usedJob.settings.*member) += paths;
        return PELLOX_DONE;
    });
}

template <typename Function>
int setCallback(pellox_job *job, Pellox::HostCallback<Function> pellox_job::*member,
    Pellox::HostCallback<Function> callback)
{
    return useJob(job, [&](pellox_job &usedJob) {
        usedJob.*member = callback;
        return PELLOX_DONE;
    });
}

} // namespace

const char *pellox_version(void)
{
    return PELLOX_VERSION;
}

const char *pellox_result_name(int result)
{
    switch (result) {
    case PELLOX_DONE:
        return "done";
    case PELLOX_NOTHING_TO_DO:
        return "nothing-to-do";
    case PELLOX_REFUSED:
        return "refused";
    case PELLOX_FAILED:
        return "failed";
    case PELLOX_INTERRUPTED:
        return "interrupted";
    case PELLOX_CANCELLED:
        return "cancelled";
    case PELLOX_NOT_INTACT:
        return "not-intact";
    case PELLOX_BAD_ARGUMENT:
        return "bad-argument";
    case PELLOX_IN_USE:
        return "in-use";
    case PELLOX_NO_MEMORY:
        return "no-memory";
    default:
        return "unknown";
    }
}

int pellox_prepare(void)
{
    try {
        Pellox::prepareQt();
        return PELLOX_DONE;
    } catch (const std::exception &) {
        return PELLOX_NO_MEMORY;
    }
}

pellox_job *pellox_job_new(void)
{
    return pellox_prepare() == PELLOX_DONE ? new (std::nothrow) pellox_job : nullptr;
}

int pellox_job_free(pellox_job *job)
{
    if (job && job->isInUse.exchange(true))
        return PELLOX_IN_USE;
    delete job;
    return PELLOX_DONE;
}

int pellox_cancel(pellox_job *job)
{
    static_assert(std::atomic<bool>::is_always_lock_free, "signal handlers call this");
    if (!job)
        return PELLOX_BAD_ARGUMENT;
    job->isCancelled = true;
    return PELLOX_DONE;
}

int pellox_on_progress(pellox_job *job, pellox_progress_callback callback, void *user)
{
    return setCallback(job, &pellox_job::onProgress, {callback, user});
}

int pellox_on_phase(pellox_job *job, pellox_phase_callback callback, void *user)
{
    return setCallback(job, &pellox_job::onPhase, {callback, user});
}

int pellox_on_problem(pellox_job *job, pellox_problem_callback callback, void *user)
{
    return setCallback(job, &pellox_job::onProblem, {callback, user});
}

int pellox_on_file(pellox_job *job, pellox_file_callback callback, void *user)
{
    return setCallback(job, &pellox_job::onFile, {callback, user});
}

int64_t pellox_figure(pellox_job *job, int which)
{
    qint64 figure = -1;
    useJob(job, [&](pellox_job &usedJob) {
        const auto found = usedJob.figures.find(which);
        if (found != usedJob.figures.end())
            figure = found->second;
        return PELLOX_DONE;
    });
    return figure;
}

int pellox_set_threads(pellox_job *job, int count)
{
    constexpr int Most = 1024;
    if (count < 0 || count > Most)
        return PELLOX_BAD_ARGUMENT;
    return set(job, &Pellox::JobSettings::threads, count);
}

int pellox_set_fallback(pellox_job *job, const char *folder)
{
    return setFolder(job, &Pellox::JobSettings::fallback, folder);
}

int pellox_add_trusted_key(pellox_job *job, const char *file)
{
    return addPath(job, &Pellox::JobSettings::trustedKeys, file);
}

int pellox_set_older_allowed(pellox_job *job, int allowed)
{
    return set(job, &Pellox::JobSettings::isOlderAllowed, allowed != 0);
}

int pellox_set_keep_previous(pellox_job *job, int keep)
{
    return set(job, &Pellox::JobSettings::keepsPrevious, keep != 0);
}

int pellox_set_old_build(pellox_job *job, const char *folder)
{
    return setFolder(job, &Pellox::JobSettings::oldBuild, folder);
}

int pellox_set_delta_effort(pellox_job *job, int effort)
{
    using Effort = PublishController::DeltaEffort;
    switch (effort) {
    case PELLOX_EFFORT_FASTEST:
        return set(job, &Pellox::JobSettings::deltaEffort, Effort::Fastest);
    case PELLOX_EFFORT_BALANCED:
        return set(job, &Pellox::JobSettings::deltaEffort, Effort::Balanced);
    case PELLOX_EFFORT_SMALLEST:
        return set(job, &Pellox::JobSettings::deltaEffort, Effort::Smallest);
    default:
        return PELLOX_BAD_ARGUMENT;
    }
}

int pellox_set_delta_memory(pellox_job *job, int64_t bytes)
{
    constexpr int64_t Least = 1 << 20; // that of PublishController, which takes more for less
    if (bytes < Least)
        return PELLOX_BAD_ARGUMENT;
    return set(job, &Pellox::JobSettings::deltaMemory, static_cast<qint64>(bytes));
}

int pellox_add_ignored_file(pellox_job *job, const char *path)
{
    return addPath(job, &Pellox::JobSettings::ignoredFiles, path);
}

int pellox_add_private_key(pellox_job *job, const char *file)
{
    return addPath(job, &Pellox::JobSettings::privateKeys, file);
}

int pellox_set_volume_size(pellox_job *job, int64_t bytes)
{
    if (bytes < 1)
        return PELLOX_BAD_ARGUMENT;
    return set(job, &Pellox::JobSettings::volumeSize, static_cast<qint64>(bytes));
}
