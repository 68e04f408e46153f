// SPDX-License-Identifier: MIT
#include "packcheck.h"

#include "folders.h"
#include "listing.h"
#include "sevenzip.h"

#include <algorithm>

namespace {

namespace fs = std::filesystem;

void requireUnpackableTarget(const fs::path &target, const QString &link)
{
    if (target.is_absolute())
        throw Refusal(
            link, QStringLiteral("is a link with an absolute target, which 7-Zip alters"));
    const auto isHere = [](const fs::path &part) { return part.empty() || part == "."; };
    if (std::all_of(target.begin(), target.end(), isHere)
        || std::find(target.begin(), target.end(), "..") != target.end()) {
        throw Refusal(link,
            QStringLiteral("is a link that 7-Zip does not unpack: its target is \".\" or leads "
                           "through \"..\""));
    }
}

} // namespace

void refuseNameForSevenZip(const QString &path, const QString &folder)
{
    const auto isControl
        = [](QChar character) { return character.category() == QChar::Other_Control; };
    if (std::any_of(path.cbegin() + folder.size(), path.cend(), isControl)) {
        throw Refusal(path,
            QStringLiteral("has a line break or another control character in its name, which "
                           "7-Zip does not keep"));
    }
    if (readsAsVerdict(path.mid(folder.size()))) {
        throw Refusal(path,
            QStringLiteral("has a name that reads like 7-Zip's own messages (\"Everything is Ok\", "
                           "\"Error:\"), by which a run is judged"));
    }
}

PackedContent requirePackable(const QString &folder)
{
    PackedContent content;
    visitEntries(
        folder, Hidden::Visited, [&](const fs::directory_entry &entry, const QString &path) {
            refuseNameForSevenZip(path, folder);
            if (entry.is_symlink()) {
                const fs::path target = fs::read_symlink(entry.path());
                requireUnpackableTarget(target, path);
                content.size += static_cast<qint64>(target.native().size());
            } else if (entry.is_directory()) {
                return;
            } else if (entry.is_regular_file()) {
                content.size += static_cast<qint64>(entry.file_size());
            } else {
                throw Refusal(path, QStringLiteral("is neither a file nor a folder nor a link"));
            }
            ++content.files;
        });
    return content;
}
