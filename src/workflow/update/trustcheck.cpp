// SPDX-License-Identifier: MIT
#include "trustcheck.h"

#include "buildfiles.h"
#include "ed25519.h"
#include "filesystem.h"
#include "patchfiles.h"

#include <QFileInfo>

#include <algorithm>

namespace Pellox {

using Code = UpdateProblem::Code;

namespace {

bool equals(const std::optional<InstalledRelease> &one, const InstalledRelease &other)
{
    return one && one->number == other.number && one->build == other.build;
}

} // namespace

std::optional<SealedPatch> readTrustedSeal(
    const QString &patch, const QStringList &keyFiles, Problems &problems)
{
    FileError error;
    const auto keys = readPublicKeys(keyFiles, &error);
    if (!keys) {
        problems.add(Code::BadKey, error);
        return {};
    }
    auto sealed = readSeal(patch, *keys, &error);
    if (!sealed)
        problems.add(codeOf(error, Code::NotTrusted), error);
    return sealed;
}

bool writeRelease(
    const InstalledRelease &release, BuildFiles &files, bool syncs, Problems &problems)
{
    FileError error;
    if (!files.makeFolders(WorkFolder::Name))
        error = files.error(WorkFolder::Name, "cannot be made: ");
    else if (!release.write(files, syncs, &error))
        files.removeFolder(WorkFolder::Name); // if it is empty
    if (!error.isEmpty())
        problems.add(Code::ReadOrWrite, error);
    return error.isEmpty();
}

TrustCheck::TrustCheck(const Transaction::Settings &settings, const Trust &trust,
    const std::atomic<bool> &cancelled, Problems &problems,
    std::function<void(qint64 done, qint64 total)> progress)
    : m_settings(settings)
    , m_trust(trust)
    , m_cancelled(cancelled)
    , m_problems(problems)
    , m_progress(std::move(progress))
{
}

std::optional<SealedPatch> TrustCheck::carryOut()
{
    auto sealed = readTrustedSeal(m_settings.folders.patch, m_trust.keys, m_problems);
    return sealed && checkRelease(*sealed) && checkFiles(*sealed) ? sealed : std::nullopt;
}

bool TrustCheck::checkFiles(const SealedPatch &sealed)
{
    const qint64 installed = installedBytes(sealed);
    const auto tell = [&](qint64 done, qint64 total) {
        m_patchBytes = total;
        m_allBytes = total + installed;
        m_progress(done, m_allBytes);
    };
    const HashSettings settings{m_settings.threadCount, m_cancelled, false, tell};
    const std::vector<FileError> errors = differences(sealed, m_settings.folders.patch, settings);
    if (m_cancelled)
        return false;
    for (const FileError &error : errors)
        m_problems.add(codeOf(error, Code::NotTrusted), error);
    return errors.empty();
}

void TrustCheck::tellInstalled(qint64 done) const
{
    m_progress(std::min(m_patchBytes + done, m_allBytes), m_allBytes);
}

/// Of those whose content tells what is to be done with them.
qint64 TrustCheck::installedBytes(const SealedPatch &sealed) const
{
    qint64 sum = 0;
    for (const auto &[path, rule] : sealed.rules) {
        const auto status = statusOf(m_settings.folders.build + path);
        const bool isFile = status && S_ISREG(status->st_mode);
        const bool isPatched = rule.kind == UpdateRule::Kind::Patch;
        const bool isCopied = rule.kind == UpdateRule::Kind::Copy;
        if (isFile && (isPatched || (isCopied && status->st_size == rule.size)))
            sum += status->st_size;
        else if (isCopied && isReadFromSource(path, rule))
            sum += rule.size;
    }
    return sum;
}

/// Whether the copied file @p path, which is not installed yet, is made of an installed one.
bool TrustCheck::isReadFromSource(const QString &path, const SealedRule &rule) const
{
    if (rule.source.isEmpty() || mayStand(m_settings.folders.patch + path))
        return false;
    const QFileInfo source(m_settings.folders.build + rule.source);
    return source.isFile() && source.size() == rule.size;
}

bool TrustCheck::checkRelease(const SealedPatch &sealed)
{
    FileError error;
    m_installed = InstalledRelease::read(m_settings.folders.build, &error);
    if (!error.isEmpty())
        return refuse(error.system == 0 ? Code::DamagedInstall : Code::ReadOrWrite, error);
    if (!m_installed)
        return true;
    const QString seal = m_settings.folders.patch + QLatin1Char('/') + SealFileName;
    if (isOlder(sealed) && !m_trust.allowsOlder)
        return refuse(Code::OlderRelease,
            {seal,
                QStringLiteral("leads to release %1, but %2 is installed")
                    .arg(QString::number(sealed.release), QString::number(m_installed->number))});
    if (m_installed->build != sealed.from && m_installed->build != sealed.to)
        return refuse(Code::ForeignPatch,
            {seal,
                QStringLiteral("does not lead on from the build that is installed, release %1")
                    .arg(QString::number(m_installed->number))});
    return true;
}

bool TrustCheck::refuse(Code code, const FileError &error)
{
    m_problems.add(code, error);
    return false;
}

/// A second patch that leads to the installed release itself is none.
bool TrustCheck::isOlder(const SealedPatch &sealed) const
{
    return m_installed->build == sealed.to ? sealed.release < m_installed->number
                                           : sealed.release <= m_installed->number;
}

InstalledRelease TrustCheck::releaseFor(const SealedPatch &sealed) const
{
    // What is the same build has gone back nowhere, so the number is no less true than before.
    const bool mayFall = m_trust.allowsOlder && m_installed && m_installed->build != sealed.to;
    const qint64 least = m_installed && !mayFall ? m_installed->number : 0;
    return {std::max(sealed.release, least), sealed.to};
}

bool TrustCheck::record(const SealedPatch &sealed, BuildFiles &files)
{
    const InstalledRelease release = releaseFor(sealed);
    return equals(m_installed, release)
        || writeRelease(release, files, m_settings.syncs, m_problems);
}

bool TrustCheck::seal(const SealedPatch &sealed, std::vector<UpdateRule> *rules)
{
    bool agrees = rules->size() == sealed.rules.size();
    for (UpdateRule &rule : *rules)
        agrees = agrees && sealOne(sealed, &rule);
    if (!agrees)
        m_problems.add(Code::NotTrusted, m_settings.folders.patch + QLatin1Char('/') + SealFileName,
            QStringLiteral("has other rules than the patch"));
    return agrees;
}

bool TrustCheck::sealOne(const SealedPatch &sealed, UpdateRule *rule)
{
    const auto found = sealed.rules.find(rule->relativePath);
    if (found == sealed.rules.end() || found->second.kind != rule->kind)
        return false;
    const SealedRule &known = found->second;
    const bool differs = rule->kind == UpdateRule::Kind::Patch
        && (rule->size != known.size || rule->sha512 != known.sha512);
    rule->isSealed = true;
    rule->oldSha512 = known.oldSha512;
    rule->size = known.size;
    rule->sha512 = known.sha512;
    rule->source = known.source;
    return !differs;
}

} // namespace Pellox
