// SPDX-License-Identifier: MIT
#include "packcheck.h"

#include "folders.h"
#include "interrupt.h"
#include "sealview.h"
#include "sevenzip.h"

#include <QFile>

#include <algorithm>
#include <string>
#include <system_error>

namespace {

namespace fs = std::filesystem;

/// Whether one of the parts of @p target, or all of it, is a link in @p folder or below.
bool meetsLink(const fs::path &target, const fs::path &folder)
{
    std::error_code ignored; // the target need not be there
    fs::path way = folder;
    return std::any_of(target.begin(), target.end(), [&](const fs::path &part) {
        way /= part;
        return fs::is_symlink(fs::symlink_status(way, ignored));
    });
}

void requireUnpackableTarget(const fs::path &target, const fs::path &folder, const QString &link)
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
    if (target.native().find("//") != std::string::npos)
        throw Refusal(
            link, QStringLiteral("is a link with \"//\" in its target, which 7-Zip alters"));
    if (meetsLink(target, folder)) {
        throw Refusal(link,
            QStringLiteral("is a link that 7-Zip does not unpack: its target is another link, or "
                           "leads through one; let it lead straight to the file or folder"));
    }
}

qint64 sizeOfLink(const fs::path &link, const QString &path)
{
    const fs::path target = fs::read_symlink(link);
    requireUnpackableTarget(target, link.parent_path(), path);
    return static_cast<qint64>(target.native().size());
}

/// 7-Zip packs what it can read and calls the rest a warning.
void requireReadable(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        throw Refusal(path, QStringLiteral("cannot be read (%1)").arg(file.errorString()));
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

PackedContent requirePackable(const QString &folder, Hidden hidden)
{
    PackedContent content;
    visitEntries(folder, hidden, [&](const fs::directory_entry &entry, const QString &path) {
        Interrupt::throwIfStopped();
        refuseNameForSevenZip(path, folder);
        if (entry.is_symlink()) {
            content.size += sizeOfLink(entry.path(), path);
        } else if (entry.is_directory()) {
            return;
        } else if (entry.is_regular_file()) {
            requireReadable(path);
            content.size += static_cast<qint64>(entry.file_size());
        } else {
            throw Refusal(path, QStringLiteral("is neither a file nor a folder nor a link"));
        }
        ++content.files;
    });
    return content;
}

PackedContent requirePackablePatch(const QString &patch, const SealView &seal)
{
    const SealView::Differences differences = seal.differences();
    if (!differences.isEmpty()) {
        const SealView::Difference &first = differences.first();
        throw Refusal(first.path,
            first.reason
                + QStringLiteral(": players would refuse the patch; remove it, or seal it again "
                                 "with \"pellox seal\""));
    }
    PackedContent content = requirePackable(patch, Hidden::LeftOut);
    visitEntries(
        patch, Hidden::Visited, [&](const fs::directory_entry &entry, const QString &path) {
            const QString above = path.mid(patch.size()).section(QLatin1Char('/'), 0, -2);
            const bool isHidden = entry.path().filename().string().front() == '.';
            if (isHidden && !above.contains(QLatin1String("/.")))
                content.leftOut.append(path);
        });
    content.leftOut.sort();
    return content;
}
