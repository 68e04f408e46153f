// SPDX-License-Identifier: MIT
#include "buildrun.h"

#include "console.h"
#include "manifests.h"

#include <QJsonObject>

#include <algorithm>
#include <cmath>

namespace {

using Pellox::IntegrityController;
using Pellox::UpdateController;
using Pellox::UpdateProblem;
using Code = UpdateProblem::Code;
using Phase = UpdateController::UpdatePhase;

constexpr qint64 TellInterval = 100; // milliseconds between two lines of JSON progress

constexpr char StoppedBefore[]
    = "pellox: interrupted: the build is as it was, but for files that end in .temp; run the same "
      "again, which goes on with these\n";
constexpr char StoppedMeanwhile[]
    = "pellox: interrupted while files were put in place: run \"pellox recover\", or the same "
      "again, to finish it\n";
constexpr char Cancelled[] = "pellox: interrupted: nothing was changed; run the same again\n";

struct PhaseWords
{
    const char *name;
    const char *note;
};

PhaseWords wordsOf(Phase phase)
{
    switch (phase) {
    case Phase::Finishing:
        return {"finishing", "finishing what an interrupted run has begun"};
    case Phase::Checking:
        return {"checking", "checking"};
    case Phase::Staging:
        return {"staging", "writing new content beside the installed files"};
    case Phase::Committing:
        break;
    }
    return {"committing", "putting the new files in place"};
}

struct CodeStatus
{
    Code code;
    ExitStatus status;
};

// Of several problems the first here decides.
constexpr CodeStatus Statuses[] = {
    {Code::Busy, Busy},
    {Code::DamagedJournal, DamagedJournal},
    {Code::NothingKept, NothingKept},
    {Code::DamagedInstall, DamagedInstall},
    {Code::NotTrusted, RefusedPatch},
    {Code::OlderRelease, RefusedPatch},
    {Code::ForeignPatch, RefusedPatch},
    {Code::BadManifest, RefusedPatch},
    {Code::BadPatch, RefusedPatch},
    {Code::NoSpace, NoSpace},
    {Code::BadFolder, InTheWay},
    {Code::BadFallback, InTheWay},
    {Code::NotWritable, InTheWay},
    {Code::Obstructed, InTheWay},
};

} // namespace

BuildRun::BuildRun(Console &console, const char *command)
    : m_console(console)
    , m_command(QString::fromLatin1(command))
    , m_stoppedBefore(StoppedBefore)
{
}

BuildRun::Result BuildRun::carryOut(UpdateController &controller, const Start &start)
{
    Result result = Result::Failed;
    QObject::connect(&controller, &UpdateController::updateProgress, &m_loop,
        [this](qint64 done, qint64 total) { showProgress(done, total); });
    QObject::connect(&controller, &UpdateController::fileStaged, &m_loop,
        [this](const QString &path) { showStaged(path); });
    QObject::connect(&controller, &UpdateController::finished, &m_loop, [&](Result ended) {
        result = ended;
        m_loop.quit();
    });
    run(controller, start);
    return result;
}

BuildRun::Result BuildRun::repair(IntegrityController &controller, const Start &start)
{
    integrity(controller, start);
    return controller.repairResult();
}

BuildRun::Result BuildRun::check(IntegrityController &controller, const Start &start)
{
    m_stoppedBefore = Cancelled;
    if (integrity(controller, start))
        return Result::Updated;
    return m_codes.isEmpty() ? Result::Cancelled : Result::Refused;
}

bool BuildRun::integrity(IntegrityController &controller, const Start &start)
{
    bool done = false;
    QObject::connect(&controller, &IntegrityController::progress, &m_loop,
        [this](qint64 bytes, qint64 total) { showProgress(bytes, total); });
    QObject::connect(&controller, &IntegrityController::finished, &m_loop, [&](bool success) {
        done = success;
        m_loop.quit();
    });
    run(controller, start);
    return done;
}

BuildRun::Result BuildRun::block(UpdateController &controller, const Start &call)
{
    listen(controller);
    if (call())
        return Result::Updated;
    return m_phase == Phase::Finishing ? Result::Interrupted : Result::Failed;
}

template <typename Controller> void BuildRun::listen(Controller &controller)
{
    // At once, on the thread of the run: a signal may come at any moment.
    QObject::connect(
        &controller, &Controller::phaseChanged, &m_loop, [this](Phase phase) { enter(phase); },
        Qt::DirectConnection);
    QObject::connect(
        &controller, &Controller::phaseChanged, &m_loop, [this](Phase phase) { showPhase(phase); });
    QObject::connect(&controller, &Controller::problemFound, &m_loop,
        [this](const UpdateProblem &problem) { this->problem(problem); });
}

template <typename Controller> void BuildRun::run(Controller &controller, const Start &start)
{
    listen(controller);
    const Interrupt::Watch watch([&] { stop(controller); });
    m_advice.emplace(m_stoppedBefore);
    if (start())
        m_loop.exec();
    endProgress();
    if (Interrupt::isStopped())
        m_signalStatus = Interrupt::Stopped().exitStatus();
}

/// After the first signal.
template <typename Controller> void BuildRun::stop(Controller &controller)
{
    controller.cancel();
    m_console.note(isCommitting()
            ? QStringLiteral("files are being put in place already: finishing that (a second "
                             "Ctrl-C ends at once; \"pellox recover\" then finishes it)")
            : QStringLiteral("stopping (a second Ctrl-C ends at once)"));
}

