// SPDX-License-Identifier: MIT
// Input: a delta. What the update takes librsync takes too, and both make the same file of it;
// what makes more or less than its rule says is refused before it is applied.
#include "fuzzing.h"

#include "deltafile.h"
#include "deltareader.h"
#include "patchedcontent.h"
#include "patchhelp.h"
#include "testtree.h"

#include <algorithm>
#include <optional>

using namespace Pellox;

namespace {

constexpr qint64 LargestMade = 16 << 20; // more is no better a test, and slow

struct World
{
    TestTree tree;
    QString old = tree.path("old"_s);
    QString delta = tree.path("delta"_s);
    QString made = tree.path("made"_s);
    qint64 oldSize = 6000;
};
std::optional<World> world;

void ignoreMessage(loglevel, const char *) { }

/// By librsync; nothing where it refuses.
std::optional<QByteArray> madeByCore()
{
    const bool applied = applyPatch(world->old, world->delta, world->made, 0, nullptr);
    return applied ? std::optional(readFile(world->made)) : std::nullopt;
}

bool opens(qint64 size)
{
    PatchedContent content;
    const bool isOpen = content.open(world->old, world->delta, size);
    require(isOpen == content.error().isEmpty(), "a delta is refused for a reason");
    return isOpen;
}

/// How much of the old file the delta takes.
qint64 neededSize()
{
    InputFile file;
    require(file.open(world->delta), "the delta opens");
    PagedView pages(file, 1);
    DeltaReader reader(pages);
    qint64 needed = 0;
    while (const auto command = reader.next()) {
        require(command->length > 0 && command->place >= 0, "every command adds something");
        if (command->isCopy)
            needed = std::max(needed, command->place + command->length);
        else
            require(command->place + command->length < file.size(), "literals lie in the delta");
    }
    require(reader.error().isEmpty(), "a delta is the same, read again");
    return needed;
}

std::optional<DeltaSums> sums()
{
    InputFile file;
    require(file.open(world->delta), "the delta opens");
    QString error;
    const auto sums = sumsOfDelta(file, &error);
    require(sums.has_value() == error.isEmpty(), "a delta is refused for a reason");
    return sums;
}

QByteArray readAll(PatchedContent &content)
{
    constexpr qint64 Part = 4093; // so that commands are cut
    QByteArray bytes(static_cast<int>(content.size()), Qt::Uninitialized);
    for (qint64 at = 0; at < content.size(); at += Part) {
        auto *data = reinterpret_cast<uchar *>(bytes.data()) + at;
        require(content.readAt(at, data, std::min(Part, content.size() - at)),
            "what was checked can be read");
    }
    return bytes;
}

void tryGood(const DeltaSums &sums)
{
    const qint64 size = sums.copiedBytes + sums.literalBytes;
    require(!opens(size - 1) && !opens(size + 1), "a rule with another size is refused");
    PatchedContent content;
    require(content.open(world->old, world->delta, size), "a whole delta is taken");
    require(content.fits() == (neededSize() <= world->oldSize),
        "a delta fits an old file that is long enough");
    if (size > LargestMade)
        return;
    const auto byCore = madeByCore();
    require(byCore.has_value() == content.fits(), "librsync takes what fits");
    if (!byCore)
        return;
    content.mayBeNewAlready();
    require(readAll(content) == *byCore, "both make the same file");
    require(content.isUnchanged(), "nobody has changed the files");
}

} // namespace

void prepare()
{
    world.emplace();
    setRsyncLogOutput(ignoreMessage);
    writeFile(world->old, randomBytes(static_cast<int>(world->oldSize), 1));
    // Five bytes, and the first hundred of the old file.
    tryInput(QByteArray::fromHex("72730236")
        + "\x05"
          "12345"
        + QByteArray::fromHex("45006400"));
    const auto made = madeByCore();
    require(made && made->size() == 105 && sums()->commands == 2, "a good delta is taken");
    require(!openInput(nullptr) && openInput(qPrintable(world->delta)), "files open");
}

void tryInput(const QByteArray &input)
{
    writeFile(world->delta, input);
    if (const auto good = sums()) {
        tryGood(*good);
        return;
    }
    for (const qint64 size : {0, 1, 105, 6000})
        require(!opens(size), "a broken delta is taken for no size");
    madeByCore();
}
