// SPDX-License-Identifier: MIT
#pragma once

#include "goon.h"
#include "stagedrecord.h"
#include "updatework.h"

#include <QMultiHash>
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
    /// How it learns whether the build's file system takes different names for one, where that
    /// matters. To try it out, the build must be locked.
    enum class Names { Seen, TriedOut };

    UpdateCheck(const UpdateFolders &folders, Problems &problems, Names names = Names::Seen);

    /// May change the rules of a manifest. False with a problem.
    using Amend = std::function<bool(std::vector<UpdateRule> *rules)>;

    /// Whether the folders are there and apart. With other problems it may be true.
    bool checkFolders();
    /// Of folders that are: the works of the patch's rules, in their order; complete only when no
    /// problem was added.
    std::vector<UpdateWork> carryOut(const Amend &amend, const GoOn &goOn = GoOn());
    /// The same for rules that come from elsewhere than a patch, and are known to be well formed.
    std::vector<UpdateWork> worksFor(const std::vector<UpdateRule> &rules);

private:
    using Code = UpdateProblem::Code;

    void checkNames(const std::vector<UpdateRule> &rules, QStringList *errors);
    NameSense nameSense(const std::vector<UpdateRule> &rules);
    NameSense tryNames();
    void checkMount(const QString &folder);
    void noteDeletions(const std::vector<UpdateRule> &rules);
    void noteTargets(const std::vector<UpdateRule> &rules);
    void noteSticky(const QString &folder, const struct stat &status);
    UpdateWork workFor(const UpdateRule &rule, std::size_t number);
    bool fits(const QString &relativePath) const;
    void chooseStaged(UpdateWork &work, std::size_t number) const;
    void checkTarget(UpdateWork &work);
    void checkReplaceable(const QString &path, const struct stat &status);
    bool checkAbove(UpdateWork &work);
    void checkWritable(const QString &folder);
    void checkPayload(UpdateWork &work);
    bool isEmptied(const QString &folder);
    bool isDeleted(const QString &relativePath) const;
    void add(Code code, const QString &path, const QString &reason);

    const UpdateFolders m_folders;
    Problems &m_problems;
    const Names m_names;
    const long m_longestName;     ///< bytes; not above 0 where the file system does not tell
    StagedRecord m_record;        ///< of an earlier run
    QSet<QString> m_taken;        ///< keys of all that the rules' files need, folders too
    QSet<QString> m_plainFolders; ///< absolute paths that are known to be folders, no links
    QSet<QString> m_sticky;       ///< of these, where files can be replaced by their owners alone
    QMultiHash<QString, QString> m_deleted; ///< relative paths, by their keys
};

} // namespace Pellox
