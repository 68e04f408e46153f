// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

#include <vector>

/*
 * What the program checks around the library's archive calls, which judge a run by 7-Zip's
 * console output alone.
 */

/// Throws Refusal when the 7-Zip console program is not where the library looks for it.
void requireSevenZip();

/// The volumes of an archive: NAME.001, NAME.002 and so on, or NAME alone.
class Volumes
{
public:
    /// @p archive is the name with or without ".001". Looks at what is on the disk.
    explicit Volumes(const QString &archive);

    /// The name without a volume's number.
    const QString &name() const { return m_name; }
    /// The paths that exist, the first volume first.
    const QStringList &paths() const { return m_paths; }
    bool isEmpty() const { return m_paths.isEmpty(); }
    qint64 size() const;
    /// Throws Refusal when there is none or one between the first and the last is missing.
    void requireComplete() const;
    /// Removes them, and what an ended 7-Zip left of unfinished ones. Throws Refusal when it
    /// cannot.
    void remove() const;

private:
    QString m_name;
    QStringList m_paths;
    QStringList m_unfinished; ///< 7-Zip writes NAME.001.tmp and renames it at the end
    QString m_firstGap;       ///< the missing volume, if there is one
};

struct ArchivedFile
{
    QString path; ///< relative to where it will be unpacked
    qint64 size;
    bool isLink; ///< symbolic
};

/// The files of an archive by its own list, folders left out. Throws Refusal when 7-Zip cannot read
/// it.
std::vector<ArchivedFile> filesInArchive(const QString &firstVolume);
