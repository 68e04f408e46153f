// SPDX-License-Identifier: MIT
#pragma once

#include "journal.h"
#include "setaside.h"
#include "workfolder.h"

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
    Commit(WorkFolder &folder, bool syncs);

    /// Looks for a journal that an earlier run has left, and takes it for its own.
    Found findUnfinished();
    /**
     * Writes @p journal. What it places must be staged. Unless the answer is Yes there is an
     * error(). No: nothing has changed. Uncertain: the journal is there, but the system could not
     * say that it will survive a crash, so nothing is done yet.
     */
    Begun begin(Journal journal);
    /// Does or finishes it. False with error(); the journal stays, and it can be tried again.
    bool carryOut();
    /// Makes sure that no journal comes back after a crash. False with error().
    bool forget();

    const FileError &error() const { return m_error; }

private:
    using Identity = std::pair<dev_t, ino_t>;

    bool writeJournal();
    bool place(const std::vector<Journal::Placement> &placements);
    bool placeOne(const Journal::Placement &placement);
    bool deleteOne(const QString &path);
    void removeEmptiedFolders();
    bool settleRecords();
    bool settleRelease();
    bool clearUp();
    bool sync();
    bool fail(const QString &path, const QString &reason);
    bool failBySystem(const QString &path, const char *what);
    bool failAs(const SetAside &setAside);
    QString absolute(const QString &path) const { return m_folder.absolute(path); }

    WorkFolder &m_folder;
    SetAside m_setAside;
    const bool m_syncs;
    Journal m_journal;
    std::set<Identity> m_placed; ///< what stands where this commit has put it
    FileError m_error;
};

} // namespace Pellox
