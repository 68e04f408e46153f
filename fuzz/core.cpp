// SPDX-License-Identifier: MIT
// Input: a byte that says which file of the patch is broken and how, then what is put there. The
// core trusts a patch's rules, so the manifest is always the good one; a broken delta must not
// reach an installed file.
#include "world.h"

#include <Pellox/binariescontroller.h>

#include <QEventLoop>

#include <array>
#include <functional>
#include <optional>

using Pellox::BinariesController;

namespace {

constexpr int WhichFile = 0x03;
constexpr int Overwrites = 0x08; ///< bytes of the good file
const std::array<QString, 3> PatchFiles{"bin/game"_s, "data/a.pak"_s, "new/level"_s};

std::optional<World> world;

using End = void (BinariesController::*)(bool);

/// What the signal @p end says after @p start.
bool resultOf(BinariesController &controller, End end, const std::function<bool()> &start)
{
    bool succeeded = false;
    QEventLoop loop;
    QObject::connect(&controller, end, &loop, [&](bool success) {
        succeeded = success;
        loop.quit();
    });
    require(start(), "a run begins");
    loop.exec();
    return succeeded;
}

/// Both phases. Whether both have succeeded.
bool patch()
{
    BinariesController controller;
    const bool applied = resultOf(controller, &BinariesController::finished,
        [&] { return controller.applyPatch(world->build(), world->patch()); });
    const bool verified = resultOf(controller, &BinariesController::verifyFinished,
        [&] { return controller.verifyPatchedFiles(world->build(), world->patch()); });
    return applied && verified;
}

} // namespace

void prepare()
{
    world.emplace();
    world->layBuild();
    patch(); // two rules change what is a folder and what a file; the core may not manage that
    world->checkSurroundings(world->patchFiles());
    const Snapshot now = world->buildNow();
    for (const QString &path : PatchFiles)
        require(now.value(path) == world->newBuild().value(path), "the good patch is applied");
}

void tryInput(const QByteArray &input)
{
    if (input.isEmpty())
        return;
    const int mode = static_cast<uchar>(input.at(0));
    const QString name
        = PatchFiles.at(static_cast<std::size_t>(mode & WhichFile) % PatchFiles.size());
    const QByteArray good = world->patchFiles().value(name);
    const QByteArray content = edited(good, input.mid(1), (mode & Overwrites) != 0);
    world->layBuild();
    world->writePatchFile(name, content);

    patch();
    const Snapshot now = world->buildNow();
    for (const QString &path : {"bin/game"_s, "data/a.pak"_s}) {
        require(now.value(path) == world->oldBuild().value(path)
                || now.value(path) == world->newBuild().value(path),
            "a patched file is the old or the new one");
        require(!now.contains(path + ".temp"_s), "no temporary file is left");
    }
    if (name == "new/level"_s)
        require(now.value(name) == content, "a copied file is the patch's");
    Snapshot expected = world->patchFiles();
    expected.insert(name, content);
    world->checkSurroundings(expected);
    world->writePatchFile(name, good);
}
