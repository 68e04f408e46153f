// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"
#include "progresscallback.h"

#include <QObject>
#include <QStringList>

#include <memory>

namespace Pellox {

/**
 * Publishes a release in one call, on all cores: the work of SignaturesController and
 * DeltaController, with the same files as a result, byte for byte.
 *
 * Each file of the new build is read once to be hashed and signed; only one that changed without
 * showing it at once is read once more for its delta. A large file is worked on by all threads.
 *
 * Strict where those two are lenient: a file that cannot be read, that disappears or changes
 * during the run, a signature that is missing or broken where it is needed, a full disk, all end
 * the run with false after publishError(). Manifests are written last and atomically, so a folder
 * with a manifest is a complete one.
 *
 * Folders to write are made where they are missing. One that holds an older release is
 * replaced: what the new release does not name is removed. A folder that holds anything else is
 * refused, so that a mistyped path costs nobody his files; folders that overlap are refused too.
 *
 * Paths may be relative and may end with a separator; a manifest's relative paths begin with a
 * separator in any case. Hidden files are no part of a build.
 *
 * Memory: about 8 MiB a thread, and of the files in work the signatures (60 to 80 bytes for each
 * 2,048 bytes of the old file), whatever the number and size of files.
 *
 * The calls block, one at a time, and may be made on any thread; signals and progress come on that
 * thread. Progress runs from 0 to 100 and never falls, by bytes; an empty callback is none.
 */
class PELLOX_EXPORT PublishController : public QObject
{
    Q_OBJECT

public:
    explicit PublishController(QObject *parent = nullptr);
    ~PublishController() override;

    /// How many threads work; 0, the default, means one for each core. Counts from the next call.
    void setThreadCount(int count);
    int threadCount() const;

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

    /**
     * What createPatch() would write as patchRules.json, with a member "file_size" also for "copy"
     * rules. Hashes the new build and writes nothing. Empty after publishError().
     */
    [[nodiscard]] QVariantList plan(const QString &newBuild, const QString &signatures,
        const QStringList &ignoreFiles = QStringList(),
        const PROGRESS_CALLBACK &progress = PROGRESS_CALLBACK());

    /**
     * Ends a call that is running, within one block of each thread: it returns false, without an
     * error, and leaves no manifest. Does nothing when none runs. Any thread.
     */
    void cancel();
    /// Whether the last call ended because of cancel(). Any thread.
    bool wasCancelled() const;

Q_SIGNALS:
    /// Why the call that is about to return false failed; begins with the path in question.
    void publishError(const QString &message);

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace Pellox
