// SPDX-License-Identifier: MIT
#include "foldercompare.h"

#include <QByteArray>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMap>

#include <algorithm>

#include <sys/stat.h>

namespace {

struct Entry
{
    mode_t mode; ///< kind and permissions
    qint64 size; ///< of a file
};

struct stat statusOf(const QString &path)
{
    struct stat status;
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        qFatal("folder compare: cannot look at %s", qPrintable(path));
    return status;
}

/// All that lies under @p folder, by relative path.
QMap<QString, Entry> entriesOf(const QString &folder)
{
    QMap<QString, Entry> entries;
    QDirIterator walk(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        const QString path = walk.next();
        const struct stat status = statusOf(path);
        const qint64 size = S_ISREG(status.st_mode) ? status.st_size : 0;
        entries.insert(path.mid(folder.size() + 1), {status.st_mode, size});
    }
    return entries;
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("folder compare: cannot read %s", qPrintable(path));
    return file.readAll();
}

QString octal(mode_t mode)
{
    return QString::number(mode, 8);
}

QString contentDifference(const QString &expected, const QString &found)
{
    const QByteArray left = contentOf(expected);
    const QByteArray right = contentOf(found);
    if (left == right)
        return QString();
    const auto ends = std::mismatch(left.cbegin(), left.cend(), right.cbegin(), right.cend());
    return QStringLiteral("differs from byte %1 on; %2 bytes expected, %3 found")
        .arg(ends.first - left.cbegin())
        .arg(left.size())
        .arg(right.size());
}

QString entryDifference(const QString &expectedPath, const Entry &expected,
    const QString &foundPath, const Entry &found)
{
    if (expected.mode != found.mode) {
        return QStringLiteral("has mode %1, not %2").arg(octal(found.mode), octal(expected.mode));
    }
    if (S_ISREG(expected.mode))
        return contentDifference(expectedPath, foundPath);
    if (S_ISLNK(expected.mode)
        && QFileInfo(expectedPath).symLinkTarget() != QFileInfo(foundPath).symLinkTarget())
        return QStringLiteral("is a link to something else");
    return QString();
}

} // namespace

QString differenceBetween(const QString &expected, const QString &found)
{
    for (const QString &folder : {expected, found}) {
        if (!QFileInfo(folder).isDir())
            return folder + QStringLiteral(": is no folder");
    }
    const QMap<QString, Entry> expectedEntries = entriesOf(expected);
    const QMap<QString, Entry> foundEntries = entriesOf(found);
    for (auto entry = expectedEntries.cbegin(); entry != expectedEntries.cend(); ++entry) {
        const QString path = found + QLatin1Char('/') + entry.key();
        const auto twin = foundEntries.constFind(entry.key());
        if (twin == foundEntries.cend())
            return path + QStringLiteral(": is missing");
        const QString difference = entryDifference(
            expected + QLatin1Char('/') + entry.key(), entry.value(), path, twin.value());
        if (!difference.isEmpty())
            return path + QStringLiteral(": ") + difference;
    }
    for (auto entry = foundEntries.cbegin(); entry != foundEntries.cend(); ++entry) {
        if (!expectedEntries.contains(entry.key()))
            return found + QLatin1Char('/') + entry.key() + QStringLiteral(": should not be there");
    }
    return QString();
}
