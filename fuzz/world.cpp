// SPDX-License-Identifier: MIT
#include "world.h"

#include <Pellox/patchseal.h>
#include <Pellox/publishcontroller.h>

#include <QDir>

using Pellox::PatchSeal;
using Pellox::PublishController;

namespace {

QByteArray changedAt(QByteArray bytes, int position)
{
    bytes[position] = static_cast<char>(~bytes.at(position));
    return bytes;
}

Snapshot oldFiles()
{
    return {{"bin/game"_s, randomBytes(6000, 1)}, {"data/a.pak"_s, randomBytes(2100, 2)},
        {"data/same.pak"_s, "same in both"}, {"gone/deep/file"_s, "goes, and its folders"},
        {"kind"_s, "becomes a folder"}, {"other/kind"_s, "its folder becomes a file"}};
}

Snapshot newFiles()
{
    const Snapshot old = oldFiles();
    return {{"bin/game"_s, changedAt(old.value("bin/game"_s), 3000)},
        {"data/a.pak"_s, old.value("data/a.pak"_s) + "and more"},
        {"data/same.pak"_s, old.value("data/same.pak"_s)}, {"kind/inner"_s, "was a file"},
        {"new/level"_s, "a new level"}, {"other"_s, "was a folder"}};
}

} // namespace

World::World()
{
    const auto lay = [&](const QString &folder, const Snapshot &files) {
        for (auto file = files.cbegin(); file != files.cend(); ++file)
            m_tree.write(folder + QLatin1Char('/') + file.key(), file.value());
    };
    const auto path = [&](const QString &name) { return m_tree.path(name); };
    lay("build"_s, oldFiles());
    lay("new"_s, newFiles());
    PublishController publisher;
    require(publisher.createSignatures(m_build, path("signatures"_s))
            && publisher.createPatch(path("new"_s), path("signatures"_s), m_patch),
        "the patch is made");
    m_tree.makeFolder("keys"_s);
    m_key = writeKey(OurKey, path("keys"_s));
    PatchSeal sealer;
    require(sealer.seal(m_patch, path("signatures"_s), 7, {m_key}), qPrintable(sealer.error()));

    lay("new"_s, {{"saves/1"_s, "a player's"}});
    lay("build"_s, {{"saves/1"_s, "a player's"}});
    lay("around"_s, {{"canary"_s, "canary"}, {"build-2/canary"_s, "beside"}});
    m_newBuild = TestTree::snapshot(path("new"_s));
    m_oldBuild = buildNow();
    m_patchFiles = TestTree::snapshot(m_patch);
    m_tree.remove("signatures"_s); // what is not there need not be compared with each input
    m_surroundings = surroundings();
}

/// All but what is in the build and in the patch.
Snapshot World::surroundings() const
{
    Snapshot found;
    const QDir top(m_tree.path());
    const QStringList names
        = top.entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        const QString path = top.filePath(name);
        found.insert(name, QByteArray());
        const Snapshot inner
            = path == m_build || path == m_patch ? Snapshot() : TestTree::snapshot(path);
        for (auto entry = inner.cbegin(); entry != inner.cend(); ++entry)
            found.insert(name + QLatin1Char('/') + entry.key(), entry.value());
    }
    return found;
}

void World::layBuild() const
{
    QDir(m_build).removeRecursively();
    const QDir top(m_build);
    top.mkpath("."_s);
    // In the order of their names folders come before what is in them.
    for (auto entry = m_oldBuild.cbegin(); entry != m_oldBuild.cend(); ++entry) {
        if (entry.key().endsWith(QLatin1Char('/')))
            require(top.mkdir(entry.key()), "a folder can be made");
        else
            writeFile(top.filePath(entry.key()), entry.value());
    }
}

void World::writePatchFile(const QString &relativePath, const QByteArray &content) const
{
    writeFile(m_patch + QLatin1Char('/') + relativePath, content);
}

void World::checkSurroundings(const Snapshot &expected) const
{
    require(TestTree::snapshot(m_patch) == expected, "the patch is only read");
    require(surroundings() == m_surroundings, "nothing outside of the build is touched");
}

QByteArray edited(QByteArray original, const QByteArray &edits, bool overwrites)
{
    constexpr int EditSize = 3;
    if (!overwrites)
        return edits;
    for (int i = 0; i + EditSize <= edits.size() && !original.isEmpty(); i += EditSize) {
        const int offset
            = static_cast<uchar>(edits.at(i)) << 8 | static_cast<uchar>(edits.at(i + 1));
        original[offset % original.size()] = edits.at(i + 2);
    }
    return original;
}
