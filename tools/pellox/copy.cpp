// SPDX-License-Identifier: MIT
#include "commands.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"

#include <Pellox/BinariesController>
#include <Pellox/FileCopier>

#include <CLI/Validators.hpp>

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>

#include <memory>

namespace {

using Pellox::FileCopier;

struct Arguments
{
    std::string source;
    std::string destination;
    quint64 blockSize = 10ULL * 1024 * 1024;
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
    copier.setBlockSize(static_cast<qint64>(arguments.blockSize));
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

bool copyFolder(Console &console, const QString &source, const QString &target)
{
    requireApart(target, source);
    const QStringList files = filesOfBuild(source);
    // The library copies without a word; the comparison afterwards can tell how far it is.
    console.note(QStringLiteral("copying %1 (%2)")
                     .arg(fileCount(files.size()), byteCount(totalSize(files))));
    Pellox::BinariesController controller;
    controller.copyBinaries(source, target);

    console.startProgress(QStringLiteral("compare"), Progress::Unit::Files, files.size());
    for (int i = 0; i < files.size(); ++i) {
        const QString &file = files.at(i);
        if (!haveSameContent(file, target + file.mid(source.size())))
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
    command
        ->add_option("--block-size", arguments->blockSize,
            "How much of a file to copy at a time, with K, M or G. 10M where not given")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::PositiveNumber)
        ->type_name("SIZE");
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
