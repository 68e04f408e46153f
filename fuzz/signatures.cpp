// SPDX-License-Identifier: MIT
// Input: a byte, then by it signatures.json or a signature file, as a publisher reads them. A
// signature that is taken gives the same delta by the core and by the workflow.
#include "fuzzing.h"

#include "blockmatcher.h"
#include "deltamaker.h"
#include "manifestfile.h"
#include "patchhelp.h"
#include "rules.h"
#include "signaturefile.h"
#include "signatureset.h"
#include "testtree.h"

#include <QBuffer>
#include <QFile>
#include <QSet>

#include <algorithm>
#include <optional>

using namespace Pellox;

namespace {

constexpr char Manifest = 'j'; // the first byte; any other means a signature file

struct World
{
    TestTree tree;
    QString folder = tree.path();
    QString manifest = folder + QLatin1Char('/') + SIGNATURES_FILE;
    QString signature = folder + "/signature"_s;
    QString newFile = folder + "/new"_s;
    QString delta = folder + "/delta"_s;
    QByteArray newContent;
};
std::optional<World> world;

void ignoreMessage(loglevel, const char *) { }

void tryManifest(const QByteArray &bytes)
{
    writeFile(world->manifest, bytes);
    FileError error;
    const auto files = readSignedFiles(world->folder, &error);
    require(files.has_value() == error.isEmpty(), "signatures are refused for a reason");
    if (!files)
        return;
    QSet<QString> paths;
    for (const SignedFile &file : *files) {
        require(staysInside(file.relativePath), "every path stays in the build");
        paths.insert(file.relativePath);
    }
    require(paths.size() == static_cast<int>(files->size()), "no path is there twice");
}

void checkSet(const SignatureSet &set, const std::vector<BlockRecord> &records)
{
    require(set.isEmpty() == records.empty(), "a signature of blocks makes a set of them");
    for (const BlockRecord &record : records) {
        const auto first = std::find(records.cbegin(), records.cend(), record) - records.cbegin();
        require(set.mayHave(weakSumOf(record)) && set.has(weakSumOf(record))
                && set.blockWith(record) == static_cast<quint32>(first),
            "every block is found, the first of equal ones");
    }
}

QByteArray deltaBy(const SignatureSet &oldBlocks)
{
    QFile::remove(world->delta);
    OutputFile output;
    require(output.open(world->delta), "the delta can be made");
    BlockMatchFinder finder(oldBlocks);
    DeltaMaker maker(output, finder);
    const qint64 size = world->newContent.size();
    const Stretch all{
        reinterpret_cast<const uchar *>(world->newContent.constData()), 0, size, size, true};
    std::vector<Match> matches;
    FileError error;
    require(finder.find(all, {}, &matches, &error), "blocks are found without a file");
    maker.write(all, {}, matches);
    require(output.close(), "the delta is written");
    return readFile(world->delta);
}

QByteArray deltaByCore()
{
    require(createDelta(world->signature, world->newFile, world->delta),
        "the core takes a signature that the workflow takes");
    return readFile(world->delta);
}

bool trySignature(const QByteArray &bytes)
{
    writeFile(world->signature, bytes);
    SignatureFile signature;
    std::vector<BlockRecord> records;
    const bool opens = signature.open(world->signature);
    require(opens == signature.error().isEmpty(), "a signature is refused for a reason");
    if (!opens)
        return false;
    require(SignatureFile::looksWhole(world->signature), "what opens looks whole");
    require(signature.readAll(&records, GoOn()), "what opens can be read");
    for (std::size_t i = 0; i < records.size(); ++i) {
        BlockRecord record{};
        require(signature.readBlock(static_cast<qint64>(i), &record) && record == records[i],
            "a block is the same, read alone or with all");
    }
    const SignatureSet set(records);
    checkSet(set, records);
    require(deltaBy(set) == deltaByCore(), "both make the same delta");
    return true;
}

} // namespace

void prepare()
{
    world.emplace();
    setRsyncLogOutput(ignoreMessage);
    // Blocks that stand in it twice, in a row and at odd places; a short one at its end.
    const QByteArray block = randomBytes(SignatureFormat::BlockLength, 1);
    const QByteArray other = randomBytes(SignatureFormat::BlockLength, 2);
    const QByteArray old = block + other + block + randomBytes(100, 3);
    world->newContent = other + "between" + block + other + randomBytes(100, 3);
    writeFile(world->newFile, world->newContent);
    const QString oldFile = world->folder + "/old"_s;
    writeFile(oldFile, old);
    require(createSignature(oldFile, world->signature), "the core writes a signature");
    const QByteArray signature = readFile(world->signature);
    require(trySignature(signature), "a good signature is taken");
    const SignatureSet none({});
    require(deltaBy(none).size() > deltaByCore().size(), "the delta takes blocks of the old file");
}

void tryInput(const QByteArray &input)
{
    const QByteArray content = input.mid(1);
    if (input.startsWith(Manifest))
        tryManifest(content);
    else
        trySignature(content);
}
