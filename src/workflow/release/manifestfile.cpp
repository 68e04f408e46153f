// SPDX-License-Identifier: MIT
#include "manifestfile.h"

#include "manifest.h"
#include "rules.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <algorithm>
#include <cerrno>

namespace Pellox {

namespace {

constexpr qint64 LargestManifest = 1LL << 30;
constexpr qint64 LargestAtOnce = 64LL << 20; // in a form that is not read record by record
constexpr int MostValuesAtOnce = 1 << 22;    // each takes up to a hundred bytes
constexpr qint64 LongestLine = 1 << 20;

// What Qt writes around the records of an array, indented.
constexpr char ArrayBegin[] = "[\n";
constexpr char ArrayEnd[] = "\n]\n";

/**
 * Reads the form in which Qt writes an array of objects: each ends with a brace on a line of its
 * own, which cannot be part of a text. False when the file has another form, or when @p goOn
 * says no.
 */
bool readIndented(QFile &file,
    const std::function<void(const QJsonValue &record, int number)> &take, const GoOn &goOn)
{
    // One buffer for all lines: Qt would allocate the longest possible one for each.
    QByteArray buffer(static_cast<int>(LongestLine), Qt::Uninitialized);
    const auto readLine = [&] {
        const qint64 size = file.readLine(buffer.data(), LongestLine);
        return QByteArray::fromRawData(
            buffer.constData(), static_cast<int>(std::max<qint64>(size, 0)));
    };
    if (readLine() != ArrayBegin)
        return false;
    QByteArray record;
    int number = 0;
    bool moreMayCome = true;
    bool moreMustCome = false;
    for (;;) {
        const QByteArray line = readLine();
        if (line == "]\n" && record.isEmpty())
            return !moreMustCome && file.atEnd();
        // Qt passes over a byte order mark before each record.
        if (!moreMayCome || (record.isEmpty() && line != "    {\n"))
            return false;
        record += line;
        if (line == "    }\n" || line == "    },\n") {
            moreMustCome = line.endsWith(",\n");
            moreMayCome = moreMustCome;
            record.truncate(record.lastIndexOf('}') + 1);
            const QJsonDocument document = QJsonDocument::fromJson(record);
            if (!document.isObject() || !mayGoOn(goOn))
                return false;
            take(document.object(), ++number);
            record.clear();
        } else if (line.isEmpty() || record.size() > LongestLine) {
            return false;
        }
    }
}

/// At least as many as there are values in @p json: each but the first stands behind one of these.
qint64 valuesIn(const QByteArray &json)
{
    return std::count_if(json.cbegin(), json.cend(),
        [](char character) { return character == ',' || character == '[' || character == '{'; });
}

/// Of a file that Qt has failed to read, which keeps the reason as a text alone.
FileError readingError(const QFile &file, const char *what)
{
    return {file.fileName(), QLatin1String(what) + file.errorString(), EIO};
}

/// Reads an array in any form. False after @p error, without one when @p goOn says no.
bool readAtOnce(QFile &file, const std::function<void(const QJsonValue &record, int number)> &take,
    FileError *error, const GoOn &goOn)
{
    const auto fail = [&](const QString &reason) {
        *error = {file.fileName(), reason};
        return false;
    };
    if (file.size() > LargestAtOnce)
        return fail(QStringLiteral(
            "is too large for a manifest that is not in the form that the library writes"));
    file.seek(0);
    QJsonParseError parsing{};
    const QByteArray json = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        *error = readingError(file, "cannot be read: ");
        return false;
    }
    if (valuesIn(json) > MostValuesAtOnce)
        return fail(QStringLiteral(
            "has too many parts for a manifest that is not in the form that the library writes"));
    const QJsonDocument document = QJsonDocument::fromJson(json, &parsing);
    if (parsing.error != QJsonParseError::NoError) {
        return fail(QStringLiteral("is not JSON: %1 at byte %2")
                        .arg(parsing.errorString(), QString::number(parsing.offset)));
    }
    if (!document.isArray())
        return fail(QStringLiteral("is not a JSON array"));
    const QJsonArray records = document.array();
    int number = 0;
    for (const QJsonValue &record : records) {
        if (!mayGoOn(goOn))
            return false;
        take(record, ++number);
    }
    return true;
}

} // namespace

