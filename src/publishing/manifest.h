// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QVariant>

/// Reading and writing of both manifests: a JSON array of objects.
namespace Pellox::Manifest {

// The members of a record.
inline const QString Rule = QStringLiteral("rule");
inline const QString RelativePath = QStringLiteral("relative_path");
inline const QString Suffix = QStringLiteral("suffix");
inline const QString Sha512 = QStringLiteral("sha512");
inline const QString FileSize = QStringLiteral("file_size");

/// The path of manifest @p fileName directly in @p folder.
QString pathIn(const QString &folder, const QString &fileName);

enum class ReadResult { Complete, Unreadable, NotOpened };

/**
 * Reads the records of the manifest at @p path into @p records; anything but a JSON array
 * is an empty list, and so is a file that does not open or read.
 */
ReadResult read(const QString &path, QVariantList *records);

/**
 * Writes @p records as indented JSON over whatever stands at @p path. False when the
 * file does not open; whether all bytes arrived is not looked at.
 */
bool write(const QString &path, const QVariantList &records);

} // namespace Pellox::Manifest
