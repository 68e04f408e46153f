// SPDX-License-Identifier: MIT
#include "packing.h"

#include "console.h"
#include "diskroom.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "renames.h"
#include "sealview.h"
#include "sevenzip.h"

#include <Pellox/ArchiveController>

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStorageInfo>

#include <filesystem>
#include <memory>
#include <numeric>
#include <system_error>
#include <utility>

namespace {

const QString ArchiveName = QStringLiteral("archive.7z");
constexpr qint64 SmallestArchive = 32; // its head alone

qint64 roomIn(const QString &folder)
{
    return QStorageInfo(folder).bytesAvailable();
}

bool tellsOfFullDisk(const QString &problem)
{
    return problem.contains(QLatin1String("errno=28 "))
        || problem.contains(QLatin1String("No space left on device"), Qt::CaseInsensitive);
}

/// In few words; what else 7-Zip has said would fill the screen.
QString reasonIn(const QString &problem)
{
    static const QRegularExpression Number(QStringLiteral("errno=\\d+ : "));
    const QString error = errorIn(problem).remove(Number).simplified().replace(
        QLatin1String(" : "), QLatin1String(": "));
    return error.isEmpty() ? problem.section(QLatin1Char('\n'), 0, 0)
                           : QLatin1String("7-Zip: ") + error;
}

} // namespace

Packing::Packing(const QString &folder, const QString &archive, PackOptions options)
    : m_folder(folder)
    , m_target(archive)
    , m_options(options)
{
    requireSevenZip();
    refuseWildcards(folder);
    requireOutside(m_target.name(), folder);
    requireFree();
    requireWritable(QFileInfo(m_target.name()).path());
}

void Packing::requireFree() const
{
    for (const QString &path : m_target.pathsToReplace()) {
        if (QFileInfo(path).isDir())
            throw Refusal(path, QStringLiteral("is a folder"));
        if (!m_options.force) {
            throw Refusal(path,
                m_options.offersForce ? QStringLiteral("exists; --force replaces it")
                                      : QStringLiteral("exists"));
        }
    }
}

PackedContent Packing::content() const
{
    if (const auto seal = SealView::read(m_folder))
        return requirePackablePatch(m_folder, *seal);
    PackedContent content = requirePackable(m_folder);
    if (QDir(m_folder).isEmpty(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot))
        throw Refusal(m_folder, QStringLiteral("is empty: there is nothing to pack"));
    return content;
}

void Packing::begin()
{
    const QString targetFolder = QFileInfo(m_target.name()).path();
    m_newFolders.expect(targetFolder);
    makeFolder(targetFolder);
    requireRoom(SmallestArchive, targetFolder);
    m_workFolder.emplace(targetFolder + QLatin1String("/.pellox-XXXXXX"));
    if (!m_workFolder->isValid())
        throw Refusal(
            targetFolder, QLatin1String("cannot be written to: ") + m_workFolder->errorString());
}

bool Packing::run(Console &console, const PackedContent &content)
{
    noteScarceRoom(console, content);
    for (const QString &path : content.leftOut)
        console.note(path + QLatin1String(" is hidden and no part of the patch: it is left out"));
    const QString source = content.leftOut.isEmpty() ? m_folder : withoutHidden();
    if (!runSevenZip(console, source, content))
        return false;
    const Volumes made(m_workFolder->filePath(ArchiveName));
    reportShortVolumes(console, made.paths());
    reportMissingFiles(console, content, made);
    Interrupt::throwIfStopped();
    const qint64 archiveSize = made.size();
    if (console.errorCount() > 0 || !putInPlace(console, made))
        return false;
    endWork(); // what was replaced is gone by the time that success is told
    console.result(
        QStringLiteral("Packed %1 (%2) into %3 (%4): %5")
            .arg(fileCount(content.files), byteCount(content.size),
                counted(made.paths().size(), "volume"), byteCount(archiveSize), m_target.path(1)));
    return true;
}

/// How large the archive will be nobody knows.
void Packing::noteScarceRoom(Console &console, const PackedContent &content) const
{
    const qint64 room = roomIn(m_workFolder->path());
    if (room < 0 || room >= content.size) // below 0: nobody knows
        return;
    console.note(QStringLiteral("%1: the disk has only %2 free, and %3 are packed: there may be no "
                                "room for the archive")
                     .arg(m_target.name(), byteCount(room), byteCount(content.size)));
}

void Packing::endWork()
{
    m_workFolder.reset();
}

/// A folder with what the seal lists, and the seal: 7-Zip packs whatever it finds.
QString Packing::withoutHidden() const
{
    namespace fs = std::filesystem;
    QString folder = m_workFolder->filePath(QStringLiteral("sealed"));
    QStringList paths = SealView::read(m_folder)->paths();
    paths.append(QLatin1Char('/') + SealFile);
    for (const QString &path : std::as_const(paths)) {
        const fs::path from = QFile::encodeName(m_folder + path).toStdString();
        const fs::path to = QFile::encodeName(folder + path).toStdString();
        std::error_code problem;
        fs::create_directories(to.parent_path(), problem);
        fs::create_hard_link(from, to, problem);
        if (problem) // on another disk, or on one that knows no second names
            fs::copy_file(from, to, problem);
        if (problem)
            throw Refusal(m_folder + path,
                QLatin1String("cannot be copied to be packed: ")
                    + QString::fromLocal8Bit(problem.message().c_str()));
    }
    return folder;
}

