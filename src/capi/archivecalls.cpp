// SPDX-License-Identifier: MIT
#include "job.h"

#include "archivecontroller.h"

#include <QFileInfo>
#include <QThread>

#include <algorithm>

using namespace Pellox;

namespace {

/// 7-Zip tells 0 in between, and 100 when it has failed: the highest share so far, of less than
/// all.
class RisingProgress
{
public:
    explicit RisingProgress(RunEvents &events)
        : m_events(events)
    {
    }

    void operator()(double percent)
    {
        constexpr double PartsOfPercent = 100;
        const auto parts = static_cast<qint64>(percent * PartsOfPercent);
        if (parts > m_most && parts < WholeProgress) {
            m_most = parts;
            m_events.tell(RunProgress{m_most, WholeProgress});
        }
    }

private:
    RunEvents &m_events;
    qint64 m_most = 0;
};

using ArchiveCall
    = std::function<bool(ArchiveController &controller, const PROGRESS_CALLBACK &progress)>;

/// The controller waits in event loops, which the thread's end ends.
int archiveBy(pellox_job &job, const ArchiveCall &call)
{
    RunEvents events;
    const auto tellErrors = [&](const QStringList &errors) {
        for (const QString &error : errors)
            events.tell(otherProblem(error));
    };
    const auto work = [&]() -> int {
        if (job.isCancelled)
            return PELLOX_CANCELLED;
        bool hasFailed = false;
        ArchiveController controller;
        controller.setChunkSize(job.settings.volumeSize);
        controller.setSilentEndIsError(true);
        const auto fail = [&](const QStringList &errors) {
            if (job.isCancelled) // a terminal's Ctrl-C ends 7-Zip as well, as an error
                return;
            hasFailed = true;
            tellErrors(errors);
        };
        QObject::connect(&controller, &ArchiveController::createArchiveError, fail);
        QObject::connect(&controller, &ArchiveController::extractError, fail);
        if (call(controller, RisingProgress(events))) {
            events.tell(RunProgress{WholeProgress, WholeProgress});
            return PELLOX_DONE;
        }
        return hasFailed ? PELLOX_FAILED : PELLOX_CANCELLED;
    };
    return runOnThread(job, events, work, [](QThread &thread) { thread.exit(); });
}

} // namespace

int pellox_pack(pellox_job *job, const char *folder, const char *archive)
{
    return startRun(job, {folder, archive}, [](pellox_job &usedJob, const QStringList &paths) {
        return archiveBy(usedJob, [&](ArchiveController &controller, const auto &progress) {
            // The whole path, as a name that begins with "-" would be a switch.
            const QFileInfo target(paths[1]);
            return controller.createArchive(
                target.absolutePath(), target.absoluteFilePath(), paths[0], progress);
        });
    });
}

int pellox_unpack(pellox_job *job, const char *archive, const char *destination)
{
    return startRun(job, {archive, destination}, [](pellox_job &usedJob, const QStringList &paths) {
        return archiveBy(usedJob, [&](ArchiveController &controller, const auto &progress) {
            return controller.extractArchive(QFileInfo(paths[0]).absoluteFilePath(),
                QFileInfo(paths[1]).absoluteFilePath(), QString(), progress);
        });
    });
}
