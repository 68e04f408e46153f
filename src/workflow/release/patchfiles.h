// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "sealfile.h"

#include <atomic>
#include <functional>
#include <optional>
#include <vector>

namespace Pellox {

// Patch folders are absolute, without a separator at the end.

/// What stands in a patch folder and is no folder.
struct PatchFile
{
    QString relativePath; ///< begins with a separator
    qint64 size = 0;      ///< of a regular file
    bool isRegular = false;
    bool isHidden = false; ///< it or a folder above it
};

/**
 * All that stands in folder @p patch, links, special files and hidden ones too, but for folders,
 * sorted by path. Links are not followed. Nothing, after @p error, when a folder cannot be listed
 * to its end or when a name cannot be told in the locale's encoding.
 */
std::optional<std::vector<PatchFile>> walkPatch(const QString &patch, FileError *error);

/// How files are hashed.
struct HashSettings
{
    int threadCount;
    const std::atomic<bool> &cancelled;
    bool stopsAtError;
    /// Bytes; called on the calling thread now and then. May be empty.
    std::function<void(qint64 done, qint64 total)> progress;
};

/// What a file was found to be.
struct HashedFile
{
    SealedFile content;
    FileError error; ///< why it could not be read; else empty
};

/**
 * Hashes @p files, which stand in folder @p patch, on all threads; blocks. The outcome of each in
 * the order of @p files. Nothing, after @p error, when the work was not done to its end; an empty
 * one when it was cancelled.
 */
std::optional<std::vector<HashedFile>> hashFiles(const QString &patch,
    const std::vector<PatchFile> &files, const HashSettings &settings, FileError *error);

/**
 * What in folder @p patch is not as @p sealed says: an error for each file that is altered,
 * missing, no regular one, cannot be read, or is no part of the patch, sorted by path. What a slim
 * patch may lack may be missing. The seal itself is not looked at, and neither are hidden files
 * that it does not name, as desktops leave them: no rule leads to them. An update's own folder may
 * not be there, though. Hashes on all threads and blocks. When cancelled, the last error says that
 * not all was compared; so none at all means that every byte of the patch is as it was sealed.
 */
std::vector<FileError> differences(
    const SealedPatch &sealed, const QString &patch, const HashSettings &settings);

} // namespace Pellox
