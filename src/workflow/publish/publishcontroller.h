// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"
#include "progresscallback.h"

#include <QObject>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <memory>
#include <optional>

namespace Pellox {

/**
 * Publishes a release in one call, on all cores: the work of SignaturesController and
 * DeltaController, with the same files as a result, byte for byte, or with smaller deltas where the
 * old build is at hand.
 *
 * Each file of the new build is read once to be hashed and signed; only one that changed without
 * showing it at once is read once more for its delta. A large file is worked on by all threads.
 *
 * Strict where those two are lenient: a file that cannot be read, that disappears or changes
 * during the run, a signature that is missing or broken where it is needed, a full disk, too little
 * memory, all end the run with false after publishError(). Manifests are written last and
 * atomically, once all else is on the disk, so a folder with a manifest is a complete one, after a
 * power failure too.
 *
 * Folders to write are made where they are missing. One that holds an older release is
 * replaced: what the new release does not name is removed. A folder that holds anything else, a
 * file beside an older release too, is refused, so that a mistyped path costs nobody his files;
 * folders that overlap are refused too, and one that another run is writing to. An older release is
 * untouched until all that can be checked before the work has been.
 *
 * Paths may be relative and may end with a separator; ".." behind a link counts from where the link
 * leads. A manifest's relative paths begin with a separator in any case. Hidden files are no part
 * of a build.
 *
 * Memory: about 8 MiB a thread, and of the files in work the signatures (60 to 80 bytes for each
 * 2,048 bytes of the old file), or, where the old build is at hand, deltaMemory() for both; and
 * about half a KiB for each file of the build, its path and its checksums.
 *
 * The calls block, one at a time, and may be made on any thread; signals and progress come on that
 * thread. Progress runs from 0 to 100 and never falls, by bytes; an empty callback is none. It is
 * called at least a few times a second, with the same value where there is none to tell, but for
 * while the disk is waited for at the end and while a run that failed cleans up. What it throws
 * ends the call like cancel() and is then thrown on; nothing else is thrown.
 */
class PELLOX_EXPORT PublishController : public QObject
{
    Q_OBJECT

public:
    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit PublishController(QObject *parent = nullptr);
    ~PublishController() override;

    /// How many threads work, 1,024 at most; 0, the default, means one for each core. Counts from
    /// the next call. Where the system gives fewer, those do it all.
    void setThreadCount(int count);
    /// What setThreadCount() has set.
    int threadCount() const;

    /**
     * The build that players have, where it is at hand; an empty path, the default, means that it
     * is not. createPatch() and publish() then look for what a changed file has in common with the
     * old one byte by byte, not in whole blocks, which makes deltas a good deal smaller. They are
     * librsync deltas as before. An old file that is not what the signatures describe, is missing
     * or cannot be read ends the call.
     *
     * This and the settings below count from the next call.
     */
    void setOldBuild(const QString &folder);
    /// What setOldBuild() has set.
    QString oldBuild() const;

    /// How thoroughly the old build is searched. docs/benchmarks.md has figures for each.
    enum class DeltaEffort {
        Fastest,  ///< for builds so large that their reading counts
        Balanced, ///< the default: most of what can be found, for a build farm
        Smallest, ///< a little less to send, for up to twice the time
    };
    Q_ENUM(DeltaEffort)
    /// Sets how thoroughly; Balanced where nothing is set.
    void setDeltaEffort(DeltaEffort effort);
    /// What setDeltaEffort() has set.
    DeltaEffort deltaEffort() const;

    /**
     * How many bytes of memory that search may use, all threads together: for what it knows of the
     * old files, and for what it works on, 12 MiB a thread, 32 with the smallest deltas. 1 GiB by
     * default, 1 MiB at least. Where it is less than the search would like, it knows less of the
     * old files, and deltas become larger; and no more threads work than half of it is enough for,
     * but for one, whatever that takes.
     */
    void setDeltaMemory(qint64 bytes);
    /// What setDeltaMemory() has set, in bytes.
    qint64 deltaMemory() const;

