// SPDX-License-Identifier: MIT
#include "releasefolder.h"

#include "filesystem.h"
#include "folderlisting.h"
#include "manifest.h"
#include "manifestfile.h"
#include "rules.h"
#include "sealfile.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

#include <cerrno>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace Pellox {

namespace {

/// What removeVisible() leaves of a folder.
enum class Left { Nothing, Hidden, Stopped, Error };

/// Removes what is not hidden in @p folder; folders that hold hidden entries stay. Links are not
/// followed. @p failed is what cannot be listed or removed.
Left removeVisible(const QByteArray &folder, const GoOn &goOn, QByteArray *failed)
{
    Left left = Left::Nothing;
    std::vector<FolderListing::Entry> visible;
    FolderListing listing(folder);
    while (auto entry = listing.next()) {
        if (entry->isHidden())
            left = Left::Hidden;
        else
            visible.push_back(std::move(*entry));
    }
    *failed = folder;
    if (!listing.error().isEmpty())
        return Left::Error;
    for (const FolderListing::Entry &entry : visible) {
        if (!mayGoOn(goOn))
            return Left::Stopped;
        const bool isFolder = entry.kind == FolderListing::Kind::Folder;
        const Left inside = isFolder ? removeVisible(entry.path, goOn, failed) : Left::Nothing;
        if (inside == Left::Error || inside == Left::Stopped)
            return inside;
        if (inside == Left::Hidden)
            left = Left::Hidden;
        else if (*failed = entry.path; std::remove(entry.path.constData()) != 0)
            return Left::Error;
    }
    return left;
}

/// @p relativePath, which begins with a separator, as the system has it.
std::string nameOf(const QString &relativePath)
{
    return QFile::encodeName(relativePath).toStdString();
}

/*
 * The marker is a list of blocks, each written before anything is done in the folder: the name of
 * the manifest, then paths of files, then nothing. A zero byte ends each of them. A block that a
 * crash has cut off says nothing, as nothing was done after it.
 */
constexpr char MarkerSeparator = '\0';

} // namespace

ReleaseFolder::ReleaseFolder(QString path, QString manifestName)
    : m_path(std::move(path))
    , m_manifestName(std::move(manifestName))
{
}

ReleaseFolder::~ReleaseFolder()
{
    if (!m_isOpen)
        return;
    m_manifest.reset(); // removes its temporary file
    try {
        if (!m_isHalfEmptied && clear())
            removeFile(markerPath());
        if (m_isNew)
            QDir().rmdir(m_path);
    } catch (const std::exception &) {
        // No memory: the next run finds the marker.
    }
}

bool ReleaseFolder::check(const GoOn &goOn)
{
    const QFileInfo info(m_path);
    m_found.clear();
    m_error.clear();
    if (!info.exists())
        return true;
    if (!info.isDir())
        return fail(m_path, QStringLiteral("is no folder"));
    if (QDir(m_path).isEmpty(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot))
        return true;

    Paths known;
    bool isRelease = false;
    if (!readEarlierFiles(&known, &isRelease, goOn))
        return false;
    if (!isRelease) {
        return fail(m_path,
            QStringLiteral("is not empty and holds no %1: only the folder of an earlier release "
                           "is replaced")
                .arg(m_manifestName));
    }
    if (!findFiles(std::string(), goOn))
        return false;
    for (const std::string &file : m_found) {
        if (known.count(file) == 0) {
            return fail(m_path + QFile::decodeName(file.c_str()),
                QStringLiteral("is no part of the earlier release in its folder, which would be "
                               "replaced as a whole: move it away"));
        }
    }
    return true;
}

