// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1String>
#include <QVariant>

/// Reading and writing of both manifests: a JSON array of objects.
namespace Pellox::Manifest {

// The members of a record.
inline constexpr QLatin1String Rule("rule");
inline constexpr QLatin1String RelativePath("relative_path");
inline constexpr QLatin1String Suffix("suffix");
inline constexpr QLatin1String Sha512("sha512");
inline constexpr QLatin1String FileSize("file_size");

/// The path of manifest @p fileName directly in @p folder.
QString pathIn(const QString &folder, QLatin1String fileName);

/**
 * Reads the records of the manifest at @p path into @p records; anything but a JSON array
 * is an empty list. False, with an empty list, when the file does not open.
 */
bool read(const QString &path, QVariantList *records);

/**
 * Writes @p records as indented JSON over whatever stands at @p path. False when the
 * file does not open; whether all bytes arrived is not looked at.
 */
bool write(const QString &path, const QVariantList &records);

} // namespace Pellox::Manifest
