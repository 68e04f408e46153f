// SPDX-License-Identifier: MIT
#include "releasefolder.h"

#include "diskfile.h"

#include <QDir>
#include <QFileInfo>

#include <filesystem>
#include <vector>

namespace Pellox {

namespace {

namespace fs = std::filesystem;

constexpr auto Visible = QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot;

/// What removeVisible() leaves of a folder.
enum class Left { Nothing, Hidden, Error };

/// Removes what is not hidden in @p folder; folders that hold hidden entries stay. Links are not
/// followed. @p failed is what cannot be listed or removed.
Left removeVisible(const fs::path &folder, fs::path *failed)
{
    std::error_code code;
    Left left = Left::Nothing;
    std::vector<fs::path> visible;
    for (fs::directory_iterator walk(folder, code); !code && walk != fs::end(walk);
         walk.increment(code)) {
        if (walk->path().filename().native().front() == '.')
            left = Left::Hidden;
        else
            visible.push_back(walk->path());
    }
    *failed = folder;
    if (code)
        return Left::Error;
    for (const fs::path &path : visible) {
        const bool isFolder = fs::is_directory(fs::symlink_status(path, code));
        const Left inside = isFolder ? removeVisible(path, failed) : Left::Nothing;
        if (inside == Left::Error)
            return Left::Error;
        if (inside == Left::Hidden)
            left = Left::Hidden;
        else if (*failed = path; !fs::remove(path, code))
            return Left::Error;
    }
    return left;
}

} // namespace

ReleaseFolder::ReleaseFolder(const QString &path, const QString &manifestName)
    : m_path(path)
    , m_manifestName(manifestName)
{
}

ReleaseFolder::~ReleaseFolder()
{
    if (!m_isOpen)
        return;
    m_manifest.reset(); // removes its temporary file
    if (clear())
        QFile::remove(markerPath());
    if (m_isNew)
        QDir().rmdir(m_path);
}

bool ReleaseFolder::check()
{
    const QFileInfo info(m_path);
    if (!info.exists())
        return true;
    if (!info.isDir())
        return fail(m_path, QStringLiteral("is no folder"));
    if (QDir(m_path).entryList(Visible).isEmpty() || QFileInfo(manifestPath()).isFile()
        || QFileInfo::exists(markerPath()))
        return true;
    return fail(m_path,
        QStringLiteral("is not empty and holds no %1: only the folder of an earlier release "
                       "is replaced")
            .arg(m_manifestName));
}

bool ReleaseFolder::begin()
{
    m_isNew = !QFileInfo::exists(m_path);
    if (!QDir().mkpath(m_path))
        return fail(m_path, QStringLiteral("cannot be made"));
    QFile marker(markerPath());
    if (!marker.open(QIODevice::WriteOnly))
        return fail(markerPath(), QLatin1String("cannot be written: ") + marker.errorString());
    m_isOpen = true;
    if (QFileInfo::exists(manifestPath()) && !QFile::remove(manifestPath()))
        return fail(manifestPath(), QStringLiteral("cannot be removed"));
    return clear();
}

bool ReleaseFolder::prepare(const std::function<bool(QIODevice &)> &write)
{
    m_manifest = std::make_unique<QSaveFile>(manifestPath());
    const bool written = m_manifest->open(QIODevice::WriteOnly | QIODevice::Unbuffered)
        && write(*m_manifest) && m_manifest->flush();
    return written
        || fail(manifestPath(), QLatin1String("cannot be written: ") + m_manifest->errorString());
}

bool ReleaseFolder::complete()
{
    if (!m_manifest->commit())
        return fail(
            manifestPath(), QLatin1String("cannot be written: ") + m_manifest->errorString());
    QFile::remove(markerPath());
    m_isOpen = false;
    return true;
}

void ReleaseFolder::revoke()
{
    m_isOpen = true;
    QFile::remove(manifestPath());
}

bool ReleaseFolder::clear()
{
    fs::path failed;
    return removeVisible(QFile::encodeName(m_path).constData(), &failed) != Left::Error
        || fail(QFile::decodeName(failed.c_str()), QStringLiteral("cannot be removed"));
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

} // namespace Pellox
