// SPDX-License-Identifier: MIT
#include "commands.h"
#include "engine.h"
#include "folders.h"
#include "interrupt.h"
#include "keyfiles.h"
#include "manifests.h"
#include "sealview.h"

#include <Pellox/PatchSeal>
#include <Pellox/rules.h>

#include <QJsonObject>

#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace {

constexpr qint64 LargestRelease = (1LL << 53) - 1;

struct Arguments
{
    std::string patch;
    std::string oldSignatures;
    qint64 release = 0;
    std::vector<std::string> keys;
    std::optional<std::string> slim;
    int threads = 0;
};

/// All checked.
struct Job
{
    QString patch;
    QString oldSignatures;
    QStringList keys;
    QStringList files; ///< of the patch
    qint64 size = 0;   ///< theirs
    QString slim;      ///< the folder of the slim patch; empty where none is wanted
};

void checkSlim(const Arguments &arguments, Job &job)
{
    if (!arguments.slim)
        return;
    job.slim = folderToFill(*arguments.slim);
    requireApart(job.slim, job.patch);
    requireApart(job.slim, job.oldSignatures);
    for (const QString &key : std::as_const(job.keys))
        requireOutside(key, job.slim);
    requireReplaceable(job.slim, Pellox::PATCH_RULES_FILE);
}

Job checkedJob(const Arguments &arguments)
{
    Job job;
    job.patch = existingFolder(arguments.patch);
    job.oldSignatures = existingFolder(arguments.oldSignatures);
    requireApart(job.oldSignatures, job.patch);
    job.keys = existingKeys(arguments.keys);
    for (const QString &key : std::as_const(job.keys))
        requireOutside(key, job.patch);
    readManifest(job.patch, Pellox::PATCH_RULES_FILE);
    readManifest(job.oldSignatures, Pellox::SIGNATURES_FILE);
    requirePrivateKeys(job.keys);
    requireWritable(job.patch);
    checkSlim(arguments, job);
    job.files = filesOfBuild(job.patch);
    job.files.removeAll(pathIn(job.patch, SealFile));
    job.size = totalSize(job.files);
    return job;
}

/// Shows @p call, of work on @p size bytes, as @p stage. False after Console::error().
bool run(Console &console, Pellox::PatchSeal &sealer, const char *stage, qint64 size,
    const std::function<bool(const PROGRESS_CALLBACK &)> &call)
{
    bool isUnderWay = false;
    const auto progress = [&](double percent) {
        if (Interrupt::isStopped())
            sealer.cancel();
        // Not before, so that what is refused earlier shows none.
        if (!isUnderWay)
            console.startProgress(QString::fromLatin1(stage), Progress::Unit::EstimatedBytes, size);
        isUnderWay = true;
        console.advanceTo(static_cast<qint64>(percent / 100 * static_cast<double>(size)));
    };
    const bool isDone = call(progress);
    console.stopProgress();
    if (!isDone && sealer.wasCancelled())
        throw Interrupt::Stopped();
    if (!isDone)
        console.error(culpritOf(sealer.error()), sealer.error());
    return isDone;
}

/// Once it is sealed.
bool writeSlim(Console &console, Pellox::PatchSeal &sealer, const Job &job)
{
    const auto seal = SealView::read(job.patch);
    if (!seal) // somebody has taken it away
        throw Refusal(pathIn(job.patch, SealFile), QStringLiteral("is missing"));
    const qint64 saved = seal->movedSize();
    const qint64 size = seal->size() - saved;
    const bool isWritten
        = run(console, sealer, "slim", size, [&](const PROGRESS_CALLBACK &progress) {
              return sealer.writeSlim(job.patch, job.slim, progress);
          });
    if (!isWritten)
        return false;
    console.event(QStringLiteral("slim"),
        {{QStringLiteral("folder"), job.slim},
            {QStringLiteral("files"), seal->files() - seal->movedFiles()},
            {QStringLiteral("bytes"), size}, {QStringLiteral("left_out"), seal->movedFiles()},
            {QStringLiteral("saved_bytes"), saved}});
    console.result(QStringLiteral("Slim patch, %1 (%2), %3 left out that players have, which saves "
                                  "%4: %5")
                       .arg(fileCount(seal->files() - seal->movedFiles()), byteCount(size),
                           fileCount(seal->movedFiles()), byteCount(saved), job.slim));
    return true;
}

bool seal(Console &console, const Arguments &arguments)
{
    const Job job = checkedJob(arguments);
    Pellox::PatchSeal sealer;
    sealer.setThreadCount(arguments.threads);
    // Sealing blocks the event loop, in which the watch would call: its progress asks instead.
    const Interrupt::Watch watch([] {});
    const bool isSealed = run(
        console, sealer, "seal", job.size, [&](const PROGRESS_CALLBACK &progress) {
            return sealer.seal(job.patch, job.oldSignatures, arguments.release, job.keys, progress);
        });
    if (!isSealed)
        return false;
    console.event(QStringLiteral("seal"),
        {{QStringLiteral("file"), pathIn(job.patch, SealFile)},
            {QStringLiteral("release"), arguments.release},
            {QStringLiteral("keys"), job.keys.size()}, {QStringLiteral("files"), job.files.size()},
            {QStringLiteral("bytes"), job.size}});
    console.result(QStringLiteral("Sealed release %1, %2 (%3), with %4: %5")
                       .arg(QString::number(arguments.release), fileCount(job.files.size()),
                           byteCount(job.size), counted(job.keys.size(), "key"), job.patch));
    return job.slim.isEmpty() || writeSlim(console, sealer, job);
}

void addOptions(CLI::App &command, Arguments &arguments)
{
    command
        .add_option("--signatures", arguments.oldSignatures,
            "The signatures of the build that the patch leads on from, as \"pellox publish\" or "
            "\"pellox sign\" wrote them")
        ->type_name("FOLDER")
        ->required();
    command
        .add_option("--release", arguments.release,
            "The number of the release that the patch leads to, from 1 on; each release has a "
            "greater one than those before")
        ->type_name("N")
        ->check(CLI::Range(qint64(1), LargestRelease))
        ->required();
    addKeysOption(command, "--key", arguments.keys,
        "A private key, of \"pellox keygen\" or \"openssl genpkey -algorithm ed25519\"; players "
        "need to trust one of those given")
        ->required();
    command
        .add_option("--slim", arguments.slim,
            "Also write the patch without the new files that players have under other names into "
            "this folder, for clients that trust a key; all others need PATCH itself")
        ->type_name("FOLDER");
    addThreadsOption(command, arguments.threads);
}

} // namespace

void addSealCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(
        app, invocation, "seal", "Seal a patch, so that players can tell it from any other");
    const auto arguments = std::make_shared<Arguments>();
    command
        ->add_option("PATCH", arguments->patch,
            "What \"pellox publish\" or \"pellox diff\" wrote; gets a patchSeal.json")
        ->type_name("FOLDER")
        ->required();
    addOptions(*command, *arguments);
    command->footer(
        "An earlier seal is replaced in one step. Seal before you pack, and change nothing\n"
        "afterwards.\n\n"
        + exitStatusHelp()
        + "\nExample:\n  pellox seal patches/1.0-1.1 --signatures signatures/1.0 --release 2 "
          "--key publisher.key");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return seal(console, *arguments); };
    });
}
