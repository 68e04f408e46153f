// SPDX-License-Identifier: MIT
#include "sealrun.h"

#include "canonicalpath.h"
#include "diskfile.h"
#include "ed25519.h"
#include "filesystem.h"
#include "manifest.h"
#include "rules.h"
#include "wholefile.h"

#include <QFileInfo>

#include <algorithm>
#include <set>

namespace Pellox {

namespace {

constexpr double Percent = 100;

/// Whether a file of the patch would stand where the seal does, on any file system.
bool isInPlaceOfSeal(const QString &relativePath)
{
    const NameSense sense{true, true};
    const QString seal = sense.key(Manifest::pathIn(QString(), SealFileName));
    const QString folded = sense.key(relativePath);
    return folded == seal || folded == temporaryNameOf(seal);
}

/// Whether @p path can be told in a record of identityOf().
bool isTellable(const QString &path)
{
    return !path.contains(QChar::Null) && QString::fromUtf8(path.toUtf8()) == path;
}

} // namespace

SealRun::SealRun(Settings settings, const std::atomic<bool> &cancelled)
    : m_settings(std::move(settings))
    , m_cancelled(cancelled)
{
    m_sealed.release = m_settings.release;
}

SealRun::~SealRun() = default;

bool SealRun::carryOut(const PROGRESS_CALLBACK &progress)
{
    InputFile manifest; // the rules must be those of the file that is hashed
    if (!checkSettings() || !readKeys() || !readRules(manifest) || !readOldBuild() || !findFiles()
        || !hashPatch(progress) || !sealRules())
        return false;
    if (!manifest.isUnchanged())
        return fail(manifest.error());
    if (m_cancelled)
        return false;
    return writeSeal(m_settings.patch, m_sealed, m_keys, &m_error);
}

bool SealRun::checkSettings()
{
    const QString library = Ed25519::problemOfLibrary(sealPath());
    if (!library.isEmpty())
        return fail(library);
    for (const QString &folder : {m_settings.patch, m_settings.oldSignatures}) {
        if (!QFileInfo(folder).isDir())
            return fail(folder, QStringLiteral("there is no such folder"));
    }
    if (overlap(m_settings.patch, m_settings.oldSignatures))
        return fail(m_settings.oldSignatures,
            QLatin1String("must not be, hold or lie inside of ") + m_settings.patch);
    if (m_settings.release < 1 || m_settings.release > LargestRelease)
        return fail(
            sealPath(), QStringLiteral("a release has a number from 1 to %1").arg(LargestRelease));
    const auto standing = statusOf(sealPath());
    if (standing && !S_ISREG(standing->st_mode))
        return fail(sealPath(), QStringLiteral("is no regular file"));
    return true;
}

bool SealRun::readKeys()
{
    if (m_settings.privateKeys.isEmpty()
        || m_settings.privateKeys.size() > static_cast<int>(MostSignatures))
        return fail(
            sealPath(), QStringLiteral("needs from 1 to %1 private keys").arg(MostSignatures));
    for (const QString &path : m_settings.privateKeys) {
        if (path.isEmpty())
            return fail(QStringLiteral("a private key is not given"));
        auto key = Ed25519::PrivateKey::read(path, &m_error);
        if (!key)
            return false;
        if (overlap(path, m_settings.patch))
            return fail(
                path, QStringLiteral("must not be published with the patch: it is private"));
        const bool isKnown = std::any_of(m_keys.cbegin(), m_keys.cend(),
            [&](const Ed25519::PrivateKey &other) { return other.id() == key->id(); });
        if (isKnown)
            return fail(path, QStringLiteral("is the same key as one before it"));
        m_keys.push_back(std::move(*key));
    }
    return true;
}

bool SealRun::readRules(InputFile &manifest)
{
    const QString path = Manifest::pathIn(m_settings.patch, PATCH_RULES_FILE);
    if (!manifest.open(path))
        return fail(manifest.error());
    std::vector<FileError> errors;
    m_rules = Pellox::readRules(path, &errors);
    if (!errors.empty())
        return fail(errors.front());
    QStringList collisions;
    checkTogether(m_rules, NameSense(), &collisions);
    if (!collisions.isEmpty())
        return fail(path, collisions.first());
    for (const UpdateRule &rule : m_rules) {
        if (rule.kind != UpdateRule::Kind::Delete && isInPlaceOfSeal(rule.relativePath))
            return fail(m_settings.patch + rule.relativePath,
                QStringLiteral("stands where the patch's seal goes"));
    }
    return true;
}

bool SealRun::readOldBuild()
{
    const QString path = Manifest::pathIn(m_settings.oldSignatures, SIGNATURES_FILE);
    FileError error;
    const auto files = readSignedFiles(m_settings.oldSignatures, &error);
    if (!files)
        return fail(error);
    for (const SignedFile &file : *files) {
        if (!file.sha512)
            return fail(path, QLatin1String("holds no checksum of ") + file.relativePath);
        if (!isTellable(file.relativePath))
            return fail(path, QLatin1String("names what no file has: ") + file.relativePath);
        m_oldBuild.emplace(file.relativePath, *file.sha512);
    }
    m_sealed.from = identityOf(m_oldBuild);
    return true;
}

bool SealRun::findFiles()
{
    FileError error;
    auto files = walkPatch(m_settings.patch, &error);
    if (!files)
        return fail(error);
    for (PatchFile &file : *files) {
        const QString path = m_settings.patch + file.relativePath;
        if (path == sealPath() || path == temporaryNameOf(sealPath()))
            continue;
        if (!file.isRegular)
            return fail(path, QStringLiteral("is no regular file, as all of a patch must be"));
        if (file.isHidden)
            return fail(path, QStringLiteral("is hidden, and so no part of the patch"));
        const QString problem = problemOfRelativePath(file.relativePath);
        if (!problem.isEmpty())
            return fail(path, problem);
        m_files.push_back(std::move(file));
    }
    return true;
}

bool SealRun::hashPatch(const PROGRESS_CALLBACK &progress)
{
    const auto report = [&](qint64 done, qint64 total) {
        if (progress)
            progress(static_cast<double>(done) / static_cast<double>(std::max<qint64>(total, 1))
                * Percent);
    };
    FileError error;
    const auto hashed = hashFiles(
        m_settings.patch, m_files, {m_settings.threadCount, m_cancelled, true, report}, &error);
    if (!hashed)
        return fail(error);
    for (std::size_t i = 0; i < m_files.size(); ++i)
        m_sealed.files.emplace(m_files[i].relativePath, hashed->at(i).content);
    return true;
}

/// Which old files have the content of new ones.
void SealRun::findSources()
{
    std::set<Sha512> copied;
    for (const UpdateRule &rule : m_rules) {
        m_sources.noteRule(rule.relativePath);
        const auto payload = m_sealed.files.find(rule.relativePath);
        const bool isCopied
            = rule.kind == UpdateRule::Kind::Copy && payload != m_sealed.files.cend();
        if (isCopied && payload->second.size > 0)
            copied.insert(payload->second.sha512);
    }
    for (const auto &[path, sha512] : m_oldBuild) {
        if (copied.count(sha512) != 0 && problemOfRelativePath(path).isEmpty())
            m_sources.offer(path, sha512);
    }
}

bool SealRun::sealRules()
{
    findSources();
    ByPath<Sha512> build = m_oldBuild;
    for (const UpdateRule &rule : m_rules) {
        if (!sealRule(rule, &build))
            return false;
    }
    m_sealed.to = identityOf(build);
    return true;
}

/// Takes down what @p rule does, and does it to @p build.
bool SealRun::sealRule(const UpdateRule &rule, ByPath<Sha512> *build)
{
    SealedRule sealed{rule.kind, {}, rule.size, rule.sha512, {}};
    const QString &path = rule.relativePath;
    if (rule.kind != UpdateRule::Kind::Copy) {
        const auto old = m_oldBuild.find(path);
        if (old == m_oldBuild.cend())
            return fail(Manifest::pathIn(m_settings.oldSignatures, SIGNATURES_FILE),
                QStringLiteral("does not name a file that a rule changes or deletes: ") + path);
        sealed.oldSha512 = old->second;
    }
    if (rule.kind == UpdateRule::Kind::Delete) {
        build->erase(path);
    } else {
        const auto payload = m_sealed.files.find(path);
        if (payload == m_sealed.files.cend())
            return fail(m_settings.patch + path, QStringLiteral("is missing from the patch"));
        if (rule.kind == UpdateRule::Kind::Copy) {
            sealed.size = payload->second.size;
            sealed.sha512 = payload->second.sha512;
            sealed.source = m_sources.sourceOf(path, sealed.sha512);
        }
        build->insert_or_assign(path, sealed.sha512);
    }
    m_sealed.rules.emplace(path, sealed);
    return true;
}

QString SealRun::sealPath() const
{
    return Manifest::pathIn(m_settings.patch, SealFileName);
}

bool SealRun::fail(const QString &error)
{
    m_error = error;
    return false;
}

bool SealRun::fail(const QString &path, const QString &reason)
{
    return fail(aboutFile(path, reason));
}

} // namespace Pellox
