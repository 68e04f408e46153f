// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"

#include <QObject>
#include <QString>

namespace Pellox {

/**
 * Copies one large file block by block, with progress, and can be stopped between two
 * blocks. Runs on the caller's thread or on the global thread pool, where both signals
 * are emitted then. Meant for one copy at a time; keep the object until finished().
 *
 * stop() and stopWithoutRemove() may be called from any thread. They set plain flags,
 * which the copy looks at once a block.
 */
class PELLOX_EXPORT FileCopier : public QObject
{
    Q_OBJECT
public:
    /// How a copy ended. Registered as the meta-type "CopyError" for queued connections.
    enum CopyError {
        NoError,                     ///< the copy is complete
        CopierIsBusyError,           ///< refused: a copy is marked as running
        DestinationNotSetError,      ///< the destination path is empty
        SourceFileDoesNotExistError, ///< the source path is empty or names nothing
        SourceIsDirectoryError,      ///< the source path is that of a folder
        DestinationFileExistsError,  ///< nothing is ever overwritten
        OpenSourceFileForReadError,  ///< also when a read fails later; the partial copy is deleted
        OpenDestinationFileForWriteError, ///< the destination cannot be made
        WriteError,           ///< a block could not be written; the partial copy is deleted
        BlockSizeIsZeroError, ///< the block size is below 1
        StoppedManuallyError, ///< ended by stop() or stopWithoutRemove()
    };
    Q_ENUM(CopyError)

    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit FileCopier(QObject *parent = nullptr);
    /// The same, with the file that copy() is to copy.
    explicit FileCopier(const QString &source, QObject *parent = nullptr);
    /// The same, with the file to copy and the path of the copy.
    FileCopier(const QString &source, const QString &destination, QObject *parent = nullptr);

    /// Bytes to copy between two reports, 10 MiB at first. Looked at when a copy starts.
    void setBlockSize(qint64 size);

    /// Copies the source to the destination and returns when done, after finished().
    CopyError copy();
    /// Sets the destination, and copies.
    CopyError copy(const QString &destination);
    /// Sets both, and copies.
    CopyError copy(const QString &source, const QString &destination);

    /// Starts the same on the global thread pool and returns at once.
    void copyAsync();
    /// Sets the destination, and starts.
    void copyAsync(const QString &destination);
    /// Sets both, and starts.
    void copyAsync(const QString &source, const QString &destination);

    /// Ends a running copy at the next block and deletes the partial file. Forgotten when it
    /// comes before the copy has opened its files.
    void stop();
    /// The same, but keeps the partial file.
    void stopWithoutRemove();

Q_SIGNALS:
    /// After every block: sizes in bytes, the speed of this block in bytes per second, which is
    /// infinite for a block that took no measurable time.
    void progress(qlonglong total, qlonglong copied, float copySpeed);
    /// Once per copy, also when it was refused.
    void finished(FileCopier::CopyError error);

private:
    void _init();
    CopyError _validate() const;
    CopyError _copy();
    void _onFinished(CopyError error);
    void _unsetError();

    QString m_source;
    QString m_destination;
    qint64 m_blockSize = 10LL * 1024 * 1024;
    bool m_stopRequested = false; // plain on purpose, as are the next two
    bool m_removeOnStop = false;
    bool m_busy = false;
    CopyError m_lastError = NoError;
};

} // namespace Pellox
