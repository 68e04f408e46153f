// SPDX-License-Identifier: MIT
#pragma once

#include "buildfiles.h"
#include "goon.h"
#include "journal.h"
#include "setaside.h"
#include "stagedreading.h"

#include <QSet>
#include <QStringList>

#include <set>
#include <utility>

#include <sys/types.h>

namespace Pellox {

/**
 * Carries out a journal: the part of an update that changes the build. From the moment the
 * journal is there until the end the build is neither old nor new, but each file is; whoever
 * finds the journal finishes it. To be used with the build's lock held.
 */
class Commit
{
public:
    enum class Found { Nothing, Journal, Error };
    enum class Begun { No, Yes, Uncertain };

    /// @p syncs: whether what is written is waited for, as a crash of the system needs it.
    Commit(BuildFiles &files, bool syncs);

    /// Looks for a journal that an earlier run has left, and takes it for its own. Nothing only
    /// when there is none for certain.
    Found findUnfinished();
    /**
     * Sets aside what @p journal says, and waits until that and what is staged for it are on the
     * disk, which may take long. False, with nothing changed, after an error(), or without one when
     * @p goOn said no.
     */
    bool prepare(Journal journal, const GoOn &goOn);
    /// Takes prepare() back, that of a run that was killed too. False with error().
    bool abandon();
    /**
     * Writes the journal that was prepared. Unless the answer is Yes there is an error(). No:
     * nothing has changed. Uncertain: the journal is there or may be, but the system could not say
     * that it will survive a crash, so nothing is done yet.
     */
    Begun begin();
    /**
     * Looks at the content that an earlier run has left, which is to be done before that is carried
     * out: between a crash and now anybody may have been there. Changes nothing. False with
     * error(), and without one when cancelled.
     */
    bool inspect(const StagedReading::Means &means);
    /**
     * Does or finishes it. False with error(); the journal stays, and it can be tried again.
     *
     * Content of an earlier run that is gone by now or another one, as inspect() has found, is
     * never placed: all else is done, lost() names it, and no release is installed. Another one is
     * somebody else's, as what was staged has come to the disk before the journal: it stays where
     * it is.
     */
    bool carryOut();
    /// Makes sure that no journal comes back after a crash. False with error().
    bool forget();

    /// Files whose new content was lost, as relative paths.
    const QStringList &lost() const { return m_lost; }
    /// Whether it takes an update back.
    bool isRollback() const { return m_journal.isRollback; }
    const FileError &error() const { return m_error; }

private:
    using Identity = std::pair<dev_t, ino_t>;

    bool markDeletions();
    bool setAside(const GoOn &goOn);
    bool writeJournal();
    void takeBack();
    bool place(const std::vector<Journal::Placement> &placements);
    bool placeOne(const Journal::Placement &placement);
    bool rename(const Journal::Placement &placement);
    bool acceptPlaced(const Journal::Placement &placement);
    void notePlaced(const Standing &standing);
    bool deleteAll();
    bool deleteOne(const Journal::Deletion &deletion);
    void removeEmptiedFolders();
    bool forgetSpared();
    bool settleRecords();
    bool completeKept();
    bool settleRelease();
    bool clearUp();
    bool sync();
    bool fail(const QString &path, const QString &reason);
    bool failBySystem(const QString &path, const char *what);
    bool failAs(const SetAside &setAside);

    BuildFiles &m_files;
    SetAside m_setAside;
    const bool m_syncs;
    Journal m_journal;
    bool m_isResumed = false;    ///< an earlier run has begun it
    QSet<QString> m_spoiled;     ///< of what is to be placed, what is not as journalled
    std::set<Identity> m_placed; ///< what stands where this commit has put it
    QStringList m_lost;
    FileError m_error;
};

} // namespace Pellox
