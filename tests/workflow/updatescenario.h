// SPDX-License-Identifier: MIT
#pragma once

#include "randombuild.h"
#include "testtree.h"

#include <Pellox/updatecontroller.h>

#include <QMap>
#include <QPair>
#include <QStringList>
#include <QVector>

#include <functional>

/// What a run of UpdateController has told until finished() came.
struct UpdateOutcome
{
    using Result = Pellox::UpdateController::UpdateResult;

    Result result = Result::Failed;
    QStringList errors;
    QVector<Pellox::UpdateProblem> problems;
    QVector<QPair<qlonglong, qlonglong>> progress;
    QVector<Pellox::UpdateController::UpdatePhase> phases;
    QStringList staged;
};

using UpdateStart = std::function<bool(Pellox::UpdateController &)>;

/// Starts a run with @p start and waits for its end. Ends the test program when it does not start
/// or does not end.
UpdateOutcome outcomeOf(const UpdateStart &start);

/**
 * An installed build with a player's files in it, the build after it and the patch between them,
 * with every kind of rule. Ends the test program on an error.
 */
class UpdateScenario
{
public:
    UpdateScenario();

    /// From now on the patch is a slim one, and updates trust the key that it is sealed with. False
    /// when the library is built without libcrypto.
    bool makeSlim();
    /// The public key's file; empty when the patch is no slim one.
    QString trustedKey() const { return m_trustedKey; }
    /// Of a sealed update: which release is installed.
    void removeRecord() const;

    /// The installed build becomes the old one.
    void lay();
    /// The installed build becomes the old one with files changed and gone, from now on until
    /// another is laid: what is said of the old build below is said of this one, and updates take
    /// those files whole from the new build.
    void layDamaged();
    /// The installed build becomes the new one.
    void layNew();
    /// Takes the player's files as they are now for untouched.
    void noteTraces();

    QString build() const { return m_tree.path(QStringLiteral("build")); }
    QString patch() const { return m_slim.isEmpty() ? fullPatch() : m_slim; }
    QString fullPatch() const { return m_tree.path(QStringLiteral("patch")); }
    /// All files of the new build.
    QString newBuild() const { return m_tree.path(QStringLiteral("new")); }
    /// Of the new build.
    QString signatures() const { return m_tree.path(QStringLiteral("signatures")); }
    QString oldSignatures() const { return m_tree.path(QStringLiteral("old signatures")); }
    /// What updates take whole files from; empty unless the build was laid damaged.
    QString fallback() const { return m_isDamaged ? newBuild() : QString(); }
    const TestTree &tree() const { return m_tree; }

    /// By relative path, without the player's files.
    const RandomBuild &oldFiles() const { return m_old; }
    const RandomBuild &newFiles() const { return m_new; }
    /// That no rule names.
    const RandomBuild &playersFiles() const { return m_players; }

    /// A run that was killed at its very end may leave the folder, but nothing in it.
    void removeEmptyWorkFolder() const;
    /// Where a call that removes a folder has failed, the empty folder may stay.
    void removeEmptyFolders() const;
    /// Whether all files of the old build are there with their content, and none of the new alone.
    bool isOld() const { return isAll(before(), m_new); }
    /// The same of the new build.
    bool isNew() const { return isAll(m_new, before()); }

    // Each is empty when all is well. Permissions count, and so does everything that is left.
    QString differenceToOld() const;
    QString differenceToNew() const;
    /// What of the player's files has been written, renamed or only touched since it was laid.
    QString touchedFile() const;
    /**
     * What breaks the promise for any moment: a file of both builds that has neither its old nor
     * its new content, another of the new build that is there in part, a changed file of the
     * player, a build that is neither old nor new although nothing is to be finished.
     */
    QString brokenPromise() const;
    bool hasJournal() const { return m_tree.exists(QStringLiteral("build/.pellox/journal")); }

    // Runs in this process that wait for no disk.
    UpdateOutcome update(bool keepsPrevious = false) const;
    UpdateOutcome recover() const;
    UpdateOutcome rollback() const;
    bool discardPrevious() const;

private:
    void lay(const RandomBuild &files);
    /// What updates start from.
    const RandomBuild &before() const { return m_isDamaged ? m_damaged : m_old; }
    RandomBuild expectedNew() const;
    bool isAll(const RandomBuild &files, const RandomBuild &others) const;

    TestTree m_tree;
    QString m_slim; ///< may be empty
    QString m_trustedKey;
    RandomBuild m_old;
    RandomBuild m_new;
    RandomBuild m_players;
    RandomBuild m_damaged; ///< the old build, with files changed and gone
    bool m_isDamaged = false;
    QMap<QString, QString> m_traces; ///< of the player's files: what any touch changes
};
