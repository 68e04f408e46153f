// SPDX-License-Identifier: MIT
#include "recordedjob.h"

#include <algorithm>

namespace {

RecordedJob &jobOf(void *user)
{
    auto &job = *static_cast<RecordedJob *>(user);
    job.threads.insert(std::this_thread::get_id());
    return job;
}

extern "C" {

void noteProgress(void *user, int64_t done, int64_t total)
{
    RecordedJob &job = jobOf(user);
    job.progress.append({done, total});
    if (job.onProgress)
        job.onProgress();
}

void notePhase(void *user, int phase)
{
    RecordedJob &job = jobOf(user);
    job.phases.append(phase);
    if (job.onPhase)
        job.onPhase(phase);
}

void noteProblem(void *user, const pellox_problem *problem)
{
    jobOf(user).problems.append({problem->code, problem->code_name, problem->file, problem->reason,
        problem->message, problem->advice});
}

void noteFile(void *user, int event, const char *path)
{
    jobOf(user).files.append({event, path});
}

} // extern "C"

} // namespace

RecordedJob::RecordedJob()
    : m_job(pellox_job_new())
{
    if (!m_job || pellox_on_progress(m_job, noteProgress, this) != PELLOX_DONE
        || pellox_on_phase(m_job, notePhase, this) != PELLOX_DONE
        || pellox_on_problem(m_job, noteProblem, this) != PELLOX_DONE
        || pellox_on_file(m_job, noteFile, this) != PELLOX_DONE)
        qFatal("a job cannot be made");
}

RecordedJob::~RecordedJob()
{
    if (pellox_job_free(m_job) != PELLOX_DONE)
        qFatal("a job cannot be freed");
}

QVector<int> RecordedJob::codes() const
{
    QVector<int> codes;
    for (const Problem &problem : problems)
        codes.append(problem.code);
    return codes;
}

QVector<QByteArray> RecordedJob::paths(int event) const
{
    QVector<QByteArray> paths;
    for (const auto &file : files) {
        if (file.first == event)
            paths.append(file.second);
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}