/// The files that a release may have left here; none where none has.
bool ReleaseFolder::readEarlierFiles(Paths *files, bool *isRelease, const GoOn &goOn)
{
    if (!readMarker(files, isRelease))
        return false;
    if (QFileInfo(manifestPath()).isFile()) {
        const auto take = [files](const QJsonValue &record, int) {
            files->insert(nameOf(record.toObject().value(Manifest::RelativePath).toString()));
        };
        FileError error;
        if (!readManifest(
                manifestPath(), [] {}, take, &error, goOn)) {
            m_error = error;
            return false;
        }
        *isRelease = true;
    }
    files->insert(nameOf(QLatin1Char('/') + m_manifestName));
    if (m_manifestName == PATCH_RULES_FILE)
        files->insert(nameOf(QLatin1Char('/') + SealFileName));
    return true;
}

bool ReleaseFolder::readMarker(Paths *files, bool *isRelease)
{
    QFile marker(markerPath());
    if (!marker.exists())
        return true;
    if (!marker.open(QIODevice::ReadOnly))
        return fail(markerPath(), QLatin1String("cannot be opened: ") + marker.errorString());
    const QByteArray bytes = marker.readAll();
    if (marker.error() != QFileDevice::NoError)
        return fail(markerPath(), QLatin1String("cannot be read: ") + marker.errorString());
    const std::string manifest = nameOf(m_manifestName);
    std::vector<std::string> block;
    for (const char *at = bytes.begin(); at != bytes.end();) {
        const char *end = std::find(at, bytes.end(), MarkerSeparator);
        if (end == bytes.end())
            break;
        const bool endsBlock = at == end;
        if (endsBlock && !block.empty() && block.front() == manifest) {
            files->insert(block.cbegin() + 1, block.cend());
            *isRelease = true;
        }
        if (endsBlock)
            block.clear();
        else
            block.emplace_back(at, end);
        at = end + 1;
    }
    return true;
}

/// Appends the files below @p folder, relative and with a separator in front or empty, to m_found.
bool ReleaseFolder::findFiles(const std::string &folder, const GoOn &goOn)
{
    FolderListing listing(QFile::encodeName(m_path) + folder.c_str());
    while (const auto entry = listing.next()) {
        if (!mayGoOn(goOn))
            return false;
        if (entry->isHidden())
            continue;
        const std::string name = folder + (entry->path.constData() + entry->path.lastIndexOf('/'));
        if (entry->kind != FolderListing::Kind::Folder)
            m_found.push_back(name);
        else if (!findFiles(name, goOn))
            return false;
    }
    const FileError &error = listing.error();
    return error.isEmpty() || fail(error.path, error.reason);
}

bool ReleaseFolder::begin(const Names &names, const GoOn &goOn)
{
    m_isNew = !QFileInfo::exists(m_path);
    if (!QDir().mkpath(m_path))
        return fail(m_path, QStringLiteral("cannot be made"));
    const bool hadMarker = QFileInfo::exists(markerPath());
    if (!takeMarker())
        return false;
    // What was there at the first look may since have been replaced by another run.
    if (!check(goOn)) {
        if (!hadMarker)
            removeFile(markerPath());
        return false;
    }
    if (!writeMarker(names)) {
        if (!hadMarker)
            removeFile(markerPath());
        return false;
    }
    m_isOpen = true;
    m_isHalfEmptied = true;
    if (QFileInfo::exists(manifestPath()) && !removeFile(manifestPath()))
        return failBySystem(manifestPath(), "cannot be removed: ");
    if (!clear(goOn))
        return false;
    m_isHalfEmptied = false;
    return true;
}

/// Opens and locks the marker. Who has had it until now has removed it, which leaves us with a lock
/// on nothing, so that it takes another try.
bool ReleaseFolder::takeMarker()
{
    constexpr int Tries = 100;
    bool taken = false;
    for (int i = 0; i < Tries && !taken; ++i) {
        if (!tryToTakeMarker(&taken))
            return false;
    }
    return taken || fail(m_path, QStringLiteral("another run writes here"));
}

