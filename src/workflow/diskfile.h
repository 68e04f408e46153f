// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <vector>

#include <sys/stat.h>

namespace Pellox {

/// A text that names a file: "path: reason".
QString aboutFile(const QString &path, const QString &reason);

/// An open file of the operating system. Plain calls: where a build has very many small files,
/// what is done around the reading and writing counts.
class FileHandle
{
public:
    FileHandle() = default;
    ~FileHandle() { close(); }
    FileHandle(const FileHandle &) = delete;
    FileHandle &operator=(const FileHandle &) = delete;

    bool open(const QString &path, int flags);
    /// False when the system reports that earlier writing failed.
    bool close();
    int get() const { return m_handle; }

private:
    int m_handle = -1;
};

/// A file that is read and must not change meanwhile.
class InputFile
{
public:
    /// False with error() when @p path is no regular file or link to one, or does not open.
    bool open(const QString &path);

    QString path() const { return m_path; }
    qint64 size() const { return m_status.st_size; }
    /// Who may read, write and execute it.
    mode_t permissions() const;

    /// Reads exactly @p size bytes at @p position. False with error().
    bool readAt(qint64 position, uchar *data, qint64 size);
    /// False with error() when size or time of the file are no longer those at its opening.
    bool isUnchanged();

    QString error() const { return m_error; }

private:
    bool fail(const QString &reason);
    bool failBySystem(const char *what);

    QString m_path;
    FileHandle m_file;
    struct stat m_status = {};
    QString m_error;
};

/// A new file, written from one end to the other. After a failure it takes everything and keeps
/// the first error().
class OutputFile
{
public:
    /// Makes @p path, where nothing may stand, and the folders above it.
    bool open(const QString &path);

    void setPermissions(mode_t permissions);
    void write(const void *data, std::size_t size);
    /// Writes what is held back. False with error() when anything was not written.
    bool close();

    QString error() const { return m_error; }

private:
    void flush();
    void writeNow(const char *data, std::size_t size);
    bool fail();

    QString m_path;
    FileHandle m_file;
    std::vector<char> m_held;
    QString m_error;
};

} // namespace Pellox
