// SPDX-License-Identifier: MIT
#pragma once

#include "updatework.h"

#include <QHash>
#include <QSet>

#include <functional>
#include <vector>

namespace Pellox {

/**
 * The check of a patch against a build before anything is touched: whether its rules are well
 * formed and stay inside of both folders, and whether all that they need is there.
 */
class UpdateCheck
{
public:
    UpdateCheck(const UpdateFolders &folders, Problems &problems);

    /// May change the rules of a manifest. False with a problem.
    using Amend = std::function<bool(std::vector<UpdateRule> *rules)>;

    /// The works of the patch's rules, in their order; complete only when no problem was added.
    std::vector<UpdateWork> carryOut(const Amend &amend);
    /// The same for rules that come from elsewhere than a patch, and are known to be well formed.
    std::vector<UpdateWork> worksFor(const std::vector<UpdateRule> &rules);
    bool checkFolders();

private:
    using Code = UpdateProblem::Code;

    UpdateWork workFor(const UpdateRule &rule, std::size_t number);
    NameSense nameSense(const std::vector<UpdateRule> &rules) const;
    void checkTarget(UpdateWork &work);
    bool checkAbove(UpdateWork &work);
    void checkPayload(UpdateWork &work);
    bool isEmptied(const QString &folder);
    void add(Code code, const QString &path, const QString &reason);

    const UpdateFolders m_folders;
    Problems &m_problems;
    QSet<QString> m_deleted;      ///< relative paths
    QSet<QString> m_plainFolders; ///< absolute paths that are known to be folders, no links
};

} // namespace Pellox
