// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"
#include "updateproblem.h"

#include <QObject>
#include <QStringList>
#include <QVector>

#include <memory>

namespace Pellox {

/// What an update would do, see UpdateController::plan().
struct UpdatePlan
{
    /// Why it would be refused; then the rest is not complete.
    QVector<UpdateProblem> refusals;
    bool isCancelled = false; ///< by cancel(); then nothing here is complete
    int filesToPatch = 0;     ///< that are not new already
    int filesToCopy = 0;      ///< that are not new already
    QStringList patches;      ///< these files, as paths relative to the build
    QStringList copies;       ///< likewise
    QStringList deletions;    ///< files that would go, likewise
    qint64 bytesToRead = 0;   ///< of the patch and of the old files, about
    qint64 bytesToWrite = 0;  ///< of new content
    qint64 peakExtraDisk = 0; ///< what the build's file system must have free, in bytes; with
                              ///< copies of what is kept, where it is known to give no links
};

/**
 * Brings an installed build to the build that a patch leads to, or leaves it as it is.
 *
 * Everything is checked before anything is touched; new content is written beside the installed
 * files, its SHA-512 computed meanwhile; only when all is there is each file replaced by one
 * rename. Killed at any instant, by a power cut too, every file has its old or its new content,
 * and the next update() or recover() finishes what was begun.
 *
 * Files that no rule names are never touched, and neither are those that have their new content
 * already. While it works the build holds ".temp" files and a hidden folder ".pellox".
 * Somebody else's file of such a name stays as it is.
 *
 * One run at a time; it works on the global thread pool and on threads of its own. Signals come on
 * a pool thread, so connections from other threads are queued. A build is worked on by one object
 * at a time, whatever its process: others are refused.
 *
 * No exception leaves a run: one that there is no memory for ends as Failed, or as Interrupted
 * where its commit has begun.
 */
class PELLOX_EXPORT UpdateController : public QObject
{
    Q_OBJECT

public:
    /**
     * How a run ended. Where a crash has interrupted an earlier one, that is finished first, as the
     * phase Finishing tells; what is said here of the build counts from then on.
     */
    enum class UpdateResult {
        Updated,         ///< the build is the new one, for each file that a rule names
        AlreadyUpToDate, ///< it was; at most the record of its release was written
        Refused,         ///< something is wrong with the patch or the build; nothing was touched
        Failed,          ///< the build is as it was, what was written beside it is gone; but see
                         ///< recover()
        Interrupted,     ///< a commit was not finished: it could not be, or cancel() came before
                         ///< the rest of it had begun; update() or recover() will
        Cancelled,       ///< by cancel(), as Failed
    };
    Q_ENUM(UpdateResult)

    /// What a run does. Each comes once at most, in this order.
    enum class UpdatePhase {
        Finishing,  ///< does the rest of a commit that a crash has interrupted
        Checking,   ///< reads the patch and the installed files, or what is kept; touches nothing
        Staging,    ///< writes new content beside the installed files
        Committing, ///< puts it into place; can no longer be cancelled
    };
    Q_ENUM(UpdatePhase)

    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit UpdateController(QObject *parent = nullptr);
    /// Cancels a run and waits for its end, that of all slots that are connected directly among it.
    /// So not to be reached from one of these.
    ~UpdateController() override;

    // Settings count from the next run.

