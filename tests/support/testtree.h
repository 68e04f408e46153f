// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QTemporaryDir>

/// Temporary folders lie in memory from now on, where the system has enough of it for that: tests
/// with very many files, or calls that wait for the disk, are quicker there.
void useMemoryForFiles();

/**
 * A temporary folder of files, removed on destruction. Paths given to it are relative
 * to it ("data/x.pak"); folders are made as needed. Ends the test program on an error.
 */
class TestTree
{
public:
    TestTree();

    /// The folder's absolute path, without a separator at its end; @p relative appended to it.
    QString path(const QString &relative = QString()) const;

    void write(const QString &relative, const QByteArray &content) const;
    QByteArray read(const QString &relative) const;
    void makeFolder(const QString &relative) const;
    void link(const QString &relative, const QString &target) const; ///< symbolic
    void remove(const QString &relative) const; ///< a file, link or whole folder
    bool exists(const QString &relative) const;

    /// Everything under @p folder, hidden entries included: content by relative path, and
    /// "" by "path/" for each folder.
    static QMap<QString, QByteArray> snapshot(const QString &folder);

private:
    QTemporaryDir m_dir;
};

/// @p size bytes that look random and are the same for the same @p seed.
QByteArray randomBytes(int size, quint32 seed);
