// SPDX-License-Identifier: MIT
#pragma once

#include "endings.h"
#include "interrupt.h"

#include <Pellox/IntegrityController>
#include <Pellox/UpdateController>

#include <QElapsedTimer>
#include <QEventLoop>
#include <QSet>
#include <QStringList>
#include <QVector>

#include <atomic>
#include <functional>
#include <optional>

class Console;

/**
 * A run of one of the library's controllers on an installed build, in the way of the program: with
 * its phases, progress and errors on the console, and with signals. The first one cancels the run;
 * once files are being put in place it only tells that this will be finished. A second Ctrl-C ends
 * the program at once.
 */
class BuildRun
{
public:
    using Result = Pellox::UpdateController::UpdateResult;
    using Start = std::function<bool()>;

    /// @p command, "update" say, names the work in what is told.
    BuildRun(Console &console, const char *command);

    // These wait for the end of what @p start starts, or is.

    Result carryOut(Pellox::UpdateController &controller, const Start &start);
    Result repair(Pellox::IntegrityController &controller, const Start &start);
    Result check(Pellox::IntegrityController &controller, const Start &start);
    /// For a call that blocks and ends quickly, so that a signal ends the program.
    Result block(Pellox::UpdateController &controller, const Start &call);

    /// Files whose new content has been written, and their bytes.
    int stagedFiles() const { return m_stagedFiles; }
    qint64 stagedBytes() const { return m_stagedBytes; }
    /// Whether the run has done the rest of an earlier one.
    bool hasFinishedEarlier() const { return m_hasFinishedEarlier; }

    /// Takes a problem that is to be told.
    void problem(const Pellox::UpdateProblem &problem);
    /// All that came.
    const QVector<Pellox::UpdateProblem> &problems() const { return m_problems; }
    /// Explains the problems as a whole: @p note is told behind them, @p lastWords at the end.
    void explain(const QString &note, const QString &lastWords);
    /// Tells how it ended: as @p result says and the problems told. @p done and @p nothingToDo are
    /// what to say in these cases.
    Ending end(Result result, const QString &done, const QString &nothingToDo);

private:
    using Phase = Pellox::UpdateController::UpdatePhase;
    using Code = Pellox::UpdateProblem::Code;

    bool integrity(Pellox::IntegrityController &controller, const Start &start);
    template <typename Controller> void listen(Controller &controller);
    template <typename Controller> void run(Controller &controller, const Start &start);
    template <typename Controller> void stop(Controller &controller);
    void enter(Phase phase);
    void showPhase(Phase phase);
    void showProgress(qint64 done, qint64 total);
    void tellProgress();
    void endProgress();
    void showStaged(const QString &path);
    void tellProblems();
    void tell(const Pellox::UpdateProblem &problem);

    QString lastWordsOf(int status) const;
    QString toldOfEarlier(QString message) const;
    Ending fail(int status);
    Ending interrupted();
    Ending interruptedMeanwhile();
    int statusOf(Result result) const;
    bool isCommitting() const;

    Console &m_console;
    const QString m_command;
    QEventLoop m_loop;

    const char *m_stoppedBefore; ///< what to say at an end before the commit
    std::atomic<Phase> m_phase{Phase::Checking};
    std::optional<Interrupt::Advice> m_advice;
    int m_signalStatus = 0; ///< that of the program where a signal came

    Phase m_shownPhase = Phase::Checking;
    bool m_hasFinishedEarlier = false;
    bool m_barVisible = false;
    QElapsedTimer m_phaseClock;
    QElapsedTimer m_sinceTold; ///< that
    // Of the phase.
    qint64 m_done = 0;
    qint64 m_total = 0;
    qint64 m_told = -1; ///< how far the last JSON object told
    QString m_lastStaged;
    int m_stagedFiles = 0;
    qint64 m_stagedBytes = 0;

    QVector<Pellox::UpdateProblem> m_problems;
    int m_toldProblems = 0; ///< from the first on
    int m_untoldErrors = 0; ///< of these, as there are too many
    QSet<int> m_codes;      ///< of the problems
    QStringList m_advices;  ///< one for each
    QString m_explanation;
    QString m_explainedWords; ///< to end with; empty: as the problems say
};

/// The name of @p relativePath for people and machines: without the separator in front.
QString withoutSeparator(const QString &relativePath);
