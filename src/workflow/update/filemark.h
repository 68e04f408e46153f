// SPDX-License-Identifier: MIT
#pragma once

#include "buildfiles.h"
#include "sha512.h"

#include <QJsonObject>

#include <optional>

namespace Pellox {

/// What a file is known by again after a crash. What is staged has a SHA-512, and what stood in the
/// build already the time of its last change, which lasts through a rename.
struct FileMark
{
    qint64 size = -1; ///< -1: of no file
    std::optional<Sha512> sha512;
    std::optional<qint64> modified; ///< in nanoseconds

    /// By size and time; of no file where none stands.
    static FileMark of(const Standing &standing);

    /// As far as it can be seen without reading: whether a regular file stands there, and has the
    /// size and the time.
    bool fits(const Standing &standing) const;

    QJsonObject toJson() const;
    static std::optional<FileMark> fromJson(const QJsonObject &object);
};

/// Whether the file with @p mark stands at @p path. Nothing, after @p error, when it cannot be
/// told.
std::optional<bool> isThere(
    BuildFiles &files, const QString &path, const FileMark &mark, FileError *error);

} // namespace Pellox
