// SPDX-License-Identifier: MIT
#include "patchinspector.h"

#include "canonicalpath.h"
#include "deltareader.h"
#include "diskfile.h"
#include "filesystem.h"
#include "manifest.h"
#include "manifestfile.h"
#include "movedcontent.h"
#include "rules.h"
#include "sealfile.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>

#include <cmath>
#include <functional>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Pellox {

namespace {

/// What is wrong with the patch, thrown from where it is found to where it is told.
struct Problem
{
    QString path;
    QString reason;
};

constexpr qint64 LargestExactNumber = 1LL << 53; // in JSON, and in the page that shows the sums

bool isWithin(const QString &path, const QString &folder)
{
    return path.startsWith(folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/'));
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
    QString oldSignatures; ///< may be empty

private:
    /// A rule of the manifest, by itself.
    struct Rule
    {
        InspectedFile file; ///< without what its payload tells
        Problem problem;    ///< of the rule; without a reason when there is none
    };

    void inspectFolder(const PROGRESS_CALLBACK &progress);
    void readRules(std::vector<Rule> *rules);
    void readSeal();
    void readMovedContent(const std::vector<Rule> &rules);
    Rule checkedRule(const QJsonValue &rule, int number);
    InspectedFile fileOf(const QJsonValue &rule, int number);
    using Report = std::function<void(double share)>; ///< of 1
    void inspectRule(const Rule &rule, const Report &report);
    void inspectPayload(InspectedFile &file, const Report &report);
    bool isLeftOut(const InspectedFile &file) const;
    void findMovedContent(const QString &path, InspectedFile &file, const Report &report);
    QString text(const QJsonObject &rule, const QString &member, int number) const;
    qint64 sizeOf(const QJsonObject &rule, const QString &path) const;
    void checkPayload(const QString &path) const;
    void readDelta(const QString &path, InspectedFile &file) const;
    void addUp(const QString &path, const InspectedFile &file);
    void tell(const Problem &problem);

    PatchInspector *const q;
    QString m_folder;
    QString m_realFolder; ///< links resolved
    QString m_manifest;
    QSet<QString> m_paths;
    std::optional<SealedPatch> m_sealed;
    std::optional<MovedContent> m_moved;
    qint64 m_newBytes = 0;
    qint64 m_patchBytes = 0;
};

PatchInspector::PatchInspector(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(this))
{
}

PatchInspector::~PatchInspector() = default;

void PatchInspector::setOldSignatures(const QString &folder)
{
    d->oldSignatures = folder;
}

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
    m_folder = absoluteFolder(patch);
    failed = false;
    files.clear();
    const auto tellOutOfMemory = [this] { tell({m_folder, QStringLiteral("out of memory")}); };
    try {
        inspectFolder(progress);
    } catch (const std::bad_alloc &) {
        tellOutOfMemory();
    } catch (const std::length_error &) { // of a container that became too large
        tellOutOfMemory();
    }
    m_paths.clear();
    m_sealed.reset();
    m_moved.reset();
    if (failed)
        files.clear();
}

void PatchInspector::Private::inspectFolder(const PROGRESS_CALLBACK &progress)
{
    m_realFolder = QFileInfo(m_folder).canonicalFilePath();
    m_manifest = Manifest::pathIn(m_folder, PATCH_RULES_FILE);
    m_newBytes = 0;
    m_patchBytes = 0;

    progress(0);
    std::vector<Rule> rules;
    readRules(&rules);
    readSeal();
    readMovedContent(rules);
    files.reserve(static_cast<int>(rules.size()));
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const auto report = [&](double share) {
            progress((static_cast<double>(i) + share) / static_cast<double>(rules.size()) * 100);
        };
        inspectRule(rules[i], report);
        report(1);
    }
    if (rules.empty())
        progress(100);
}

void PatchInspector::Private::readRules(std::vector<Rule> *rules)
{
    const auto begin = [&] {
        rules->clear();
        m_paths.clear();
    };
    const auto take
        = [&](const QJsonValue &rule, int number) { rules->push_back(checkedRule(rule, number)); };
    FileError error;
    if (!mayStand(m_manifest))
        tell({m_manifest, QStringLiteral("is missing")});
    else if (!readManifest(m_manifest, begin, take, &error))
        tell({error.path, error.reason});
    if (failed)
        rules->clear();
}

/// One that is damaged counts as none: what is wrong with it others tell.
void PatchInspector::Private::readSeal()
{
    FileError ignored;
    const auto bytes = readSealFile(m_folder, &ignored);
    QString problem;
    if (bytes)
        m_sealed = readSealOfAnybody(*bytes, &problem);
}

void PatchInspector::Private::readMovedContent(const std::vector<Rule> &rules)
{
    if (oldSignatures.isEmpty() || failed)
        return;
    const QString folder = absoluteFolder(oldSignatures);
    QStringList touched;
    for (const Rule &rule : rules)
        touched.append(rule.file.relativePath);
    FileError error;
    m_moved.emplace(folder);
    if (m_moved->read(touched, &error))
        return;
    m_moved.reset();
    tell({error.path, error.reason});
}

PatchInspector::Private::Rule PatchInspector::Private::checkedRule(
    const QJsonValue &rule, int number)
{
    try {
        return {fileOf(rule, number), {}};
    } catch (const Problem &problem) {
        return {{}, problem};
    }
}

