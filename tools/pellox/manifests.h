// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonArray>
#include <QString>
#include <QStringList>

#include <optional>

class Console;

/// The program's own look at the library's manifests: before a run, and for its summary.

/// The text of the JSON file @p path. Throws Refusal when it cannot be read, or has more than @p
/// most bytes or so many values that these would take more memory than what it stands for.
QByteArray jsonTextOf(const QString &path, qint64 most);

/// Throws Refusal when @p folder holds no manifest @p fileName, or when that cannot be told.
void requireManifest(const QString &folder, const QString &fileName);

/**
 * The records of manifest @p fileName in @p folder. Throws Refusal when it is missing,
 * cannot be read or is not a JSON array.
 */
QJsonArray readManifest(const QString &folder, const QString &fileName);

/// The same after a run has written it: nothing, after Console::error(), where that throws.
std::optional<QJsonArray> readWrittenManifest(
    Console &console, const QString &folder, const QString &fileName);

/// The "rule" of a record.
QString ruleNameOf(const QJsonValue &record);

/// The "relative_path" of a record.
QString relativePathOf(const QJsonValue &record);

/// The same of all records.
QStringList relativePathsOf(const QJsonArray &records);

/// The "file_size" of a rule; 0 where it is no size that a file can have.
qint64 fileSizeOf(const QJsonValue &rule);

/// Throws Refusal when a rule names a path outside @p build, whoever made the patch.
void requireInside(const QString &build, const QJsonArray &rules);

/// The files of a build as the library counts them: absolute paths, hidden ones left out.
QStringList filesOfBuild(const QString &folder);

qint64 totalSize(const QStringList &files);

/// "1 thing", "2 things"
QString counted(qint64 count, const char *thing);
QString fileCount(qint64 count);

/// "12.3 MiB"
QString byteCount(qint64 bytes);

/// "12.3 %", or "-" where @p whole is 0.
QString percentage(qint64 part, qint64 whole);
