// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"
#include "progresscallback.h"

#include <QObject>
#include <QStringList>

#include <memory>

namespace Pellox {

/**
 * Seals a patch, so that players can tell it from any other: patchSeal.json in the patch folder
 * lists size and SHA-512 of every file of it, the content that each rule starts from and leads to,
 * the builds that the patch leads between and the number of the release, under Ed25519 signatures.
 * docs/formats.md has the format. UpdateController takes only sealed patches once it has been given
 * a trusted key; readers that know nothing of seals pass the file over.
 *
 * Several keys make several signatures, and a player needs one of them. So a key is replaced: seal
 * with the old and the new one until all players trust the new one.
 *
 * A new file that only moved, or that was doubled, is in the patch as a whole, though players have
 * its content: the seal names the old file that has it. So writeSlim() can leave it out for players
 * who use UpdateController with a trusted key. All others need the full patch: the core,
 * BinariesController, and UpdateController without a key know of no seal. One seal is for both.
 *
 * Needs OpenSSL's libcrypto; where the library is built without it, every call but writeSlim()
 * fails and says so.
 *
 * The calls block, one at a time, and may be made on any thread; progress comes on that thread.
 */
class PELLOX_EXPORT PatchSeal : public QObject
{
    Q_OBJECT

public:
    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit PatchSeal(QObject *parent = nullptr);
    ~PatchSeal() override;

    /// How many threads hash; 0, the default, means one for each core. Counts from the next call.
    void setThreadCount(int count);
    /// What setThreadCount() has set.
    int threadCount() const;

    /**
     * Seals the patch in folder @p patch, which leads on from the build that signatures.json in
     * folder @p oldSignatures describes, and replaces an older seal in one step. The same patch
     * and keys make the same seal, byte for byte.
     *
     * @p release is from 1 to 2^53 - 1 and rises from one release to the next.
     * For each file that a rule copies, is not empty and has the content of a file of the old
     * build, the seal names that one as its source; of several one that no rule touches, and of
     * these the first in byte order.
     * @p privateKeys are PEM files of Ed25519 keys without a password, from 1 to 16, which nobody
     * but their owner may read or write and which do not lie in the patch folder.
     * @p progress runs from 0 to 100 and never falls, by bytes; an empty callback is none.
     *
     * False with error(), and with the older seal as it was, when one of these is not so, when
     * the manifest is refused or a file that a rule needs is missing, when @p oldSignatures does
     * not name a file that a rule patches or deletes or has no checksum of some file, when the
     * patch folder holds anything hidden, a link or a special file, when a file cannot be read or
     * changes meanwhile, or when the seal cannot be written.
     */
    [[nodiscard]] bool seal(const QString &patch, const QString &oldSignatures, qint64 release,
        const QStringList &privateKeys, const PROGRESS_CALLBACK &progress = PROGRESS_CALLBACK());

    /**
     * Writes into folder @p slim the patch in folder @p patch, which is sealed, without the files
     * that the seal names a source of: players make these of what they have, see
     * UpdateController::setTrustedKeys(). What the seal lists besides is copied, with the seal;
     * patchRules.json comes last, in one step.
     *
     * @p slim is made where it is missing, and emptied where it holds an earlier release's patch.
     * Hidden files stay, and are not copied either. Each file is compared with the seal while it is
     * copied; who has made the seal is not asked, and what is left out not looked at.
     * @p progress runs from 0 to 100 and never falls, by bytes; an empty callback is none.
     *
     * False with error() when one of the folders is or holds the other, when @p slim holds anything
     * but an earlier patch or another run writes there, when there is no seal or it is damaged,
     * when a file is not what was sealed, cannot be read or cannot be written. Then @p slim holds
     * nothing of the patch; what it held before is gone unless it was refused.
     */
    [[nodiscard]] bool writeSlim(const QString &patch, const QString &slim,
        const PROGRESS_CALLBACK &progress = PROGRESS_CALLBACK());

    /**
     * Ends a call that is running, within one block of each thread: it returns false, without an
     * error, and the older seal is as it was, or the slim patch is gone. Does nothing when none
     * runs. Any thread.
     */
    void cancel();
    /// Whether the last call ended because of cancel(). Any thread.
    bool wasCancelled() const;

    /// Why the last call failed; begins with the path of the file in question. Empty when it did
    /// not, or was cancelled.
    QString error() const;

    /**
     * Those of @p publicKeys, PEM files, whose owners have signed the seal in folder @p patch.
     * Whether the patch is what was sealed is another question, which UpdateController::plan()
     * answers. None after @p error, which may be null, when there is none, when the seal or a key
     * cannot be read, and when one of them has a signature that does not hold. Any thread.
     */
    [[nodiscard]] static QStringList signersOf(
        const QString &patch, const QStringList &publicKeys, QString *error);

    /**
     * Makes a new key and writes two PEM files: @p privateKey, for the publisher, which only its
     * owner may read and write, and @p publicKey, for the players. Both are of the form that
     * "openssl genpkey -algorithm ed25519" and "openssl pkey -pubout" write. False after @p error,
     * which may be null, when either exists already or cannot be written; then neither is made.
     * Any thread.
     */
    [[nodiscard]] static bool generateKey(
        const QString &privateKey, const QString &publicKey, QString *error);

private:
    class PELLOX_NO_EXPORT Private;
    const std::unique_ptr<Private> d;
};

} // namespace Pellox
