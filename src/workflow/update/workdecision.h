// SPDX-License-Identifier: MIT
#pragma once

#include "workpass.h"

namespace Pellox {

/// Finds out what an update has to do, from the content of what is installed. Only reads.
class WorkDecision : private WorkPass
{
public:
    using WorkPass::WorkPass;

    /// Notes in the works which are needed, which an earlier run has staged already, and which are
    /// to be taken whole. False when cancelled or with a problem. Tells @p report how many bytes of
    /// installed files were read.
    bool carryOut(const std::function<void(qint64 done)> &report = {});

private:
    void decidePatch(UpdateWork &work);
    void decideSealedPatch(UpdateWork &work);
    void decideUnsealedPatch(UpdateWork &work);
    void decideCopy(UpdateWork &work);
    bool isCopyToBeMade(UpdateWork &work);
    void decideSource(UpdateWork &work);
    void takeWhole(UpdateWork &work, const QString &why);
    void takeWhole(UpdateWork &work, const QString &path, const QString &why);
    bool isStagedAlready(const UpdateWork &work, const Sha512 &sha512);
    std::optional<Sha512> sha512OfInstalled(UpdateWork &work, QString *why);
    bool isInstalled(const UpdateWork &work);

    std::atomic<qint64> m_read{0}; ///< bytes of installed files
};

} // namespace Pellox
