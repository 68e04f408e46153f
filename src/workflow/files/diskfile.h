// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <vector>

#include <sys/stat.h>

namespace Pellox {

/// A text that names a file: "path: reason".
QString aboutFile(const QString &path, const QString &reason);

/// What errno says.
QString lastSystemError();

/// What is wrong with which file; empty when nothing is.
struct FileError
{
    QString path;
    QString reason;
    int system = 0; ///< errno where the system has refused something

    /// From errno; @p what is put in front of what it says.
    static FileError ofSystem(const QString &path, const char *what);

    bool isEmpty() const { return reason.isEmpty(); }
    QString text() const { return isEmpty() ? QString() : aboutFile(path, reason); }
    operator QString() const { return text(); }
};

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
    /// Of @p name in the open folder @p folder, which may be this one; none (-1) leaves errno as it
    /// is. What was open before is closed, but only when it succeeds.
    bool openIn(int folder, const QString &name, int flags);
    /// False when the system reports that earlier writing failed.
    bool close();
    int get() const { return m_handle; }

private:
    int m_handle = -1;
};

/// The content of a file, wherever it comes from.
class Content
{
public:
    Content() = default;
    virtual ~Content() = default;
    Content(const Content &) = delete;
    Content &operator=(const Content &) = delete;

    /// The file that errors name.
    QString path() const { return m_path; }
    virtual qint64 size() const = 0;
    /// Reads exactly @p size bytes at @p position. False with error().
    virtual bool readAt(qint64 position, uchar *data, qint64 size) = 0;
    /// False with error() when what was read may not be the content of one moment.
    virtual bool isUnchanged() = 0;

    const FileError &error() const { return m_error; }

protected:
    void setPath(const QString &path) { m_path = path; }
    bool fail(const QString &reason);
    /// The same with the system's last error.
    bool failBySystem(const char *what);
    bool failAs(const Content &other);

private:
    QString m_path;
    FileError m_error;
};

/// A file on disk that is read and must not change meanwhile.
class InputFile : public Content
{
public:
    /// False with error() when @p path is no regular file or link to one, or does not open.
    bool open(const QString &path);
    /// The same for @p name in the open folder @p folder, and no link; errors name @p path.
    bool openIn(int folder, const QString &name, const QString &path);

    qint64 size() const override { return m_status.st_size; }
    /// Who may read, write and execute it.
    mode_t permissions() const;

    bool readAt(qint64 position, uchar *data, qint64 size) override;
    /// Whether the path still leads to the file as it was opened, and that has no more bytes.
    bool isUnchanged() override;

private:
    bool begin(bool isOpen);

    FileHandle m_file;
    struct stat m_status = {};
};

struct FileOwner
{
    uid_t user = 0;
    gid_t group = 0;

    /// What a failed call leaves in errno where there are no such owners on a file system.
    static bool areUnknown(int error);
};

/// A new file, written from one end to the other. After a failure it takes everything and keeps
/// the first error().
class OutputFile
{
public:
    /// Makes @p path, where nothing may stand, and the folders above it.
    bool open(const QString &path);
    /// Makes @p name in the open folder @p folder; errors name @p path.
    bool openIn(int folder, const QString &name, const QString &path);

    /// As far as the file system keeps owners. Before the permissions, which it may take away.
    void setOwner(const FileOwner &owner);
    void setPermissions(mode_t permissions);
    /// Waits until all is on the disk. False with error().
    bool sync();
    void write(const void *data, std::size_t size);
    /// Writes what is held back. False with error() when anything was not written.
    bool close();

    const FileError &error() const { return m_error; }

private:
    void flush();
    void writeNow(const char *data, std::size_t size);
    bool fail();

    QString m_path;
    FileHandle m_file;
    std::vector<char> m_held;
    FileError m_error;
};

} // namespace Pellox