    /// How many threads work; 0, the default, means one for each core.
    void setThreadCount(int count);
    /// A folder with the files of the new build: where an installed file is missing or not the one
    /// that the patch is for, it is taken whole from there. Empty, the default, is none.
    void setFallbackSource(const QString &folder);
    /**
     * PEM files of the public keys whose seals are believed, see PatchSeal. With any, a patch that
     * is not sealed by one of them, differs from its seal in any byte, leads on from another build
     * or to an older release is refused; and every installed file that is to be patched is known as
     * old, new or neither before anything is touched. What a rule copies over or deletes goes,
     * whatever it holds. Hidden files in the patch's folder that the seal does not name
     * are not looked at, as no rule leads to them. New files that only moved may be missing from
     * the patch, see PatchSeal::writeSlim(): they are made of the installed files that the seal
     * names, which is refused where these are not what they were, unless the fallback has the new
     * files. Without a key nothing may be missing. A run is refused as well, with BadKey, when one
     * of the files holds no public key. Empty, the default: patches need no seal.
     */
    void setTrustedKeys(const QStringList &publicKeys);
    /**
     * Whether sealed patches may lead to an older release than the installed one. Off by default.
     * Which one is installed is recorded whenever a sealed patch has been found to be installed;
     * the number in the record falls only here and by rollback().
     */
    void setOlderAllowed(bool allowed);
    /// Whether what an update replaces and deletes is set aside in the build's hidden folder,
    /// so that rollback() can bring it back. Off by default.
    void setKeepPrevious(bool keep);
    /// Whether all is synced to the disk at the points where a power cut needs it. On by default;
    /// off for measurements alone.
    void setSynced(bool synced);

    /**
     * Starts to bring the installed build in folder @p build to where @p patch leads. True means
     * started: finished() follows exactly once. False when a run is under way, and, after a problem
     * NoMemory that is told on this thread, when the system gives no thread to run it; the same
     * holds for recover() and rollback(). A run is no longer under way when finished() is told; one
     * that is started meanwhile begins, and tells of itself, when all slots that are connected
     * directly have returned, so these must not wait for it.
     */
    bool update(const QString &build, const QString &patch);
    /**
     * Starts to finish what a crash has interrupted; needs no patch. AlreadyUpToDate when there
     * was nothing to finish: what an update had staged by then stays for the next one, which goes
     * on with it. Failed with a problem DamagedInstall for each file whose new content
     * was gone or damaged by then: these are as they were, all others are finished, and the build
     * is no release until it is repaired, or updated once more.
     */
    bool recover(const QString &build);
    /// Starts to bring back the build from before the last update, which must have kept it. What
    /// stands in the place of a rule's file is the build's: it is replaced or deleted, also where
    /// it was changed after the update.
    bool rollback(const QString &build);
    /// Frees the space of what the last update has kept, after it has finished what a crash has
    /// interrupted. Blocks. False after updateError(), and when a run is under way.
    bool discardPrevious(const QString &build);

    /// What update() would do. Blocks; reads what is needed and touches nothing, and emits nothing.
    /// Refused are also a build that somebody works on, this object too, and one where a crash has
    /// interrupted an update: what that comes to is known once it is finished.
    UpdatePlan plan(const QString &build, const QString &patch);

    /// Ends a run soon: as Cancelled before the commit has begun, else when it is finished. One
    /// that is to finish an earlier commit, and still looks at what that has left, ends as
    /// Interrupted. Any thread.
    void cancel();
    /// Whether a run is under way.
    bool isRunning() const;

Q_SIGNALS:
    /// In the phase Finishing bytes of what an earlier run has left that are looked at; in the
    /// phase Staging bytes of new content that are written and checked, of all that is to be
    /// written; in the phase Checking, when a sealed patch is checked, bytes of the patch and of
    /// the installed files that are read. Never falls within a phase; comes several times a second.
    void updateProgress(qlonglong done, qlonglong total);
    /// One for each thing that is wrong; begins with the path of the file in question.
    void updateError(const QString &message);
    /// The same for programs; comes just before.
    void problemFound(const Pellox::UpdateProblem &problem);
    /// What the run does from now on.
    void phaseChanged(Pellox::UpdateController::UpdatePhase phase);
    /// The new content of a file is complete and checked.
    void fileStaged(const QString &relativePath);
    /// The end of a run. Nothing of the next one comes before it.
    void finished(Pellox::UpdateController::UpdateResult result);

private:
    class PELLOX_NO_EXPORT Private;
    const std::unique_ptr<Private> d;
};

} // namespace Pellox
