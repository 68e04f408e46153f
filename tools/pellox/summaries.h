// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonArray>
#include <QString>

/// What the rules of a patch come to, with the sizes of the files in folder @p patch: "2 files to
/// patch (3.1 KiB of deltas), 1 file to copy (23.3 KiB), 1 file to delete: PATCH".
QString patchSummary(const QJsonArray &rules, const QString &patch);

/// The same before there is a patch, with the sizes that the rules tell, which are those of the new
/// files: "2 files to patch (45.8 MiB), 1 file to copy (23.3 KiB), 1 file to delete".
QString planSummary(const QJsonArray &rules);

/// "patch    43.9 MiB  data/world.pak"; @p size is below 0 where there is none.
QString plannedFileLine(const QString &kind, qint64 size, const QString &path);

/// "Signed 5 files (45.8 MiB): SIGNATURES"
QString signedSummary(qint64 files, qint64 bytes, const QString &signatures);
