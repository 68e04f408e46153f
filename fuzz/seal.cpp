// SPDX-License-Identifier: MIT
// Input: a byte, then by it patchSeal.json, or a sealed text that is signed here. What is taken has
// one form, so that written again it is the same.
#include "fuzzing.h"

#include "ed25519.h"
#include "sealfile.h"
#include "testtree.h"

#include <optional>
#include <vector>

using namespace Pellox;

namespace {

constexpr char SealedText = 's'; // the first byte; any other means a whole seal

struct World
{
    TestTree tree;
    QString folder = tree.path();
    std::vector<Ed25519::PrivateKey> ours;
    std::vector<Ed25519::PublicKey> trusted;
    std::vector<Ed25519::PublicKey> strangers;
};
std::optional<World> world;

QByteArray escaped(QByteArray text)
{
    return text.replace('\\', "\\\\").replace('"', "\\\"");
}

QByteArray sealOf(const QByteArray &text)
{
    const Ed25519::PrivateKey &key = world->ours.front();
    return "{\"sealed\":\"" + escaped(text) + "\",\"signatures\":[{\"key\":\"" + key.id()
        + "\",\"signature\":\"" + key.sign(text).toBase64() + "\"}]}\n";
}

std::optional<SealedPatch> read(
    const QByteArray &bytes, const std::vector<Ed25519::PublicKey> &trusted)
{
    QString problem;
    auto sealed = readSealBytes(bytes, trusted, &problem);
    require(sealed.has_value() == problem.isEmpty(), "a seal is refused for a reason");
    return sealed;
}

void checkSource(const SealedPatch &sealed, const QString &path, const SealedRule &rule)
{
    require(mayBeLeftOut(sealed, path)
            == (!rule.source.isEmpty() && path != QLatin1String("/patchRules.json")),
        "what has a source may be left out, but never the rules");
    if (rule.source.isEmpty())
        return;
    require(
        rule.kind == UpdateRule::Kind::Copy && rule.size > 0, "only copied content has a source");
    require(staysInside(rule.source), "every source stays in the build");
    require(rule.source != path, "no file is its own source");
    const auto other = sealed.rules.find(rule.source);
    require(other == sealed.rules.cend() || other->second.kind == UpdateRule::Kind::Copy
            || other->second.oldSha512 == rule.sha512,
        "a source has the content that is made of it");
}

void checkPatch(const SealedPatch &sealed)
{
    require(sealed.release >= 1 && sealed.release <= LargestRelease, "a release has a number");
    for (const auto &[path, file] : sealed.files) {
        require(staysInside(path), "every file stays in the patch");
        require(file.size >= 0, "every size is one");
    }
    for (const auto &[path, rule] : sealed.rules) {
        require(staysInside(path), "every rule stays in the build");
        require(rule.kind == UpdateRule::Kind::Delete || sealed.files.count(path) == 1,
            "every rule has its file");
        checkSource(sealed, path, rule);
    }
}

void checkWrittenAgain(const QByteArray &bytes, const SealedPatch &sealed)
{
    const QByteArray begin = "{\"sealed\":\"" + escaped(sealedText(sealed)) + "\",\"signatures\":[";
    require(bytes.startsWith(begin), "a seal's text is written again as it was");
    if (bytes.indexOf("},{", begin.size()) >= 0) // others have signed it too
        return;
    QString error;
    require(writeSeal(world->folder, sealed, world->ours, &error), "what was read can be written");
    require(readFile(world->folder + QLatin1Char('/') + SealFileName) == bytes,
        "a seal is written again as it was");
}

QByteArray sample()
{
    SealedPatch patch;
    patch.release = 7;
    patch.files["/patchRules.json"_s] = {2, Sha512()};
    patch.files["/new \""_s] = {3, Sha512()};
    patch.files["/to"_s] = {3, Sha512()};
    patch.rules["/new \""_s] = {UpdateRule::Kind::Copy, Sha512(), 3, Sha512(), QString()};
    patch.rules["/gone"_s] = {UpdateRule::Kind::Delete, Sha512(), 0, Sha512(), QString()};
    patch.rules["/to"_s] = {UpdateRule::Kind::Copy, Sha512(), 3, Sha512(), "/gone"_s};
    return sealedText(patch);
}

} // namespace

void prepare()
{
    world.emplace();
    QString error;
    world->tree.makeFolder("stranger"_s);
    const QString strangers = writeKey(StrangersKey, world->tree.path("stranger"_s)) + ".pub"_s;
    const QString ours = writeKey(OurKey, world->folder);
    auto ourPrivate = Ed25519::PrivateKey::read(ours, &error);
    auto ourPublic = Ed25519::PublicKey::read(ours + ".pub"_s, &error);
    auto strangersPublic = Ed25519::PublicKey::read(strangers, &error);
    require(ourPrivate && ourPublic && strangersPublic, qPrintable(error));
    world->ours.push_back(std::move(*ourPrivate));
    world->trusted.push_back(std::move(*ourPublic));
    world->strangers.push_back(std::move(*strangersPublic));
    const QByteArray seal = sealOf(sample());
    const auto sealed = read(seal, world->trusted);
    require(sealed.has_value(), "a good seal is taken");
    checkWrittenAgain(seal, *sealed);
}

void tryInput(const QByteArray &input)
{
    const QByteArray content = input.mid(1);
    const QByteArray bytes = input.startsWith(SealedText) ? sealOf(content) : content;
    require(!read(bytes, world->strangers), "no seal is taken that a stranger's key has not made");
    const auto sealed = read(bytes, world->trusted);
    if (!sealed)
        return;
    checkPatch(*sealed);
    checkWrittenAgain(bytes, *sealed);
}
