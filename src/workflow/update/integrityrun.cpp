// SPDX-License-Identifier: MIT
#include "integrityrun.h"

#include "buildwalk.h"
#include "filesystem.h"
#include "rules.h"
#include "stagingroom.h"
#include "trustcheck.h"
#include "updatecheck.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>

#include <algorithm>
#include <cerrno>
#include <numeric>

#include <sys/stat.h>

namespace Pellox {

IntegrityRun::IntegrityRun(Settings settings, Reports reports, const std::atomic<bool> &cancelled)
    : m_settings(std::move(settings))
    , m_reports(std::move(reports))
    , m_cancelled(cancelled)
{
}

bool IntegrityRun::check()
{
    const bool done = carryOutCheck();
    if (!done)
        end(m_problems.isEmpty() ? Result::Cancelled : Result::Refused);
    return done;
}

bool IntegrityRun::carryOutCheck()
{
    m_reports.phase(Phase::Checking);
    for (const QString &folder : {m_settings.build, m_settings.signatures}) {
        if (!QFileInfo(folder).isDir())
            return fail(Code::BadFolder, {folder, QStringLiteral("there is no such folder")});
    }
    if (!readBoth() || !compare())
        return false;
    for (QStringList *paths :
        {&m_report.changed, &m_report.missing, &m_report.unreadable, &m_report.extra})
        paths->sort();
    return true;
}

/// What should be there and what is, at the same time.
bool IntegrityRun::readBoth()
{
    const GoOn goOn = [this] { return !m_cancelled; };
    std::optional<std::vector<SignedFile>> files;
    std::optional<std::vector<BuildFile>> found;
    FileError filesError;
    FileError foundError;
    Crew crew(m_settings.threadCount, m_cancelled);
    const bool done = crew.run(
        {0, 0}, FilePass::ChunkSize,
        [&](std::size_t task) {
            if (task == 0)
                files = readSignedFiles(m_settings.signatures, &filesError, goOn);
            else
                found = walkBuild(m_settings.build, &foundError, goOn, &m_report.extra);
        },
        [] {});
    if (!done)
        return fail(Code::NoMemory, {m_settings.build, crew.error()});
    if (!files)
        return fail(codeOf(filesError, Code::BadManifest), filesError);
    if (!found)
        return fail(Code::ReadOrWrite, foundError);
    m_files = std::move(*files);
    noteFound(*found);
    return true;
}

void IntegrityRun::noteFound(const std::vector<BuildFile> &files)
{
    QHash<QString, qint64> sizes;
    for (const BuildFile &file : files)
        sizes.insert(file.relativePath, file.size);
    m_sizes.clear();
    for (const SignedFile &file : m_files) {
        const auto found = sizes.constFind(file.relativePath);
        if (found == sizes.constEnd()) { // as in a hidden folder
            const QFileInfo info(installed(file));
            m_sizes.push_back(info.isFile() ? info.size() : 0);
        } else {
            m_sizes.push_back(*found);
            sizes.erase(found);
        }
    }
    m_report.extra += sizes.keys();
}

bool IntegrityRun::compare()
{
    const qint64 total = std::accumulate(m_sizes.cbegin(), m_sizes.cend(), qint64(0));
    m_states.assign(m_files.size(), State::Unreadable);
    std::atomic<qint64> done{0};
    Crew crew(m_settings.threadCount, m_cancelled);
    const bool compared = crew.run(
        m_sizes, FilePass::ChunkSize,
        [&](std::size_t i) { m_states[i] = stateOf(crew, m_files[i], done); },
        [&] { m_reports.progress(std::min<qint64>(done, total), total); });
    if (!compared)
        return fail(Code::NoMemory, {m_settings.build, crew.error()});

    for (std::size_t i = 0; i < m_files.size(); ++i)
        addToReport(m_files[i].relativePath, m_states[i]);
    return true;
}

void IntegrityRun::addToReport(const QString &path, State state)
{
    switch (state) {
    case State::Intact:
        ++m_report.intactFiles;
        break;
    case State::Changed:
        m_report.changed.append(path);
        break;
    case State::Missing:
        m_report.missing.append(path);
        break;
    case State::Unreadable:
        m_report.unreadable.append(path);
        break;
    }
}

IntegrityRun::State IntegrityRun::stateOf(
    Crew &crew, const SignedFile &file, std::atomic<qint64> &done) const
{
    const QString path = installed(file);
    struct stat status = {};
    // Where a folder above it cannot be entered, nobody knows whether it is there.
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return errno == ENOENT || errno == ENOTDIR ? State::Missing : State::Unreadable;
    InputFile input;
    if (!S_ISREG(status.st_mode) || !input.open(path))
        return State::Unreadable;
    FilePass::Targets targets;
    targets.digest = true;
    FilePass reading(crew, input, targets, done);
    const bool isDone
        = input.size() > FilePass::ChunkSize ? crew.share(reading) : crew.doAlone(reading);
    if (!isDone || !reading.error().isEmpty())
        return State::Unreadable;
    return reading.sha512() == file.sha512 ? State::Intact : State::Changed;
}

/// Locks the build and finishes what an earlier run has begun. False at the end of this one.
bool IntegrityRun::begin(Transaction &transaction)
{
    if (!transaction.lock())
        return end(Result::Refused);
    if (transaction.hasUnfinished())
        m_reports.phase(Phase::Finishing);
    if (transaction.finishUnfinished() == Transaction::Outcome::Interrupted)
        return end(Result::Interrupted);
    return true;
}

bool IntegrityRun::repair()
{
    Transaction transaction(
        {{m_settings.build, QString(), m_settings.source}, m_settings.threadCount, true, false},
        {{m_reports.progress, [](const QString &) {}},
            [this] { m_reports.phase(Phase::Committing); }},
        m_cancelled, m_problems);
    if (!begin(transaction))
        return false;
    if (!check())
        return false;
    Transaction::Aim aim;
    aim.isRepair = true;
    for (const SignedFile &file : m_files)
        aim.otherFiles.insert(file.relativePath);
    if (m_report.isIntact()) {
        return transaction.clearLeftovers(aim.otherFiles) ? endIntact(transaction.files())
                                                          : end(Result::Failed);
    }
    std::vector<UpdateWork> works = this->works();
    if (!m_problems.isEmpty() || !hasRoomToStage(m_settings.build, works, m_problems))
        return end(Result::Refused);
    aim.changesRelease = !isRecordRight(transaction.files());
    m_reports.phase(Phase::Staging);
    return end(transaction.carryOut(works, aim));
}

/// The build is what the signatures say, whatever its record did.
bool IntegrityRun::endIntact(BuildFiles &files)
{
    FileError error;
    if (isRecordRight(files))
        return end(Result::AlreadyUpToDate);
    const bool removed = InstalledRelease::remove(files, &error);
    files.removeFolder(WorkFolder::Name); // if it is empty
    if (!removed)
        m_problems.add(Code::ReadOrWrite, error);
    return end(removed ? Result::AlreadyUpToDate : Result::Failed);
}

/// Whether the record of the installed release, where there is one, is of what the signatures say.
bool IntegrityRun::isRecordRight(BuildFiles &files) const
{
    FileError damage;
    const auto record = InstalledRelease::read(files, &damage);
    return record ? identity() == record->build : damage.isEmpty();
}

/// That of the build of the signatures; nothing when they lack a checksum.
std::optional<Sha512> IntegrityRun::identity() const
{
    ByPath<Sha512> build;
    for (const SignedFile &file : m_files) {
        if (!file.sha512)
            return {};
        build.emplace(file.relativePath, *file.sha512);
    }
    return identityOf(build);
}

bool IntegrityRun::recordRelease()
{
    Transaction transaction(
        {{m_settings.build, QString(), QString()}, m_settings.threadCount, true, false},
        {{m_reports.progress, [](const QString &) {}}, [] {}}, m_cancelled, m_problems);
    if (!begin(transaction))
        return false;
    const auto sealed = readSeal();
    if (!sealed)
        return end(Result::Refused);
    if (!check())
        return false;
    return end(isReleaseOf(*sealed) ? record(*sealed, transaction.files()) : Result::Refused);
}

/// Nothing with a problem.
std::optional<SealedPatch> IntegrityRun::readSeal()
{
    if (QFileInfo(m_settings.patch).isDir())
        return readTrustedSeal(m_settings.patch, m_settings.keys, m_problems);
    fail(Code::BadFolder, {m_settings.patch, QStringLiteral("there is no such folder")});
    return {};
}

/// Whether the build, which has been checked, is what the patch of @p sealed leads to: then its
/// publisher has said so of every file. False with a problem.
bool IntegrityRun::isReleaseOf(const SealedPatch &sealed)
{
    const auto tell = [this](const QStringList &paths, const QString &reason) {
        for (const QString &path : paths)
            m_problems.add(Code::DamagedInstall, m_settings.build + path, reason);
    };
    tell(m_report.changed, QStringLiteral("is not as the signatures say"));
    tell(m_report.missing, QStringLiteral("is missing"));
    tell(m_report.unreadable, QStringLiteral("cannot be read"));
    if (identity() != sealed.to)
        m_problems.add(Code::BadManifest,
            m_settings.signatures + QLatin1Char('/') + SIGNATURES_FILE,
            QStringLiteral("is of another build than the one that the patch leads to"));
    return m_problems.isEmpty();
}

/// The number does not fall here either: a repair forgets one that is of another build.
IntegrityRun::Result IntegrityRun::record(const SealedPatch &sealed, BuildFiles &files)
{
    FileError error;
    const auto installed = InstalledRelease::read(files, &error);
    if (error.system != 0) {
        m_problems.add(Code::ReadOrWrite, error);
        return Result::Failed;
    }
    const bool isSame = installed && installed->build == sealed.to;
    if (isSame && installed->number >= sealed.release)
        return Result::AlreadyUpToDate;
    if (installed && installed->number >= sealed.release) {
        m_problems.add(Code::OlderRelease, files.absolute(WorkFolder::Release),
            QStringLiteral("says that release %1 is installed, which is no older than %2")
                .arg(QString::number(installed->number), QString::number(sealed.release)));
        return Result::Refused;
    }
    return writeRelease({sealed.release, sealed.to}, files, true, m_problems) ? Result::Updated
                                                                              : Result::Failed;
}

/// What brings back the files that are not intact.
std::vector<UpdateWork> IntegrityRun::works()
{
    UpdateCheck check({m_settings.build, QString(), m_settings.source}, m_problems);
    if (!check.checkFolders())
        return {};
    std::vector<UpdateRule> rules;
    for (std::size_t i = 0; i < m_files.size(); ++i) {
        if (m_states[i] != State::Intact)
            addRule(m_files[i], &rules);
    }
    const QSet<QString> unreadable(m_report.unreadable.cbegin(), m_report.unreadable.cend());
    std::vector<UpdateWork> works = check.worksFor(rules);
    for (UpdateWork &work : works) {
        work.isNeeded = true;
        work.isUnreadable = unreadable.contains(work.rule.relativePath);
    }
    return works;
}

void IntegrityRun::addRule(const SignedFile &file, std::vector<UpdateRule> *rules)
{
    const QString problem = problemOfRelativePath(file.relativePath);
    InputFile source;
    if (!problem.isEmpty()) {
        m_problems.add(Code::BadManifest, installed(file), problem);
    } else if (!file.sha512) {
        m_problems.add(Code::BadManifest, installed(file), QStringLiteral("has no checksum"));
    } else if (!source.open(m_settings.source + file.relativePath)) {
        const FileError &error = source.error();
        const bool isMissing = tellsNothing(error.system);
        m_problems.add(codeOf(error, Code::BadFallback), error.path,
            isMissing ? QStringLiteral("is not there") : error.reason);
    } else {
        UpdateRule rule;
        rule.kind = UpdateRule::Kind::Patch;
        rule.relativePath = file.relativePath;
        rule.sha512 = *file.sha512;
        rule.size = source.size();
        rules->push_back(rule);
    }
}

bool IntegrityRun::end(Transaction::Outcome outcome)
{
    switch (outcome) {
    case Transaction::Outcome::Done:
    case Transaction::Outcome::NothingToDo:
        return end(Result::Updated);
    case Transaction::Outcome::Failed:
        return end(Result::Failed);
    case Transaction::Outcome::Interrupted:
        return end(Result::Interrupted);
    case Transaction::Outcome::Cancelled:
        break;
    }
    return end(Result::Cancelled);
}

/// Tells what went wrong.
bool IntegrityRun::end(Result result)
{
    for (const UpdateProblem &problem : m_problems.all())
        m_reports.problem(problem);
    m_result = result;
    return result == Result::Updated || result == Result::AlreadyUpToDate;
}

/// @p error is empty when cancelled.
bool IntegrityRun::fail(Code code, const FileError &error)
{
    if (!error.isEmpty())
        m_problems.add(code, error);
    return false;
}

} // namespace Pellox
