// SPDX-License-Identifier: MIT
#include "ignorelist.h"

#include "folders.h"
#include "globexpression.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <utility>

namespace {

/// Without the blanks at the end of @p line, but for one that a backslash keeps.
QString withoutTrailingBlanks(const QString &line)
{
    int end = 0;
    for (int i = 0; i < line.size(); ++i) {
        if (line.at(i) == QLatin1Char('\\'))
            ++i;
        else if (line.at(i) == QLatin1Char(' '))
            continue;
        end = i < line.size() ? i + 1 : i;
    }
    return line.left(end);
}

QString decoded(const QByteArray &bytes, const QString &path)
{
    QString text = QFile::decodeName(bytes);
    if (bytes.contains('\0') || QFile::encodeName(text) != bytes)
        throw Refusal(path, QStringLiteral("is not text in the encoding of the locale"));
    return text;
}

} // namespace

IgnoreList IgnoreList::fromFile(const QString &path)
{
    QFile file(path);
    if (!QFileInfo::exists(path))
        throw Refusal(path, QStringLiteral("there is no such file"));
    const QFileInfo info(path);
    if (!info.isDir() && !info.isFile()) // whoever opens one may wait for ever
        throw Refusal(path, QStringLiteral("is a pipe, socket or device, not a list"));
    if (info.isDir() || !file.open(QIODevice::ReadOnly))
        throw Refusal(path, QStringLiteral("cannot be read"));
    QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        throw Refusal(path, QStringLiteral("cannot be read"));
    const QByteArray byteOrderMark("\xef\xbb\xbf");
    if (bytes.startsWith(byteOrderMark))
        bytes.remove(0, byteOrderMark.size());

    IgnoreList list;
    for (QString line : decoded(bytes, path).split(QLatin1Char('\n'))) {
        if (line.endsWith(QLatin1Char('\r')))
            line.chop(1);
        list.addLine(line);
    }
    return list;
}

void IgnoreList::addLine(const QString &line)
{
    ++m_lines;
    if (line.startsWith(QLatin1Char('#')))
        return;
    Pattern pattern;
    pattern.text = withoutTrailingBlanks(line);
    QString glob = pattern.text;
    pattern.takesBack = glob.startsWith(QLatin1Char('!'));
    if (pattern.takesBack)
        glob.remove(0, 1);
    if (glob.isEmpty())
        return;
    pattern.isForFolders = glob.endsWith(QLatin1Char('/'));
    if (pattern.isForFolders)
        glob.chop(1);
    pattern.isForNames = !glob.contains(QLatin1Char('/'));
    if (glob.startsWith(QLatin1Char('/')))
        glob.remove(0, 1);
    add(std::move(pattern), glob);
}

void IgnoreList::addGlob(const QString &glob)
{
    ++m_lines;
    Pattern pattern;
    pattern.text = glob;
    pattern.isForFolders = glob.endsWith(QLatin1Char('/'));
    const QString part = pattern.isForFolders ? glob.chopped(1) : glob;
    add(std::move(pattern), part);
}

void IgnoreList::add(Pattern pattern, const QString &glob)
{
    pattern.line = m_lines;
    pattern.expression = globExpression(glob);
    m_patterns.push_back(std::move(pattern));
}

QStringList IgnoreList::ignoredAmong(const QStringList &files)
{
    QStringList ignored;
    for (const QString &file : files) {
        if (isFolderIgnored(file.section(QLatin1Char('/'), 0, -2)) || isIgnored(file, false))
            ignored.append(file);
    }
    return ignored;
}

bool IgnoreList::isFolderIgnored(const QString &path)
{
    if (path.isEmpty() || m_patterns.empty())
        return false;
    const auto known = m_folders.constFind(path);
    if (known != m_folders.constEnd())
        return *known;
    // What is in an ignored folder is not even looked at.
    const bool ignored
        = isFolderIgnored(path.section(QLatin1Char('/'), 0, -2)) || isIgnored(path, true);
    m_folders.insert(path, ignored);
    return ignored;
}

bool IgnoreList::isIgnored(const QString &path, bool isFolder)
{
    bool ignored = false;
    for (Pattern &pattern : m_patterns) {
        if (!matches(pattern, path, isFolder))
            continue;
        pattern.hasMatched = true;
        ignored = !pattern.takesBack;
    }
    return ignored;
}

bool IgnoreList::matches(const Pattern &pattern, const QString &path, bool isFolder)
{
    if (pattern.isForFolders && !isFolder)
        return false;
    const QRegularExpressionMatch match = pattern.expression.match(
        pattern.isForNames ? path.mid(path.lastIndexOf(QLatin1Char('/')) + 1) : path);
    if (!match.isValid())
        throw Refusal(path, QStringLiteral("takes too long to match with ") + pattern.text);
    return match.hasMatch();
}

std::vector<IgnoreList::Unused> IgnoreList::unused() const
{
    std::vector<Unused> unused;
    for (const Pattern &pattern : m_patterns) {
        if (!pattern.hasMatched)
            unused.push_back({pattern.text, pattern.line});
    }
    return unused;
}