bool ReleaseFolder::tryToTakeMarker(bool *taken)
{
    m_marker.close();
    if (!m_marker.open(markerPath(), O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW))
        return failBySystem(markerPath(), "cannot be written: ");
    while (::flock(m_marker.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK)
            return fail(m_path, QStringLiteral("another run writes here"));
        if (errno != EINTR)
            return failBySystem(markerPath(), "cannot be locked: ");
    }
    struct stat locked = {};
    if (::fstat(m_marker.get(), &locked) != 0)
        return failBySystem(markerPath(), "cannot be read: ");
    const auto present = statusOf(markerPath());
    *taken = present && present->st_dev == locked.st_dev && present->st_ino == locked.st_ino;
    return true;
}

/// What is there now is said anew, as the manifest that named it goes first.
bool ReleaseFolder::writeMarker(const Names &names)
{
    constexpr std::size_t HeldBack = 1 << 16;
    std::string held;
    bool written = true;
    const auto flush = [&] {
        const char *at = held.data();
        const char *end = at + held.size();
        while (written && at != end) {
            const ssize_t count = ::write(m_marker.get(), at, static_cast<std::size_t>(end - at));
            if (count > 0)
                at += count;
            else
                written = count < 0 && errno == EINTR;
        }
        held.clear();
    };
    const auto add = [&](const std::string &name) {
        held += name;
        held += MarkerSeparator;
        if (held.size() >= HeldBack)
            flush();
    };
    add(std::string()); // ends what may stand there
    add(nameOf(m_manifestName));
    for (const std::string &file : m_found)
        add(file);
    names([&](const QString &relativePath) { add(nameOf(relativePath)); });
    add(std::string());
    flush();
    std::vector<std::string>().swap(m_found);
    return (written && ::fsync(m_marker.get()) == 0)
        || failBySystem(markerPath(), "cannot be written: ");
}

bool ReleaseFolder::prepare(const std::function<bool(QIODevice &)> &write)
{
    m_manifest = std::make_unique<QSaveFile>(manifestPath());
    const bool written = m_manifest->open(QIODevice::WriteOnly | QIODevice::Unbuffered)
        && write(*m_manifest) && m_manifest->flush();
    return written
        || fail(manifestPath(), QLatin1String("cannot be written: ") + m_manifest->errorString());
}

/// The whole file system at once: file by file it would wait for the disk as often.
bool ReleaseFolder::sync()
{
    FileHandle folder;
    return (folder.open(m_path, O_RDONLY | O_DIRECTORY) && ::syncfs(folder.get()) == 0)
        || failBySystem(m_path, "cannot be written: ");
}

bool ReleaseFolder::commit()
{
    if (!m_manifest->commit())
        return fail(
            manifestPath(), QLatin1String("cannot be written: ") + m_manifest->errorString());
    FileHandle folder;
    constexpr int NotOnThisFileSystem = EINVAL;
    return (folder.open(m_path, O_RDONLY | O_DIRECTORY)
               && (::fsync(folder.get()) == 0 || errno == NotOnThisFileSystem))
        || failBySystem(m_path, "cannot be written: ");
}

void ReleaseFolder::finish()
{
    m_isOpen = false;
    removeFile(markerPath());
    m_marker.close();
}

void ReleaseFolder::revoke()
{
    QFile::remove(manifestPath());
}

bool ReleaseFolder::clear(const GoOn &goOn)
{
    QByteArray failed;
    switch (removeVisible(QFile::encodeName(m_path), goOn, &failed)) {
    case Left::Nothing:
    case Left::Hidden:
        return true;
    case Left::Stopped:
        break;
    case Left::Error:
        fail(QFile::decodeName(failed), QStringLiteral("cannot be removed"));
    }
    return false;
}

QString ReleaseFolder::markerPath() const
{
    return m_path + QLatin1String("/.pellox-incomplete");
}

QString ReleaseFolder::manifestPath() const
{
    return m_path + QLatin1Char('/') + m_manifestName;
}

bool ReleaseFolder::fail(const QString &path, const QString &reason)
{
    m_error = aboutFile(path, reason);
    return false;
}

bool ReleaseFolder::failBySystem(const QString &path, const char *what)
{
    m_error = FileError::ofSystem(path, what);
    return false;
}

} // namespace Pellox
