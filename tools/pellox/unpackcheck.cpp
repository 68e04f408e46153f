// SPDX-License-Identifier: MIT
#include "unpackcheck.h"

#include "console.h"
#include "folders.h"
#include "interrupt.h"
#include "listing.h"
#include "sevenzip.h"
#include "stagefolder.h"

#include <QDir>
#include <QMap>

#include <algorithm>
#include <optional>
#include <utility>

namespace {

namespace fs = std::filesystem;

void refuseName(const QString &path, const QString &firstVolume)
{
    const QString clean = QDir::cleanPath(path);
    if (clean.startsWith(QLatin1Char('/')) || clean == QLatin1String("..")
        || clean.startsWith(QLatin1String("../"))) {
        throw Refusal(firstVolume,
            QStringLiteral("holds %1, which lies outside of what is unpacked").arg(path));
    }
    if (clean != path || clean == QLatin1String("."))
        throw Refusal(firstVolume, QStringLiteral("holds %1, a name that 7-Zip alters").arg(path));
    if (readsAsVerdict(path)) {
        throw Refusal(firstVolume,
            QStringLiteral("holds %1, a name that reads like 7-Zip's own messages").arg(path));
    }
}

/// A folder in the way may be one that the archive has too. Where the list does not tell a folder
/// from an empty file, the work folder will.
void refuseTaken(const ArchivedEntry &entry, const QString &folder)
{
    const QString target = pathIn(folder, entry.path);
    requireOwnFolders(folder, target);
    const bool mayBeFolder = entry.isFolder || (entry.size == 0 && !entry.hasAttributes);
    if (isThere(target) && !(mayBeFolder && isRealFolder(target)))
        throw Refusal(target, QStringLiteral("exists; unpack into a new folder"));
}

/// Why a link in folder @p depth below what is unpacked must not be there, if it must not. A ".."
/// behind a name cannot be judged by the text: the name may be another link.
std::optional<QString> faultOfLink(const fs::path &target, int depth)
{
    if (target.is_absolute())
        return QStringLiteral("is a link with an absolute target, which 7-Zip alters");
    const auto firstName = std::find_if(
        target.begin(), target.end(), [](const fs::path &part) { return part != ".."; });
    if (std::distance(target.begin(), firstName) > depth
        || std::find(firstName, target.end(), "..") != target.end())
        return QStringLiteral("is a link that leads out of what is unpacked");
    return {};
}

/// What stands on the disk in place of an entry that is no folder.
struct Arrived
{
    bool isLink;
    qint64 size;                  ///< of a link the length of its target, as in the list
    std::optional<QString> fault; ///< of a link
};

Arrived arrived(const fs::directory_entry &found, const QString &path)
{
    if (!found.is_symlink())
        return {false, static_cast<qint64>(found.file_size()), {}};
    const fs::path target = fs::read_symlink(found.path());
    return {true, static_cast<qint64>(target.native().size()),
        faultOfLink(target, static_cast<int>(path.count(QLatin1Char('/'))))};
}

class Comparison
{
public:
    Comparison(Console &console, const std::vector<ArchivedEntry> &entries, QString folder)
        : m_console(console)
        , m_folder(std::move(folder))
    {
        for (const ArchivedEntry &entry : entries)
            m_missing.insert(entry.path, entry); // of two with one path the later one is unpacked
    }

    /// A folder above another entry need not be listed.
    void takeFolder(const QString &path)
    {
        const auto entry = m_missing.find(path);
        if (entry != m_missing.end() && entry->size == 0)
            m_missing.erase(entry);
    }

    void take(const Arrived &file, const QString &path)
    {
        ++m_content.files;
        m_content.size += file.size;
        const auto entry = m_missing.find(path);
        if (file.fault)
            error(path, *file.fault);
        else if (entry == m_missing.end())
            error(path, QStringLiteral("is not in the archive's list: 7-Zip altered its name"));
        const bool isWhole = entry != m_missing.end() && !entry->isFolder
            && file.isLink == entry->isLink && file.size == entry->size;
        if (file.fault || isWhole)
            m_missing.remove(path);
    }

    UnpackedContent finish()
    {
        for (const ArchivedEntry &entry : std::as_const(m_missing))
            error(entry.path, QStringLiteral("was not unpacked in full"));
        return m_content;
    }

private:
    void error(const QString &path, const QString &text)
    {
        const QString place = pathIn(m_folder, path);
        m_console.error(place, place + QLatin1String(": ") + text);
    }

    Console &m_console;
    const QString m_folder;
    QMap<QString, ArchivedEntry> m_missing; // in the order of the errors
    UnpackedContent m_content;
};

} // namespace

void refuseEntry(const ArchivedEntry &entry, const QString &firstVolume, const QString &folder)
{
    if (entry.isEncrypted)
        throw Refusal(firstVolume, QStringLiteral("has a password, and none can be given"));
    refuseName(entry.path, firstVolume);
    refuseTaken(entry, folder);
}

UnpackedContent checkUnpacked(Console &console, const std::vector<ArchivedEntry> &entries,
    const QString &workFolder, const QString &folder)
{
    Comparison comparison(console, entries, folder);
    visitEntries(workFolder, Hidden::Visited,
        [&](const fs::directory_entry &found, const QString &foundPath) {
            Interrupt::throwIfStopped();
            const QString path = foundPath.mid(workFolder.size() + 1);
            if (found.is_directory() && !found.is_symlink())
                comparison.takeFolder(path);
            else
                comparison.take(arrived(found, path), path);
        });
    return comparison.finish();
}