/// What @p rule, which is number @p number, counted from 1, in the manifest, tells by itself.
InspectedFile PatchInspector::Private::fileOf(const QJsonValue &rule, int number)
{
    if (!rule.isObject())
        throw Problem{m_manifest, QStringLiteral("has no object as rule %1").arg(number)};
    const QJsonObject members = rule.toObject();
    InspectedFile file;
    file.rule = text(members, Manifest::Rule, number);
    file.relativePath = text(members, Manifest::RelativePath, number);

    const bool hasSeparator = file.relativePath.startsWith(QLatin1Char('/'));
    const QString path = m_folder + QLatin1String(hasSeparator ? "" : "/") + file.relativePath;
    const QString problem = problemOfManifestPath(file.relativePath);
    if (!problem.isEmpty())
        throw Problem{path, problem};
    if (m_paths.contains(file.relativePath))
        throw Problem{path, QStringLiteral("has more than one rule")};
    m_paths.insert(file.relativePath);

    for (const QString &known : {PATCH_RULE, COPY_RULE, DELETE_RULE}) {
        if (file.rule == known) {
            file.rule = known; // one text for all
            if (known == PATCH_RULE)
                file.newSize = sizeOf(members, path);
            return file;
        }
    }
    throw Problem{path, QStringLiteral("has the unknown rule \"%1\"").arg(file.rule)};
}

void PatchInspector::Private::inspectRule(const Rule &rule, const Report &report)
{
    try {
        if (!rule.problem.reason.isEmpty())
            throw Problem(rule.problem);
        files.append(rule.file);
        inspectPayload(files.last(), report);
    } catch (const Problem &problem) {
        tell(problem);
    }
}

void PatchInspector::Private::inspectPayload(InspectedFile &file, const Report &report)
{
    const QString path = m_folder + file.relativePath;
    if (file.rule == DELETE_RULE)
        return;
    file.isLeftOut = isLeftOut(file);
    if (!file.isLeftOut)
        checkPayload(path);
    if (file.rule == PATCH_RULE)
        readDelta(path, file);
    else if (file.isLeftOut)
        file.newSize = file.copiedBytes = m_sealed->rules.at(file.relativePath).size;
    else
        file.newSize = file.patchBytes = file.literalBytes = QFileInfo(path).size();
    addUp(path, file);
    if (file.rule == COPY_RULE)
        findMovedContent(path, file, report);
}

/// Whether the patch has not got @p file, and need not.
bool PatchInspector::Private::isLeftOut(const InspectedFile &file) const
{
    return file.rule == COPY_RULE && m_sealed && mayBeLeftOut(*m_sealed, file.relativePath)
        && !mayStand(m_folder + file.relativePath);
}

/// What stands at @p path may be another file than was sealed, but what is left out is not.
void PatchInspector::Private::findMovedContent(
    const QString &path, InspectedFile &file, const Report &report)
{
    FoundContent found;
    if (file.isLeftOut || (!m_moved && m_sealed)) {
        const auto rule = m_sealed->rules.find(file.relativePath);
        const bool isKnown = rule != m_sealed->rules.cend() && rule->second.size == file.newSize;
        if (isKnown && !rule->second.source.isEmpty())
            found = {rule->second.source, file.newSize, true, false};
    } else if (m_moved) {
        FileError error;
        const auto sought = m_moved->find(path, file.relativePath, report, &error);
        if (!sought)
            throw Problem{error.path, error.reason};
        found = *sought;
    }
    file.oldPath = found.path;
    file.oldBytes = found.bytes;
    file.isMoved = found.isWhole;
    file.isOldEstimated = found.isEstimated;
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
    if (size < 0 || size > static_cast<double>(LargestExactNumber) || std::floor(size) < size)
        throw Problem{path, QStringLiteral("has a rule without a file size")};
    return static_cast<qint64>(size);
}

void PatchInspector::Private::checkPayload(const QString &path) const
{
    if (path == m_manifest)
        throw Problem{path, QStringLiteral("has a rule of its own, but is the manifest")};
    FileError unknown;
    const QFileInfo info(path);
    if (!statusOf(path, &unknown) && !unknown.isEmpty())
        throw Problem{path, unknown.reason};
    if (!info.exists())
        throw Problem{path, QStringLiteral("is missing from the patch")};
    if (!info.isFile())
        throw Problem{path, QStringLiteral("is no regular file")};
    if (!isWithin(info.canonicalFilePath(), m_realFolder))
        throw Problem{path, QStringLiteral("leads out of the patch folder by a link")};
}

void PatchInspector::Private::readDelta(const QString &path, InspectedFile &file) const
{
    InputFile delta;
    if (!delta.open(path))
        throw Problem{path, delta.error().reason};
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

/// Who looks at a patch wants sums, and all of them are smaller than one of these two.
void PatchInspector::Private::addUp(const QString &path, const InspectedFile &file)
{
    for (const auto &[sum, size] :
        {std::pair(&m_newBytes, file.newSize), std::pair(&m_patchBytes, file.patchBytes)}) {
        if (size > LargestExactNumber - *sum)
            throw Problem{
                path, QStringLiteral("has a size that makes all together more than 8 PiB")};
        *sum += size;
    }
}

void PatchInspector::Private::tell(const Problem &problem)
{
    failed = true;
    Q_EMIT q->inspectError(aboutFile(problem.path, problem.reason), problem.path);
}

} // namespace Pellox
