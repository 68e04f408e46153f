// SPDX-License-Identifier: MIT
#include "commands.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "newfolders.h"
#include "sevenzip.h"

#include <Pellox/ArchiveController>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>

#include <memory>
#include <vector>

namespace {

struct Arguments
{
    std::string archive;
    std::string folder;
};

/// What unpacking needs to know, all checked.
struct Job
{
    QString firstVolume;
    QString folder;
    std::vector<ArchivedEntry> entries;
    qint64 size;
};

QString pathIn(const QString &folder, const ArchivedEntry &entry)
{
    return folder + QLatin1Char('/') + entry.path;
}

void refuseEntry(const ArchivedEntry &entry, const QString &firstVolume, const QString &folder)
{
    if (entry.isEncrypted)
        throw Refusal(firstVolume, QStringLiteral("has a password, and none can be given"));
    const QString path = QDir::cleanPath(entry.path);
    if (QDir::isAbsolutePath(path) || path == QLatin1String("..")
        || path.startsWith(QLatin1String("../"))) {
        throw Refusal(firstVolume,
            QStringLiteral("holds %1, which lies outside of what is unpacked").arg(entry.path));
    }
    const QFileInfo target(pathIn(folder, entry));
    const bool isFree = entry.isFolder ? !target.exists() || target.isDir()
                                       : !target.exists() && !target.isSymLink();
    if (!isFree)
        throw Refusal(target.filePath(), QStringLiteral("exists; unpack into a new folder"));
}

void requireRoom(qint64 size, const QString &folder)
{
    const QStorageInfo disk(existingAncestor(folder));
    if (disk.isValid() && disk.bytesAvailable() < size) {
        throw Refusal(folder,
            QStringLiteral("has no room: %1 are needed, %2 are free")
                .arg(byteCount(size), byteCount(disk.bytesAvailable())));
    }
}

Job checkedJob(const Arguments &arguments)
{
    const QString archive = absoluteFile(arguments.archive);
    const QString folder = folderToFill(arguments.folder);
    refuseWildcards(archive);
    refuseWildcards(folder);
    requireSevenZip();
    const Volumes volumes(archive);
    volumes.requireComplete();
    Job job{volumes.paths().first(), folder, {}, 0};
    job.entries = entriesOfArchive(job.firstVolume);
    for (const ArchivedEntry &entry : job.entries) {
        refuseEntry(entry, job.firstVolume, folder);
        job.size += entry.size;
    }
    requireRoom(job.size, folder);
    return job;
}

/// Takes away what a run unpacked, folders that it made and left empty too, unless told to keep it.
class Unpacked
{
public:
    explicit Unpacked(const Job &job)
        : m_job(job)
    {
        m_newFolders.expect(job.folder);
        for (const ArchivedEntry &entry : job.entries) {
            const QString path = pathIn(job.folder, entry);
            m_newFolders.expect(entry.isFolder ? path : QFileInfo(path).path());
        }
    }
    ~Unpacked()
    {
        for (const ArchivedEntry &entry : m_job.entries) {
            if (!m_kept && !entry.isFolder)
                QFile::remove(pathIn(m_job.folder, entry));
        }
    }
    Unpacked(const Unpacked &) = delete;
    Unpacked &operator=(const Unpacked &) = delete;

    void keep()
    {
        m_kept = true;
        m_newFolders.keep();
    }

private:
    const Job &m_job;
    NewFolders m_newFolders; // goes after the files have
    bool m_kept = false;
};

/// The folder, where the message is about something in it.
QString culpritOf(const QString &problem, const Job &job)
{
    // The library tells errors in capitals.
    QString rest = problem;
    rest.remove(job.firstVolume, Qt::CaseInsensitive);
    return rest.contains(job.folder, Qt::CaseInsensitive) ? job.folder : job.firstVolume;
}

bool runSevenZip(Console &console, const Job &job)
{
    QString problem;
    Pellox::ArchiveController controller;
    controller.setSilentEndIsError(true);
    QObject::connect(&controller, &Pellox::ArchiveController::extractError,
        [&](const QStringList &errors) { problem = errors.last(); });

    console.startProgress(QStringLiteral("unpack"), Progress::Unit::EstimatedBytes, job.size);
    const bool unpacked
        = controller.extractArchive(job.firstVolume, job.folder, QString(), [&](double percent) {
              console.advanceTo(static_cast<qint64>(percent / 100 * static_cast<double>(job.size)));
          });
    if (unpacked)
        console.advanceTo(job.size);
    console.stopProgress();
    if (unpacked)
        return true;
    Interrupt::throwIfStoppedLately();
    console.error(culpritOf(problem, job), problem);
    return false;
}

bool hasArrived(const ArchivedEntry &entry, const QFileInfo &target)
{
    if (entry.isFolder)
        return target.isDir();
    return entry.isLink ? target.isSymLink() : target.isFile() && target.size() == entry.size;
}

/// 7-Zip's word is not enough: all of the list must be there in full.
void reportMissing(Console &console, const Job &job)
{
    for (const ArchivedEntry &entry : job.entries) {
        Interrupt::throwIfStopped();
        const QFileInfo target(pathIn(job.folder, entry));
        if (!hasArrived(entry, target))
            console.error(target.filePath(), QStringLiteral("was not unpacked in full"));
    }
}

bool unpack(Console &console, const Arguments &arguments)
{
    const Job job = checkedJob(arguments);
    const Interrupt::Watch watch([] { QCoreApplication::exit(); });
    Unpacked unpacked(job);
    if (!QDir().mkpath(job.folder))
        throw Refusal(job.folder, QStringLiteral("cannot be created"));
    if (!runSevenZip(console, job))
        return false;
    reportMissing(console, job);
    if (console.errorCount() > 0)
        return false;
    unpacked.keep();
    console.result(QStringLiteral("Unpacked %1 (%2): %3")
                       .arg(fileCount(countFiles(job.entries)), byteCount(job.size), job.folder));
    return true;
}

} // namespace

void addUnpackCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "unpack", "Unpack a 7z archive");
    const auto arguments = std::make_shared<Arguments>();
    command
        ->add_option("ARCHIVE", arguments->archive,
            "The archive: its first volume, or its name without the volume's number")
        ->type_name("FILE")
        ->required();
    command->add_option("FOLDER", arguments->folder, "The folder to fill")
        ->type_name("FOLDER")
        ->required();
    command->footer(
        "Nothing that exists is overwritten. A run that fails removes what it unpacked.\n\n"
        "Example:\n  pellox unpack download/1.0-1.1.7z.001 patches/1.0-1.1");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return unpack(console, *arguments); };
    });
}
