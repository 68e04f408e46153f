// SPDX-License-Identifier: MIT
#include "deltacontroller.h"

#include "binariescontroller.h"
#include "filewalk.h"
#include "logcategories.h"
#include "longpathwarning.h"
#include "manifest.h"
#include "patchhelp.h"
#include "rules.h"
#include "rulesexecutorfunctor.h"
#include "signaturescontroller.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QtConcurrent>

#include <algorithm>

QLoggingCategory logCatDC("DeltaController");

namespace Pellox {

/// The absolute paths of the three folders; a relative path is appended to them as it is.
struct DeltaController::Folders
{
    QString newBuild;
    QString signatures;
    QString patch;
};

namespace {

/// What is known of a file of the old build.
struct OldFile
{
    QString relativePath;
    QByteArray sha512;
};

struct NewFiles
{
    QStringList relativePaths;
    QSet<QString> ignored; ///< relative paths too
};

NewFiles walkNewBuild(const QString &newBuild, const QStringList &ignoreFiles)
{
    const QSet<QString> ignoredPaths(ignoreFiles.cbegin(), ignoreFiles.cend());
    NewFiles found;
    for (const QString &path : filesUnder(newBuild)) {
        const QString relativePath = path.mid(newBuild.size());
        if (ignoredPaths.contains(path))
            found.ignored.insert(relativePath);
        else
            found.relativePaths.append(relativePath);
    }
    return found;
}

QList<OldFile> oldFilesOf(const QVariantList &signatureRecords)
{
    QList<OldFile> files;
    for (const QVariant &record : signatureRecords) {
        const QVariantMap members = record.toMap();
        files.append({members.value(Manifest::RelativePath).toString(),
            members.value(Manifest::Sha512).toByteArray()});
    }
    return files;
}

QByteArray sha512Of(const QString &path)
{
    return SignaturesController::calculateCheckSum(path, QCryptographicHash::Sha512).toHex();
}

/// The rules of the new build's files. Takes each file that it finds there out of @p oldFiles.
QVariantList decideNewFiles(const QString &newBuild, const QStringList &relativePaths,
    QList<OldFile> &oldFiles, const PROGRESS_CALLBACK &progress)
{
    const auto fileCount = static_cast<double>(relativePaths.size());
    QVariantList rules;
    for (int i = 0; i < relativePaths.size(); ++i) {
        progress(static_cast<double>(i + 1) / fileCount * 50);
        const QString &relativePath = relativePaths.at(i);
        const auto old = std::find_if(oldFiles.begin(), oldFiles.end(),
            [&](const OldFile &file) { return file.relativePath == relativePath; });
        if (old == oldFiles.end()) {
            rules.append(QVariantMap{
                {Manifest::Rule, COPY_RULE},
                {Manifest::RelativePath, relativePath},
            });
            continue;
        }
        const QString path = newBuild + relativePath;
        const QByteArray sha512 = sha512Of(path);
        const bool unchanged = old->sha512 == sha512;
        oldFiles.erase(old);
        if (unchanged)
            continue;
        rules.append(QVariantMap{
            {Manifest::Rule, PATCH_RULE},
            {Manifest::RelativePath, relativePath},
            {Manifest::Sha512, QString::fromLatin1(sha512)},
            {Manifest::FileSize, QFileInfo(path).size()},
        });
    }
    return rules;
}

/// Puts a "delete" rule in front of @p rules for each old file, so that they end up reversed.
void prependDeletions(
    QVariantList &rules, const QList<OldFile> &oldFiles, const QSet<QString> &ignored)
{
    for (const OldFile &file : oldFiles) {
        if (ignored.contains(file.relativePath))
            continue;
        rules.prepend(QVariantMap{
            {Manifest::Rule, DELETE_RULE},
            {Manifest::RelativePath, file.relativePath},
        });
    }
}

} // namespace

DeltaController::DeltaController(QObject *parent)
    : QObject(parent)
{
}

bool DeltaController::createPatch(const QString &binariesFolderPath,
    const QString &signatureFolderPath, const QString &deltaFolderPath,
    const QStringList &ignoreFiles, PROGRESS_CALLBACK progress)
{
    const auto fail = [this](const QString &message) {
        qCDebug(logCatDC) << qPrintable(message);
        Q_EMIT createPatchError(message);
        return false;
    };
    if (!progress)
        progress = [](double) {};

    const Folders folders{QDir(binariesFolderPath).absolutePath(),
        QDir(signatureFolderPath).absolutePath(), QDir(deltaFolderPath).absolutePath()};
    const QDir patchFolder(folders.patch);
    if (!patchFolder.exists())
        patchFolder.mkpath(folders.patch);

    const NewFiles newFiles = walkNewBuild(folders.newBuild, ignoreFiles);
    QVariantList records;
    const QString signaturesPath = Manifest::pathIn(signatureFolderPath, SIGNATURES_FILE);
    if (Manifest::read(signaturesPath, &records) != Manifest::ReadResult::Complete)
        return fail(QLatin1String("Can't open signatures.json from ") + signatureFolderPath);

    QList<OldFile> oldFiles = oldFilesOf(records);
    QVariantList rules
        = decideNewFiles(folders.newBuild, newFiles.relativePaths, oldFiles, progress);
    prependDeletions(rules, oldFiles, newFiles.ignored);

    int startedRules = 0; // not synchronised on purpose: the figure may be approximate
    const auto ruleCount = static_cast<double>(rules.size());
    RulesExecutorFunctor execute([&](const QVariant &rule) {
        ++startedRules;
        progress(startedRules / ruleCount * 50 + 50);
        return _executeRule(rule.toMap(), folders);
    });
    const QList<bool> results = QtConcurrent::blockingMapped(rules, execute);

    if (results.contains(false)
        || !Manifest::write(Manifest::pathIn(folders.patch, PATCH_RULES_FILE), rules))
        return fail(QLatin1String("Failed create patch rules file in folder ") + folders.patch);
    return true;
}

bool DeltaController::_executeRule(const QVariantMap &rule, const Folders &folders)
{
    const QString name = rule.value(Manifest::Rule).toString();
    if (name != PATCH_RULE && name != COPY_RULE)
        return true;

    const QString relativePath = rule.value(Manifest::RelativePath).toString();
    const QString newFile = folders.newBuild + relativePath;
    if (!QFileInfo::exists(newFile)) {
        qCCritical(logCatDC) << "File" << relativePath << "is not founded";
        return false;
    }
    if (name == COPY_RULE)
        return BinariesController::copyRecursively(newFile, folders.patch + relativePath);

    if (sha512Of(newFile) != rule.value(Manifest::Sha512).toByteArray()) {
        qCCritical(logCatDC) << "Seems that file" << relativePath << "has changed";
        return false;
    }
    if (!_createPatchFile(
            newFile, folders.signatures + relativePath, folders.patch + relativePath)) {
        qCCritical(logCatDC) << "Failed create patch file for " << relativePath;
        return false;
    }
    return true;
}

bool DeltaController::_createPatchFile(
    const QString &newFilePath, const QString &signatureFilePath, const QString &deltaFilePath)
{
    const QDir folder = QFileInfo(deltaFilePath).dir();
    if (!folder.exists())
        folder.mkpath(folder.absolutePath());
    warnIfTooLong(logCatDC, newFilePath);
    warnIfTooLong(logCatDC, signatureFilePath);
    warnIfTooLong(logCatDC, deltaFilePath);
    return createDelta(signatureFilePath, newFilePath, deltaFilePath);
}

} // namespace Pellox
