// SPDX-License-Identifier: MIT
#include "buildcheck.h"
#include "commands.h"
#include "engine.h"
#include "folders.h"
#include "manifests.h"
#include "newbuild.h"
#include "summaries.h"

#include <Pellox/rules.h>
#include <Pellox/SignaturesController>

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>

#include <memory>

using Pellox::PublishController;

namespace {

struct Arguments
{
    std::string build;
    std::string signatures;
    bool fast = false;
    bool allowEmpty = false;
    int threads = 0;
};

/// The library records a file that it could not sign like any other: look at what came out.
void reportUnsigned(Console &console, const QString &build, const QString &signatures)
{
    const QJsonArray records
        = readWrittenManifest(console, signatures, Pellox::SIGNATURES_FILE).value_or(QJsonArray());
    for (const QJsonValue &record : records) {
        const QString relativePath = relativePathOf(record);
        const QString file = build + relativePath;
        const QFileInfo signature(signatures + relativePath);
        if (record.toObject().value(QLatin1String("sha512")).toString().isEmpty())
            console.error(file, QStringLiteral("cannot be read"));
        else if (!signature.isFile()
            || signature.size() != PublishController::signatureSize(QFileInfo(file).size()))
            console.error(file,
                QStringLiteral("has no whole signature: cannot write ") + signature.filePath());
    }
}

/**
 * Takes away what an earlier run has left: where a new signature cannot be written, the old one
 * must not pass for it, and without its manifest an interrupted run cannot pass for a whole one.
 */
void removeEarlier(const QString &build, const QString &signatures, const QStringList &files)
{
    QFile::remove(signatures + QLatin1Char('/') + Pellox::SIGNATURES_FILE);
    for (const QString &file : files)
        QFile::remove(signatures + file.mid(build.size()));
}

bool signOneByOne(Console &console, const QString &build, const QStringList &files, qint64 size,
    const QString &signatures)
{
    removeEarlier(build, signatures, files);
    Pellox::SignaturesController controller;
    QObject::connect(&controller, &Pellox::SignaturesController::createSignError,
        [&](const QString &text) { console.error(signatures, text); });

    console.startProgress(QStringLiteral("sign"), Progress::Unit::EstimatedBytes, size);
    controller.createSignatures(
        build, signatures, [&](double percent) { console.advanceTo(shareOf(size, percent)); });
    if (console.errorCount() == 0)
        console.advanceTo(size);
    console.stopProgress();

    if (console.errorCount() == 0)
        reportUnsigned(console, build, signatures);
    return console.errorCount() == 0;
}

bool sign(Console &console, const Arguments &arguments)
{
    const QString build = existingFolder(arguments.build);
    const QString signatures = folderToFill(arguments.signatures);
    requireApart(signatures, build);
    if (arguments.fast)
        requireReplaceable(signatures, Pellox::SIGNATURES_FILE);
    requireListable(build);
    refuseManifestName(build, Pellox::SIGNATURES_FILE, {});

    const QStringList files = filesOfBuild(build);
    if (!arguments.allowEmpty)
        refuseEmpty(build, files);
    noteUnportableNames(console, build, files);
    const qint64 size = totalSize(files);
    const bool made = arguments.fast
        ? Engine(console, arguments.threads).sign(build, size, signatures)
        : signOneByOne(console, build, files, size, signatures);
    if (made)
        console.result(signedSummary(files.size(), size, signatures));
    return made;
}

} // namespace

void addSignCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "sign",
        "Describe the build that players have, so that patches can be made against it");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("BUILD", arguments->build, "The build that players have")
        ->type_name("FOLDER")
        ->required();
    command
        ->add_option("SIGNATURES", arguments->signatures,
            "The folder to write: one signature for each file, and signatures.json")
        ->type_name("FOLDER")
        ->required();
    addFastOptions(*command, arguments->fast, arguments->threads);
    addAllowEmptyOption(*command, arguments->allowEmpty);
    command->footer(
        "Files of the same name in SIGNATURES are replaced, others stay; with --fast the\n"
        "folder is replaced as a whole, and refused when it holds more than a release.\n"
        "Hidden files are no part of a build.\n\n"
        + exitStatusHelp() + "\nExample:\n  pellox sign releases/1.0 signatures/1.0");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return sign(console, *arguments); };
    });
}
