// SPDX-License-Identifier: MIT
#include "trustcheck.h"

#include "patchfiles.h"

namespace Pellox {

using Code = UpdateProblem::Code;

namespace {

/// Of a text that begins with a path: it ends behind its last separator.
FileError errorOf(const QString &text)
{
    const int end = text.indexOf(QLatin1String(": "), text.lastIndexOf(QLatin1Char('/')));
    return end < 0 ? FileError{QString(), text} : FileError{text.left(end), text.mid(end + 2)};
}

} // namespace

TrustCheck::TrustCheck(const Transaction::Settings &settings, const Trust &trust,
    const std::atomic<bool> &cancelled, Problems &problems)
    : m_settings(settings)
    , m_trust(trust)
    , m_cancelled(cancelled)
    , m_problems(problems)
{
}

std::optional<SealedPatch> TrustCheck::carryOut()
{
    QString error;
    auto sealed = readSeal(m_settings.folders.patch, m_trust.keys, &error);
    if (!sealed) {
        m_problems.add(Code::NotTrusted, errorOf(error));
        return {};
    }
    if (!checkRelease(*sealed) || !checkFiles(*sealed))
        return {};
    return sealed;
}

bool TrustCheck::checkFiles(const SealedPatch &sealed)
{
    const HashSettings settings{m_settings.threadCount, m_cancelled, false, {}};
    const QStringList errors = differences(sealed, m_settings.folders.patch, settings);
    if (m_cancelled)
        return false;
    for (const QString &error : errors)
        m_problems.add(Code::NotTrusted, errorOf(error));
    return errors.isEmpty();
}

bool TrustCheck::checkRelease(const SealedPatch &sealed)
{
    FileError error;
    const auto installed = InstalledRelease::read(m_settings.folders.build, &error);
    if (!error.isEmpty()) {
        m_problems.add(Code::DamagedInstall, error);
        return false;
    }
    if (!installed || installed->build == sealed.to)
        return true;
    const QString seal = m_settings.folders.patch + QLatin1Char('/') + SealFileName;
    if (sealed.release <= installed->number && !m_trust.allowsOlder) {
        m_problems.add(Code::OlderRelease, seal,
            QStringLiteral("leads to release %1, but %2 is installed")
                .arg(QString::number(sealed.release), QString::number(installed->number)));
    } else if (installed->build != sealed.from) {
        m_problems.add(Code::ForeignPatch, seal,
            QStringLiteral("does not lead on from the build that is installed, release %1")
                .arg(QString::number(installed->number)));
    }
    return m_problems.isEmpty();
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
    return !differs;
}

} // namespace Pellox
