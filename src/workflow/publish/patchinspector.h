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
    /// Bytes of the new file that players take from the old build.
    qint64 copiedBytes = 0;
    /// Bytes of the new file that the patch carries: literals of a delta, or the whole file.
    qint64 literalBytes = 0;
    qint64 commands = 0; ///< of the delta, its end not counted; 0 where there is none
    /// Of a file that is copied whole and not empty: the file of the old build that has the same
    /// content or, else, the most of it; empty where none is known. See PatchInspector.
    QString oldPath;
    qint64 oldBytes = 0;  ///< bytes of the new file that the old build has, in any of its files
    bool isMoved = false; ///< oldPath has the same content from one end to the other
    bool isOldEstimated = false; ///< oldBytes are
    /// Of a slim patch, see PatchSeal::writeSlim(): the patch has not got it, players make it of
    /// oldPath; then all of it counts as copied, and patchBytes is 0.
    bool isLeftOut = false;
};

/**
 * Looks into a patch folder: what each rule does, and where the bytes come from. Reads the
 * manifest and of each delta the commands, not the bytes between them, and writes nothing. So it
 * takes a moment, whatever the size of the patch.
 *
 * A new file is copied whole into a patch though players may have its content under another name.
 * Given the old build's signatures, inspect() reads the new files, twice at most, and finds what of
 * them the old build has: a file with the same SHA-512, else blocks with the same sums. Of an old
 * build of more than 4 GiB it knows every so-and-so-many-th block, so that memory stays below some
 * 200 MiB, and tells estimates. Without signatures it tells what the patch's seal names, if there
 * is one, without asking who has made it; and only where a seal says so may a file be left out.
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
    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit PatchInspector(QObject *parent = nullptr);
    ~PatchInspector() override;

    /// The folder with the signatures of the build that the patch leads on from; empty, the
    /// default, is none. Counts from the next call.
    void setOldSignatures(const QString &folder);

    /**
     * Inspects the patch in folder @p patch, which may be relative and may end with a separator.
     * Goes on after an error, so that each thing that is wrong is told; false when there was one.
     * False also when the old build's signatures are damaged or cannot be read.
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
    class PELLOX_NO_EXPORT Private;
    const std::unique_ptr<Private> d;
};

} // namespace Pellox