    /// Whether each delta that was made from the old build is applied by librsync's own patch and
    /// the outcome held against the new file, before the patch has a manifest; on by default.
    void setDeltasVerified(bool verified);
    /// What setDeltasVerified() has set.
    bool areDeltasVerified() const;

    /// Writes into folder @p signatures a signature for each file of @p build, and signatures.json.
    [[nodiscard]] bool createSignatures(const QString &build, const QString &signatures,
        const PROGRESS_CALLBACK &progress = PROGRESS_CALLBACK());

    /**
     * Writes into folder @p patch what brings players from the build that folder @p signatures
     * describes to @p newBuild, and patchRules.json. @p ignoreFiles are paths of files of
     * @p newBuild, absolute or relative to it, that get no rule.
     */
    [[nodiscard]] bool createPatch(const QString &newBuild, const QString &signatures,
        const QString &patch, const QStringList &ignoreFiles = QStringList(),
        const PROGRESS_CALLBACK &progress = PROGRESS_CALLBACK());

    /**
     * A whole release: createPatch(), and from the same pass over @p newBuild its signatures for
     * the release after it. Ignored files are signed like all others. Signatures of unchanged
     * files are taken over from @p oldSignatures.
     */
    [[nodiscard]] bool publish(const QString &newBuild, const QString &oldSignatures,
        const QString &patch, const QString &newSignatures,
        const QStringList &ignoreFiles = QStringList(),
        const PROGRESS_CALLBACK &progress = PROGRESS_CALLBACK());

    /// A new file that is an old one under another name.
    struct MovedFile
    {
        QString relativePath;    ///< in the new build
        QString oldRelativePath; ///< of several, one that the patch does not touch goes first
        qint64 size;             ///< in bytes
    };
    /// What the last publish() sends whole although the old build has it, the largest first; none
    /// of it is empty.
    QVector<MovedFile> movedFiles() const;

    /**
     * What createPatch() would write as patchRules.json, with a member "file_size" also for "copy"
     * rules; an empty list when there is nothing to do. Hashes the new build and writes nothing.
     * Nothing after publishError(), or when it was cancelled.
     */
    [[nodiscard]] std::optional<QVariantList> plan(const QString &newBuild,
        const QString &signatures, const QStringList &ignoreFiles = QStringList(),
        const PROGRESS_CALLBACK &progress = PROGRESS_CALLBACK());

    /**
     * Why createPatch() and publish() would refuse to write a patch into @p folder, as
     * publishError() would tell it; empty when they would take it. Touches nothing.
     */
    static QString problemOfPatchFolder(const QString &folder);
    /// The same for the signatures that createSignatures() and publish() write.
    static QString problemOfSignaturesFolder(const QString &folder);

    /**
     * The relative paths of the files whose signatures stand in folder @p signatures, in the order
     * of its manifest, which is read record by record. Nothing, after @p error as publishError()
     * would tell it, when the manifest is not usable.
     */
    static std::optional<QStringList> signedFiles(const QString &signatures, QString *error);

    /// How large the signature of a file of @p fileSize bytes is.
    static qint64 signatureSize(qint64 fileSize);

    /**
     * Ends a call that is running, within one block of each thread: it returns false, without an
     * error, and leaves no manifest. What it has written is cleaned up first, which takes its time
     * where that is many files. An older release is left as it was when its folder was not yet
     * being emptied; the rest of one that was is left, marked, and emptied by the next call. Does
     * nothing when none runs. Any thread.
     */
    void cancel();
    /// Whether the last call ended because of cancel(). Any thread.
    bool wasCancelled() const;

Q_SIGNALS:
    /// Why the call that is about to return false failed; begins with the path in question.
    void publishError(const QString &message);

private:
    class PELLOX_NO_EXPORT Private;
    const std::unique_ptr<Private> d;
};

} // namespace Pellox
