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

/// Throws Refusal when 7-Zip would take @p path, an absolute one, for a pattern.
void refuseWildcards(const QString &path);

/// Whether the library, which reads all that 7-Zip prints, would take @p text for the words that
/// tell success or an error.
bool readsAsVerdict(const QString &text);

/// The volumes of an archive: NAME.001, NAME.002 and so on, or NAME alone.
class Volumes
{
public:
    /// @p archive is the name with or without ".001". Looks at what is on the disk.
    explicit Volumes(QString archive);

    /// The name without a volume's number.
    const QString &name() const { return m_name; }
    /// The path of volume @p number, counted from 1, whether it is there or not.
    QString path(int number) const;
    /// The volumes in a row from the first, or NAME where there is no first.
    const QStringList &paths() const { return m_paths; }
    /// The same, and NAME beside volumes: all that a new archive would replace.
    QStringList pathsToReplace() const;
    bool isEmpty() const { return m_paths.isEmpty(); }
    qint64 size() const;
    /// Throws Refusal when there is none or one before the last is missing.
    void requireComplete() const;

private:
    bool hasVolumeAfter(int number) const;

    QString m_name;
    QStringList m_paths;
    QString m_firstGap; ///< the missing volume, if there is one
};

/// Throws Refusal when @p archive is a folder, or a volume but not the first.
void refuseWrongArchive(const QString &archive);

/// The line of 7-Zip's @p output that tells what is wrong, or nothing.
QString errorIn(const QString &output);

struct ArchivedEntry
{
    QString path; ///< relative to where it will be unpacked
    qint64 size;
    bool hasAttributes; ///< without them a folder looks like an empty file, and a link like a file
    bool isFolder;
    bool isLink; ///< symbolic
    bool isEncrypted;
};

/// What is in an archive by its own list. Throws Refusal when 7-Zip cannot read it or it is no 7z
/// archive, and Interrupt::Stopped.
std::vector<ArchivedEntry> entriesOfArchive(const QString &firstVolume);

/// How many of them are no folders.
int countFiles(const std::vector<ArchivedEntry> &entries);
