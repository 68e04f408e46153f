// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"

#include <QByteArray>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QPair>
#include <QString>

#include <functional>

namespace Pellox {

/**
 * Brings an installed build up to date from a patch folder, in two phases. applyPatch()
 * deletes and copies, and writes patched content to ".temp" files beside the old files;
 * verifyPatchedFiles() checks those and puts them in place.
 *
 * Call both from the thread that the object lives in, which needs an event loop, with
 * folder paths in the form that the publisher used (docs/formats.md), and keep the object
 * until its end signal arrives. Rules run on the global thread pool; what says "pool
 * threads" is emitted there. Let one run end before the next starts: the object does not
 * guard against overlapping ones. Progress sums keep the entries of earlier runs.
 *
 * Every construction makes trace() the sink of librsync's messages.
 */
class PELLOX_EXPORT BinariesController : public QObject
{
    Q_OBJECT
public:
    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit BinariesController(QObject *parent = nullptr);
    ~BinariesController() override;

    /**
     * Starts to apply the patch folder @p deltaFolderPath to the build @p binariesFolderPath.
     * True means started: finished() follows, once. False, without any signal, when the build
     * folder is empty or missing.
     *
     * Without a patchRules.json that opens: applyPatchError(), then true and finished(true), as
     * there is no rule that could fail. Nothing is undone after a failed rule, and the other
     * rules go on.
     */
    bool applyPatch(const QString &binariesFolderPath, const QString &deltaFolderPath);

    /**
     * Starts to check and commit what applyPatch() left. True means started: verifyFinished()
     * follows, once. False, without it, when the build folder is empty or missing, or after
     * verifyError() when patchRules.json cannot be opened.
     *
     * Files of "copy" rules are not checked. Each ".temp" file can be committed only once: a
     * second run reports it as not found.
     */
    bool verifyPatchedFiles(const QString &binariesFolderPath, const QString &deltaFolderPath);

    /**
     * Applies the delta @p patchFilePath to @p binFilePath and writes the result beside it, to
     * the same path with ".temp" at its end, with the old file's permissions. The old file is
     * not changed; a ".temp" file of an earlier run is. @p checkSum is only logged, @p fileSize
     * and @p progress go to Pellox::applyPatch(). False after applyPatchError(). Safe on any
     * thread.
     */
    bool patchFile(const QString &binFilePath, const QString &patchFilePath,
        const QByteArray &checkSum, qint64 fileSize, std::function<void(qint64, qint64)> *progress);

    /**
     * Puts the ".temp" file of @p binFilePath in its place if its SHA-512 is @p checkSum (lower
     * case hex); deletes it otherwise. False after verifyError() when it is missing or differs.
     * That the rename itself failed is not noticed. Safe on any thread.
     */
    bool verifyPatchedFile(const QString &binFilePath, const QByteArray &checkSum);

    /**
     * Copies one file, whatever the name says: creates the target's folder and replaces an
     * existing target. Returns whether the copy succeeded. Safe on any thread.
     */
    static bool copyRecursively(const QString &sourceFilePath, const QString &targetFilePath);

    /**
     * Copies every file under @p sourceFolderPath (an absolute path) to the same place under
     * @p targetFolderPath; blocks until done. Hidden files and empty folders are left out, a
     * file that cannot be copied is skipped silently.
     */
    void copyBinaries(const QString &sourceFolderPath, const QString &targetFolderPath);

Q_SIGNALS:
    void patchProgress(qlonglong, qlonglong);  ///< (done, total); librsync reports none so far
    void verifyProgress(qlonglong, qlonglong); ///< (done, total) in rules; pool threads
    void finished(bool success);            ///< end of applyPatch(): true when every rule succeeded
    void verifyFinished(bool success);      ///< end of verifyPatchedFiles(), likewise
    void applyPatchError(QString errorMsg); ///< pool threads, but for the rule file
    void verifyError(QString errorMsg);     ///< pool threads, but for the rule file

private:
    bool _executeRule(const QVariantMap &rule, const QString &buildPath, const QString &patchPath);
    bool _verifyRule(const QVariantMap &rule, const QString &buildPath);
    bool _executeDeleteRule(const QString &relativePath, const QString &filePath);
    void _run(const QVariantList &rules, std::function<bool(const QVariant &)> executeRule,
        void (BinariesController::*onFinished)());
    void _reportPatchProgress(const QString &relativePath, qint64 done, qint64 total);
    void _setProgress(const QString &relativePath, QPair<qint64, qint64> value);
    QPair<qint64, qint64> _getProgress();
    void _onPatchingFinished();
    void _onVerifyFinished();

    QMutex m_progressMutex; ///< guards single writes to m_progress, nothing else
    QMap<QString, QPair<qint64, qint64>> m_progress; ///< (done, total) by relative path
};

} // namespace Pellox
