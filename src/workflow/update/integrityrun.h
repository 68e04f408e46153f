// SPDX-License-Identifier: MIT
#pragma once

#include "buildwalk.h"
#include "integritycontroller.h"
#include "manifestfile.h"
#include "sealfile.h"
#include "transaction.h"
#include "updatework.h"

#include <atomic>
#include <functional>
#include <vector>

namespace Pellox {

/// One run of IntegrityController from beginning to end.
class IntegrityRun
{
public:
    struct Settings
    {
        QString build; ///< folders are absolute, without a separator at the end
        QString signatures;
        QString source; ///< of a repair
        int threadCount = 1;
        QString patch = {};    ///< whose seal tells the release that is to be recorded
        QStringList keys = {}; ///< PEM files: who may have made that
    };

    struct Reports
    {
        std::function<void(qint64 done, qint64 total)> progress;
        std::function<void(UpdateController::UpdatePhase phase)> phase;
        std::function<void(const UpdateProblem &problem)> problem;
    };

    IntegrityRun(Settings settings, Reports reports, const std::atomic<bool> &cancelled);

    bool check();
    bool repair();
    bool recordRelease();

    const IntegrityReport &report() const { return m_report; }
    UpdateController::UpdateResult result() const { return m_result; }

private:
    using Code = UpdateProblem::Code;
    using Phase = UpdateController::UpdatePhase;
    using Result = UpdateController::UpdateResult;
    enum class State { Intact, Changed, Missing, Unreadable };

    bool begin(Transaction &transaction);
    bool carryOutCheck();
    bool readBoth();
    void noteFound(const std::vector<BuildFile> &files);
    std::optional<Sha512> identity() const;
    std::optional<SealedPatch> readSeal();
    bool isReleaseOf(const SealedPatch &sealed);
    Result record(const SealedPatch &sealed, BuildFiles &files);
    bool compare();
    State stateOf(class Crew &crew, const SignedFile &file, std::atomic<qint64> &done) const;
    void addToReport(const QString &path, State state);
    std::vector<UpdateWork> works();
    void addRule(const SignedFile &file, std::vector<UpdateRule> *rules);
    bool fail(Code code, const FileError &error);
    bool end(Result result);
    bool endIntact(BuildFiles &files);
    bool isRecordRight(BuildFiles &files) const;
    bool end(Transaction::Outcome outcome);
    QString installed(const SignedFile &file) const { return m_settings.build + file.relativePath; }

    const Settings m_settings;
    const Reports m_reports;
    const std::atomic<bool> &m_cancelled;
    Problems m_problems;
    std::vector<SignedFile> m_files;
    std::vector<qint64> m_sizes; ///< of the files, as installed
    std::vector<State> m_states; ///< of the files
    IntegrityReport m_report;
    Result m_result = Result::Failed; ///< of a repair
};

} // namespace Pellox
