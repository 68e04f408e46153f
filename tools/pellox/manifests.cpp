// SPDX-License-Identifier: MIT
#include "manifests.h"

#include "console.h"
#include "folders.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>

#include <algorithm>
#include <numeric>

QByteArray jsonTextOf(const QString &path, qint64 most)
{
    constexpr qint64 MostValues = 1 << 23; // each takes up to a hundred bytes
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly))
        throw Refusal(path, QStringLiteral("cannot be read"));
    QByteArray text = file.size() > most ? QByteArray() : file.readAll();
    // Each value but the first stands behind one of these.
    const auto values = std::count_if(text.cbegin(), text.cend(),
        [](char character) { return character == ',' || character == '[' || character == '{'; });
    if (file.size() > most || values > MostValues)
        throw Refusal(path, QStringLiteral("is too large for what it should be"));
    return text;
}

void requireManifest(const QString &folder, const QString &fileName)
{
    if (!standsThere(QDir(folder).absoluteFilePath(fileName)))
        throw Refusal(folder, QStringLiteral("holds no ") + fileName);
}

QJsonArray readManifest(const QString &folder, const QString &fileName)
{
    constexpr qint64 Largest = 1LL << 30; // as of the library
    const QString path = QDir(folder).absoluteFilePath(fileName);
    requireManifest(folder, fileName);
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(jsonTextOf(path, Largest), &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        throw Refusal(path,
            QStringLiteral("is not JSON: %1 at byte %2")
                .arg(parseError.errorString(), QString::number(parseError.offset)));
    }
    if (!document.isArray())
        throw Refusal(path, QStringLiteral("is not a JSON array"));
    return document.array();
}

std::optional<QJsonArray> readWrittenManifest(
    Console &console, const QString &folder, const QString &fileName)
{
    try {
        return readManifest(folder, fileName);
    } catch (const Refusal &problem) {
        console.error(problem.path(), problem.reason() + QLatin1String(" (is the disk full?)"));
        return {};
    }
}

QString ruleNameOf(const QJsonValue &record)
{
    return record.toObject().value(QLatin1String("rule")).toString();
}

QString relativePathOf(const QJsonValue &record)
{
    return record.toObject().value(QLatin1String("relative_path")).toString();
}

QStringList relativePathsOf(const QJsonArray &records)
{
    QStringList paths;
    for (const QJsonValue &record : records)
        paths.append(relativePathOf(record));
    return paths;
}

qint64 fileSizeOf(const QJsonValue &rule)
{
    constexpr double Largest = 1LL << 50; // so that sums of many stay sums
    const double size = rule.toObject().value(QLatin1String("file_size")).toDouble();
    return size >= 0 && size <= Largest ? static_cast<qint64>(size) : 0;
}

void requireInside(const QString &build, const QJsonArray &rules)
{
    for (const QJsonValue &rule : rules) {
        const QString path = build + relativePathOf(rule);
        if (!QDir::cleanPath(path).startsWith(build + QLatin1Char('/')))
            throw Refusal(path, QStringLiteral("is named by the patch and lies outside the build"));
    }
}

QStringList filesOfBuild(const QString &folder)
{
    QStringList files;
    QDirIterator walk(folder, QDir::Files, QDirIterator::Subdirectories);
    while (walk.hasNext())
        files.append(walk.next());
    return files;
}

qint64 totalSize(const QStringList &files)
{
    return std::accumulate(files.cbegin(), files.cend(), qint64(0),
        [](qint64 sum, const QString &file) { return sum + QFileInfo(file).size(); });
}

QString counted(qint64 count, const char *thing)
{
    return QString::number(count) + QLatin1Char(' ') + QLatin1String(thing)
        + QLatin1String(count == 1 ? "" : "s");
}

QString fileCount(qint64 count)
{
    return counted(count, "file");
}

QString byteCount(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1);
}

QString percentage(qint64 part, qint64 whole)
{
    if (whole == 0)
        return QStringLiteral("-");
    const double share = 100 * static_cast<double>(part) / static_cast<double>(whole);
    return QString::number(share, 'f', 1) + QLatin1String(" %");
}
