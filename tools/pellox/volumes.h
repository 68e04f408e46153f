// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

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
    /// What has the names of volumes in a row from the first, or NAME where there is no first.
    const QStringList &paths() const { return m_paths; }
    /// The same, and NAME beside volumes: all that a new archive would replace.
    QStringList pathsToReplace() const;
    bool isEmpty() const { return m_paths.isEmpty(); }
    qint64 size() const;
    /// Throws Refusal when there is none, one is no file, or one before the last is missing.
    void requireComplete() const;

private:
    bool hasVolumeAfter(int number) const;
    void refuseNone() const;

    QString m_name;
    QStringList m_paths;
    QString m_firstGap; ///< the missing volume, if there is one
};

/// Throws Refusal when @p archive is a folder, or a volume but not the first.
void refuseWrongArchive(const QString &archive);
