// SPDX-License-Identifier: MIT
// Input: a byte that says which file is broken and how, then what is put there: a file of the
// patch, or one that an update has left in the build. After an update the build is the old one, or
// what the rules lead to, to the byte; nothing around it has changed.
#include "world.h"

#include <Pellox/updatecontroller.h>

#include <QCryptographicHash>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSemaphore>

#include <array>
#include <functional>
#include <optional>

using Pellox::UpdateController;
using Result = UpdateController::UpdateResult;

namespace {

// The first byte.
constexpr int WhichFile = 0x07;  ///< an index of PatchFiles, or one of the three behind them
constexpr int Overwrites = 0x08; ///< bytes of the good file
constexpr int IsTrusted = 0x10;  ///< only sealed patches are taken
constexpr int KeepsOld = 0x20;   ///< and the update is rolled back
constexpr int TwoThreads = 0x40;
constexpr int HasFallback = 0x80; ///< and the update is planned first

const std::array<QString, 5> PatchFiles{
    "patchRules.json"_s, "patchSeal.json"_s, "bin/game"_s, "data/a.pak"_s, "new/level"_s};
constexpr int JournalLine = 5; ///< of a commit that was interrupted
constexpr int ReleaseRecord = 6;
constexpr int PreviousLine = 7; ///< of the record of what is kept

std::optional<World> world;

void setUp(UpdateController &updater, int mode)
{
    updater.setSynced(false);
    updater.setThreadCount((mode & TwoThreads) != 0 ? 2 : 1);
    updater.setKeepPrevious((mode & KeepsOld) != 0);
    if ((mode & IsTrusted) != 0)
        updater.setTrustedKeys({world->trustedKey()});
    if ((mode & HasFallback) != 0)
        updater.setFallbackSource(world->fallback());
}

Result resultOf(int mode, const std::function<bool(UpdateController &)> &start)
{
    Result result = Result::Failed;
    QSemaphore done;
    UpdateController updater;
    setUp(updater, mode);
    int problems = 0;
    QObject::connect(
        &updater, &UpdateController::problemFound, &updater, [&] { ++problems; },
        Qt::DirectConnection);
    QObject::connect(
        &updater, &UpdateController::finished, &updater,
        [&](Result end) {
            result = end;
            done.release();
        },
        Qt::DirectConnection);
    require(start(updater), "a run begins");
    done.acquire();
    const bool isDone = result == Result::Updated || result == Result::AlreadyUpToDate;
    require(isDone == (problems == 0), "a run that does not end well says why");
    return result;
}

bool isRefusedByPlan(int mode)
{
    UpdateController updater;
    setUp(updater, mode);
    const auto plan = updater.plan(world->build(), world->patch());
    require(world->buildNow() == world->oldBuild(), "a plan touches nothing");
    return !plan.refusals.isEmpty();
}

Result update(int mode)
{
    return resultOf(mode,
        [](UpdateController &updater) { return updater.update(world->build(), world->patch()); });
}

Result recover(int mode)
{
    return resultOf(
        mode, [](UpdateController &updater) { return updater.recover(world->build()); });
}

Result rollBack(int mode)
{
    return resultOf(
        mode, [](UpdateController &updater) { return updater.rollback(world->build()); });
}

/// Without the folder where an update keeps its own files.
Snapshot playersView(Snapshot build)
{
    for (const QString &path : build.keys()) {
        if (path.startsWith(".pellox/"_s))
            build.remove(path);
    }
    return build;
}

QByteArray sha512(const QByteArray &content)
{
    return QCryptographicHash::hash(content, QCryptographicHash::Sha512).toHex();
}

/// The files of the old build, after the rules of @p patch. Those that are patched are taken from
/// @p found, and must be what their rule says.
Snapshot filesAfter(const Snapshot &found, const Snapshot &patch)
{
    const QByteArray manifest = patch.value(PatchFiles.front());
    Snapshot files = filesOf(world->oldBuild());
    Snapshot written;
    for (const QJsonValue &value : QJsonDocument::fromJson(manifest).array()) {
        const QString path = value["relative_path"_s].toString().mid(1);
        const QString rule = value["rule"_s].toString();
        files.remove(path);
        if (rule == "delete"_s)
            continue;
        written.insert(path, rule == "copy"_s ? patch.value(path) : found.value(path));
        if (rule == "patch"_s) {
            const QByteArray content = found.value(path);
            require(value["sha512"_s].toString() == QLatin1String(sha512(content))
                    && value["file_size"_s].toInt(-1) == content.size(),
                "a patched file is what its rule says");
        }
    }
    for (auto file = written.cbegin(); file != written.cend(); ++file)
        files.insert(file.key(), file.value());
    return files;
}

void checkBuild(int mode, Result result, const Snapshot &found, const Snapshot &patch)
{
    switch (result) {
    case Result::Updated:
    case Result::AlreadyUpToDate: {
        // What belongs to the update itself stays only where it was asked for.
        const bool hasOwn = (mode & (IsTrusted | KeepsOld)) != 0;
        const Snapshot seen = filesOf(hasOwn ? playersView(found) : found);
        require(seen == filesAfter(seen, patch), "the build is what the rules lead to");
        return;
    }
    case Result::Refused:
    case Result::Failed:
        require(found == world->oldBuild(), "a build that is not updated is as it was");
        return;
    case Result::Interrupted:
    case Result::Cancelled:
        reportBroken("an update that nobody disturbs comes to its end");
    }
}

Snapshot rolledBack(int mode)
{
    require(rollBack(mode) == Result::Updated, "what is kept can be brought back");
    const Snapshot found = world->buildNow();
    require(filesOf(playersView(found)) == filesOf(world->oldBuild()),
        "what is brought back is the build before");
    return found;
}

/// These return what the build has become.
Snapshot tryPatch(int mode, const QByteArray &edits)
{
    const QString name = PatchFiles.at(static_cast<std::size_t>(mode & WhichFile));
    const QByteArray good = world->patchFiles().value(name);
    const QByteArray content = edited(good, edits, (mode & Overwrites) != 0);
    Snapshot patch = world->patchFiles();
    patch.insert(name, content);
    world->writePatchFile(name, content);

    const bool isPlanned = (mode & HasFallback) != 0;
    const bool isRefused = isPlanned && isRefusedByPlan(mode);
    const Result result = update(mode);
    require(!isPlanned || isRefused == (result == Result::Refused), "the plan tells a refusal");
    Snapshot found = world->buildNow();
    checkBuild(mode, result, found, patch);
    if ((mode & IsTrusted) != 0 && content != good)
        require(result == Result::Refused || name == "patchSeal.json"_s,
            "a patch that differs from its seal is refused");
    if ((mode & IsTrusted) != 0 && result != Result::Refused)
        require(playersView(found) == world->newBuild(), "a sealed patch leads to its own build");
    if ((mode & KeepsOld) != 0 && result == Result::Updated)
        found = rolledBack(mode);
    world->checkSurroundings(patch);
    world->writePatchFile(name, good);
    return found;
}

QByteArray withChecksum(QByteArray line)
{
    line.replace('\n', ' ');
    line += '\n';
    return line + sha512(line) + '\n';
}

/// Something in the build's own folder that no update has left there.
Snapshot tryOwnFile(int mode, const QByteArray &content)
{
    const QString own = world->build() + "/.pellox"_s;
    QDir().mkpath(own + "/previous/bin"_s);
    switch (mode & WhichFile) {
    case JournalLine:
        writeFile(own + "/journal"_s, withChecksum(content));
        recover(mode);
        break;
    case ReleaseRecord:
        writeFile(own + "/release"_s, content);
        update(mode | IsTrusted);
        break;
    case PreviousLine:
        writeFile(own + "/previous/bin/game"_s, "kept");
        writeFile(own + "/previous.json"_s, withChecksum(content));
        rollBack(mode);
        break;
    }
    world->checkSurroundings(world->patchFiles());
    return world->buildNow();
}

} // namespace

void prepare()
{
    world.emplace();
    for (const int mode : {0, IsTrusted, KeepsOld, TwoThreads, HasFallback}) {
        world->layBuild();
        require(update(mode) == Result::Updated, "the good patch is taken");
        require(playersView(world->buildNow()) == world->newBuild(), "it leads to the new build");
        world->checkSurroundings(world->patchFiles());
    }
    world->layBuild();
    require(world->buildNow() == world->oldBuild(), "the old build can be laid");
}

void tryInput(const QByteArray &input)
{
    if (input.isEmpty())
        return;
    const int mode = static_cast<uchar>(input.at(0));
    const QByteArray rest = input.mid(1);
    const bool isOfPatch = (mode & WhichFile) < static_cast<int>(PatchFiles.size());
    if ((isOfPatch ? tryPatch(mode, rest) : tryOwnFile(mode, rest)) != world->oldBuild())
        world->layBuild();
}
