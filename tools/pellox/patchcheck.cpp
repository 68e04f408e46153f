// SPDX-License-Identifier: MIT
#include "patchcheck.h"

#include "diskroom.h"
#include "folders.h"
#include "manifests.h"

#include <Pellox/patchhelp.h>
#include <Pellox/rules.h>

#include <QFileInfo>
#include <QThread>

#include <memory>

namespace {

QString temporaryOf(const QString &file)
{
    return file + QLatin1String(".temp");
}

/// What keeps @p payload from being used, or nothing.
QString flawOf(const QString &payload)
{
    const QFileInfo info(payload);
    if (!info.exists())
        return QStringLiteral("is missing from the patch; get the whole patch again");
    if (!info.isFile())
        return QStringLiteral("is not a file; get the whole patch again");
    return info.isReadable() ? QString() : QStringLiteral("cannot be read");
}

/// Tries the delta once more, into nowhere.
bool canBePatched(const QString &file, const QString &delta)
{
    bool done = false;
    // On a thread of its own, as the caller may be a message handler: librsync's messages would
    // not come to that again.
    const std::unique_ptr<QThread> attempt(QThread::create(
        [&] { done = Pellox::applyPatch(file, delta, QStringLiteral("/dev/null"), 0, nullptr); }));
    attempt->start();
    attempt->wait();
    return done;
}

QString reasonOfFailedPatch(qint64 size, const QString &file, const QString &delta)
{
    const QString temporary = temporaryOf(file);
    if (!QFileInfo::exists(file) || !QFileInfo::exists(delta))
        return {};
    if (QFileInfo(temporary).isDir())
        return temporary + QLatin1String(" is a folder and in the way");
    if (!canBePatched(file, delta)) {
        return QStringLiteral("cannot be patched: %1 is damaged (download the patch again) or was "
                              "made for another build")
            .arg(delta);
    }
    return reasonNotWritten(size, temporary);
}

} // namespace

void refuseInterruptedVerify(const QString &build, const QJsonArray &rules)
{
    for (const QJsonValue &rule : rules) {
        const QString file = build + relativePathOf(rule);
        if (ruleNameOf(rule) == Pellox::PATCH_RULE && !QFileInfo::exists(file)
            && QFileInfo::exists(temporaryOf(file))) {
            throw Refusal(file,
                QStringLiteral("is there only as its .temp file, from an interrupted verify; run "
                               "\"pellox verify\" again"));
        }
    }
}

QJsonArray readRules(const QString &patch, const QString &build)
{
    const QString manifest = Pellox::PATCH_RULES_FILE;
    const QLatin1Char separator('/');
    if (!QFileInfo::exists(patch + separator + manifest)
        && QFileInfo::exists(build + separator + manifest)) {
        throw Refusal(patch,
            QStringLiteral("holds no %1; %2 does: are the two folders swapped?")
                .arg(manifest, build));
    }
    return readManifest(patch, manifest);
}

void requireInstalledFiles(const QString &build, const QJsonArray &rules)
{
    for (const QJsonValue &rule : rules) {
        const QString file = build + relativePathOf(rule);
        if (ruleNameOf(rule) == Pellox::PATCH_RULE && !QFileInfo(file).isFile()) {
            throw Refusal(file,
                QStringLiteral("is to be patched and is not there: this is not the build that the "
                               "patch was made for, or it is damaged"));
        }
    }
}

void requirePayloads(const QString &patch, const QJsonArray &rules)
{
    for (const QJsonValue &rule : rules) {
        const QString name = ruleNameOf(rule);
        if (name != Pellox::PATCH_RULE && name != Pellox::COPY_RULE)
            continue;
        const QString payload = patch + relativePathOf(rule);
        const QString flaw = flawOf(payload);
        if (!flaw.isEmpty())
            throw Refusal(payload, flaw);
    }
}

void requireRoomForPatch(const QString &build, const QString &patch, const QJsonArray &rules)
{
    qint64 needed = 0;
    for (const QJsonValue &rule : rules) {
        const QString name = ruleNameOf(rule);
        const QString file = build + relativePathOf(rule);
        // Deletions stand first in a patch, and what is replaced goes before the new is written.
        if (name == Pellox::PATCH_RULE)
            needed += fileSizeOf(rule) - QFileInfo(temporaryOf(file)).size();
        else if (name == Pellox::COPY_RULE)
            needed += QFileInfo(patch + relativePathOf(rule)).size() - QFileInfo(file).size();
        else if (name == Pellox::DELETE_RULE)
            needed -= QFileInfo(file).size();
    }
    requireRoom(needed, build);
}

QString reasonOfFailure(const QJsonObject &rule, const QString &build, const QString &patch)
{
    const QString name = ruleNameOf(rule);
    const QString file = build + relativePathOf(rule);
    const QString payload = patch + relativePathOf(rule);
    if (name == Pellox::PATCH_RULE)
        return reasonOfFailedPatch(fileSizeOf(rule), file, payload);
    if (name != Pellox::COPY_RULE)
        return {};
    if (QFileInfo(file).isDir())
        return QStringLiteral("is a folder, and a file of the patch belongs there");
    return reasonNotWritten(QFileInfo(payload).size(), file);
}