bool Packing::runSevenZip(Console &console, const QString &source, const PackedContent &content)
{
    const qint64 size = content.size;
    QString problem;
    auto controller = std::make_unique<Pellox::ArchiveController>();
    controller->setSilentEndIsError(true);
    controller->setChunkSize(m_options.volumeSize);
    QObject::connect(controller.get(), &Pellox::ArchiveController::createArchiveError,
        [&](const QStringList &errors) { problem = errors.last(); });

    console.startProgress(QStringLiteral("pack"), Progress::Unit::EstimatedBytes, size);
    const bool packed
        = controller->createArchive(m_workFolder->path(), ArchiveName, source, [&](double percent) {
              if (percent < 100) // the last report comes whatever the outcome
                  console.advanceTo(static_cast<qint64>(percent / 100 * static_cast<double>(size)));
          });
    if (packed)
        console.advanceTo(size);
    console.stopProgress();
    controller.reset(); // ends a 7-Zip that still runs
    if (packed)
        return true;
    if (Interrupt::isStopped())
        tellRemoval(console);
    Interrupt::throwIfStoppedLately();
    reportFailure(console, problem, content);
    return false;
}

/// Of what takes a while, lest somebody stops that too.
void Packing::tellRemoval(Console &console) const
{
    constexpr int ManyFiles = 100;
    constexpr qint64 ManyBytes = 1LL << 30;
    const QFileInfoList made = QDir(m_workFolder->path()).entryInfoList(QDir::Files);
    const qint64 size = std::accumulate(made.cbegin(), made.cend(), qint64(0),
        [](qint64 sum, const QFileInfo &file) { return sum + file.size(); });
    if (made.size() >= ManyFiles || size >= ManyBytes)
        console.note(QStringLiteral("removing what was half made (%1, %2)")
                         .arg(fileCount(made.size()), byteCount(size)));
}

void Packing::reportFailure(Console &console, const QString &problem, const PackedContent &content)
{
    if (!tellsOfFullDisk(problem)) {
        console.error(
            m_target.name(), QStringLiteral("cannot be made (%1)").arg(reasonIn(problem)));
        return;
    }
    endWork(); // what was made does not count
    console.error(m_target.name(),
        QStringLiteral("has no room, the disk is full: %1 were to be packed, %2 are free")
            .arg(byteCount(content.size),
                byteCount(roomIn(existingAncestor(QFileInfo(m_target.name()).path())))));
}

/// Each volume but the last must be full, or one of them was not written to its end.
void Packing::reportShortVolumes(Console &console, const QStringList &volumes) const
{
    // Whole GiB above one: the library rounds down.
    constexpr qint64 GiB = 1LL << 30;
    const qint64 fullSize
        = m_options.volumeSize > GiB ? m_options.volumeSize / GiB * GiB : m_options.volumeSize;
    for (int number = 1; number < volumes.size(); ++number) {
        if (QFileInfo(volumes.at(number - 1)).size() != fullSize)
            console.error(m_target.path(number), QStringLiteral("is not a whole volume"));
    }
}

void Packing::reportMissingFiles(
    Console &console, const PackedContent &content, const Volumes &made) const
{
    try {
        made.requireComplete();
        const int archived = countFiles(entriesOfArchive(made.paths().first()));
        if (archived != content.files) {
            console.error(m_target.name(),
                QStringLiteral("would hold %1, not the %2 of the folder")
                    .arg(fileCount(archived), fileCount(content.files)));
        }
    } catch (const Refusal &problem) {
        QString path = problem.path();
        console.error(path.replace(made.name(), m_target.name()), problem.reason());
    }
}

/// Puts the volumes in place of those that are there, if they may be replaced: all or none.
bool Packing::putInPlace(Console &console, const Volumes &made)
{
    Renames renames(*m_workFolder, console);
    if (m_options.force) {
        for (const QString &path : Volumes(m_target.name()).pathsToReplace()) {
            const QString away
                = m_workFolder->path() + QLatin1String("/replaced-") + QFileInfo(path).fileName();
            if (!renames.rename(path, away)) {
                console.error(path, QStringLiteral("cannot be replaced"));
                return false;
            }
        }
    }
    const int count = static_cast<int>(made.paths().size());
    for (int number = 1; number <= count; ++number) {
        const QString path = m_target.path(number);
        if (!renames.rename(made.paths().at(number - 1), path)) {
            console.error(path, isThere(path) ? QStringLiteral("is in the way") : renames.reason());
            return false;
        }
    }
    const QString next = m_target.path(count + 1);
    if (isThere(next)) {
        console.error(next, QStringLiteral("is in the way: it would pass for one more volume"));
        return false;
    }
    renames.keep();
    return true;
}
