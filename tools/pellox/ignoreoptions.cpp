// SPDX-License-Identifier: MIT
#include "ignoreoptions.h"

#include "console.h"
#include "folders.h"
#include "ignorelist.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>

namespace {

/// Looks up which files of a build are ignored.
class Search
{
public:
    Search(Console &console, const QString &newBuild, const QStringList &files)
        : m_console(console)
        , m_prefix(newBuild + QLatin1Char('/'))
    {
        for (const QString &file : files)
            m_files.append(file.mid(m_prefix.size()));
    }

    void ignore(const QString &argument)
    {
        if (argument.isEmpty())
            throw Refusal(
                QStringLiteral("--ignore \"\""), QStringLiteral("names no file or folder"));
        QString path = QDir::cleanPath(QDir(m_prefix).absoluteFilePath(argument));
        static const QRegularExpression Wildcards(QStringLiteral("[*?[]"));
        // What is there under that very name is meant, wildcards in it or not.
        const bool isThere = QFileInfo::exists(path) || QFileInfo(path).isSymLink();
        const bool isGlob = !isThere && argument.contains(Wildcards);
        if (isGlob && argument.endsWith(QLatin1Char('/')))
            path += QLatin1Char('/');
        const QStringList found = isGlob ? globbed(path) : belowOrAt(path);
        add(found);
        if (found.isEmpty()) {
            const bool isMissing = !isThere && !isGlob;
            m_console.note(
                QStringLiteral("--ignore: %1 %2ignores nothing")
                    .arg(path, isMissing ? QStringLiteral("is not there and ") : QString()));
        }
    }

    void ignoreFrom(const QString &file)
    {
        IgnoreList list = IgnoreList::fromFile(file);
        add(list.ignoredAmong(m_files));
        for (const IgnoreList::Unused &pattern : list.unused()) {
            m_console.note(QStringLiteral("--ignore-from: %1, line %2: %3 ignores nothing")
                               .arg(file, QString::number(pattern.line), pattern.text));
        }
    }

    /// In the order of the build's files.
    QStringList found() const
    {
        QStringList paths;
        for (const QString &file : m_files) {
            if (m_found.contains(file))
                paths.append(m_prefix + file);
        }
        return paths;
    }

private:
    QStringList globbed(const QString &path) const
    {
        IgnoreList list;
        if (path.startsWith(m_prefix))
            list.addGlob(path.mid(m_prefix.size()));
        return list.ignoredAmong(m_files);
    }

    QStringList belowOrAt(const QString &path) const
    {
        const QString folder = path + QLatin1Char('/');
        QStringList found;
        for (const QString &file : m_files) {
            const QString whole = m_prefix + file;
            if (whole == path || whole.startsWith(folder))
                found.append(file);
        }
        return found;
    }

    void add(const QStringList &files)
    {
        for (const QString &file : files)
            m_found.insert(file);
    }

    Console &m_console;
    const QString m_prefix; ///< of the build's paths
    QStringList m_files;    ///< without it
    QSet<QString> m_found;
};

} // namespace

void addIgnoreOptions(CLI::App &command, IgnoreOptions &options)
{
    command
        .add_option("--ignore", options.paths,
            "A file or folder of NEW_BUILD to leave out of the patch, relative to NEW_BUILD or "
            "absolute, or a glob of such paths: *, ?, [a-z], and ** for any number of folders. "
            "What only players have is deleted all the same. May be given several times")
        ->type_name("PATH")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    command
        .add_option("--ignore-from", options.list,
            "A list of what to leave out, in the syntax of .gitignore, relative to NEW_BUILD")
        ->type_name("FILE");
}

QStringList ignoredFiles(Console &console, const IgnoreOptions &options, const QString &newBuild,
    const QStringList &files)
{
    if (options.paths.empty() && !options.list)
        return {};
    Search search(console, newBuild, files);
    for (const std::string &path : options.paths)
        search.ignore(QFile::decodeName(path.c_str()));
    if (options.list)
        search.ignoreFrom(absoluteFile(*options.list));
    return search.found();
}
