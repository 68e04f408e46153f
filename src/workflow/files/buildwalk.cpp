// SPDX-License-Identifier: MIT
#include "buildwalk.h"

#include <QFile>

#include <filesystem>
#include <utility>

namespace Pellox {

namespace {

namespace fs = std::filesystem;

bool isHidden(const fs::path &path)
{
    return path.filename().native().front() == '.';
}

QString textOf(const fs::path &path)
{
    return QFile::decodeName(path.c_str());
}

/// Links count as what they lead to; a dangling one as nothing.
bool isFile(const fs::directory_entry &entry)
{
    std::error_code ignored;
    if (!entry.is_symlink(ignored))
        return entry.is_regular_file(ignored);
    const fs::file_status target = entry.status(ignored);
    return fs::exists(target) && !fs::is_directory(target);
}

bool isFolder(const fs::directory_entry &entry)
{
    std::error_code ignored;
    return !entry.is_symlink(ignored) && entry.is_directory(ignored);
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
    bool list(const fs::path &folder);
    std::vector<BuildFile> takeFiles() { return std::move(m_files); }
    const FileError &error() const { return m_error; }

private:
    bool take(const fs::directory_entry &entry);
    void addFile(const fs::directory_entry &entry);
    bool meet(const fs::path &path, const QString &reason, int system = 0);
    QString relative(const fs::path &path) const { return textOf(path).mid(m_build.size()); }

    const QString &m_build;
    const GoOn &m_goOn;
    QStringList *const m_odd;
    std::vector<BuildFile> m_files;
    FileError m_error;
};

bool Walk::list(const fs::path &folder)
{
    std::error_code code;
    fs::directory_iterator entry(folder, code);
    while (!code && entry != fs::end(entry)) {
        if (!mayGoOn(m_goOn) || !take(*entry))
            return false;
        entry.increment(code);
    }
    const bool isGone = code == std::errc::no_such_file_or_directory && !relative(folder).isEmpty();
    return !code || (isGone && m_odd)
        || meet(folder,
            QLatin1String("cannot be listed: ") + QString::fromStdString(code.message()),
            code.value());
}

bool Walk::take(const fs::directory_entry &entry)
{
    const fs::path &path = entry.path();
    if (isHidden(path))
        return true;
    if (QFile::encodeName(textOf(path)).constData() != path.native())
        return meet(path, QStringLiteral("has a name that the locale's encoding cannot tell"));
    if (isFolder(entry))
        return list(path);
    if (isFile(entry))
        addFile(entry);
    return true;
}

void Walk::addFile(const fs::directory_entry &entry)
{
    std::error_code noSize; // of a link to a device, which is refused when it is opened
    const auto size = entry.file_size(noSize);
    m_files.push_back({relative(entry.path()), noSize ? 0 : static_cast<qint64>(size)});
}

/// What ends the walk, unless whoever wants it takes what is odd; but nothing stands in for the
/// build's own folder.
bool Walk::meet(const fs::path &path, const QString &reason, int system)
{
    const QString odd = relative(path);
    if (m_odd && !odd.isEmpty()) {
        m_odd->append(odd);
        return true;
    }
    m_error = {textOf(path), reason, system};
    return false;
}

} // namespace

std::optional<std::vector<BuildFile>> walkBuild(
    const QString &build, FileError *error, const GoOn &goOn, QStringList *odd)
{
    Walk walk(build, goOn, odd);
    if (walk.list(fs::path(QFile::encodeName(build).constData())))
        return walk.takeFiles();
    *error = walk.error();
    return {};
}

} // namespace Pellox
