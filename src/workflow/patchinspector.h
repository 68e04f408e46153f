// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"
#include "progresscallback.h"

#include <QObject>
#include <QString>
#include <QVector>

#include <memory>

namespace Pellox {

/**
 * What a patch does with one file. A new file is made of copied and literal bytes:
 * copiedBytes + literalBytes is newSize, whatever the rule.
 */
struct InspectedFile
{
    QString rule;          ///< PATCH_RULE, COPY_RULE or DELETE_RULE of <Pellox/rules.h>
    QString relativePath;  ///< with a separator in front, as in the manifest
    qint64 newSize = 0;    ///< bytes of the new file; 0 of one that is deleted
    qint64 patchBytes = 0; ///< bytes of its delta or, copied whole, of the file; deleted: 0
    /// Bytes of the new file that the delta takes from the old one.
    qint64 copiedBytes = 0;
    /// Bytes of the new file that the patch carries: literals of a delta, or the whole file.
    qint64 literalBytes = 0;
    qint64 commands = 0; ///< of the delta, its end not counted; 0 where there is none
};

/**
 * Looks into a patch folder: what each rule does, and where the bytes come from. Reads the
 * manifest and of each delta the commands, not the bytes between them, and writes nothing. So it
 * takes a moment, whatever the size of the patch.
 *
 * Strict: a manifest that is not as docs/formats.md has it, a rule that is unknown, a path that
 * occurs twice or leads out of the patch folder, also by a link, a file that is missing, a delta
 * that is broken or makes a file of another size than the manifest says, new files or a patch of
 * more than 8 PiB (2^53 bytes), a manifest that is larger than such files are or than there is
 * memory for. Whether the deltas fit an old build, and the checksums, it cannot tell.
 *
 * The call blocks and may be made on any thread, one at a time; signal and progress come on that
 * thread. Nothing is thrown but what the progress callback throws.
 */
class PELLOX_EXPORT PatchInspector : public QObject
{
    Q_OBJECT

public:
    explicit PatchInspector(QObject *parent = nullptr);
    ~PatchInspector() override;

    /**
     * Inspects the patch in folder @p patch, which may be relative and may end with a separator.
     * Goes on after an error, so that each thing that is wrong is told; false when there was one.
     * @p progress runs from 0 to 100 and never falls, by rules; an empty callback is none.
     */
    [[nodiscard]] bool inspect(
        const QString &patch, const PROGRESS_CALLBACK &progress = PROGRESS_CALLBACK());

    /// A record for each rule, in the order of the manifest; none unless inspect() was true.
    QVector<InspectedFile> files() const;

Q_SIGNALS:
    /// Something that is wrong with the patch. The text begins with @p path, the absolute path of
    /// the file in question.
    void inspectError(const QString &message, const QString &path);

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace Pellox
