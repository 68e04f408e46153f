// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "goon.h"
#include "sha512.h"

#include <QJsonObject>

#include <functional>
#include <vector>

class QIODevice;

namespace Pellox {

/*
 * Manifests of builds with very many files: record by record, so that never all of a manifest is
 * in memory as text or as JSON.
 */

constexpr int MostRecords = 1000000;       ///< more than any build has files
constexpr qint64 MostPathText = 1LL << 26; ///< characters of all paths together, likewise

/// Writes a manifest, the same bytes as the core.
class ManifestWriter
{
public:
    /// @p device best has no buffer of its own: Qt's forgets to tell of a disk that fills up.
    explicit ManifestWriter(QIODevice &device)
        : m_device(device)
    {
    }

    // False when the device takes not all.
    bool add(const QJsonObject &record);
    bool finish();

private:
    bool write(const QByteArray &text);
    bool flush();

    QIODevice &m_device;
    QByteArray m_held; ///< many records make one write
    bool m_isEmpty = true;
};

/**
 * Reads the manifest at @p path and calls @p take for each record, with its number counted from 1.
 * Before that, and before it begins anew, it calls @p begin. False with @p error when the file
 * cannot be read or is no JSON array, or is larger than manifests are, which have 1 GiB at most in
 * the form that the library writes, and 64 MiB and some four million values in any other, as that
 * takes many times its size in memory. False without an error when @p goOn says no. What the
 * system has refused the error tells by its number.
 */
bool readManifest(const QString &path, const std::function<void()> &begin,
    const std::function<void(const QJsonValue &record, int number)> &take, FileError *error,
    const GoOn &goOn = GoOn());

/// Why @p path, from a manifest, names no file below a folder that it is appended to; empty when it
/// does.
QString problemOfManifestPath(const QString &path);

/// A file of a build, as its signatures.json has it.
struct SignedFile
{
    QString relativePath;         ///< begins with a separator, and appended to a folder stays in it
    std::optional<Sha512> sha512; ///< nothing when the file could not be read
};

/**
 * The files that signatures.json in folder @p signatures names, in its order. Nothing, after
 * @p error, when it is missing, no manifest, or names a path that is none or one twice, or more and
 * longer ones than any build has; it is not read on from there. Nothing without an error when
 * @p goOn says no.
 */
std::optional<std::vector<SignedFile>> readSignedFiles(
    const QString &signatures, FileError *error, const GoOn &goOn = GoOn());

} // namespace Pellox
