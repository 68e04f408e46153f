// SPDX-License-Identifier: MIT
#include "engine.h"

#include "console.h"
#include "folders.h"

#include <Pellox/rules.h>

#include <QCoreApplication>
#include <QFileInfo>

#include <algorithm>
#include <cmath>

QString culpritOf(const QString &problem)
{
    const QLatin1String separator(": ");
    const auto first = problem.indexOf(separator);
    for (auto end = first; end >= 0; end = problem.indexOf(separator, end + 1)) {
        const QFileInfo info(problem.left(end));
        if (info.exists() || info.isSymLink())
            return info.filePath();
    }
    return problem.left(first < 0 ? 0 : first);
}

Refusal refusalOf(const QString &problem)
{
    const QString path = culpritOf(problem);
    return {path, problem.mid(path.size() + 2)}; // behind the colon
}

qint64 shareOf(qint64 size, double percent)
{
    constexpr double Most = 99;
    const double share = std::ceil(std::min(percent, Most) / 100 * static_cast<double>(size));
    return std::min(static_cast<qint64>(share), std::max<qint64>(size - 1, 0));
}

Engine::Engine(Console &console, int threads)
    : m_console(console)
    , m_threads(threads)
    , m_watch([] { QCoreApplication::exit(); })
{
}

bool Engine::run(const QString &stage, qint64 size, const Call &call)
{
    Pellox::PublishController controller;
    controller.setThreadCount(m_threads);
    QObject::connect(&controller, &Pellox::PublishController::publishError,
        [&](const QString &text) { m_console.error(culpritOf(text), text); });

    m_console.startProgress(stage, Progress::Unit::EstimatedBytes, size);
    const bool done = call(controller, [&](double percent) {
        // The engine blocks the event loop, in which the watch would hear of it.
        if (Interrupt::isStopped())
            controller.cancel();
        m_console.advanceTo(shareOf(size, percent));
    });
    if (done)
        m_console.advanceTo(size);
    m_console.stopProgress();
    if (!done && controller.wasCancelled())
        throw Interrupt::Stopped();
    return done;
}

bool Engine::sign(const QString &build, qint64 size, const QString &signatures)
{
    return run(QStringLiteral("sign"), size,
        [&](Pellox::PublishController &controller, const PROGRESS_CALLBACK &progress) {
            return controller.createSignatures(build, signatures, progress);
        });
}

CLI::Option *addThreadsOption(CLI::App &command, int &threads)
{
    constexpr int Most = 1024;
    return command
        .add_option(
            "--threads", threads, "How many threads work; one for each core where not given")
        ->check(CLI::Range(1, Most))
        ->type_name("N");
}

CLI::Option *addFastOptions(CLI::App &command, bool &fast, int &threads)
{
    CLI::Option *fastOption = command.add_flag("--fast", fast,
        "Work on all cores, stop at the first error, and replace the folder to write as a whole");
    addThreadsOption(command, threads)->needs(fastOption);
    return fastOption;
}

void requireReplaceable(const QString &folder, const QString &manifest)
{
    using Pellox::PublishController;
    const QString problem = manifest == Pellox::PATCH_RULES_FILE
        ? PublishController::problemOfPatchFolder(folder)
        : PublishController::problemOfSignaturesFolder(folder);
    if (!problem.isEmpty())
        throw refusalOf(problem);
}
