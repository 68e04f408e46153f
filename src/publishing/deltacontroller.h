// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"
#include "progresscallback.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

namespace Pellox {

/**
 * Makes a patch: from the signatures of the old build (SignaturesController) and the new
 * build, a folder with a delta for each changed file, each new file whole, and
 * patchRules.json. docs/formats.md describes it; BinariesController applies it.
 */
class PELLOX_EXPORT DeltaController : public QObject
{
    Q_OBJECT
public:
    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit DeltaController(QObject *parent = nullptr);

Q_SIGNALS:
    void createPatchError(QString errorMsg); ///< why createPatch() returns false

public Q_SLOTS:
    /**
     * Makes the patch from the build that @p signatureFolderPath describes to
     * @p binariesFolderPath, in @p deltaFolderPath, which is created where it is missing.
     * Blocks until all is written; the work on the rules runs on the global thread pool.
     *
     * @p ignoreFiles holds absolute paths of new files to leave out, in exactly the form
     * of the directory walk. @p progress is called with 0 to 50 in the calling thread, then
     * with 50 to 100 on pool threads, several at once and not always in ascending order.
     *
     * True when every delta and copy is made and patchRules.json is opened for writing.
     * False after createPatchError(); what is made by then stays, without a new patchRules.json.
     * Files of earlier runs that no rule names stay, and so does their patchRules.json after an
     * error: give a new or empty folder.
     *
     * Do not call it from a thread of the global pool, whose other threads it waits for.
     */
    bool createPatch(
        const QString &binariesFolderPath, const QString &signatureFolderPath,
        const QString &deltaFolderPath, const QStringList &ignoreFiles,
        PROGRESS_CALLBACK progress = [](double) {});

private:
    struct Folders;

    bool _executeRule(const QVariantMap &rule, const Folders &folders);
    bool _createPatchFile(
        const QString &newFilePath, const QString &signatureFilePath, const QString &deltaFilePath);
};

} // namespace Pellox
