// SPDX-License-Identifier: MIT
#pragma once

#include "manifestfile.h"
#include "sealfile.h"
#include "transaction.h"

#include <atomic>
#include <functional>
#include <optional>

namespace Pellox {

/// Whom an update believes.
struct Trust
{
    QStringList keys; ///< PEM files of public keys; none: patches need no seal
    bool allowsOlder = false;
};

/// What the seal in folder @p patch says. Nothing, with a problem, when none of the public keys in
/// the PEM files @p keyFiles has made it, or it cannot be read.
std::optional<SealedPatch> readTrustedSeal(
    const QString &patch, const QStringList &keyFiles, Problems &problems);

/// Makes @p release that of the build of @p files. False with a problem.
bool writeRelease(
    const InstalledRelease &release, BuildFiles &files, bool syncs, Problems &problems);

/**
 * The check of a patch's seal before anything is touched: that a trusted key has made it, that the
 * patch folder is what was sealed to the last byte, but for what a slim patch lacks, and that the
 * patch leads on from the release that is installed.
 */
class TrustCheck
{
public:
    /// @p progress: bytes that are read of the patch and of the installed files.
    TrustCheck(const Transaction::Settings &settings, const Trust &trust,
        const std::atomic<bool> &cancelled, Problems &problems,
        std::function<void(qint64 done, qint64 total)> progress);

    /// What the seal says. Nothing, with a problem or cancelled, when the patch is not trusted.
    std::optional<SealedPatch> carryOut();

    /// Puts into @p rules what @p sealed knows of them. False with a problem where they differ.
    bool seal(const SealedPatch &sealed, std::vector<UpdateRule> *rules);

    /// Tells that @p done bytes of the installed files that the seal names were read, too.
    void tellInstalled(qint64 done) const;

    /// What is to be recorded once the patch is installed, after carryOut().
    InstalledRelease releaseFor(const SealedPatch &sealed) const;
    /// Records that for a build that is what the patch leads to already. False with a problem.
    bool record(const SealedPatch &sealed, BuildFiles &files);

private:
    bool checkFiles(const SealedPatch &sealed);
    bool checkRelease(const SealedPatch &sealed);
    bool refuse(UpdateProblem::Code code, const FileError &error);
    qint64 installedBytes(const SealedPatch &sealed) const;
    bool isReadFromSource(const QString &path, const SealedRule &rule) const;
    bool isOlder(const SealedPatch &sealed) const;
    bool sealOne(const SealedPatch &sealed, UpdateRule *rule);

    const Transaction::Settings m_settings;
    const Trust m_trust;
    const std::atomic<bool> &m_cancelled;
    Problems &m_problems;
    const std::function<void(qint64 done, qint64 total)> m_progress;
    qint64 m_patchBytes = 0;
    qint64 m_allBytes = 0;
    std::optional<InstalledRelease> m_installed; ///< before the update
};

} // namespace Pellox
