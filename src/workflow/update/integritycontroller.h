// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"
#include "updatecontroller.h"

#include <QObject>
#include <QStringList>

#include <memory>

namespace Pellox {

/// How an installed build compares with its manifest. Paths are relative to the build, begin with
/// a separator and are sorted.
struct IntegrityReport
{
    int intactFiles = 0;    ///< how many files are as the manifest says
    QStringList changed;    ///< files with other content
    QStringList missing;    ///< files that are not there
    QStringList unreadable; ///< files that the system does not let be read
    /// Files that the manifest does not name; hidden ones do not count. And folders that cannot be
    /// listed, and files and folders whose names the locale's encoding cannot tell.
    QStringList extra;

    /// Whether every file of the manifest is as it should be; extra files do not matter.
    bool isIntact() const { return changed.isEmpty() && missing.isEmpty() && unreadable.isEmpty(); }
};

/**
 * Compares an installed build with its signatures.json, on all cores, and repairs what differs.
 *
 * One run at a time; it works on the global thread pool and on threads of its own. Signals come on
 * a pool thread, so connections from other threads are queued. No exception leaves a run: one that
 * there is no memory for fails.
 */
class PELLOX_EXPORT IntegrityController : public QObject
{
    Q_OBJECT

public:
    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit IntegrityController(QObject *parent = nullptr);
    /// Cancels a run and waits for its end, that of all slots that are connected directly among it.
    /// So not to be reached from one of these.
    ~IntegrityController() override;

    /// How many threads work; 0, the default, means one for each core. Counts from the next run.
    void setThreadCount(int count);

    /**
     * Starts to compare the build in folder @p build with signatures.json in folder
     * @p signatures. Changes nothing on disk. True means started: finished() follows exactly
     * once. False when a run is under way, and, after a problem NoMemory that is told on this
     * thread, when the system gives no thread to run it; the same holds for repair() and
     * recordRelease(). A run is no longer under way when finished() is told; one that is started
     * meanwhile begins when all slots that are connected directly have returned.
     */
    bool check(const QString &build, const QString &signatures);

    /**
     * Starts to bring back what is changed, missing or unreadable from folder @p source, which
     * holds the right files. Each is verified while it is copied and put in place as
     * UpdateController does: all or none, and safe at any instant. Intact and extra files are
     * not touched. A file keeps its permissions, but one that its owner cannot read gets those of
     * its source. Where the record of the installed release is damaged or of another build than
     * the signatures, it is removed at the end.
     */
    bool repair(const QString &build, const QString &signatures, const QString &source);

    /**
     * Starts to record which release is installed, as a sealed update does: for installers, so that
     * already the first update proves what it starts from. The release is the one that the sealed
     * patch in folder @p patch leads to, of which patchSeal.json is enough; one of @p trustedKeys,
     * PEM files of public keys, must have made the seal. Refused, and nothing written, unless
     * @p signatures are those of that release and every file is intact; and where the build's
     * record tells of another build with a number that is no smaller. What a crash has interrupted
     * is finished first.
     */
    bool recordRelease(const QString &build, const QString &signatures, const QString &patch,
        const QStringList &trustedKeys);

    /// Ends a run soon. One that is cancelled changes nothing. Any thread.
    void cancel();
    /// Whether a run is under way.
    bool isRunning() const;

    /// What the last run found, before it repaired anything. Valid after finished().
    IntegrityReport report() const;
    /// How the last repair() or recordRelease() ended: AlreadyUpToDate when there was nothing to
    /// repair or to record, Updated when that was done. Valid after finished().
    UpdateController::UpdateResult repairResult() const;

Q_SIGNALS:
    /// Bytes read, or written by a repair, of all; never falls within a phase.
    void progress(qlonglong done, qlonglong total);
    /// Why a run failed; begins with the path of the file in question.
    void integrityError(const QString &message);
    /// The same for programs; comes just before.
    void problemFound(const Pellox::UpdateProblem &problem);
    /// What a run does from now on. A check is nothing but Checking.
    void phaseChanged(Pellox::UpdateController::UpdatePhase phase);
    /**
     * The end of a run. Of check(): true when it was carried out, whatever the report says; of
     * repair(): true when the build is intact now; of recordRelease(): true when it is recorded.
     */
    void finished(bool success);

private:
    class PELLOX_NO_EXPORT Private;
    const std::unique_ptr<Private> d;
};

} // namespace Pellox
