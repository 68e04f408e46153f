// SPDX-License-Identifier: MIT
#include "wholefile.h"

#include "filesystem.h"
#include "workfolder.h"

#include <QFileInfo>

#include <limits>

#include <fcntl.h>
#include <unistd.h>

namespace Pellox {

std::optional<QByteArray> readWhole(InputFile &file, qint64 largest, QString *error)
{
    if (file.size() > std::min<qint64>(largest, std::numeric_limits<int>::max())) {
        *error = aboutFile(file.path(), QStringLiteral("is too large for what it should be"));
        return {};
    }
    QByteArray bytes(static_cast<int>(file.size()), Qt::Uninitialized);
    if (file.readAt(0, reinterpret_cast<uchar *>(bytes.data()), bytes.size()) && file.isUnchanged())
        return bytes;
    *error = file.error();
    return {};
}

namespace {

/// To @p file, which has just been opened or not.
bool writeTo(OutputFile &file, bool isOpen, const QByteArray &bytes, bool syncs, FileError *error)
{
    if (isOpen)
        file.write(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    const bool synced = !syncs || file.sync();
    if (file.close() && synced)
        return true;
    *error = file.error();
    return false;
}

} // namespace

bool writeWhole(const QString &path, const QByteArray &bytes, bool syncs, FileError *error)
{
    OutputFile file;
    return writeTo(file, file.open(path), bytes, syncs, error);
}

bool writeWhole(
    BuildFiles &files, const QString &path, const QByteArray &bytes, bool syncs, FileError *error)
{
    OutputFile file;
    return writeTo(file, files.make(path, &file), bytes, syncs, error);
}

bool replaceWhole(const QString &path, const QByteArray &bytes, QString *error)
{
    const QString temporary = temporaryNameOf(path);
    removeFile(temporary); // of a run that was killed; if it stays, the file does not open
    OutputFile file;
    if (!file.open(temporary)) {
        *error = file.error();
        return false;
    }
    file.write(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    const bool written = file.sync();
    if (!file.close() || !written) {
        *error = file.error();
    } else if (!renameFile(temporary, path)) {
        *error = aboutFile(path, QLatin1String("cannot be written: ") + lastSystemError());
    } else {
        return syncFolderOf(path, error);
    }
    removeFile(temporary);
    return false;
}

QString temporaryNameOf(const QString &path)
{
    return path + WorkFolder::TemporarySuffix;
}

bool syncFolderOf(const QString &path, QString *error)
{
    const QString name = QFileInfo(path).path();
    FileHandle folder;
    if (folder.open(name, O_RDONLY | O_DIRECTORY) && ::fsync(folder.get()) == 0)
        return true;
    *error = aboutFile(name, QLatin1String("cannot be synced: ") + lastSystemError());
    return false;
}

} // namespace Pellox
