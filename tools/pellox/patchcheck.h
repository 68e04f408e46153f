// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

/*
 * What "pellox apply" looks at itself: before it touches anything, and where a rule has failed.
 */

/// Throws Refusal where an interrupted "pellox verify" has left a .temp file as the only copy:
/// the library would delete it.
void refuseInterruptedVerify(const QString &build, const QJsonArray &rules);

/// The records of patchRules.json in @p patch. Throws Refusal, with a hint where @p build seems to
/// have been given in its place.
QJsonArray readRules(const QString &patch, const QString &build);

/// Throws Refusal unless every file that the rules patch is in @p build.
void requireInstalledFiles(const QString &build, const QJsonArray &rules);

/// Throws Refusal unless every file that the rules take from @p patch is there and can be read.
void requirePayloads(const QString &patch, const QJsonArray &rules);

/// Throws Refusal when the disk has no room for what the rules write, and delete and replace less.
void requireRoomForPatch(const QString &build, const QString &patch, const QJsonArray &rules);

/// Why @p rule has failed, where the library does not tell the cause; else nothing.
QString reasonOfFailure(const QJsonObject &rule, const QString &build, const QString &patch);
