// SPDX-License-Identifier: MIT
#pragma once

#include "pellox.h"
#include "publishcontroller.h"
#include "runevents.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <initializer_list>
#include <map>

class QThread;

namespace Pellox {

template <typename Function> struct HostCallback
{
    Function function = nullptr;
    void *user = nullptr;
};

struct JobSettings
{
    int threads = 0;
    QString fallback;
    QStringList trustedKeys;
    bool isOlderAllowed = false;
    bool keepsPrevious = false;
    QString oldBuild;
    PublishController::DeltaEffort deltaEffort = PublishController::DeltaEffort::Balanced;
    qint64 deltaMemory = 1 << 30;
    QStringList ignoredFiles;
    QStringList privateKeys;
    qint64 volumeSize = 500LL << 20;
};

} // namespace Pellox

/// What hosts have a handle of.
struct pellox_job
{
    std::atomic<bool> isInUse{false};
    std::atomic<bool> isCancelled{false}; ///< set by signal handlers too
    Pellox::JobSettings settings;
    Pellox::HostCallback<pellox_progress_callback> onProgress;
    Pellox::HostCallback<pellox_phase_callback> onPhase;
    Pellox::HostCallback<pellox_problem_callback> onProblem;
    Pellox::HostCallback<pellox_file_callback> onFile;
    std::map<int, qint64> figures; ///< by PELLOX_FIGURE_...
};

namespace Pellox {

// What follows stands between hosts and the library: it takes care of what is wrong with a call,
// and of exceptions. All return one of the results of pellox.h.

/// Does @p call with the job that @p job is, which no other call uses meanwhile.
int useJob(pellox_job *job, const std::function<int(pellox_job &)> &call) noexcept;
/// Likewise, with the paths that @p paths are.
int useJobWith(pellox_job *job, std::initializer_list<const char *> paths,
    const std::function<int(pellox_job &, const QStringList &)> &call) noexcept;
/// Likewise, a run.
int startRun(pellox_job *job, std::initializer_list<const char *> paths,
    const std::function<int(pellox_job &, const QStringList &)> &run) noexcept;

/// Tells the host what comes until the end. Calls @p cancel once the job is cancelled, and then
/// again and again, as a run that has only begun may not hear it.
int tellUntilEnd(pellox_job &job, RunEvents &events, const std::function<void()> &cancel);

/// Does @p work, which blocks, on a thread, and tells the host what comes. @p cancel is called like
/// the one above, with that thread.
int runOnThread(pellox_job &job, RunEvents &events, const std::function<int()> &work,
    const std::function<void(QThread &)> &cancel);

/// Tells the host at once.
void tellFiles(const pellox_job &job, int event, const QStringList &paths);

/// A problem that has no number of its own.
UpdateProblem otherProblem(const QString &message);

} // namespace Pellox
