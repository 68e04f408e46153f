// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <map>
#include <optional>
#include <set>

class Console;
class QJsonObject;

/// The name of a patch's seal, directly in its folder.
extern const QString SealFile;

/**
 * What the seal of a patch says, whoever has made it: for people to look at, and to compare the
 * patch with. Whether a trusted key has signed it only PatchSeal::signersOf() tells.
 */
class SealView
{
public:
    /// Of the seal in folder @p patch; nothing when there is none. Throws Refusal when it is no
    /// seal.
    static std::optional<SealView> read(const QString &patch);

    qint64 release() const { return m_release; }
    int keys() const { return m_keys; }
    /// How many files the patch has besides its seal.
    int files() const { return static_cast<int>(m_files.size()); }
    qint64 size() const; ///< theirs, in bytes
    /// The size of file @p path, relative and with a separator in front; 0 where there is none.
    qint64 sizeOf(const QString &path) const;

    /// How many files a slim patch may lack, as players have them under other names.
    int movedFiles() const { return static_cast<int>(m_moved.size()); }
    qint64 movedSize() const; ///< theirs, in bytes
    /// How many of them the patch does lack.
    int leftOutFiles() const;

    /// The paths of the files that are there, relative to the patch, in ascending order.
    QStringList paths() const;

    struct Difference
    {
        QString path; ///< absolute
        QString reason;
    };
    using Differences = QVector<Difference>;

    /// What tells the files of @p patch from those that were sealed without reading them, by path:
    /// names and sizes. Hidden files that the seal does not name do not count, and neither does
    /// what a slim patch lacks.
    Differences differences() const;
    /// The same, and which of the others have another content. @p progress gets the bytes read.
    Differences allDifferences(const std::function<void(qint64 done)> &progress) const;

private:
    struct File
    {
        qint64 size;
        QByteArray sha512; ///< in hexadecimal digits
    };

    static File fileIn(const QJsonObject &object);
    bool isLeftOut(const QString &relativePath) const;
    QString reasonOf(const QString &relativePath, const File &file) const;

    QString m_patch;
    qint64 m_release = 0;
    int m_keys = 0;
    std::map<QString, File> m_files; ///< by relative path, with a separator in front
    std::set<QString> m_moved;       ///< of these
};
