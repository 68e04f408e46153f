// SPDX-License-Identifier: MIT
#include "binariescontroller.h"

#include "filewalk.h"
#include "logcategories.h"
#include "longpathwarning.h"
#include "manifest.h"
#include "namedpipe.h"
#include "patchhelp.h"
#include "rules.h"
#include "rulesexecutorfunctor.h"
#include "signaturescontroller.h"
#include "trace.h"

#include <QAbstractEventDispatcher>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QMutexLocker>
#include <QtConcurrent>
#include <QThread>

#include <utility>

QLoggingCategory logCatBC("BinariesController");

namespace Pellox {

namespace {

QString temporaryPathOf(const QString &filePath)
{
    return filePath + QLatin1String(".temp");
}

/// The watcher whose finished() the caller is a slot of; null elsewhere.
QFutureWatcher<bool> *asRuleWatcher(QObject *sender)
{
    return dynamic_cast<QFutureWatcher<bool> *>(sender);
}

bool allSucceeded(const QFutureWatcher<bool> &watcher)
{
    return !watcher.future().results().contains(false);
}

/// Removes what a failed patch left and says why it failed: the first reason that applies, or
/// "%1", the unfilled place of the message, when none does.
QString cleanUpFailedPatch(
    const QString &binFilePath, const QString &patchFilePath, const QString &temporaryPath)
{
    QString reason;
    if (!QFileInfo::exists(binFilePath))
        reason = binFilePath + QLatin1String(" - not found");
    else if (!QFileInfo::exists(patchFilePath))
        reason = patchFilePath + QLatin1String(" - not found");
    if (QFileInfo::exists(temporaryPath)) {
        QFile::remove(temporaryPath);
        if (reason.isEmpty())
            reason = QStringLiteral("Temp file removed");
    }
    return reason.isEmpty() ? QStringLiteral("%1") : reason;
}

} // namespace

BinariesController::BinariesController(QObject *parent)
    : QObject(parent)
{
    setRsyncLogOutput(trace);
}

BinariesController::~BinariesController() = default;

bool BinariesController::applyPatch(
    const QString &binariesFolderPath, const QString &deltaFolderPath)
{
    const QDir buildFolder(binariesFolderPath);
    if (buildFolder.isEmpty()) {
        qCDebug(logCatBC) << "Can't apply patch for empty dir" << binariesFolderPath;
        return false;
    }

    const QDir patchFolder(deltaFolderPath);
    const QString rulesPath = patchFolder.absoluteFilePath(PATCH_RULES_FILE);
    QVariantList rules;
    if (Manifest::read(rulesPath, &rules) == Manifest::ReadResult::NotOpened) {
        const QString message = QStringLiteral("Failed patch %1\n Can't open %2")
                                    .arg(patchFolder.absolutePath(), rulesPath);
        qCCritical(logCatBC) << qPrintable(message);
        Q_EMIT applyPatchError(message);
        // Promised: the run goes on with no rules and ends with finished(true).
    }

    for (const QVariant &rule : std::as_const(rules)) {
        const QVariantMap members = rule.toMap();
        _setProgress(members.value(Manifest::RelativePath).toString(),
            {0, members.value(Manifest::FileSize).toLongLong()});
    }
    const QString buildPath = buildFolder.absolutePath();
    const QString patchPath = patchFolder.absolutePath();
    _run(
        rules,
        [this, buildPath, patchPath](
            const QVariant &rule) { return _executeRule(rule.toMap(), buildPath, patchPath); },
        &BinariesController::_onPatchingFinished);
    return true;
}

bool BinariesController::verifyPatchedFiles(
    const QString &binariesFolderPath, const QString &deltaFolderPath)
{
    const QDir buildFolder(binariesFolderPath);
    if (buildFolder.isEmpty()) {
        qCDebug(logCatBC) << "Can't verify empty dir" << binariesFolderPath;
        return false;
    }

    const QDir patchFolder(deltaFolderPath);
    const QString rulesPath = patchFolder.absoluteFilePath(PATCH_RULES_FILE);
    QVariantList rules;
    if (Manifest::read(rulesPath, &rules) == Manifest::ReadResult::NotOpened) {
        const QString message = QStringLiteral("Failed verify %1\n Can't open %2")
                                    .arg(patchFolder.absolutePath(), rulesPath);
        qCCritical(logCatBC) << qPrintable(message);
        Q_EMIT verifyError(message);
        return false;
    }

    for (const QVariant &rule : std::as_const(rules))
        _setProgress(rule.toMap().value(Manifest::RelativePath).toString(), {0, 1});
    const QString buildPath = buildFolder.absolutePath();
    _run(
        rules,
        [this, buildPath](const QVariant &rule) { return _verifyRule(rule.toMap(), buildPath); },
        &BinariesController::_onVerifyFinished);
    return true;
}

void BinariesController::_run(const QVariantList &rules,
    std::function<bool(const QVariant &)> executeRule, void (BinariesController::*onFinished)())
{
    const QFuture<bool> future
        = QtConcurrent::mapped(rules, RulesExecutorFunctor(std::move(executeRule)));
    auto *watcher = new QFutureWatcher<bool>;
    // Connected first: a run that has ended by now still reaches the slot.
    connect(watcher, &QFutureWatcher<bool>::finished, this, onFinished);
    watcher->setFuture(future);
}

bool BinariesController::_executeRule(
    const QVariantMap &rule, const QString &buildPath, const QString &patchPath)
{
    const QString name = rule.value(Manifest::Rule).toString();
    const QString relativePath = rule.value(Manifest::RelativePath).toString();
    const QString filePath = buildPath + relativePath;
    const QString patchFilePath = patchPath + relativePath;

    if (name == DELETE_RULE)
        return _executeDeleteRule(relativePath, filePath);
    if (name == PATCH_RULE) {
        std::function<void(qint64, qint64)> progress
            = [this, relativePath](
                  qint64 done, qint64 total) { _reportPatchProgress(relativePath, done, total); };
        return patchFile(filePath, patchFilePath, rule.value(Manifest::Sha512).toByteArray(),
            rule.value(Manifest::FileSize).toLongLong(), &progress);
    }
    if (name == COPY_RULE) {
        const qint64 size = QFileInfo(patchFilePath).size();
        const bool copied = copyRecursively(patchFilePath, filePath);
        _setProgress(relativePath, {size, size});
        return copied;
    }
    return false; // "none" too: promised
}

bool BinariesController::_executeDeleteRule(const QString &relativePath, const QString &filePath)
{
    bool gone = true;
    if (QFileInfo::exists(filePath)) {
        qCInfo(logCatBC) << "File " << filePath << " exists. Remove it!";
        gone = QFile::remove(filePath);
    } else {
        qCInfo(logCatBC) << "File " << filePath << " isnt exists. Skip!";
    }
    const qint64 size = QFileInfo(filePath).size();
    _setProgress(relativePath, {size, size});
    return gone;
}

bool BinariesController::patchFile(const QString &binFilePath, const QString &patchFilePath,
    const QByteArray &checkSum, qint64 fileSize, std::function<void(qint64, qint64)> *progress)
{
    qCDebug(logCatBC) << "binFilePath" << binFilePath;
    qCDebug(logCatBC) << "patchFilePath" << patchFilePath;
    qCDebug(logCatBC) << "checkSum" << checkSum;

    const QFileInfo binFile(binFilePath);
    const QString temporaryPath = QFileInfo(temporaryPathOf(binFilePath)).absoluteFilePath();
    const QDir folder = binFile.dir();
    if (!folder.exists())
        folder.mkpath(folder.absolutePath());
    // A leftover that is a link leading nowhere goes too: the new content must not follow it.
    if (QFileInfo::exists(temporaryPath) || QFileInfo(temporaryPath).isSymLink())
        QFile::remove(temporaryPath);

    if (Pellox::applyPatch(binFile.absoluteFilePath(), QFileInfo(patchFilePath).absoluteFilePath(),
            temporaryPath, fileSize, progress)) {
        if (!QFile::setPermissions(temporaryPath, binFile.permissions()))
            qCDebug(logCatBC) << "Fail change executable flag: " << temporaryPath;
        return true;
    }

    const QString message = QStringLiteral("Can't apply patch: \n%1")
                                .arg(cleanUpFailedPatch(binFilePath, patchFilePath, temporaryPath));
    qCCritical(logCatBC) << qPrintable(message);
    Q_EMIT applyPatchError(message);
    return false;
}

bool BinariesController::_verifyRule(const QVariantMap &rule, const QString &buildPath)
{
    const QString name = rule.value(Manifest::Rule).toString();
    const QString relativePath = rule.value(Manifest::RelativePath).toString();
    const QString filePath = buildPath + relativePath;

    bool verified = true;
    if (name == DELETE_RULE && QFile::exists(filePath))
        qCWarning(logCatBC) << qPrintable(
            QStringLiteral("File %1 exists but shouldn't").arg(filePath));
    else if (name == PATCH_RULE)
        verified = verifyPatchedFile(filePath, rule.value(Manifest::Sha512).toByteArray());

    _setProgress(relativePath, {1, 1});
    const auto [done, total] = _getProgress();
    Q_EMIT verifyProgress(done, total);
    return verified;
}

bool BinariesController::verifyPatchedFile(const QString &binFilePath, const QByteArray &checkSum)
{
    qCDebug(logCatBC) << "binFilePath" << binFilePath;
    qCDebug(logCatBC) << "checkSum" << checkSum;

    const QString temporaryPath = temporaryPathOf(binFilePath);
    if (!QFile::exists(temporaryPath)) {
        Q_EMIT verifyError(QStringLiteral("Can't verify file: \n%1")
                               .arg(temporaryPath + QLatin1String(" - not found")));
        return false;
    }

    const QByteArray actual
        = SignaturesController::calculateCheckSum(temporaryPath, QCryptographicHash::Sha512)
              .toHex();
    if (checkSum == actual) {
        // Neither result is looked at: promised.
        QFile::remove(binFilePath);
        QFile::rename(temporaryPath, binFilePath);
        return true;
    }

    QFile::remove(temporaryPath);
    // A checksum with a zero byte is told up to there: promised.
    const QByteArray expected = "expect " + checkSum;
    const QString message
        = QStringLiteral("Can't verify file: \nChecksum's are not matched\n%1\n%2")
              .arg(QString::fromLatin1(expected.constData()),
                  QString::fromLatin1("result " + actual));
    qCCritical(logCatBC) << qPrintable(message);
    Q_EMIT verifyError(message);
    return false;
}

bool BinariesController::copyRecursively(
    const QString &sourceFilePath, const QString &targetFilePath)
{
    const QFileInfo target(targetFilePath);
    if (!target.dir().exists())
        target.dir().mkpath(target.absolutePath());
    if (QFileInfo::exists(targetFilePath)) {
        qCWarning(logCatBC) << "target file already exists! Remove it!";
        QFile::remove(targetFilePath);
    }
    return !isNamedPipe(QFile::encodeName(sourceFilePath).constData())
        && QFile::copy(sourceFilePath, targetFilePath);
}

void BinariesController::copyBinaries(
    const QString &sourceFolderPath, const QString &targetFolderPath)
{
    for (const QString &path : filesUnder(sourceFolderPath)) {
        const QString source = QFileInfo(path).absoluteFilePath();
        // As many characters as the caller wrote, not as the absolute path has: promised.
        const QString target
            = QFileInfo(targetFolderPath + QDir::separator() + source.mid(sourceFolderPath.size()))
                  .absoluteFilePath();
        warnIfTooLong(logCatBC, source);
        warnIfTooLong(logCatBC, target);
        copyRecursively(source, target);
    }
}

void BinariesController::_reportPatchProgress(
    const QString &relativePath, qint64 done, qint64 total)
{
    _setProgress(relativePath, {done, total});
    const auto [doneSum, totalSum] = _getProgress();
    Q_EMIT patchProgress(doneSum, totalSum);
    if (auto *dispatcher = QThread::currentThread()->eventDispatcher())
        dispatcher->processEvents(QEventLoop::ExcludeUserInputEvents);
}

void BinariesController::_setProgress(const QString &relativePath, QPair<qint64, qint64> value)
{
    const QMutexLocker lock(&m_progressMutex);
    m_progress.insert(relativePath, value);
}

QPair<qint64, qint64> BinariesController::_getProgress()
{
    // Not locked on purpose: other rules may be writing their entries meanwhile.
    QPair<qint64, qint64> sums(0, 0);
    for (const auto &entry : std::as_const(m_progress)) {
        sums.first += entry.first;
        sums.second += entry.second;
    }
    return sums;
}

void BinariesController::_onPatchingFinished()
{
    auto *watcher = asRuleWatcher(sender());
    if (!watcher)
        return;
    Q_EMIT finished(allSucceeded(*watcher));
    watcher->deleteLater();
}

void BinariesController::_onVerifyFinished()
{
    auto *watcher = asRuleWatcher(sender());
    if (!watcher)
        return;
    Q_EMIT verifyFinished(allSucceeded(*watcher));
    watcher->deleteLater();
}

} // namespace Pellox
