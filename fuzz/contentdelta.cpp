// SPDX-License-Identifier: MIT
// Input: two bytes, the length of an old file; then that file and the new one. Whatever they are,
// the delta that is made from the old file itself makes the new one, with librsync's patch as with
// our own reading.
#include "fuzzing.h"

#include "contentmatcher.h"
#include "deltamaker.h"
#include "patchedcontent.h"
#include "rsyncpatched.h"
#include "testtree.h"

#include <QFile>

#include <algorithm>
#include <optional>

using namespace Pellox;

namespace {

constexpr SearchEffort Efforts[]{FastestSearch, BalancedSearch, SmallestSearch};
constexpr qint64 BlockLength = SignatureFormat::BlockLength;
constexpr qint64 StretchSize = 4096; // many stretches even of short files; a multiple of a block

struct World
{
    TestTree tree;
    QString oldFile = tree.path("old"_s);
    QString delta = tree.path("delta"_s);
};
std::optional<World> world;

std::vector<uchar> bytesOf(const QByteArray &content)
{
    return {content.cbegin(), content.cend()};
}

QByteArray readAll(Content &content)
{
    QByteArray bytes(static_cast<int>(content.size()), '\0');
    require(content.readAt(0, reinterpret_cast<uchar *>(bytes.data()), bytes.size()),
        "the delta can be applied");
    return bytes;
}

void makeDelta(
    const QByteArray &before, const QByteArray &after, const SearchEffort &effort, bool inMemory)
{
    const std::vector<uchar> old = bytesOf(before);
    ContentIndex index(before.size(), effort, 1 << 20);
    std::vector<quint32> samples;
    index.sample(old.data(), before.size() - effort.window + 1, &samples);
    index.insert(old.data(), 0, samples);
    OldFile oldFile(world->oldFile, before.size(), inMemory ? old : std::vector<uchar>());
    ContentMatchFinder finder(effort, index, oldFile);

    QFile::remove(world->delta);
    OutputFile output;
    require(output.open(world->delta), "the delta can be made");
    DeltaMaker maker(output, finder);
    const auto *data = reinterpret_cast<const uchar *>(after.constData());
    qint64 begin = 0;
    do {
        const qint64 end = std::min<qint64>(begin + StretchSize, after.size());
        const qint64 available = std::min<qint64>(end + BlockLength, after.size());
        const Stretch stretch{data + begin, begin, end, available, available == after.size()};
        std::vector<Match> matches;
        FileError error;
        require(finder.find(stretch, {}, &matches, &error), "the old file can be read");
        maker.write(stretch, {}, matches);
        begin = end;
    } while (begin < after.size());
    require(output.close(), "the delta is written");
}

} // namespace

void prepare()
{
    world.emplace();
}

void tryInput(const QByteArray &input)
{
    if (input.size() < 2)
        return;
    const int length = static_cast<uchar>(input[0]) * 256 + static_cast<uchar>(input[1]);
    const QByteArray before = input.mid(2, length);
    const QByteArray after = input.mid(2 + before.size());
    writeFile(world->oldFile, before);
    for (const SearchEffort &effort : Efforts) {
        for (const bool inMemory : {true, false}) {
            makeDelta(before, after, effort, inMemory);
            RsyncPatched byRsync;
            require(byRsync.open(world->oldFile, world->delta, after.size())
                    && readAll(byRsync) == after,
                "librsync makes the new file");
            PatchedContent byUs;
            require(byUs.open(world->oldFile, world->delta, after.size()) && byUs.fits()
                    && readAll(byUs) == after,
                "an update makes the new file");
        }
    }
}
