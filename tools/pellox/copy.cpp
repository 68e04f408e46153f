// SPDX-License-Identifier: MIT
#include "buildcheck.h"
#include "commands.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "sizeoption.h"

#include <Pellox/BinariesController>
#include <Pellox/FileCopier>

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <memory>

namespace {

using Pellox::FileCopier;

struct Arguments
{
    std::string source;
    std::string destination;
    qint64 blockSize = 10LL * 1024 * 1024;
    bool keepPartial = false;
};

QString reasonOf(FileCopier::CopyError error)
{
    switch (error) {
    case FileCopier::NoError:
        break;
    case FileCopier::OpenSourceFileForReadError:
        return QStringLiteral("cannot be read");
    case FileCopier::OpenDestinationFileForWriteError:
        return QStringLiteral("cannot be created");
    case FileCopier::WriteError:
        return QStringLiteral("cannot be written (is the disk full?)");
    case FileCopier::DestinationFileExistsError:
        return QStringLiteral("exists already");
    default:
        return QStringLiteral("cannot be copied (error %1)").arg(error);
    }
    return {};
}

bool copyFile(
    Console &console, const QString &source, const QString &target, const Arguments &arguments)
{
    FileCopier copier(source, target);
    copier.setBlockSize(arguments.blockSize);
    FileCopier::CopyError outcome = FileCopier::NoError;
    QEventLoop loop;
    QObject::connect(&copier, &FileCopier::progress,
        [&](qint64, qint64 copied, float) { console.advanceTo(copied); });
    QObject::connect(&copier, &FileCopier::finished, &loop, [&](FileCopier::CopyError error) {
        outcome = error;
        loop.quit();
    });
    const Interrupt::Watch watch([&] {
        if (arguments.keepPartial)
            copier.stopWithoutRemove();
        else
            copier.stop();
    });

    console.startProgress(QStringLiteral("copy"), Progress::Unit::Bytes, QFileInfo(source).size());
    copier.copyAsync();
    loop.exec();
    console.stopProgress();

    if (outcome == FileCopier::StoppedManuallyError)
        throw Interrupt::Stopped();
    if (outcome != FileCopier::NoError) {
        const bool isSourcesFault = outcome == FileCopier::OpenSourceFileForReadError;
        console.error(isSourcesFault ? source : target, reasonOf(outcome));
        return false;
    }
    console.result(
        QStringLiteral("Copied %1: %2").arg(byteCount(QFileInfo(target).size()), target));
    return true;
}

bool haveSameContent(const QString &path, const QString &otherPath)
{
    constexpr qint64 ReadSize = 1 << 20;
    QFile file(path);
    QFile other(otherPath);
    if (!file.open(QIODevice::ReadOnly) || !other.open(QIODevice::ReadOnly)
        || file.size() != other.size())
        return false;
    while (!file.atEnd()) {
        const QByteArray part = file.read(ReadSize);
        if (part.isEmpty() || part != other.read(ReadSize))
            return false;
    }
    return true;
}

/// A copy replaces what stands in its place, which must not be the source by way of a link.
void requireOutsideSource(const QStringList &copies, const QString &source)
{
    QSet<QString> checked;
    for (const QString &copy : copies) {
        const QString folder = QFileInfo(copy).path();
        if (!checked.contains(folder))
            requireOutside(folder, source);
        checked.insert(folder);
    }
}

QStringList copiesOf(const QStringList &files, const QString &source, const QString &target)
{
    QStringList copies;
    for (const QString &file : files)
        copies.append(target + file.mid(source.size()));
    return copies;
}

bool copyFolder(Console &console, const QString &source, const QString &target)
{
    requireApart(target, source);
    requireListable(source);
    const QStringList files = filesOfBuild(source);
    const QStringList copies = copiesOf(files, source, target);
    requireOutsideSource(copies, source);
    if (!QDir().mkpath(target)) // an empty build leaves an empty folder
        throw Refusal(target, QStringLiteral("cannot be created"));
    // The library copies without a word; the comparison afterwards can tell how far it is.
    console.note(QStringLiteral("copying %1 (%2)")
                     .arg(fileCount(files.size()), byteCount(totalSize(files))));
    Pellox::BinariesController controller;
    controller.copyBinaries(source, target);

    console.startProgress(QStringLiteral("compare"), Progress::Unit::Files, files.size());
    for (int i = 0; i < files.size(); ++i) {
        const QString &file = files.at(i);
        if (!haveSameContent(file, copies.at(i)))
            console.error(file, QStringLiteral("did not arrive in ") + target);
        console.advanceTo(i + 1);
    }
    console.stopProgress();
    if (console.errorCount() > 0)
        return false;
    console.result(QStringLiteral("Copied %1 (%2): %3")
                       .arg(fileCount(files.size()), byteCount(totalSize(files)), target));
    return true;
}

bool copy(Console &console, const Arguments &arguments)
{
    const QString source = absoluteFile(arguments.source);
    QString target = absoluteFile(arguments.destination);
    const QFileInfo info(source);
    if (!info.exists())
        throw Refusal(source, QStringLiteral("there is no such file or folder"));
    if (info.isDir())
        return copyFolder(console, source, folderToFill(arguments.destination));
    if (!info.isFile())
        throw Refusal(source, QStringLiteral("is neither a file nor a folder"));
    if (QFileInfo(target).isDir())
        target += QLatin1Char('/') + info.fileName();
    if (QFileInfo::exists(target))
        throw Refusal(target, QStringLiteral("exists already; nothing is overwritten"));
    return copyFile(console, source, target, arguments);
}

} // namespace

void addCopyCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "copy", "Copy a large file, or a build");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("SOURCE", arguments->source, "A file, or the folder of a build")
        ->type_name("PATH")
        ->required();
    command
        ->add_option("DESTINATION", arguments->destination,
            "The copy, or for a file the folder to put it in")
        ->type_name("PATH")
        ->required();
    addSizeOption(*command, "--block-size", arguments->blockSize,
        "How much of a file to copy at a time, with K, M or G. 10M where not given");
    command->add_flag("--keep-partial", arguments->keepPartial,
        "Keep what there is of the file when Ctrl-C stops the copy");
    command->footer("A file never replaces one that exists. Files of a folder do; hidden ones and\n"
                    "empty folders, which are no part of a build, are left out, and every copy is\n"
                    "compared with its source.\n\n"
                    "Example:\n  pellox copy downloads/data.pak installed/game/data.pak");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return copy(console, *arguments); };
    });
}
