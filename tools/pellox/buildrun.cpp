// SPDX-License-Identifier: MIT
#include "buildrun.h"

#include "console.h"
#include "manifests.h"

#include <QJsonObject>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <utility>

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
constexpr char Cancelled[] = "pellox: interrupted: nothing was changed: run the same again\n";
// After the rest of an earlier run was done.
constexpr char StoppedAfterFinishing[]
    = "pellox: interrupted: what an earlier run has begun is finished, and nothing else was "
      "changed, "
      "but for files that end in .temp; run the same again, which goes on with these\n";
constexpr char CancelledAfterFinishing[]
    = "pellox: interrupted: what an earlier run has begun is finished, nothing else was changed: "
      "run the same again\n";

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

struct CodeEnd
{
    Code code;
    ExitStatus status;
    const char *lastWords; ///< null: those of the status
};

// Of several problems the first here decides.
constexpr CodeEnd Ends[] = {
    {Code::Busy, Busy, nullptr},
    {Code::DamagedJournal, DamagedJournal, nullptr},
    {Code::Unfinished, Unfinished,
        "nothing was changed: run \"pellox recover\" first, or the update, which does that too"},
    {Code::NothingKept, NothingKept, nullptr},
    {Code::DamagedKept, NothingKept,
        "nothing was changed: what was kept cannot be brought back; \"pellox discard\" gives it "
        "up"},
    {Code::BadKey, WrongUsage,
        "nothing was changed: give --trusted-key the publisher's public key"},
    {Code::DamagedInstall, DamagedInstall, nullptr},
    {Code::NotTrusted, RefusedPatch,
        "nothing was changed: get the patch from the one whose key is trusted"},
    {Code::OlderRelease, RefusedPatch,
        "nothing was changed: use a newer patch, or give --allow-older to go back"},
    {Code::ForeignPatch, RefusedPatch,
        "nothing was changed: get the patch that leads on from the installed release"},
    {Code::BadManifest, RefusedPatch,
        "nothing was changed: see whether that is the right folder; if it is, get it anew"},
    {Code::BadPatch, RefusedPatch, "nothing was changed: get the patch anew"},
    {Code::NoSpace, NoSpace, nullptr},
    {Code::BadFolder, InTheWay, nullptr},
    {Code::BadFallback, InTheWay, nullptr},
    {Code::NotWritable, InTheWay, nullptr},
    {Code::Obstructed, InTheWay, nullptr},
};

/// The first of Ends that @p codes has.
const CodeEnd *decisive(const QSet<int> &codes)
{
    const auto *const found = std::find_if(std::begin(Ends), std::end(Ends),
        [&](const CodeEnd &end) { return codes.contains(static_cast<int>(end.code)); });
    return found == std::end(Ends) ? nullptr : found;
}

constexpr int MostTold = 10; // errors, where a person reads them

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
    const bool isLost = m_codes.contains(static_cast<int>(Code::DamagedInstall));
    return m_phase == Phase::Finishing && !isLost ? Result::Interrupted : Result::Failed;
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
    if (m_phase == Phase::Finishing) {
        m_console.note(
            QStringLiteral("stopping, unless files are being put in place already: then finishing "
                           "that (a second Ctrl-C ends at once; \"pellox recover\" then finishes "
                           "it)"));
        return;
    }
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
    if (m_phase == Phase::Finishing)
        m_stoppedBefore = StoppedAfterFinishing;
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
    tellProblems();
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
    m_problems.append(problem);
    const int code = static_cast<int>(problem.code);
    if (m_codes.contains(code))
        return;
    m_codes.insert(code);
    m_advices.append(problem.codeName() + QLatin1String(": ") + problem.advice());
}

/// Those that came since the last call, by path: threads find them in any order.
void BuildRun::tellProblems()
{
    const auto first = m_problems.begin() + m_toldProblems;
    std::stable_sort(first, m_problems.end(),
        [](const UpdateProblem &one, const UpdateProblem &other) { return one.file < other.file; });
    for (; m_toldProblems < m_problems.size(); ++m_toldProblems) {
        if (m_toldProblems < MostTold || m_console.tellsAll())
            tell(m_problems.at(m_toldProblems));
        else
            ++m_untoldErrors;
    }
}

void BuildRun::tell(const UpdateProblem &problem)
{
    m_console.error(problem.file, problem.reason,
        {{QStringLiteral("code"), problem.codeName()},
            {QStringLiteral("advice"), problem.advice()}});
}

void BuildRun::explain(const QString &note, const QString &lastWords)
{
    m_explanation = note;
    m_explainedWords = lastWords;
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
    const CodeEnd *end = decisive(m_codes);
    return end ? end->status : Unchanged;
}

QString BuildRun::lastWordsOf(int status) const
{
    if (!m_explainedWords.isEmpty())
        return m_explainedWords;
    const CodeEnd *end = decisive(m_codes);
    return end && end->lastWords && end->status == status ? QString::fromLatin1(end->lastWords)
                                                          : lastWords(status);
}

Ending BuildRun::end(Result result, const QString &done, const QString &nothingToDo)
{
    if (result == Result::Cancelled)
        return interrupted();
    if (result == Result::Interrupted && m_signalStatus != 0 && m_codes.isEmpty())
        return interruptedMeanwhile();
    tellProblems();
    m_hasFinishedEarlier |= m_shownPhase == Phase::Finishing && result != Result::Interrupted;
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
    if (m_untoldErrors > 0)
        m_console.note(
            QStringLiteral("and %1; -v names them all").arg(counted(m_untoldErrors, "more error")));
    if (!m_explanation.isEmpty())
        m_console.note(m_explanation);
    for (const QString &advice : std::as_const(m_advices))
        m_console.note(advice);
    QString message = toldOfEarlier(lastWordsOf(status));
    if (m_shownPhase == Phase::Finishing && status == DamagedInstall)
        message = QStringLiteral("what an interrupted run had begun is finished but for these "
                                 "files: run \"pellox repair\", or \"pellox update --fallback\"");
    m_console.note(message);
    return {status, message};
}

Ending BuildRun::interrupted()
{
    m_advice.emplace(m_hasFinishedEarlier ? CancelledAfterFinishing : Cancelled);
    Interrupt::tell();
    return {
        m_signalStatus, toldOfEarlier(QStringLiteral("nothing was changed: run the same again"))};
}

/// Before the rest of an earlier run was done.
Ending BuildRun::interruptedMeanwhile()
{
    m_advice.emplace(StoppedMeanwhile);
    Interrupt::tell();
    return {m_signalStatus, lastWords(Unfinished)};
}

/// @p message, as it is to be after the rest of an earlier run was done.
QString BuildRun::toldOfEarlier(QString message) const
{
    if (m_hasFinishedEarlier)
        message.replace(QLatin1String("nothing was changed"),
            QLatin1String("what an earlier run has begun is finished, nothing else was changed"));
    return message;
}

QString withoutSeparator(const QString &relativePath)
{
    return relativePath.mid(relativePath.startsWith(QLatin1Char('/')) ? 1 : 0);
}
