// SPDX-License-Identifier: MIT
#include "updatecheck.h"

#include "canonicalpath.h"
#include "diskfile.h"
#include "filesystem.h"
#include "manifest.h"
#include "rules.h"
#include "workfolder.h"

#include <QFile>
#include <QFileInfo>

#include <filesystem>

#include <unistd.h>

namespace Pellox {

namespace {

constexpr QLatin1Char Separator('/');

bool isSameFile(const QString &path, const QString &other)
{
    const auto status = statusOf(path);
    const auto otherStatus = statusOf(other);
    return status && otherStatus && status->st_dev == otherStatus->st_dev
        && status->st_ino == otherStatus->st_ino;
}

QString withOtherCase(const QString &text)
{
    const QString upper = text.toUpper();
    return upper == text ? text.toLower() : upper;
}

QString withOtherForm(const QString &text)
{
    const QString composed = text.normalized(QString::NormalizationForm_C);
    return composed == text ? text.normalized(QString::NormalizationForm_D) : composed;
}

} // namespace

UpdateCheck::UpdateCheck(const UpdateFolders &folders, Problems &problems)
    : m_folders(folders)
    , m_problems(problems)
{
}

std::vector<UpdateWork> UpdateCheck::carryOut(const Amend &amend)
{
    if (!checkFolders())
        return {};
    QStringList errors;
    const QString manifest = Manifest::pathIn(m_folders.patch, PATCH_RULES_FILE);
    std::vector<UpdateRule> rules = readRules(manifest, &errors);
    checkTogether(rules, nameSense(rules), &errors);
    for (const QString &error : qAsConst(errors)) {
        const QString begin = manifest + QLatin1String(": ");
        add(Code::BadManifest, manifest, error.startsWith(begin) ? error.mid(begin.size()) : error);
    }
    return errors.isEmpty() && amend(&rules) ? worksFor(rules) : std::vector<UpdateWork>();
}

std::vector<UpdateWork> UpdateCheck::worksFor(const std::vector<UpdateRule> &rules)
{
    for (const UpdateRule &rule : rules) {
        if (rule.kind == UpdateRule::Kind::Delete)
            m_deleted.insert(rule.relativePath);
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
    for (const QString &folder : qAsConst(folders)) {
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
    const QString own = m_folders.build + WorkFolder::Name;
    if (statusOf(own) && !isFolder(own))
        add(Code::Obstructed, own,
            QStringLiteral("is no folder, but where an update keeps its own files"));
    if (::access(QFile::encodeName(m_folders.build).constData(), W_OK | X_OK) != 0)
        add(Code::NotWritable, m_folders.build, QStringLiteral("cannot be written"));
    return true;
}

/// How the build's file system tells names apart, seen on a file that is there.
NameSense UpdateCheck::nameSense(const std::vector<UpdateRule> &rules) const
{
    NameSense sense;
    bool caseIsKnown = false;
    bool unicodeIsKnown = false;
    for (const UpdateRule &rule : rules) {
        const QString &path = rule.relativePath;
        const QString name = path.mid(path.lastIndexOf(Separator) + 1);
        const auto isSame = [&](const QString &otherName) {
            const QString file = m_folders.build + path;
            return isSameFile(file, file.left(file.size() - name.size()) + otherName);
        };
        const bool tellsCase = !caseIsKnown && withOtherCase(name) != name;
        const bool tellsUnicode = !unicodeIsKnown && withOtherForm(name) != name;
        if ((!tellsCase && !tellsUnicode) || !statusOf(m_folders.build + path))
            continue;
        sense.foldsCase |= tellsCase && isSame(withOtherCase(name));
        sense.foldsUnicode |= tellsUnicode && isSame(withOtherForm(name));
        caseIsKnown |= tellsCase;
        unicodeIsKnown |= tellsUnicode;
    }
    return sense;
}

UpdateWork UpdateCheck::workFor(const UpdateRule &rule, std::size_t number)
{
    UpdateWork work;
    work.rule = rule;
    work.size = rule.size;
    checkTarget(work);
    if (rule.kind == UpdateRule::Kind::Delete)
        return work;
    if (!m_folders.patch.isEmpty())
        checkPayload(work);

    constexpr int LongestName = 255;
    const QString beside = rule.relativePath + WorkFolder::TemporarySuffix;
    const QString name = beside.mid(beside.lastIndexOf(Separator) + 1);
    const auto standing = statusOf(m_folders.build + beside);
    const bool fitsBeside = QFile::encodeName(name).size() <= LongestName
        && (!standing || S_ISREG(standing->st_mode));
    work.staged = !work.comesLast && fitsBeside
        ? beside
        : WorkFolder::Staged + Separator + QString::number(number);
    return work;
}

/// What stands where the rule's file is, or above it.
void UpdateCheck::checkTarget(UpdateWork &work)
{
    if (!checkAbove(work))
        return;
    const QString path = m_folders.build + work.rule.relativePath;
    const auto status = statusOf(path);
    if (!status || S_ISREG(status->st_mode))
        return;
    if (S_ISLNK(status->st_mode))
        add(Code::Obstructed, path, QStringLiteral("is a symbolic link"));
    else if (!S_ISDIR(status->st_mode))
        add(Code::Obstructed, path, QStringLiteral("is no regular file"));
    else if (work.rule.kind == UpdateRule::Kind::Delete)
        return; // the file is gone already
    else if (isEmptied(work.rule.relativePath))
        work.comesLast = true;
    else
        add(Code::Obstructed, path,
            QStringLiteral("is a folder, and holds files that no rule deletes"));
}

/// False when the work's file cannot be there, for what stands above it.
bool UpdateCheck::checkAbove(UpdateWork &work)
{
    for (const QString &folder : foldersAbove(work.rule.relativePath)) {
        const QString path = m_folders.build + folder;
        if (m_plainFolders.contains(path))
            continue;
        const auto status = statusOf(path);
        if (!status)
            return true; // it will be made
        if (S_ISREG(status->st_mode) && work.rule.kind == UpdateRule::Kind::Delete)
            return true; // the file is gone already
        if (S_ISREG(status->st_mode) && m_deleted.contains(folder)) {
            work.comesLast = true;
            return true;
        }
        if (!S_ISDIR(status->st_mode)) {
            add(Code::Obstructed, path,
                S_ISLNK(status->st_mode) ? QStringLiteral("is a symbolic link")
                                         : QStringLiteral("is no folder"));
            return false;
        }
        if (::access(QFile::encodeName(path).constData(), W_OK | X_OK) != 0)
            add(Code::NotWritable, path, QStringLiteral("cannot be written"));
        m_plainFolders.insert(path);
    }
    return true;
}

/// Whether the rules delete all that is in @p folder.
bool UpdateCheck::isEmptied(const QString &folder)
{
    namespace fs = std::filesystem;
    std::error_code error;
    fs::recursive_directory_iterator walk(
        fs::path(QFile::encodeName(m_folders.build + folder).constData()), error);
    for (; !error && walk != fs::end(walk); walk.increment(error)) {
        const QString path = QFile::decodeName(walk->path().c_str()).mid(m_folders.build.size());
        const bool isFolder = walk->symlink_status(error).type() == fs::file_type::directory;
        if (!isFolder && !m_deleted.contains(path))
            return false;
    }
    return !error;
}

void UpdateCheck::checkPayload(UpdateWork &work)
{
    for (const QString &folder : foldersAbove(work.rule.relativePath)) {
        const QString path = m_folders.patch + folder;
        if (m_plainFolders.contains(path))
            continue;
        const auto status = statusOf(path);
        if (!status || !S_ISDIR(status->st_mode))
            break; // said of the file itself
        m_plainFolders.insert(path);
    }
    const int lastSeparator = work.rule.relativePath.lastIndexOf(Separator);
    const QString folder = m_folders.patch + work.rule.relativePath.left(lastSeparator);
    const QString path = m_folders.patch + work.rule.relativePath;
    const auto status = statusOf(path);
    if (!status)
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
