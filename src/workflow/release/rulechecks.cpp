// SPDX-License-Identifier: MIT
#include "rulechecks.h"

#include "manifest.h"
#include "manifestfile.h"
#include "rules.h"
#include "workfolder.h"

#include <QFile>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <optional>
#include <utility>

namespace Pellox {

namespace {

constexpr int LongestPath = 4096;         // bytes, of Linux
constexpr int LongestName = 255;          // bytes, of nearly all file systems
constexpr double LargestSize = 1LL << 53; // that a JSON number holds exactly
constexpr QLatin1Char Separator('/');
constexpr int MostErrors = 100;

/// What is wrong: the first hundred, then a number.
class Errors
{
public:
    void add(const QString &error)
    {
        if (++m_count <= MostErrors)
            m_texts.append(error);
    }
    void clear() { *this = Errors(); }
    QStringList all() const
    {
        const auto more = m_count - m_texts.size();
        return more == 0 ? m_texts : m_texts + QStringList(QStringLiteral("and %1 more").arg(more));
    }

private:
    QStringList m_texts;
    int m_count = 0;
};

/// Whether file systems that fold names overlook @p character, as Unicode lets them.
bool isIgnorable(uint character)
{
    constexpr std::pair<uint, uint> Ignorable[] = {{0xad, 0xad}, {0x34f, 0x34f}, {0x61c, 0x61c},
        {0x115f, 0x1160}, {0x17b4, 0x17b5}, {0x180b, 0x180f}, {0x200b, 0x200f}, {0x202a, 0x202e},
        {0x2060, 0x206f}, {0x3164, 0x3164}, {0xfe00, 0xfe0f}, {0xfeff, 0xfeff}, {0xffa0, 0xffa0},
        {0xfff0, 0xfff8}, {0x1bca0, 0x1bca3}, {0x1d173, 0x1d17a}, {0xe0000, 0xe0fff}};
    return std::any_of(std::begin(Ignorable), std::end(Ignorable),
        [&](const auto &range) { return range.first <= character && character <= range.second; });
}

QString withoutIgnorable(const QString &text)
{
    const auto isPlain = [](QChar character) { return character.unicode() < 0xad; };
    if (std::all_of(text.cbegin(), text.cend(), isPlain))
        return text;
    QString kept;
    for (const char32_t character : text.toStdU32String()) {
        if (!isIgnorable(character))
            kept += QString::fromUcs4(&character, 1);
    }
    return kept;
}

/// Whether @p name has the form that some file systems give a second name of a file, like LONGNA~1.
bool isShortName(const QString &name)
{
    static const QRegularExpression form(
        QStringLiteral("^(?=[^.]{1,8}(\\.|$))[^.]+~[0-9]+(\\.[^.]{1,3})?$"));
    return name.contains(QLatin1Char('~')) && form.match(name).hasMatch();
}

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
    if (isShortName(name))
        return QStringLiteral("has a part that some systems use for another name");
    if (QFile::encodeName(name).size() > LongestName)
        return QStringLiteral("has a part of more than 255 bytes");
    return {};
}

/// Of a text from outside, which may be of any length.
QString beginOf(const QString &path)
{
    return path.size() <= LongestPath ? path : path.left(LongestPath) + QStringLiteral("...");
}

QString aboutRecord(int number, const QString &problem, const QString &path)
{
    const QString name = path.isEmpty() ? QString() : QLatin1String(": ") + beginOf(path);
    return QStringLiteral("record %1 %2%3").arg(QString::number(number), problem, name);
}

/// Where Qt makes a map of an object, as the core does, byte order marks in front of names go: then
/// one member may take the place of another.
bool hidesMembers(const QJsonObject &members)
{
    return members.toVariantMap().size() != members.size();
}

/// What is wrong with @p record; empty when it is @p rule.
QString problemOfRecord(const QJsonValue &record, UpdateRule *rule)
{
    if (!record.isObject())
        return QStringLiteral("is no object");
    const QJsonObject members = record.toObject();
    if (hidesMembers(members))
        return QStringLiteral("has two members whose names differ in a byte order mark alone");
    const auto kind = kindOf(members.value(Manifest::Rule).toString());
    if (!kind)
        return QStringLiteral("has an unknown rule");
    rule->kind = *kind;
    const QJsonValue path = members.value(Manifest::RelativePath);
    if (!path.isString())
        return QStringLiteral("has no path");
    rule->relativePath = path.toString();
    QString problem = problemOfRelativePath(rule->relativePath);
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

QString nameOf(UpdateRule::Kind kind)
{
    switch (kind) {
    case UpdateRule::Kind::Patch:
        return PATCH_RULE;
    case UpdateRule::Kind::Copy:
        return COPY_RULE;
    case UpdateRule::Kind::Delete:
        break;
    }
    return DELETE_RULE;
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

std::vector<UpdateRule> readRules(
    const QString &path, std::vector<FileError> *errors, const GoOn &goOn)
{
    std::vector<UpdateRule> rules;
    Errors found;
    int count = 0;
    qint64 text = 0;
    const auto begin = [&] {
        rules.clear();
        found.clear();
        count = 0;
        text = 0;
    };
    const auto take = [&](const QJsonValue &record, int number) {
        UpdateRule rule;
        const QString problem = problemOfRecord(record, &rule);
        count = number;
        text += rule.relativePath.size();
        if (problem.isEmpty())
            rules.push_back(rule);
        else
            found.add(aboutRecord(number, problem, rule.relativePath));
    };
    const auto isTooMuch = [&] { return count > MostRecords || text > MostPathText; };
    FileError error;
    const bool isRead
        = readManifest(path, begin, take, &error, [&] { return !isTooMuch() && mayGoOn(goOn); });
    if (isTooMuch())
        error = {path, QStringLiteral("has more rules or longer paths than any build")};
    if (!error.isEmpty())
        errors->push_back(error);
    else if (isRead)
        for (const QString &problem : found.all())
            errors->push_back({path, problem});
    return rules;
}

QStringList foldersAbove(const QString &relativePath)
{
    QStringList folders;
    for (auto i = relativePath.indexOf(Separator, 1); i > 0;
         i = relativePath.indexOf(Separator, i + 1))
        folders.append(relativePath.left(i));
    return folders;
}

QString NameSense::key(const QString &path) const
{
    // Those that fold names at all overlook such characters, too.
    const QString text = foldsCase || foldsUnicode ? withoutIgnorable(path) : path;
    const QString composed = foldsUnicode ? text.normalized(QString::NormalizationForm_C) : text;
    return foldsCase ? composed.toCaseFolded() : composed;
}

void checkTogether(const std::vector<UpdateRule> &rules, NameSense sense, QStringList *errors)
{
    Errors found;
    QHash<QString, const UpdateRule *> byKey;
    for (const UpdateRule &rule : rules) {
        const QString key = sense.key(rule.relativePath);
        const UpdateRule *&other = byKey[key];
        // On a file system that takes "A" and "a" for one name, a file may change its name so.
        const bool renames = other && other->relativePath != rule.relativePath
            && (other->kind == UpdateRule::Kind::Delete) != (rule.kind == UpdateRule::Kind::Delete);
        if (other && !renames)
            found.add(aboutFile(rule.relativePath, QStringLiteral("has more than one rule")));
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
            found.add(aboutFile(path, QStringLiteral("lies in what another rule makes a file")));
        const QStringList parts = folders + QStringList(path);
        if (std::any_of(parts.cbegin(), parts.cend(), isTemporaryName))
            found.add(aboutFile(
                path, QStringLiteral("has a rule, but a temporary name of another rule's file")));
    }
    *errors += found.all();
}

} // namespace Pellox
