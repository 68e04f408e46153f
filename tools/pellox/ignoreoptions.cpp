// SPDX-License-Identifier: MIT
#include "ignoreoptions.h"

#include "folders.h"
#include "ignorelist.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>

#include <cstdio>

namespace {

/// Looks up which files of a build are ignored.
class Search
{
public:
    Search(const QString &newBuild, const QStringList &files, bool isStrict)
        : m_prefix(newBuild + QLatin1Char('/'))
        , m_isStrict(isStrict)
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
            tellUnused(QStringLiteral("--ignore"),
                QStringLiteral("%1 %2ignores nothing%3")
                    .arg(path, isMissing ? QStringLiteral("is not there and ") : QString(),
                        hintFor(argument)));
        }
    }

    void ignoreFrom(const QString &file)
    {
        IgnoreList list = IgnoreList::fromFile(file);
        add(list.ignoredAmong(m_files));
        for (const IgnoreList::Unused &pattern : list.unused()) {
            tellUnused(QStringLiteral("--ignore-from"),
                QStringLiteral("%1, line %2: %3 ignores nothing")
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
    /// --quiet does not silence it: a name that is mistyped gives players what they must not get.
    void tellUnused(const QString &option, const QString &what) const
    {
        if (m_isStrict)
            throw Refusal(option, what);
        const QByteArray line = QStringLiteral("pellox: %1: %2\n").arg(option, what).toLocal8Bit();
        std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
    }

    /// For a path with the end of the build's own in front, as a shell completes it.
    QString hintFor(const QString &argument) const
    {
        const QLatin1Char separator('/');
        const QString path = QDir::cleanPath(argument);
        for (auto end = path.indexOf(separator); end > 0; end = path.indexOf(separator, end + 1)) {
            if (m_prefix.endsWith(separator + path.left(end + 1)))
                return QStringLiteral("; paths count from NEW_BUILD: --ignore ")
                    + path.mid(end + 1);
        }
        return {};
    }

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

    const QString m_prefix; ///< of the build's paths
    const bool m_isStrict;
    QStringList m_files; ///< without the prefix
    QSet<QString> m_found;
};

} // namespace

void addIgnoreOptions(CLI::App &command, IgnoreOptions &options)
{
    command
        .add_option("--ignore", options.paths,
            "A file, folder or glob (*, ?, **) of NEW_BUILD to leave out of the patch; one each")
        ->type_name("PATH")
        ->allow_extra_args(false); // the next word is the build, or a mistake
    command
        .add_option("--ignore-from", options.list,
            "A list of what to leave out, in the syntax of .gitignore, relative to NEW_BUILD")
        ->type_name("FILE");
    command.add_flag("--strict-ignore", options.strict,
        "Refuse what is to be ignored but is not there, instead of a note");
    command.get_option("--quiet")->description(
        "Say nothing but errors, and what is to be ignored but is not there");
}

QStringList ignoredFiles(
    const IgnoreOptions &options, const QString &newBuild, const QStringList &files)
{
    if (options.paths.empty() && !options.list)
        return {};
    Search search(newBuild, files, options.strict);
    for (const std::string &path : options.paths)
        search.ignore(QFile::decodeName(path.c_str()));
    if (options.list)
        search.ignoreFrom(absoluteFile(*options.list));
    return search.found();
}
