// SPDX-License-Identifier: MIT
#include "filecopier.h"

#include "namedpipe.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QtConcurrent>

#include <algorithm>
#include <memory>
#include <new>

namespace Pellox {

namespace {

float bytesPerSecond(qint64 bytes, qint64 nanoseconds)
{
    const auto seconds = static_cast<float>(static_cast<double>(nanoseconds) / 1000000000.0);
    return 1.0F / seconds * static_cast<float>(bytes);
}

} // namespace

FileCopier::FileCopier(QObject *parent)
    : QObject(parent)
{
    _init();
}

FileCopier::FileCopier(const QString &source, QObject *parent)
    : QObject(parent)
    , m_source(source)
{
    _init();
}

FileCopier::FileCopier(const QString &source, const QString &destination, QObject *parent)
    : QObject(parent)
    , m_source(source)
    , m_destination(destination)
{
    _init();
}

void FileCopier::_init()
{
    qRegisterMetaType<CopyError>("CopyError");
    // The name in the signal's signature, by which queued connections look the type up.
    qRegisterMetaType<CopyError>("FileCopier::CopyError");
}

void FileCopier::setBlockSize(qint64 size)
{
    m_blockSize = size;
}

FileCopier::CopyError FileCopier::copy()
{
    CopyError result = m_busy ? CopierIsBusyError : _validate();
    if (result == NoError)
        result = _copy();
    // A refused copy clears the busy mark of the one that runs: promised.
    _onFinished(result);
    return result;
}

FileCopier::CopyError FileCopier::copy(const QString &destination)
{
    m_destination = destination;
    return copy();
}

FileCopier::CopyError FileCopier::copy(const QString &source, const QString &destination)
{
    m_source = source;
    m_destination = destination;
    return copy();
}

void FileCopier::copyAsync()
{
    static_cast<void>(QtConcurrent::run([this] { copy(); }));
}

void FileCopier::copyAsync(const QString &destination)
{
    m_destination = destination;
    copyAsync();
}

void FileCopier::copyAsync(const QString &source, const QString &destination)
{
    m_source = source;
    m_destination = destination;
    copyAsync();
}

void FileCopier::stop()
{
    m_removeOnStop = true;
    m_stopRequested = true;
}

void FileCopier::stopWithoutRemove()
{
    m_stopRequested = true;
}

FileCopier::CopyError FileCopier::_validate() const
{
    if (m_blockSize < 1)
        return BlockSizeIsZeroError;
    if (m_source.isEmpty())
        return SourceFileDoesNotExistError;
    if (m_destination.isEmpty())
        return DestinationNotSetError;
    const QFileInfo source(m_source);
    if (!source.exists())
        return SourceFileDoesNotExistError;
    if (source.isDir())
        return SourceIsDirectoryError;
    // A link that leads nowhere stands there too; the copy would go where it leads.
    if (QFileInfo::exists(m_destination) || QFileInfo(m_destination).isSymLink())
        return DestinationFileExistsError;
    return NoError;
}

FileCopier::CopyError FileCopier::_copy()
{
    QFile source(m_source);
    QFile destination(m_destination);
    const qint64 blockSize = m_blockSize;
    if (isNamedPipe(QFile::encodeName(source.fileName()).constData())
        || !source.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return OpenSourceFileForReadError;
    if (!destination.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        return OpenDestinationFileForWriteError;

    // Only now, so that a stop that came before is forgotten: promised.
    m_busy = true;
    m_stopRequested = false;
    m_removeOnStop = false;
    _unsetError();

    const qint64 total = source.bytesAvailable();
    // A huge block of a small file needs no huge buffer.
    constexpr qint64 ModestSize = 1 << 26; // 64 MiB
    const qint64 bufferSize = std::min(blockSize, std::max(total, ModestSize));
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<size_t>(bufferSize)]);
    const auto giveUp = [&destination](CopyError error) {
        destination.remove();
        return error;
    };
    if (!buffer)
        return giveUp(WriteError);

    qint64 copied = 0;
    while (!source.atEnd()) {
        if (m_stopRequested)
            return m_removeOnStop ? giveUp(StoppedManuallyError) : StoppedManuallyError;

        QElapsedTimer timer;
        timer.start();
        const qint64 got = source.read(buffer.get(), bufferSize);
        // Nothing where the end is not reached is a source cut short meanwhile: never wait for it.
        if (got <= 0)
            return giveUp(OpenSourceFileForReadError);
        const qint64 written = destination.write(buffer.get(), got);
        if (written != got || !destination.flush())
            return giveUp(WriteError);
        copied += got;
        Q_EMIT progress(total, copied, bytesPerSecond(written, timer.nsecsElapsed()));
    }
    // Less than there was is a source cut short meanwhile, too.
    return copied < total ? giveUp(OpenSourceFileForReadError) : NoError;
}

void FileCopier::_onFinished(CopyError error)
{
    m_busy = false;
    m_lastError = error;
    Q_EMIT finished(error);
}

void FileCopier::_unsetError()
{
    m_lastError = NoError;
}

} // namespace Pellox
