// SPDX-License-Identifier: MIT
#include "buildwalk.h"

#include "diskfile.h"

#include <QFile>

#include <filesystem>

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

} // namespace

std::optional<std::vector<BuildFile>> walkBuild(
    const QString &build, QString *error, const GoOn &goOn)
{
    std::vector<BuildFile> files;
    const auto fail = [&](const fs::path &path, const QString &reason) {
        *error = aboutFile(textOf(path), reason);
        return std::nullopt;
    };
    const fs::path top(QFile::encodeName(build).constData());
    const auto failListing = [&](const fs::path &path, const std::error_code &code) {
        return fail(
            path, QLatin1String("cannot be listed: ") + QString::fromStdString(code.message()));
    };

    std::error_code code;
    fs::path last = top;
    fs::recursive_directory_iterator walk(top, code);
    for (; !code && walk != fs::end(walk); walk.increment(code)) {
        const fs::directory_entry &entry = *walk;
        last = entry.path();
        if (!mayGoOn(goOn)) {
            error->clear();
            return std::nullopt;
        }
        if (isHidden(last)) {
            walk.disable_recursion_pending();
            continue;
        }
        const QString path = textOf(last);
        if (QFile::encodeName(path).constData() != last.native())
            return fail(last, QStringLiteral("has a name that the locale's encoding cannot tell"));
        if (!isFile(entry))
            continue;
        std::error_code noSize; // of a link to a device, which is refused when it is opened
        const auto size = entry.file_size(noSize);
        files.push_back({path.mid(build.size()), noSize ? 0 : static_cast<qint64>(size)});
    }
    if (code)
        return failListing(last, code);
    return files;
}

} // namespace Pellox
