// SPDX-License-Identifier: MIT
#include "rulechecks.h"

#include "diskfile.h"
#include "manifest.h"
#include "manifestfile.h"
#include "rules.h"
#include "workfolder.h"

#include <QFile>
#include <QJsonObject>

#include <algorithm>
#include <cmath>
#include <optional>

namespace Pellox {

namespace {

constexpr int LongestPath = 4096;         // bytes, of Linux
constexpr int LongestName = 255;          // bytes, of nearly all file systems
constexpr double LargestSize = 1LL << 53; // that a JSON number holds exactly
constexpr QLatin1Char Separator('/');

/// Of both sets: those below the blank and those from delete on.
bool hasControlCharacter(const QString &text)
{
    return std::any_of(text.cbegin(), text.cend(),
        [](QChar character) { return character.category() == QChar::Other_Control; });
}

/// Of a port: Windows takes raised digits for others, too.
bool isPortNumber(QChar character)
{
    return (character >= QLatin1Char('0') && character <= QLatin1Char('9'))
        || QStringLiteral("\u00b9\u00b2\u00b3").contains(character);
}

/// Whether @p name is a device on Windows, with any extension.
bool isDeviceName(const QString &name)
{
    const QString stem = name.section(QLatin1Char('.'), 0, 0).trimmed().toUpper();
    for (const char *device : {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"}) {
        if (stem == QLatin1String(device))
            return true;
    }
    return stem.size() == 4 && isPortNumber(stem.at(3))
        && (stem.startsWith(QLatin1String("COM")) || stem.startsWith(QLatin1String("LPT")));
}

QString problemOfName(const QString &name)
{
    if (name.isEmpty())
        return QStringLiteral("has an empty part");
    if (name == QLatin1String(".") || name == QLatin1String(".."))
        return QStringLiteral("has a part that is only dots");
    if (name.endsWith(QLatin1Char('.')) || name.endsWith(QLatin1Char(' ')))
        return QStringLiteral(
            "has a part that ends with a dot or a blank, which some systems drop");
    if (name.contains(QLatin1Char('\\')) || name.contains(QLatin1Char(':')))
        return QStringLiteral("has a backslash or a colon, which lead elsewhere on some systems");
    if (isDeviceName(name))
        return QStringLiteral("has a part that is a device on some systems");
    if (QFile::encodeName(name).size() > LongestName)
        return QStringLiteral("has a part of more than 255 bytes");
    return {};
}

std::optional<UpdateRule::Kind> kindOf(const QString &name)
{
    if (name == PATCH_RULE)
        return UpdateRule::Kind::Patch;
    if (name == COPY_RULE)
        return UpdateRule::Kind::Copy;
    if (name == DELETE_RULE)
        return UpdateRule::Kind::Delete;
    return {};
}

/// What is wrong with @p record; empty when it is @p rule.
QString problemOfRecord(const QJsonValue &record, UpdateRule *rule)
{
    if (!record.isObject())
        return QStringLiteral("is no object");
    const QJsonObject members = record.toObject();
    const auto kind = kindOf(members.value(Manifest::Rule).toString());
    if (!kind)
        return QStringLiteral("has an unknown rule");
    rule->kind = *kind;
    const QJsonValue path = members.value(Manifest::RelativePath);
    if (!path.isString())
        return QStringLiteral("has no path");
    rule->relativePath = path.toString();
    const QString problem = problemOfRelativePath(rule->relativePath);
    if (!problem.isEmpty() || *kind != UpdateRule::Kind::Patch)
        return problem;

    const auto sha512 = Sha512::fromText(members.value(Manifest::Sha512).toString());
    if (!sha512)
        return QStringLiteral("has no SHA-512");
    const double size = members.value(Manifest::FileSize).toDouble(-1);
    if (size < 0 || size > LargestSize || std::floor(size) < size)
        return QStringLiteral("has no file size");
    rule->sha512 = *sha512;
    rule->size = static_cast<qint64>(size);
    return {};
}

} // namespace

QString problemOfPath(const QString &path)
{
    if (!path.startsWith(Separator))
        return QStringLiteral("has a path that does not begin with a separator");
    if (hasControlCharacter(path))
        return QStringLiteral("has a path with a control character");
    if (QFile::encodeName(path).size() > LongestPath)
        return QStringLiteral("has a path of more than 4,096 bytes");
    if (QFile::decodeName(QFile::encodeName(path)) != path)
        return QStringLiteral("has a path that the system's encoding cannot hold");
    for (const QString &name : path.mid(1).split(Separator)) {
        const QString problem = problemOfName(name);
        if (!problem.isEmpty())
            return QStringLiteral("has a path that ") + problem;
    }
    return {};
}

QString problemOfRelativePath(const QString &relativePath)
{
    const QString problem = problemOfPath(relativePath);
    return problem.isEmpty() && WorkFolder::isInside(relativePath)
        ? QStringLiteral("has a path among the update's own files")
        : problem;
}

std::vector<UpdateRule> readRules(const QString &path, QStringList *errors)
{
    std::vector<UpdateRule> rules;
    QStringList problems;
    const auto begin = [&] {
        rules.clear();
        problems.clear();
    };
    const auto take = [&](const QJsonValue &record, int number) {
        UpdateRule rule;
        const QString problem = problemOfRecord(record, &rule);
        if (problem.isEmpty()) {
            rules.push_back(rule);
            return;
        }
        const QString name
            = rule.relativePath.isEmpty() ? QString() : QLatin1String(": ") + rule.relativePath;
        problems.append(aboutFile(
            path, QStringLiteral("record %1 %2%3").arg(QString::number(number), problem, name)));
    };
    QString error;
    if (!readManifest(path, begin, take, &error))
        problems = QStringList{error};
    *errors += problems;
    return rules;
}

QStringList foldersAbove(const QString &relativePath)
{
    QStringList folders;
    for (int i = relativePath.indexOf(Separator, 1); i > 0;
         i = relativePath.indexOf(Separator, i + 1))
        folders.append(relativePath.left(i));
    return folders;
}

QString NameSense::key(const QString &path) const
{
    const QString composed = foldsUnicode ? path.normalized(QString::NormalizationForm_C) : path;
    return foldsCase ? composed.toCaseFolded() : composed;
}

void checkTogether(const std::vector<UpdateRule> &rules, NameSense sense, QStringList *errors)
{
    QHash<QString, const UpdateRule *> byKey;
    for (const UpdateRule &rule : rules) {
        const QString key = sense.key(rule.relativePath);
        const UpdateRule *&other = byKey[key];
        // On a file system that takes "A" and "a" for one name, a file may change its name so.
        const bool renames = other && other->relativePath != rule.relativePath
            && (other->kind == UpdateRule::Kind::Delete) != (rule.kind == UpdateRule::Kind::Delete);
        if (other && !renames)
            errors->append(aboutFile(rule.relativePath, QStringLiteral("has more than one rule")));
        if (!other || other->kind == UpdateRule::Kind::Delete)
            other = &rule;
    }

    const auto isWritten = [&](const QString &key) {
        const UpdateRule *rule = byKey.value(key);
        return rule && rule->kind != UpdateRule::Kind::Delete;
    };
    const auto isTemporaryName = [&](const QString &path) {
        const QString key = sense.key(path);
        return key.endsWith(WorkFolder::TemporarySuffix)
            && isWritten(key.chopped(WorkFolder::TemporarySuffix.size()));
    };
    for (const UpdateRule &rule : rules) {
        const QString &path = rule.relativePath;
        const QStringList folders = foldersAbove(path);
        const bool liesInFile = rule.kind != UpdateRule::Kind::Delete
            && std::any_of(folders.cbegin(), folders.cend(),
                [&](const QString &folder) { return isWritten(sense.key(folder)); });
        if (liesInFile)
            errors->append(
                aboutFile(path, QStringLiteral("lies in what another rule makes a file")));
        const QStringList parts = folders + QStringList(path);
        if (std::any_of(parts.cbegin(), parts.cend(), isTemporaryName))
            errors->append(aboutFile(
                path, QStringLiteral("has a rule, but a temporary name of another rule's file")));
    }
}

} // namespace Pellox
