// SPDX-License-Identifier: MIT
#include "updatecheck.h"

#include "canonicalpath.h"
#include "diskfile.h"
#include "diskroom.h"
#include "filesystem.h"
#include "folderlisting.h"
#include "manifest.h"
#include "nameprobe.h"
#include "rules.h"
#include "workfolder.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <climits>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Pellox {

namespace {

constexpr QLatin1Char Separator('/');

/// By which names are the same wherever they are: one that no file system tells apart further.
QString broadKey(const QString &path)
{
    return NameSense{true, true}.key(path);
}

/// Whether @p path and @p other are two names of a file that the file system takes for one: not two
/// that it tells apart.
bool isOneName(const QString &path, const QString &other)
{
    const auto status = statusOf(path);
    const auto otherStatus = statusOf(other);
    return status && otherStatus && status->st_dev == otherStatus->st_dev
        && status->st_ino == otherStatus->st_ino && status->st_nlink == 1;
}

/// Whether an attribute keeps everybody from replacing or removing what stands at @p path, or what
/// lies in it.
bool isFixed(const QString &path)
{
    struct statx status = {};
    const QByteArray name = QFile::encodeName(path);
    return ::statx(AT_FDCWD, name.constData(), 0, 0, &status) == 0
        && (status.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0;
}

} // namespace

UpdateCheck::UpdateCheck(const UpdateFolders &folders, Problems &problems, Names names)
    : m_folders(folders)
    , m_problems(problems)
    , m_names(names)
    , m_longestName(::pathconf(QFile::encodeName(folders.build).constData(), _PC_NAME_MAX))
    , m_record(folders.build)
{
}

std::vector<UpdateWork> UpdateCheck::carryOut(const Amend &amend, const GoOn &goOn)
{
    std::vector<FileError> errors;
    QStringList collisions;
    const QString manifest = Manifest::pathIn(m_folders.patch, PATCH_RULES_FILE);
    std::vector<UpdateRule> rules = readRules(manifest, &errors, goOn);
    checkNames(rules, &collisions);
    for (const FileError &error : errors)
        m_problems.add(codeOf(error, Code::BadManifest), error);
    for (const QString &collision : std::as_const(collisions))
        add(Code::BadManifest, manifest, collision);
    const bool isRight = errors.empty() && collisions.isEmpty();
    return isRight && mayGoOn(goOn) && amend(&rules) ? worksFor(rules) : std::vector<UpdateWork>();
}

std::vector<UpdateWork> UpdateCheck::worksFor(const std::vector<UpdateRule> &rules)
{
    noteDeletions(rules);
    noteTargets(rules);
    if (const auto status = statusOf(m_folders.build))
        noteSticky(m_folders.build, *status);
    if (!m_record.read()) {
        m_problems.add(Code::ReadOrWrite, m_record.errors().front());
        return {};
    }
    std::vector<UpdateWork> works;
    works.reserve(rules.size());
    for (const UpdateRule &rule : rules)
        works.push_back(workFor(rule, works.size()));
    return works;
}

bool UpdateCheck::checkFolders()
{
    QStringList folders{m_folders.build, m_folders.patch, m_folders.fallback};
    folders.removeAll(QString());
    for (const QString &folder : std::as_const(folders)) {
        if (!QFileInfo(folder).isDir()) {
            add(Code::BadFolder, folder, QStringLiteral("there is no such folder"));
            return false;
        }
        const bool isBuild = &folder == &folders.first();
        if (!isBuild && overlap(folder, m_folders.build)) {
            add(Code::BadFolder, folder,
                QLatin1String("must not be, hold or lie inside of ") + m_folders.build);
            return false;
        }
    }
    for (const QString &name : {WorkFolder::Name, WorkFolder::Staged}) {
        const QString own = m_folders.build + name;
        FileError error;
        const auto status = statusOf(own, &error);
        if (!error.isEmpty())
            m_problems.add(Code::ReadOrWrite, error);
        else if (status && S_ISDIR(status->st_mode))
            checkWritable(own);
        else if (status)
            add(Code::Obstructed, own,
                QStringLiteral("is no folder, but where an update keeps its own files"));
        checkMount(own);
    }
    checkWritable(m_folders.build);
    return true;
}

/// What can stand together where all that is alike is one name can do so anywhere.
void UpdateCheck::checkNames(const std::vector<UpdateRule> &rules, QStringList *errors)
{
    QStringList possible;
    checkTogether(rules, {true, true}, &possible);
    if (!possible.isEmpty())
        checkTogether(rules, nameSense(rules), errors);
}

NameSense UpdateCheck::nameSense(const std::vector<UpdateRule> &rules)
{
    NameSense sense = seenNameSense(m_folders.build, rules);
    if (m_names == Names::TriedOut && m_problems.isEmpty()) {
        const NameSense tried = tryNames();
        sense.foldsCase |= tried.foldsCase;
        sense.foldsUnicode |= tried.foldsUnicode;
    }
    return sense;
}

NameSense UpdateCheck::tryNames()
{
    WorkFolder folder(m_folders.build);
    FileError error;
    const auto sense = folder.make() ? triedNameSense(m_folders.build, &error) : std::nullopt;
    if (!sense)
        m_problems.add(Code::ReadOrWrite, error.isEmpty() ? folder.error() : error);
    folder.removeIfEmpty();
    return sense.value_or(NameSense());
}

void UpdateCheck::noteDeletions(const std::vector<UpdateRule> &rules)
{
    for (const UpdateRule &rule : rules) {
        if (rule.kind == UpdateRule::Kind::Delete)
            m_deleted.insert(broadKey(rule.relativePath), rule.relativePath);
    }
}

void UpdateCheck::noteTargets(const std::vector<UpdateRule> &rules)
{
    for (const UpdateRule &rule : rules) {
        if (rule.kind == UpdateRule::Kind::Delete)
            continue;
        m_taken.insert(broadKey(rule.relativePath));
        for (const QString &folder : foldersAbove(rule.relativePath))
            m_taken.insert(broadKey(folder));
    }
}

/// @p folder may be one where only owners may replace files, and that not ours.
void UpdateCheck::noteSticky(const QString &folder, const struct stat &status)
{
    const uid_t user = ::geteuid();
    if ((status.st_mode & S_ISVTX) != 0 && user != 0 && user != status.st_uid)
        m_sticky.insert(folder);
}

UpdateWork UpdateCheck::workFor(const UpdateRule &rule, std::size_t number)
{
    UpdateWork work;
    work.rule = rule;
    work.size = rule.size;
    checkTarget(work);
    if (rule.kind == UpdateRule::Kind::Delete)
        return work;
    if (!fits(rule.relativePath)) {
        add(Code::Obstructed, m_folders.build + rule.relativePath,
            QStringLiteral("has a path or a name that is too long where the build stands"));
    }
    if (!m_folders.patch.isEmpty())
        checkPayload(work);
    chooseStaged(work, number);
    return work;
}

/// Whether the system and the build's file system take so long a path, and the name at its end. A
/// rule's folders stand in the paths of files too, and making one that is too long fails in
/// staging.
bool UpdateCheck::fits(const QString &relativePath) const
{
    const QByteArray path = QFile::encodeName(m_folders.build + relativePath);
    const auto name = path.size() - path.lastIndexOf('/') - 1;
    return path.size() < PATH_MAX && (m_longestName <= 0 || name <= m_longestName);
}

/// Beside its target, unless that is somebody's file, or the place of another rule's.
void UpdateCheck::chooseStaged(UpdateWork &work, std::size_t number) const
{
    const QString beside = work.rule.relativePath + WorkFolder::TemporarySuffix;
    FileError unknown;
    const auto standing = statusOf(m_folders.build + beside, &unknown);
    const bool isFree
        = standing ? S_ISREG(standing->st_mode) && m_record.isOwn(beside) : unknown.isEmpty();
    const bool fitsBeside = isFree && !work.comesLast && problemOfRelativePath(beside).isEmpty()
        && fits(beside) && !m_taken.contains(broadKey(beside));
    work.staged = fitsBeside ? beside : WorkFolder::Staged + Separator + QString::number(number);
    work.isOwnStaged = m_record.isOwn(work.staged);
}

/// What stands where the rule's file is, or above it.
void UpdateCheck::checkTarget(UpdateWork &work)
{
    if (!checkAbove(work))
        return;
    const QString path = m_folders.build + work.rule.relativePath;
    FileError error;
    const auto status = statusOf(path, &error);
    if (!error.isEmpty())
        m_problems.add(Code::ReadOrWrite, error);
    if (!status)
        return;
    if (S_ISREG(status->st_mode))
        checkReplaceable(path, *status);
    else if (S_ISLNK(status->st_mode))
        add(Code::Obstructed, path, QStringLiteral("is a symbolic link"));
    else if (!S_ISDIR(status->st_mode))
        add(Code::Obstructed, path, QStringLiteral("is no regular file"));
    else if (work.rule.kind == UpdateRule::Kind::Delete)
        return; // the file is gone already
    else if (isEmptied(work.rule.relativePath)) {
        work.comesLast = true;
        checkReplaceable(path, *status);
    } else
        add(Code::Obstructed, path,
            QStringLiteral("is a folder, and holds files that no rule deletes"));
}

/// Else the system would refuse it when files are being put in place already.
void UpdateCheck::checkReplaceable(const QString &path, const struct stat &status)
{
    const QString folder = path.left(path.lastIndexOf(Separator));
    if (isFixed(path))
        add(Code::NotWritable, path,
            QStringLiteral("cannot be replaced: an attribute makes it immutable or append-only"));
    else if (m_sticky.contains(folder) && status.st_uid != ::geteuid())
        add(Code::NotWritable, path,
            QStringLiteral("cannot be replaced: it belongs to another user, and its folder lets "
                           "only owners do that"));
}

/// False when the work's file cannot be there, for what stands above it.
bool UpdateCheck::checkAbove(UpdateWork &work)
{
    for (const QString &folder : foldersAbove(work.rule.relativePath)) {
        const QString path = m_folders.build + folder;
        if (m_plainFolders.contains(path))
            continue;
        FileError error;
        const auto status = statusOf(path, &error);
        if (!error.isEmpty()) {
            m_problems.add(Code::ReadOrWrite, error);
            return false;
        }
        if (!status || m_record.isOwn(folder))
            return true; // it will be made, if need be in the place of what was staged there
        if (S_ISREG(status->st_mode) && work.rule.kind == UpdateRule::Kind::Delete)
            return true; // the file is gone already
        if (S_ISREG(status->st_mode) && isDeleted(folder)) {
            work.comesLast = true;
            return true;
        }
        if (!S_ISDIR(status->st_mode)) {
            add(Code::Obstructed, path,
                S_ISLNK(status->st_mode) ? QStringLiteral("is a symbolic link")
                                         : QStringLiteral("is no folder"));
            return false;
        }
        checkWritable(path);
        checkMount(path);
        noteSticky(path, *status);
        m_plainFolders.insert(path);
    }
    return true;
}

/// And its files replaced.
void UpdateCheck::checkWritable(const QString &folder)
{
    const bool isDenied = ::access(QFile::encodeName(folder).constData(), W_OK | X_OK) != 0;
    if (isDenied && errno != EACCES && errno != EPERM && errno != EROFS)
        m_problems.add(Code::ReadOrWrite, FileError::ofSystem(folder, "cannot be looked at: "));
    else if (isDenied || isFixed(folder))
        add(Code::NotWritable, folder, QStringLiteral("cannot be written"));
}

/// Renames lead to no other file system, and it would not be synced with the build's own.
void UpdateCheck::checkMount(const QString &folder)
{
    if (!isOneMount(folder, m_folders.build))
        add(Code::Obstructed, folder,
            QStringLiteral("is on another file system than the build, or mounted by itself"));
}

/// Whether the rules delete all that is in @p folder, or a problem was added.
bool UpdateCheck::isEmptied(const QString &folder)
{
    FolderListing listing(QFile::encodeName(m_folders.build + folder));
    while (const auto entry = listing.next()) {
        const QString inside = QFile::decodeName(entry->path).mid(m_folders.build.size());
        // What an earlier run has staged goes before anything is staged.
        const bool goes = entry->kind == FolderListing::Kind::Folder
            ? isEmptied(inside)
            : isDeleted(inside) || m_record.isOwn(inside);
        if (!goes)
            return false;
    }
    if (!listing.error().isEmpty())
        m_problems.add(Code::ReadOrWrite, listing.error());
    return true;
}

/// Whether a rule deletes that file, in whatever spelling.
bool UpdateCheck::isDeleted(const QString &relativePath) const
{
    const QList<QString> paths = m_deleted.values(broadKey(relativePath));
    return std::any_of(paths.cbegin(), paths.cend(), [&](const QString &path) {
        return path == relativePath
            || isOneName(m_folders.build + path, m_folders.build + relativePath);
    });
}

void UpdateCheck::checkPayload(UpdateWork &work)
{
    FileError error;
    for (const QString &folder : foldersAbove(work.rule.relativePath)) {
        const QString path = m_folders.patch + folder;
        if (m_plainFolders.contains(path))
            continue;
        const auto status = statusOf(path, &error);
        if (!status || !S_ISDIR(status->st_mode))
            break; // said of the file itself
        m_plainFolders.insert(path);
    }
    const auto lastSeparator = work.rule.relativePath.lastIndexOf(Separator);
    const QString folder = m_folders.patch + work.rule.relativePath.left(lastSeparator);
    const QString path = m_folders.patch + work.rule.relativePath;
    const auto status = error.isEmpty() ? statusOf(path, &error) : std::nullopt;
    if (!error.isEmpty())
        m_problems.add(Code::ReadOrWrite, error);
    else if (!status && !work.rule.source.isEmpty())
        work.isMoved = true;
    else if (!status)
        add(Code::BadPatch, path, QStringLiteral("is missing from the patch"));
    else if (!S_ISREG(status->st_mode))
        add(Code::BadPatch, path, QStringLiteral("is no regular file"));
    else if (lastSeparator > 0 && !m_plainFolders.contains(folder))
        add(Code::BadPatch, path, QStringLiteral("is reached through a symbolic link"));
    else if (work.rule.kind == UpdateRule::Kind::Copy && !work.rule.isSealed)
        work.size = status->st_size;
}

void UpdateCheck::add(Code code, const QString &path, const QString &reason)
{
    m_problems.add(code, path, reason);
}

} // namespace Pellox
