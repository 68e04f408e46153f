// SPDX-License-Identifier: MIT
#include "buildwalk.h"

#include "folderlisting.h"

#include <QFile>

#include <cerrno>
#include <utility>

#include <sys/stat.h>

namespace Pellox {

namespace {

using Entry = FolderListing::Entry;
using Kind = FolderListing::Kind;

/// The file at @p entry, which is none where its size is none. Links count as what they lead to,
/// and a dangling one as nothing; one to a device has no size, and is refused when it is opened.
std::optional<qint64> sizeOf(const Entry &entry)
{
    struct stat status = {};
    if (entry.kind != Kind::File && entry.kind != Kind::Link)
        return {};
    if (::stat(entry.path.constData(), &status) != 0)
        return entry.kind == Kind::File ? std::optional<qint64>(0) : std::nullopt;
    if (S_ISREG(status.st_mode))
        return status.st_size;
    return S_ISDIR(status.st_mode) ? std::nullopt : std::optional<qint64>(0);
}

/// One walk through a build, from each folder to those in it.
class Walk
{
public:
    Walk(const QString &build, const GoOn &goOn, QStringList *odd)
        : m_build(build)
        , m_goOn(goOn)
        , m_odd(odd)
    {
    }

    /// False with error(), and without one when it was stopped.
    bool list(const QByteArray &folder);
    std::vector<BuildFile> takeFiles() { return std::move(m_files); }
    const FileError &error() const { return m_error; }

private:
    bool take(const Entry &entry);
    bool meet(const FileError &error);

    const QString &m_build;
    const GoOn &m_goOn;
    QStringList *const m_odd;
    std::vector<BuildFile> m_files;
    FileError m_error;
};

bool Walk::list(const QByteArray &folder)
{
    FolderListing listing(folder);
    while (const auto entry = listing.next()) {
        if (!mayGoOn(m_goOn) || !take(*entry))
            return false;
    }
    const FileError &error = listing.error();
    const bool isGone = error.system == ENOENT && error.path != m_build;
    return error.isEmpty() || (isGone && m_odd) || meet(error);
}

bool Walk::take(const Entry &entry)
{
    if (entry.isHidden())
        return true;
    const QString path = QFile::decodeName(entry.path);
    if (QFile::encodeName(path) != entry.path)
        return meet({path, QStringLiteral("has a name that the locale's encoding cannot tell")});
    if (entry.kind == Kind::Folder)
        return list(entry.path);
    if (const auto size = sizeOf(entry))
        m_files.push_back({path.mid(m_build.size()), *size});
    return true;
}

/// What ends the walk, unless whoever wants it takes what is odd; but nothing stands in for the
/// build's own folder.
bool Walk::meet(const FileError &error)
{
    if (m_odd && error.path != m_build) {
        m_odd->append(error.path.mid(m_build.size()));
        return true;
    }
    m_error = error;
    return false;
}

} // namespace

std::optional<std::vector<BuildFile>> walkBuild(
    const QString &build, FileError *error, const GoOn &goOn, QStringList *odd)
{
    Walk walk(build, goOn, odd);
    if (walk.list(QFile::encodeName(build)))
        return walk.takeFiles();
    *error = walk.error();
    return {};
}

} // namespace Pellox
