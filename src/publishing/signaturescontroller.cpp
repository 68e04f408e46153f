// SPDX-License-Identifier: MIT
#include "signaturescontroller.h"

#include "digest.h"
#include "filewalk.h"
#include "logcategories.h"
#include "longpathwarning.h"
#include "manifest.h"
#include "namedpipe.h"
#include "patchhelp.h"
#include "rules.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

QLoggingCategory logCatSC("SignaturesController");

namespace Pellox {

SignaturesController::SignaturesController(QObject *parent)
    : QObject(parent)
{
}

QByteArray SignaturesController::calculateCheckSum(
    const QString &filePath, QCryptographicHash::Algorithm algorithm)
{
    QFile file(filePath);
    if (isNamedPipe(QFile::encodeName(filePath).constData())
        || !file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return {};
    return digestOf(file, algorithm);
}

void SignaturesController::createSignatures(const QString &binariesFolderPath,
    const QString &signaturesFolderPath,
    PROGRESS_CALLBACK progress) // NOLINT(performance-unnecessary-value-param): promised to hosts
{
    const QDir signaturesFolder(signaturesFolderPath);
    if (!signaturesFolder.exists())
        signaturesFolder.mkpath(signaturesFolder.absolutePath());

    const QStringList files = filesUnder(binariesFolderPath);
    const auto fileCount = static_cast<double>(files.size());
    QVariantList records;
    for (int i = 0; i < files.size(); ++i) {
        const QFileInfo file(files.at(i));
        const QString filePath = file.absoluteFilePath();
        // As many characters as the caller wrote, not as the absolute path has: promised.
        const QString relativePath = filePath.mid(binariesFolderPath.size());
        const QString signaturePath
            = QFileInfo(signaturesFolderPath + QDir::separator() + relativePath).absoluteFilePath();
        warnIfTooLong(logCatSC, filePath);
        warnIfTooLong(logCatSC, signaturePath);

        // A file without a signature is recorded all the same: promised.
        _createSignatureFile(filePath, signaturePath);
        const QByteArray checkSum = calculateCheckSum(filePath, QCryptographicHash::Sha512);
        records.append(QVariantMap{
            {Manifest::RelativePath, relativePath},
            {Manifest::Suffix, file.suffix()},
            {Manifest::Sha512, QString::fromLatin1(checkSum.toHex())},
        });
        if (progress)
            progress(static_cast<double>(i) / fileCount * 100);
    }

    if (!Manifest::write(
            Manifest::pathIn(signaturesFolder.absolutePath(), SIGNATURES_FILE), records)) {
        const QString message
            = QLatin1String("Can't create signatures file in ") + signaturesFolderPath;
        qCDebug(logCatSC) << qPrintable(message);
        Q_EMIT createSignError(message);
    }
    if (progress)
        progress(100.0);
}

bool SignaturesController::_createSignatureFile(
    const QString &filePath, const QString &signatureFilePath)
{
    const QDir folder = QFileInfo(signatureFilePath).dir();
    if (!folder.exists())
        folder.mkpath(folder.absolutePath());
    return createSignature(filePath, signatureFilePath);
}

} // namespace Pellox
