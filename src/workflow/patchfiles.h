// SPDX-License-Identifier: MIT
#pragma once

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
std::optional<std::vector<PatchFile>> walkPatch(const QString &patch, QString *error);

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
    QString error; ///< why it could not be read, begins with its path; else empty
};

/**
 * Hashes @p files, which stand in folder @p patch, on all threads; blocks. The outcome of each in
 * the order of @p files. Nothing, after @p error, when the work was not done to its end; an empty
 * text when it was cancelled.
 */
std::optional<std::vector<HashedFile>> hashFiles(const QString &patch,
    const std::vector<PatchFile> &files, const HashSettings &settings, QString *error);

/**
 * What in folder @p patch is not as @p sealed says: a text for each file that is altered, missing,
 * no regular one, cannot be read, or is no part of the patch, sorted; each begins with the file's
 * path. Hidden files are no part of a patch; only the seal itself is not looked at. Hashes on all
 * threads and blocks. When cancelled, the last text says that not all was compared; so none at all
 * means that every byte is as it was sealed.
 */
QStringList differences(
    const SealedPatch &sealed, const QString &patch, const HashSettings &settings);

} // namespace Pellox
