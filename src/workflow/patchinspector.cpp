// SPDX-License-Identifier: MIT
#include "patchinspector.h"

#include "deltareader.h"
#include "manifest.h"
#include "rules.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>

#include <cmath>
#include <optional>

namespace Pellox {

namespace {

/// What is wrong with the patch, thrown from where it is found to where it is told.
struct Problem
{
    QString path;
    QString reason;
};

constexpr double LargestExactNumber = 1LL << 53; // in JSON

/// Why no file of a build can have @p relativePath; empty when one can.
QString problemOfPath(const QString &relativePath)
{
    const QLatin1Char separator('/');
    if (!relativePath.startsWith(separator))
        return QStringLiteral("has a relative path that does not begin with a separator");
    if (relativePath.contains(QChar::Null))
        return QStringLiteral("has a path with a zero character in it");
    for (const QStringRef &part : relativePath.midRef(1).split(separator)) {
        if (part == QLatin1String(".."))
            return QStringLiteral("leads out of the patch folder");
        if (part.isEmpty() || part == QLatin1String("."))
            return QStringLiteral("has a path with an empty part or a dot for a part");
    }
    return {};
}

bool isWithin(const QString &path, const QString &folder)
{
    return path.startsWith(folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/'));
}

QJsonArray readManifest(const QString &path)
{
    QFile file(path);
    if (!QFileInfo::exists(path))
        throw Problem{path, QStringLiteral("is missing")};
    if (!QFileInfo(path).isFile())
        throw Problem{path, QStringLiteral("is no regular file")};
    if (!file.open(QIODevice::ReadOnly))
        throw Problem{path, QStringLiteral("cannot be read: ") + file.errorString()};
    const QByteArray json = file.readAll();
    if (file.error() != QFileDevice::NoError)
        throw Problem{path, QStringLiteral("cannot be read: ") + file.errorString()};
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        throw Problem{path,
            QStringLiteral("is not JSON: %1 at byte %2")
                .arg(parseError.errorString(), QString::number(parseError.offset))};
    }
    if (!document.isArray())
        throw Problem{path, QStringLiteral("is not a JSON array")};
    return document.array();
}

} // namespace

class PatchInspector::Private
{
public:
    explicit Private(PatchInspector *inspector)
        : q(inspector)
    {
    }

    void inspect(const QString &patch, const PROGRESS_CALLBACK &progress);

    bool failed = false;
    QVector<InspectedFile> files;

private:
    QJsonArray readRules();
    void inspectRule(const QJsonValue &rule, int number);
    InspectedFile checkedRule(const QJsonValue &rule, int number);
    QString text(const QJsonObject &rule, const QString &member, int number) const;
    qint64 sizeOf(const QJsonObject &rule, const QString &path) const;
    void checkPayload(const QString &path) const;
    void readDelta(const QString &path, InspectedFile &file) const;
    void tell(const Problem &problem);