bool ManifestWriter::add(const QJsonObject &record)
{
    QByteArray text = QJsonDocument(QJsonArray{record}).toJson();
    text.chop(static_cast<int>(sizeof(ArrayEnd) - 1));
    if (!m_isEmpty)
        text.replace(0, 1, ","); // instead of the bracket
    m_isEmpty = false;
    return write(text);
}

bool ManifestWriter::finish()
{
    return write(m_isEmpty ? QJsonDocument(QJsonArray()).toJson() : QByteArray(ArrayEnd))
        && flush();
}

bool ManifestWriter::write(const QByteArray &text)
{
    constexpr int HeldBack = 1 << 16;
    m_held += text;
    return m_held.size() < HeldBack || flush();
}

bool ManifestWriter::flush()
{
    const bool written = m_device.write(m_held) == m_held.size();
    m_held.clear();
    return written;
}

bool readManifest(const QString &path, const std::function<void()> &begin,
    const std::function<void(const QJsonValue &record, int number)> &take, FileError *error,
    const GoOn &goOn)
{
    const auto fail = [&](const FileError &reason) {
        *error = reason;
        return false;
    };
    InputFile checked;
    if (!checked.open(path))
        return fail(checked.error());
    if (checked.size() > LargestManifest)
        return fail({path, QStringLiteral("is too large for a manifest")});
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fail(readingError(file, "cannot be opened: "));

    begin();
    bool stopped = false;
    const bool taken = readIndented(file, take, [&] {
        stopped = !mayGoOn(goOn);
        return !stopped;
    });
    if (file.error() != QFileDevice::NoError)
        return fail(readingError(file, "cannot be read: "));
    if (stopped)
        return fail({});
    if (taken)
        return true;
    begin();
    return readAtOnce(file, take, error, goOn);
}

QString problemOfManifestPath(const QString &path)
{
    const QLatin1Char separator('/');
    if (!path.startsWith(separator))
        return QStringLiteral("has a relative path that does not begin with a separator");
    if (path.contains(QChar::Null))
        return QStringLiteral("has a path with a zero character in it");
    for (const QString &part : path.mid(1).split(separator)) {
        if (part == QLatin1String(".."))
            return QStringLiteral("leads out of the folder");
        if (part.isEmpty() || part == QLatin1String("."))
            return QStringLiteral("has a path with an empty part or a dot for a part");
    }
    return {};
}

std::optional<std::vector<SignedFile>> readSignedFiles(
    const QString &signatures, FileError *error, const GoOn &goOn)
{
    const QString path = Manifest::pathIn(signatures, SIGNATURES_FILE);
    std::vector<SignedFile> files;
    QSet<QString> paths;
    QString problem;
    qint64 text = 0;
    const auto begin = [&] {
        files.clear();
        paths.clear();
        problem.clear();
        text = 0;
    };
    const auto take = [&](const QJsonValue &value, int number) {
        const QJsonObject record = value.toObject();
        const SignedFile file{record.value(Manifest::RelativePath).toString(),
            Sha512::fromText(record.value(Manifest::Sha512).toString())};
        QString wrong = problemOfManifestPath(file.relativePath);
        if (wrong.isEmpty() && paths.contains(file.relativePath))
            wrong = QLatin1String("repeats ") + file.relativePath;
        text += file.relativePath.size();
        if (!wrong.isEmpty())
            problem = QStringLiteral("record %1 %2").arg(QString::number(number), wrong);
        else if (number > MostRecords || text > MostPathText)
            problem = QStringLiteral("has more files or longer paths than any build");
        paths.insert(file.relativePath);
        files.push_back(file);
    };
    const bool isRead = readManifest(
        path, begin, take, error, [&] { return problem.isEmpty() && mayGoOn(goOn); });
    if (isRead && problem.isEmpty())
        return files;
    if (!problem.isEmpty())
        *error = {path, isRead ? problem : problem + QLatin1String("; the rest was not looked at")};
    return {};
}

} // namespace Pellox
