// SPDX-License-Identifier: MIT
#pragma once

#include "sealfile.h"
#include "transaction.h"

#include <atomic>
#include <optional>

namespace Pellox {

/// Whom an update believes.
struct Trust
{
    QStringList keys; ///< PEM files of public keys; none: patches need no seal
    bool allowsOlder = false;
};

/**
 * The check of a patch's seal before anything is touched: that a trusted key has made it, that the
 * patch folder is what was sealed to the last byte, and that the patch leads on from the release
 * that is installed.
 */
class TrustCheck
{
public:
    TrustCheck(const Transaction::Settings &settings, const Trust &trust,
        const std::atomic<bool> &cancelled, Problems &problems);

    /// What the seal says. Nothing, with a problem or cancelled, when the patch is not trusted.
    std::optional<SealedPatch> carryOut();

    /// Puts into @p rules what @p sealed knows of them. False with a problem where they differ.
    bool seal(const SealedPatch &sealed, std::vector<UpdateRule> *rules);

private:
    bool checkFiles(const SealedPatch &sealed);
    bool checkRelease(const SealedPatch &sealed);
    bool sealOne(const SealedPatch &sealed, UpdateRule *rule);

    const Transaction::Settings m_settings;
    const Trust m_trust;
    const std::atomic<bool> &m_cancelled;
    Problems &m_problems;
};

} // namespace Pellox
