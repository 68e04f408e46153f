// SPDX-License-Identifier: MIT
#include "stagedrecord.h"

#include "digest.h"
#include "filesystem.h"
#include "rulechecks.h"
#include "wholefile.h"
#include "workfolder.h"

#include <QDir>

#include <algorithm>

namespace Pellox {

namespace {

/*
 * A line with the version, one for each path, that of a folder with a separator at its end, and one
 * with the SHA-512 of all before, by which a torn record is known. Paths hold no line feeds.
 */
const QByteArray FirstLine("staged 1\n");
constexpr QLatin1Char Separator('/');
constexpr qint64 Largest = 1LL << 30;

QByteArray checksumLine(const QByteArray &lines)
{
    return digestOf(lines, QCryptographicHash::Sha512).toHex() + '\n';
}

bool isInStagedFolder(const QString &path)
{
    return path.startsWith(WorkFolder::Staged + Separator);
}

} // namespace

bool StagedRecord::read()
{
    const QString path = m_build + WorkFolder::StagedRecord;
    FileError error;
    const auto folder = statusOf(m_build + WorkFolder::Name, &error);
    // Where the hidden folder is a link, it is none.
    const bool isThere = folder && S_ISDIR(folder->st_mode) && statusOf(path, &error);
    if (!error.isEmpty())
        return fail(error); // else what it names would become somebody's
    if (!isThere)
        return true;
    InputFile file;
    if (!file.open(path))
        return fail(file.error());
    QString text; // the same as the file's own error
    const auto bytes = file.size() <= Largest ? readWhole(file, Largest, &text) : QByteArray();
    if (!bytes)
        return fail(file.error());
    if (takeBytes(*bytes)) {
        m_standing = *bytes;
    } else {
        m_files.clear();
        m_folders.clear();
    }
    return true;
}

bool StagedRecord::takeBytes(const QByteArray &bytes)
{
    const auto lastLine = bytes.lastIndexOf('\n', -2) + 1;
    const QByteArray lines = bytes.left(lastLine);
    if (!lines.startsWith(FirstLine) || bytes.mid(lastLine) != checksumLine(lines))
        return false;
    const auto paths = QString::fromUtf8(lines.mid(FirstLine.size()))
                           .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return std::all_of(
        paths.cbegin(), paths.cend(), [this](const QString &path) { return takeLine(path); });
}

/// What no run would have staged makes the record a damaged one.
bool StagedRecord::takeLine(const QString &path)
{
    const bool isFolder = path.endsWith(Separator);
    const QString name = isFolder ? path.chopped(1) : path;
    const bool mayBe = isInStagedFolder(name) ? !isFolder && problemOfPath(name).isEmpty()
                                              : problemOfRelativePath(name).isEmpty()
            && (isFolder || name.endsWith(WorkFolder::TemporarySuffix));
    if (mayBe)
        (isFolder ? m_folders : m_files).insert(name);
    return mayBe;
}

QByteArray StagedRecord::toBytes() const
{
    QByteArray lines = FirstLine;
    for (const QString &path : m_folders)
        lines += path.toUtf8() + "/\n";
    for (const QString &path : m_files)
        lines += path.toUtf8() + '\n';
    return lines + checksumLine(lines);
}

bool StagedRecord::isOwn(const QString &path) const
{
    return m_files.count(path) > 0 || isInStagedFolder(path);
}

bool StagedRecord::write(bool syncs)
{
    const QByteArray bytes = toBytes();
    if (bytes == m_standing)
        return true;
    const QString path = m_build + WorkFolder::StagedRecord;
    const QString unfinished = m_build + WorkFolder::NewStagedRecord;
    FileError error;
    if (!Pellox::removeFile(unfinished)) // of a run that was killed
        return fail(FileError::ofSystem(unfinished, "cannot be removed: "));
    if (writeWhole(unfinished, bytes, syncs, &error)) {
        if (renameFile(unfinished, path)) {
            m_standing = bytes;
            return true;
        }
        error = FileError::ofSystem(path, "cannot be written: ");
    }
    Pellox::removeFile(unfinished);
    return fail(error);
}

bool StagedRecord::removeFiles(const QSet<QString> &kept)
{
    m_errors.clear();
    addStrays();
    for (const QString &path : m_files) {
        if (!kept.contains(path) && isReached(path))
            removeFile(path);
    }
    removeFolders();
    return m_errors.empty();
}

/// What a run has left whose record was damaged.
void StagedRecord::addStrays()
{
    if (!isPlainFolder(WorkFolder::Staged))
        return;
    const QDir folder(m_build + WorkFolder::Staged);
    const auto names = folder.entryList(QDir::Files | QDir::Hidden | QDir::System);
    for (const QString &name : names)
        m_files.insert(WorkFolder::Staged + Separator + name);
}

/// Whether no link leads to @p path: what lies behind one is not the update's.
bool StagedRecord::isReached(const QString &path)
{
    const QStringList folders = foldersAbove(path);
    return std::all_of(folders.cbegin(), folders.cend(),
        [this](const QString &folder) { return isPlainFolder(folder); });
}

/// False also with an error.
bool StagedRecord::isPlainFolder(const QString &path)
{
    if (m_plainFolders.contains(path))
        return true;
    const auto status = look(path);
    if (!status || !S_ISDIR(status->st_mode))
        return false;
    m_plainFolders.insert(path);
    return true;
}

/// Nothing also with an error.
std::optional<struct stat> StagedRecord::look(const QString &path)
{
    FileError error;
    const auto status = statusOf(m_build + path, &error);
    if (!error.isEmpty())
        m_errors.push_back(error);
    return status;
}

void StagedRecord::removeFile(const QString &path)
{
    const QString absolute = m_build + path;
    const auto status = look(path);
    if (status && S_ISREG(status->st_mode) && !Pellox::removeFile(absolute))
        m_errors.push_back(FileError::ofSystem(absolute, "was staged and cannot be removed: "));
}

void StagedRecord::removeFolders()
{
    for (auto folder = m_folders.crbegin(); folder != m_folders.crend(); ++folder) {
        if (isReached(*folder))
            QDir().rmdir(m_build + *folder);
    }
    m_plainFolders.clear();
}

bool StagedRecord::remove()
{
    for (const QString &path : {WorkFolder::NewStagedRecord, WorkFolder::StagedRecord}) {
        if (!Pellox::removeFile(m_build + path))
            return fail(FileError::ofSystem(m_build + path, "cannot be removed: "));
    }
    m_files.clear();
    m_folders.clear();
    m_standing.clear();
    return true;
}

bool StagedRecord::isThere() const
{
    const auto may = [this](const QString &path) { return mayStand(m_build + path); };
    const auto folder = statusOf(m_build + WorkFolder::Name);
    const bool mayBeFolder = folder ? S_ISDIR(folder->st_mode) : may(WorkFolder::Name);
    return mayBeFolder
        && (may(WorkFolder::StagedRecord) || may(WorkFolder::NewStagedRecord)
            || may(WorkFolder::Staged));
}

bool StagedRecord::fail(const FileError &error)
{
    m_errors = {error};
    return false;
}

} // namespace Pellox
