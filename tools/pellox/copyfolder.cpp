// SPDX-License-Identifier: MIT
#include "copyfolder.h"

#include "buildcheck.h"
#include "console.h"
#include "diskroom.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "mergefolder.h"
#include "renames.h"
#include "stagefolder.h"

#include <Pellox/FileCopier>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <filesystem>
#include <functional>
#include <system_error>
#include <utility>

namespace {

using Pellox::FileCopier;

/// Calls @p advance with the size of each part that is the same. Throws Interrupt::Stopped.
bool haveSameContent(
    const QString &path, const QString &otherPath, const std::function<void(qint64)> &advance)
{
    constexpr qint64 ReadSize = 1 << 20;
    QFile file(path);
    QFile other(otherPath);
    if (!file.open(QIODevice::ReadOnly) || !other.open(QIODevice::ReadOnly)
        || file.size() != other.size())
        return false;
    while (!file.atEnd()) {
        Interrupt::throwIfStopped();
        const QByteArray part = file.read(ReadSize);
        if (part.isEmpty() || part != other.read(ReadSize))
            return false;
        advance(part.size());
    }
    return true;
}

/// Where the file system has them. Not those to run as another user.
void copyPermissions(const QString &file, const QString &copy)
{
    namespace fs = std::filesystem;
    std::error_code problem;
    const fs::file_status status = fs::status(QFile::encodeName(file).toStdString(), problem);
    if (!problem) {
        fs::permissions(
            QFile::encodeName(copy).toStdString(), status.permissions() & fs::perms::all, problem);
    }
}

/// The files of a build on their way into the stage folder.
class Transfer
{
public:
    Transfer(Console &console, const FolderCopy &copy, const QStringList &files, QString stage)
        : m_console(console)
        , m_copy(copy)
        , m_files(files)
        , m_stage(std::move(stage))
        , m_size(totalSize(files))
    {
    }

    qint64 size() const { return m_size; }

    /// Returns false after Console::error(), for each file that cannot be read.
    bool copyAll();
    /// Returns false after Console::error(), for each file that did not arrive.
    bool compareAll();

private:
    /// Relative to the build, beginning with a separator.
    QString relativePath(const QString &file) const { return file.mid(m_copy.source.size()); }
    bool copyOne(FileCopier &copier, const QString &file);
    void compareOne(const QString &file);
    void advance(qint64 size) { m_console.advanceTo(m_done += size); }

    Console &m_console;
    const FolderCopy &m_copy;
    const QStringList &m_files;
    const QString m_stage;
    const qint64 m_size;
    qint64 m_done = 0;
};

/// File by file: the library's copy of a whole build cannot be stopped and reports nothing.
bool Transfer::copyAll()
{
    FileCopier copier;
    copier.setBlockSize(m_copy.blockSize);
    QObject::connect(&copier, &FileCopier::progress, [&](qint64, qint64 copied, float) {
        if (Interrupt::isStopped())
            copier.stop();
        m_console.advanceTo(m_done + copied);
    });
    m_console.startProgress(QStringLiteral("copy"), Progress::Unit::Bytes, m_size);
    for (const QString &file : m_files) {
        Interrupt::throwIfStopped();
        if (!copyOne(copier, file))
            break;
        advance(QFileInfo(file).size());
    }
    m_console.stopProgress();
    return m_console.errorCount() == 0;
}

/// Returns false when there is no use to go on.
bool Transfer::copyOne(FileCopier &copier, const QString &file)
{
    const QString copy = m_stage + relativePath(file);
    QDir().mkpath(QFileInfo(copy).path()); // without it the copy cannot be created
    switch (copier.copy(file, copy)) {
    case FileCopier::NoError:
        return true;
    case FileCopier::StoppedManuallyError:
        throw Interrupt::Stopped();
    case FileCopier::SourceFileDoesNotExistError:
    case FileCopier::OpenSourceFileForReadError:
        m_console.error(file, QStringLiteral("cannot be read"));
        return true;
    case FileCopier::WriteError:
        m_console.error(m_copy.target, reasonNotWritten(m_size - m_done, m_copy.target));
        return false;
    default:
        m_console.error(m_copy.target + relativePath(file),
            QLatin1String("cannot be created") + systemReason(copy));
        return false;
    }
}

bool Transfer::compareAll()
{
    m_done = 0;
    m_console.startProgress(QStringLiteral("compare"), Progress::Unit::Bytes, m_size);
    for (const QString &file : m_files)
        compareOne(file);
    m_console.stopProgress();
    return m_console.errorCount() == 0;
}

void Transfer::compareOne(const QString &file)
{
    const QString copy = m_stage + relativePath(file);
    if (!haveSameContent(file, copy, [this](qint64 size) { advance(size); }))
        m_console.error(file, QStringLiteral("did not arrive in ") + m_copy.target);
    copyPermissions(file, copy); // only now: not even its owner may be allowed to read it then
}

void requirePlace(const QString &place, const FolderCopy &copy)
{
    requireOwnFolders(copy.target, place);
    if (QFileInfo(place).isDir())
        throw Refusal(place, QStringLiteral("is a folder, and a copy belongs there"));
    if (!copy.force && isThere(place))
        throw Refusal(place, QStringLiteral("exists; --force replaces it"));
}

/// The files to copy.
QStringList checkedFiles(const FolderCopy &copy)
{
    requireApart(copy.target, copy.source);
    const QString ancestor = existingAncestor(copy.target);
    if (!QFileInfo(ancestor).isDir())
        throw Refusal(ancestor, QStringLiteral("is a file, and a folder belongs there"));
    requireListable(copy.source);
    QStringList files = filesOfBuild(copy.source);
    for (const QString &file : std::as_const(files))
        requirePlace(copy.target + file.mid(copy.source.size()), copy);
    requireRoom(totalSize(files), copy.target);
    return files;
}

/// All or none. Files that are replaced stay in the stage folder until all is done.
bool putInPlace(Console &console, StageFolder &stage, const QString &copies, const FolderCopy &copy)
{
    const QString replaced
        = copy.force ? pathIn(stage.path(), QStringLiteral("replaced")) : QString();
    Renames renames(stage.dir(), console);
    if (!mergeFolder(copies, copy.target, renames, console, replaced))
        return false;
    Interrupt::throwIfStopped();
    renames.keep();
    return true;
}

} // namespace

bool copyFolder(Console &console, const FolderCopy &copy)
{
    const QStringList files = checkedFiles(copy);
    const Interrupt::Watch watch([] {});
    StageFolder stage(copy.target);
    const QString copies = pathIn(stage.path(), QStringLiteral("new"));
    Transfer transfer(console, copy, files, copies);
    if (!transfer.copyAll() || !transfer.compareAll() || !putInPlace(console, stage, copies, copy))
        return false;
    stage.finish();
    console.result(QStringLiteral("Copied %1 (%2): %3")
                       .arg(fileCount(files.size()), byteCount(transfer.size()), copy.target));
    return true;
}
