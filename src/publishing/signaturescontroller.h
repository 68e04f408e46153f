// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"
#include "progresscallback.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QObject>
#include <QString>

namespace Pellox {

/**
 * Describes the build that players have, so that a later build can become a patch
 * against it: one librsync signature a file, and signatures.json with each file's
 * relative path, suffix and SHA-512. docs/formats.md describes both.
 */
class PELLOX_EXPORT SignaturesController : public QObject
{
    Q_OBJECT
public:
    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit SignaturesController(QObject *parent = nullptr);

    /**
     * The raw digest of the whole file. Empty when the file cannot be opened, or cannot
     * be read to its end. Safe on any thread.
     */
    static QByteArray calculateCheckSum(
        const QString &filePath, QCryptographicHash::Algorithm algorithm);

Q_SIGNALS:
    void finished(); ///< never emitted; createSignatures() is done when it returns
    void createSignError(QString errorMsg); ///< signatures.json could not be created

public Q_SLOTS:
    /**
     * Signs every file of @p binariesFolderPath into @p signaturesFolderPath, which is
     * created where it is missing, and writes signatures.json last. Works in the calling
     * thread, one file after another, and calls @p progress there: after file i of N with
     * i / N * 100, counted from 0, and with 100 at the very end, also after an error.
     *
     * Give @p binariesFolderPath as an absolute path: the relative paths in the manifest
     * are the absolute ones less as many characters as it has. Without a separator at its
     * end they begin with one, which is what DeltaController and clients expect.
     *
     * A file that cannot be read is recorded with an empty checksum and is no error.
     * Signatures of earlier calls are overwritten file by file; none is removed.
     */
    void createSignatures(const QString &binariesFolderPath, const QString &signaturesFolderPath,
        PROGRESS_CALLBACK progress = PROGRESS_CALLBACK());

private:
    bool _createSignatureFile(const QString &filePath, const QString &signatureFilePath);
};

} // namespace Pellox