    PatchInspector *const q;
    QString m_folder;
    QString m_realFolder; ///< links resolved
    QString m_manifest;
    QSet<QString> m_paths;
};

PatchInspector::PatchInspector(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(this))
{
}

PatchInspector::~PatchInspector() = default;

bool PatchInspector::inspect(const QString &patch, const PROGRESS_CALLBACK &progress)
{
    d->inspect(
        patch, progress ? progress : [](double) {});
    return !d->failed;
}

QVector<InspectedFile> PatchInspector::files() const
{
    return d->files;
}

void PatchInspector::Private::inspect(const QString &patch, const PROGRESS_CALLBACK &progress)
{
    m_folder = QDir(patch).absolutePath();
    m_realFolder = QFileInfo(m_folder).canonicalFilePath();
    m_manifest = Manifest::pathIn(m_folder, PATCH_RULES_FILE);
    m_paths.clear();
    files.clear();
    failed = false;

    progress(0);
    const QJsonArray rules = readRules();
    files.reserve(rules.size());
    for (int i = 0; i < rules.size(); ++i) {
        inspectRule(rules.at(i), i + 1);
        progress(static_cast<double>(i + 1) / rules.size() * 100);
    }
    if (rules.isEmpty())
        progress(100);
    if (failed)
        files.clear();
}

QJsonArray PatchInspector::Private::readRules()
{
    try {
        return readManifest(m_manifest);
    } catch (const Problem &problem) {
        tell(problem);
        return {};
    }
}

void PatchInspector::Private::inspectRule(const QJsonValue &rule, int number)
{
    try {
        files.append(checkedRule(rule, number));
    } catch (const Problem &problem) {
        tell(problem);
    }
}

/// The record of @p rule, which is number @p number, counted from 1, in the manifest.
InspectedFile PatchInspector::Private::checkedRule(const QJsonValue &rule, int number)
{
    if (!rule.isObject())
        throw Problem{m_manifest, QStringLiteral("has no object as rule %1").arg(number)};
    const QJsonObject members = rule.toObject();
    InspectedFile file;
    file.rule = text(members, Manifest::Rule, number);
    file.relativePath = text(members, Manifest::RelativePath, number);

    const bool hasSeparator = file.relativePath.startsWith(QLatin1Char('/'));
    const QString path = m_folder + QLatin1String(hasSeparator ? "" : "/") + file.relativePath;
    const QString problem = problemOfPath(file.relativePath);
    if (!problem.isEmpty())
        throw Problem{path, problem};
    if (m_paths.contains(file.relativePath))
        throw Problem{path, QStringLiteral("has more than one rule")};
    m_paths.insert(file.relativePath);

    if (file.rule == PATCH_RULE) {
        file.newSize = sizeOf(members, path);
        checkPayload(path);
        readDelta(path, file);
    } else if (file.rule == COPY_RULE) {
        checkPayload(path);
        file.newSize = file.patchBytes = file.literalBytes = QFileInfo(path).size();
    } else if (file.rule != DELETE_RULE) {
        throw Problem{path, QStringLiteral("has the unknown rule \"%1\"").arg(file.rule)};
    }
    return file;
}

QString PatchInspector::Private::text(
    const QJsonObject &rule, const QString &member, int number) const
{
    const QJsonValue value = rule.value(member);
    if (!value.isString()) {
        throw Problem{m_manifest,
            QStringLiteral("has no text as \"%1\" of rule %2")
                .arg(member, QString::number(number))};
    }
    return value.toString();
}

/// The size that a patched file is to have; that its checksum is one is checked by the way.
qint64 PatchInspector::Private::sizeOf(const QJsonObject &rule, const QString &path) const
{
    static const QRegularExpression Checksum(QStringLiteral("\\A[0-9a-f]{128}\\z"));
    if (!Checksum.match(rule.value(Manifest::Sha512).toString()).hasMatch())
        throw Problem{path, QStringLiteral("has a rule without a SHA-512")};
    const double size = rule.value(Manifest::FileSize).toDouble(-1);
    if (size < 0 || size > LargestExactNumber || std::floor(size) < size)
        throw Problem{path, QStringLiteral("has a rule without a file size")};
    return static_cast<qint64>(size);
}

void PatchInspector::Private::checkPayload(const QString &path) const
{
    if (path == m_manifest)
        throw Problem{path, QStringLiteral("has a rule of its own, but is the manifest")};
    const QFileInfo info(path);
    if (!info.exists())
        throw Problem{path, QStringLiteral("is missing from the patch")};
    if (!info.isFile())
        throw Problem{path, QStringLiteral("is no regular file")};
    if (!isWithin(info.canonicalFilePath(), m_realFolder))
        throw Problem{path, QStringLiteral("leads out of the patch folder by a link")};
}

void PatchInspector::Private::readDelta(const QString &path, InspectedFile &file) const
{
    QFile delta(path);
    if (!delta.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        throw Problem{path, QStringLiteral("cannot be read: ") + delta.errorString()};
    QString error;
    const auto sums = sumsOfDelta(delta, &error);
    if (!sums)
        throw Problem{path, error};
    const qint64 made = sums->copiedBytes + sums->literalBytes;
    if (made != file.newSize) {
        throw Problem{path,
            QStringLiteral("makes a file of %1 bytes; its rule says %2")
                .arg(QString::number(made), QString::number(file.newSize))};
    }
    file.patchBytes = delta.size();
    file.copiedBytes = sums->copiedBytes;
    file.literalBytes = sums->literalBytes;
    file.commands = sums->commands;
}

void PatchInspector::Private::tell(const Problem &problem)
{
    failed = true;
    Q_EMIT q->inspectError(problem.path + QLatin1String(": ") + problem.reason, problem.path);
}

} // namespace Pellox
