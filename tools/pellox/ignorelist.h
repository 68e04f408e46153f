// SPDX-License-Identifier: MIT
#pragma once

#include <QHash>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

#include <vector>

/**
 * Patterns that leave files out, in the syntax of .gitignore: the last one that matches decides,
 * "!" takes back, and what is in an ignored folder stays ignored. Characters are those of Unicode.
 */
class IgnoreList
{
public:
    /// The lines of the file @p path. Throws Refusal when it cannot be read, or not as text in the
    /// encoding of the locale.
    static IgnoreList fromFile(const QString &path);

    /// Takes a line as it may stand in a file; one that is blank or a comment adds nothing.
    void addLine(const QString &line);
    /// Takes @p glob, which is matched against the whole of a path.
    void addGlob(const QString &glob);

    /// Those of @p files that are ignored: relative paths without a separator at their beginning.
    /// Throws Refusal when a pattern is too costly to match.
    QStringList ignoredAmong(const QStringList &files);

    /// A pattern that nothing in ignoredAmong() has asked for.
    struct Unused
    {
        QString text; ///< as it was given
        int line;     ///< counted from 1, blank lines and comments too
    };
    std::vector<Unused> unused() const;

private:
    struct Pattern
    {
        QString text;
        int line = 0;
        QRegularExpression expression;
        bool takesBack = false;
        bool isForFolders = false; ///< and for nothing else
        bool isForNames = false;   ///< in any folder, not for paths
        bool hasMatched = false;
    };

    void add(Pattern pattern, const QString &glob);
    bool isIgnored(const QString &path, bool isFolder);
    bool isFolderIgnored(const QString &path);
    static bool matches(const Pattern &pattern, const QString &path, bool isFolder);

    int m_lines = 0;
    std::vector<Pattern> m_patterns;
    QHash<QString, bool> m_folders; ///< those that were looked at: whether they are ignored
};