bool BuildRun::isCommitting() const
{
    return m_phase == Phase::Committing || m_phase == Phase::Finishing;
}

void BuildRun::enter(Phase phase)
{
    m_phase = phase;
    m_advice.emplace(isCommitting() ? StoppedMeanwhile : m_stoppedBefore);
}

void BuildRun::showPhase(Phase phase)
{
    endProgress();
    m_hasFinishedEarlier |= m_shownPhase == Phase::Finishing;
    m_shownPhase = phase;
    m_phaseClock.start();
    const PhaseWords words = wordsOf(phase);
    m_console.event(QStringLiteral("phase"),
        {{QStringLiteral("stage"), m_command},
            {QStringLiteral("phase"), QString::fromLatin1(words.name)}});
    if (!m_console.tellsJson())
        m_console.note(QString::fromLatin1(words.note));
}

void BuildRun::showProgress(qint64 done, qint64 total)
{
    if (total == 0)
        return;
    m_done = done;
    m_total = total;
    if (m_shownPhase == Phase::Staging)
        m_stagedBytes = done;
    if (m_console.tellsJson()) {
        if (m_told < 0 || m_sinceTold.hasExpired(TellInterval))
            tellProgress();
        return;
    }
    if (!m_barVisible) {
        const bool isCheck = m_shownPhase == Phase::Checking;
        m_console.startProgress(
            isCheck ? QStringLiteral("check") : m_command, Progress::Unit::Bytes, total);
    }
    m_barVisible = true;
    m_console.advanceTo(done);
}

/// As JSON.
void BuildRun::tellProgress()
{
    if (m_done <= m_told)
        return;
    m_told = m_done;
    m_sinceTold.start();
    constexpr double MillisecondsPerSecond = 1000;
    const double seconds
        = static_cast<double>(std::max<qint64>(m_phaseClock.elapsed(), 1)) / MillisecondsPerSecond;
    const double rate = static_cast<double>(m_done) / seconds;
    QJsonObject object{{QStringLiteral("stage"), m_command},
        {QStringLiteral("phase"), QString::fromLatin1(wordsOf(m_shownPhase).name)},
        {QStringLiteral("done"), m_done}, {QStringLiteral("total"), m_total},
        {QStringLiteral("rate"), static_cast<qint64>(rate)}};
    if (m_done > 0)
        object.insert(QStringLiteral("left"),
            static_cast<qint64>(std::ceil(static_cast<double>(m_total - m_done) / rate)));
    if (!m_lastStaged.isEmpty())
        object.insert(QStringLiteral("file"), m_lastStaged);
    m_console.event(QStringLiteral("progress"), object);
}

/// Of a phase, with where it has come to.
void BuildRun::endProgress()
{
    if (m_console.tellsJson() && m_total > 0)
        tellProgress();
    m_console.stopProgress();
    m_barVisible = false;
    m_done = 0;
    m_total = 0;
    m_told = -1;
}

void BuildRun::showStaged(const QString &path)
{
    m_lastStaged = withoutSeparator(path);
    ++m_stagedFiles;
}

void BuildRun::problem(const UpdateProblem &problem)
{
    m_console.error(problem.file, problem.reason,
        {{QStringLiteral("code"), problem.codeName()},
            {QStringLiteral("advice"), problem.advice()}});
    const int code = static_cast<int>(problem.code);
    if (m_codes.contains(code))
        return;
    m_codes.insert(code);
    m_advices.append(problem.codeName() + QLatin1String(": ") + problem.advice());
}

int BuildRun::statusOf(Result result) const
{
    switch (result) {
    case Result::Updated:
        return Done;
    case Result::AlreadyUpToDate:
        return NothingToDo;
    case Result::Cancelled:
        return m_signalStatus;
    case Result::Interrupted:
        return m_codes.contains(static_cast<int>(Code::DamagedJournal)) ? DamagedJournal
                                                                        : Unfinished;
    case Result::Refused:
    case Result::Failed:
        break;
    }
    for (const auto &[code, status] : Statuses) {
        if (m_codes.contains(static_cast<int>(code)))
            return status;
    }
    return Unchanged;
}

Ending BuildRun::end(Result result, const QString &done, const QString &nothingToDo)
{
    if (result == Result::Cancelled)
        return interrupted();
    const int status = statusOf(result);
    if (status != Done && status != NothingToDo)
        return fail(status);
    const QString &message = status == Done ? done : nothingToDo;
    m_console.result(message);
    if (m_signalStatus != 0 && isCommitting())
        m_console.note(QStringLiteral("the signal came too late to stop it: it is finished"));
    return {status, message};
}

Ending BuildRun::fail(int status)
{
    for (const QString &advice : qAsConst(m_advices))
        m_console.note(advice);
    QString message = lastWords(status);
    if (m_hasFinishedEarlier)
        message.replace(QLatin1String("nothing was changed"),
            QLatin1String("what an earlier run has begun is finished, nothing else was changed"));
    m_console.note(message);
    return {status, message};
}

Ending BuildRun::interrupted()
{
    m_advice.emplace(Cancelled);
    Interrupt::tell();
    return {m_signalStatus, QStringLiteral("nothing was changed: run the same again")};
}

QString withoutSeparator(const QString &relativePath)
{
    return relativePath.mid(relativePath.startsWith(QLatin1Char('/')) ? 1 : 0);
}
