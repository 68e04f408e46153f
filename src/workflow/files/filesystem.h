// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

#include <sys/stat.h>

namespace Pellox {

struct FileError;

// Single calls on files by path. Those that fail leave the reason in errno.

/// Whether @p error, the errno of a call on a path, says that nothing can stand there.
bool tellsNothing(int error);
/// Of what stands at @p path itself, were it a link.
std::optional<struct stat> statusOf(const QString &path);
/// The same; nothing with @p error where the system does not tell whether anything stands there.
std::optional<struct stat> statusOf(const QString &path, FileError *error);
/// False only when nothing stands there for certain; where the system does not tell, something may.
bool mayStand(const QString &path);
/// No link to one.
bool isRegularFile(const QString &path);
bool isFolder(const QString &path);

/// Makes folder @p name in the open folder @p above. What root makes belongs to the owner of that,
/// as far as the file system keeps owners: he is to work there, too.
bool makeFolderIn(int above, const QByteArray &name);
/// The same by path.
bool makeFolder(const QString &path);
/// @p path and the folders above it, as far as they are missing.
bool makeFolders(const QString &path);

/// Replaces what stands at @p to, in one step.
bool renameFile(const QString &from, const QString &to);
/// True also when there was none.
bool removeFile(const QString &path);

} // namespace Pellox
