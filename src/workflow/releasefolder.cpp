// SPDX-License-Identifier: MIT
#include "releasefolder.h"

#include "diskfile.h"

#include <QDir>
#include <QFileInfo>

namespace Pellox {

namespace {

constexpr auto Visible = QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot;

/// Removes what is not hidden in @p folder; folders that hold hidden entries stay. The first path
/// that cannot be removed, or nothing.
QString removeVisible(const QString &folder)
{
    for (const QFileInfo &entry : QDir(folder).entryInfoList(Visible)) {
        const QString path = entry.filePath();
        if (!entry.isDir() || entry.isSymLink()) {
            if (!QFile::remove(path))
                return path;
            continue;
        }
        const QString left = removeVisible(path);
        if (!left.isEmpty())
            return left;
        if (QDir(path).isEmpty(
                QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)
            && !QDir().rmdir(path))
            return path;
    }
    return {};
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

bool ReleaseFolder::prepare(const QByteArray &manifest)
{
    m_manifest = std::make_unique<QSaveFile>(manifestPath());
    const bool written = m_manifest->open(QIODevice::WriteOnly)
        && m_manifest->write(manifest) == manifest.size() && m_manifest->flush();
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
    const QString left = removeVisible(m_path);
    return left.isEmpty() || fail(left, QStringLiteral("cannot be removed"));
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
