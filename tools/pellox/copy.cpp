// SPDX-License-Identifier: MIT
#include "commands.h"
#include "copyfolder.h"
#include "diskroom.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "sizeoption.h"

#include <Pellox/FileCopier>

#include <QCoreApplication>
#include <QEventLoop>
#include <QFileInfo>
#include <QTimer>

#include <memory>

namespace {

using Pellox::FileCopier;

constexpr int StopInterval = 50; // milliseconds

struct Arguments
{
    std::string source;
    std::string destination;
    qint64 blockSize = 10LL * 1024 * 1024;
    bool keepPartial = false;
    bool force = false;
};

/// @p size is that of the file.
QString reasonOf(FileCopier::CopyError error, qint64 size, const QString &target)
{
    switch (error) {
    case FileCopier::NoError:
        break;
    case FileCopier::OpenSourceFileForReadError:
        return QStringLiteral("cannot be read");
    case FileCopier::OpenDestinationFileForWriteError:
        return QLatin1String("cannot be created") + systemReason(target);
    case FileCopier::WriteError:
        return reasonNotWritten(size, target);
    case FileCopier::DestinationFileExistsError:
        return QStringLiteral("exists already");
    default:
        return QStringLiteral("cannot be copied (error %1)").arg(error);
    }
    return {};
}

void stop(FileCopier &copier, const Arguments &arguments)
{
    if (arguments.keepPartial)
        copier.stopWithoutRemove();
    else
        copier.stop();
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
    QTimer stopAgain; // a stop is forgotten that comes before the files are open
    QObject::connect(&stopAgain, &QTimer::timeout, [&] { stop(copier, arguments); });
    const Interrupt::Watch watch([&] {
        stop(copier, arguments);
        stopAgain.start(StopInterval);
    });

    const qint64 size = QFileInfo(source).size();
    console.startProgress(QStringLiteral("copy"), Progress::Unit::Bytes, size);
    copier.copyAsync();
    loop.exec();
    console.stopProgress();

    if (outcome == FileCopier::StoppedManuallyError)
        throw Interrupt::Stopped();
    if (outcome != FileCopier::NoError) {
        const bool isSourcesFault = outcome == FileCopier::OpenSourceFileForReadError;
        console.error(isSourcesFault ? source : target, reasonOf(outcome, size, target));
        return false;
    }
    console.result(
        QStringLiteral("Copied %1: %2").arg(byteCount(QFileInfo(target).size()), target));
    return true;
}

bool isWrittenAsFolder(const std::string &argument)
{
    const std::string lastPart = argument.substr(argument.rfind('/') + 1);
    return lastPart.empty() || lastPart == "." || lastPart == "..";
}

/// Where file @p name goes: into DESTINATION where that is a folder, or is written as one.
QString targetOfFile(const std::string &destination, const QString &name)
{
    const QString target = absoluteFile(destination);
    const bool isFolder = QFileInfo(target).isDir() || isWrittenAsFolder(destination);
    requireFolder(isFolder ? target : QFileInfo(target).path());
    return isFolder ? pathIn(target, name) : target;
}

bool copy(Console &console, const Arguments &arguments)
{
    const QString source = absoluteFile(arguments.source);
    const QFileInfo info(source);
    if (!info.exists())
        throw Refusal(source, QStringLiteral("there is no such file or folder"));
    if (info.isDir())
        return copyFolder(console,
            {source, folderToFill(arguments.destination), arguments.blockSize, arguments.force});
    if (!info.isFile())
        throw Refusal(source, QStringLiteral("is neither a file nor a folder"));
    const QString target = targetOfFile(arguments.destination, info.fileName());
    if (isThere(target))
        throw Refusal(target, QStringLiteral("exists already; nothing is overwritten"));
    requireRoom(info.size(), target);
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
            "The copy, or for a file the folder to put it in, which must be there")
        ->type_name("PATH")
        ->required();
    addSizeOption(*command, "--block-size", arguments->blockSize,
        "How much of a file to copy at a time: bytes, or with K, M, G, T, P or E. 10M where not "
        "given");
    command->add_flag("--keep-partial", arguments->keepPartial,
        "Keep what there is of the file when Ctrl-C stops the copy");
    command->add_flag(
        "--force", arguments->force, "Let the files of a build replace those that exist");
    command->footer(
        "A single file never replaces one that exists. Of a folder, hidden files and\n"
        "empty folders, which are no part of a build, are left out, and all copies are\n"
        "compared with their sources before any of them gets its place.\n\n"
        + exitStatusHelp()
        + "\nExample:\n  pellox copy downloads/data.pak installed/game/data.pak");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return copy(console, *arguments); };
    });
}
