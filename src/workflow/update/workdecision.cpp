// SPDX-License-Identifier: MIT
#include "workdecision.h"

#include "filesystem.h"
#include "patchedcontent.h"

#include <QFileInfo>

namespace Pellox {

namespace {

bool isFileOfSize(const QString &path, qint64 size)
{
    const auto status = statusOf(path);
    return status && S_ISREG(status->st_mode) && status->st_size == size;
}

} // namespace

bool WorkDecision::carryOut(const std::function<void(qint64 done)> &report)
{
    m_read = 0;
    return runCrew(
        [this](UpdateWork &work) {
            switch (work.rule.kind) {
            case UpdateRule::Kind::Patch:
                return decidePatch(work);
            case UpdateRule::Kind::Copy:
                return decideCopy(work);
            case UpdateRule::Kind::Delete:
                work.isNeeded = isInstalled(work);
            }
        },
        [&] {
            if (report)
                report(m_read);
        });
}

void WorkDecision::decidePatch(UpdateWork &work)
{
    work.isNeeded = true;
    if (isStagedAlready(work, work.rule.sha512))
        work.isStaged = true;
    else if (work.rule.isSealed)
        decideSealedPatch(work);
    else
        decideUnsealedPatch(work);
}

/// The seal tells what the installed file must be.
void WorkDecision::decideSealedPatch(UpdateWork &work)
{
    const bool isThere = isInstalled(work);
    if (isStopped())
        return;
    if (!isThere)
        return takeWhole(work, QStringLiteral("is missing"));
    QString why;
    const auto sha512 = sha512OfInstalled(work, &why);
    if (isStopped())
        return;
    work.isNeeded = sha512 != work.rule.sha512;
    if (work.isNeeded && sha512 != work.rule.oldSha512)
        takeWhole(work, sha512 ? NotTheOldFile : why);
}

void WorkDecision::decideUnsealedPatch(UpdateWork &work)
{
    const bool isThere = statusOfInstalled(work).has_value();
    if (isStopped())
        return;
    if (!isThere)
        return takeWhole(work, QStringLiteral("is missing"));
    PatchedContent patched;
    if (!patched.open(installed(work), payload(work), work.size, [this] { return isStopped(); })) {
        if (isUnreadableInstalled(patched.error(), work))
            takeWhole(work, patched.error().reason);
        else if (!isStopped())
            add(codeOf(patched.error(), work), patched.error());
        return;
    }
    if (!patched.mayBeNewAlready())
        return;
    QString why;
    work.isNeeded = sha512OfInstalled(work, &why) != work.rule.sha512;
    if (!why.isEmpty())
        takeWhole(work, why);
}

/// The installed file is something else than the patch is for: @p why.
void WorkDecision::takeWhole(UpdateWork &work, const QString &why)
{
    takeWhole(work, installed(work), why);
}

/// The same of @p path, an installed file that another is made of.
void WorkDecision::takeWhole(UpdateWork &work, const QString &path, const QString &why)
{
    work.isTakenWhole = true;
    const QFileInfo source(fallback(work));
    if (m_folders.fallback.isEmpty())
        add(Code::DamagedInstall, path, why);
    else if (!source.isFile() || source.size() != work.size)
        add(Code::BadFallback, fallback(work),
            QStringLiteral("is not the file that the patch leads to"));
}

void WorkDecision::decideCopy(UpdateWork &work)
{
    work.isNeeded = true;
    if (work.rule.isSealed)
        work.sha512 = work.rule.sha512;
    if (isCopyToBeMade(work) && work.isMoved)
        decideSource(work);
}

/// Without a seal a copied file has no checksum in the rules: the patch's own file tells it. False
/// also when the crew was stopped.
bool WorkDecision::isCopyToBeMade(UpdateWork &work)
{
    const bool maybeInstalled = isFileOfSize(installed(work), work.size);
    const bool maybeStaged = work.isOwnStaged && isFileOfSize(staged(work), work.size);
    if (!maybeInstalled && !maybeStaged)
        return true;
    FileError error;
    std::atomic<qint64> done{0};
    const auto sha512 = work.rule.isSealed ? std::optional(work.rule.sha512)
                                           : sha512Of(payload(work), done, &error);
    if (!error.isEmpty())
        fail(error);
    if (!sha512)
        return false;
    QString why; // does not matter, as the file is replaced whole
    work.isNeeded = !maybeInstalled || sha512OfInstalled(work, &why) != *sha512;
    work.isStaged = work.isNeeded && isStagedAlready(work, *sha512);
    work.sha512 = *sha512;
    return work.isNeeded && !work.isStaged && !isStopped();
}

/// What stands in for a file that the patch lacks. It may be a link, and another rule may change or
/// delete it, as nothing is put in place before all is staged.
void WorkDecision::decideSource(UpdateWork &work)
{
    FileError error;
    InputFile file;
    std::optional<Sha512> sha512;
    if (!file.open(source(work)))
        error = file.error();
    else if (file.size() == work.size)
        sha512 = sha512Of(source(work), m_read, &error);
    if (isStopped() || sha512 == work.rule.sha512)
        return;
    if (error.isEmpty() || tellsNoContent(error, source(work)))
        takeWhole(work, source(work), whyNotMade(work, error));
    else
        fail(error);
}

/// What cannot be read is made anew.
bool WorkDecision::isStagedAlready(const UpdateWork &work, const Sha512 &sha512)
{
    FileError error;
    std::atomic<qint64> done{0};
    return work.isOwnStaged && isFileOfSize(staged(work), work.size)
        && sha512Of(staged(work), done, &error) == sha512;
}

/// Nothing after @p why, when the file cannot be read, and when the crew was stopped.
std::optional<Sha512> WorkDecision::sha512OfInstalled(UpdateWork &work, QString *why)
{
    FileError error;
    const auto sha512 = sha512Of(installed(work), m_read, &error);
    if (isUnreadableInstalled(error, work))
        *why = error.reason;
    else if (!error.isEmpty())
        fail(error);
    return sha512;
}

bool WorkDecision::isInstalled(const UpdateWork &work)
{
    const auto status = statusOfInstalled(work);
    return status && S_ISREG(status->st_mode);
}

} // namespace Pellox
