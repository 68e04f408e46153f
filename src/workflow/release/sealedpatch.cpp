// SPDX-License-Identifier: MIT
#include "sealedpatch.h"

#include "digest.h"
#include "manifest.h"
#include "rules.h"
#include "sealjson.h"

#include <algorithm>

namespace Pellox {

using namespace SealJson;

namespace {

constexpr qint64 Version = 1;

// What stands before each value. Values in quotation marks have the first of them here.
constexpr char Format[] = R"({"format":"pellox-patch-seal")";
constexpr char BeforeVersion[] = R"(,"version":)";
constexpr char BeforeRelease[] = R"(,"release":)";
constexpr char BeforeFrom[] = R"(,"from":")";
constexpr char BeforeTo[] = R"(,"to":")";
constexpr char BeforeFiles[] = R"(,"files":[)";
constexpr char BeforeRules[] = R"(],"rules":[)";
constexpr char TextEnd[] = "]}";

constexpr char BeforePath[] = R"({"path":")";
constexpr char BeforeRule[] = R"(,"rule":")";
constexpr char BeforeOldSha512[] = R"(,"old_sha512":")";
constexpr char BeforeSize[] = R"(,"size":)";
constexpr char BeforeSha512[] = R"(,"sha512":")";
constexpr char BeforeSource[] = R"(,"source":")";

bool hasOldFile(UpdateRule::Kind kind)
{
    return kind != UpdateRule::Kind::Copy;
}

bool hasNewFile(UpdateRule::Kind kind)
{
    return kind != UpdateRule::Kind::Delete;
}

QByteArray toText(const SealedFile &file)
{
    return BeforeSize + QByteArray::number(file.size) + BeforeSha512
        + file.sha512.toText().toLatin1() + Quote;
}

QByteArray toText(const SealedRule &rule)
{
    QByteArray text = BeforeRule + nameOf(rule.kind).toLatin1() + Quote;
    if (hasOldFile(rule.kind))
        text += BeforeOldSha512 + rule.oldSha512.toText().toLatin1() + Quote;
    if (hasNewFile(rule.kind))
        text += toText(SealedFile{rule.size, rule.sha512});
    if (!rule.source.isEmpty())
        text += BeforeSource + escaped(rule.source.toUtf8()) + Quote;
    return text;
}

template <typename Value> QByteArray toText(const ByPath<Value> &records)
{
    QByteArray text;
    for (const auto &[path, record] : records) {
        if (!text.isEmpty())
            text += Comma;
        text += BeforePath + escaped(path.toUtf8()) + Quote + toText(record) + RecordEnd;
    }
    return text;
}

/// @p problem becomes that of the first path that no file can have.
QString takePath(Scanner &scanner, QString *problem)
{
    QString path = scanner.text();
    const QString wrong = problemOfRelativePath(path);
    if (scanner.isFine() && problem->isEmpty() && !wrong.isEmpty())
        *problem = QStringLiteral("names a file that %1: %2").arg(wrong, path);
    return path;
}

void take(Scanner &scanner, SealedFile *file, QString * /*problem*/)
{
    scanner.expect(BeforeSize);
    file->size = scanner.number();
    scanner.expect(BeforeSha512);
    file->sha512 = scanner.sha512();
}

void take(Scanner &scanner, SealedRule *rule, QString *problem)
{
    scanner.expect(BeforeRule);
    const auto kind = kindOf(scanner.text());
    if (!kind) {
        scanner.fail();
        return;
    }
    rule->kind = *kind;
    if (hasOldFile(*kind)) {
        scanner.expect(BeforeOldSha512);
        rule->oldSha512 = scanner.sha512();
    }
    if (hasNewFile(*kind)) {
        SealedFile file;
        take(scanner, &file, problem);
        rule->size = file.size;
        rule->sha512 = file.sha512;
    }
    if (*kind == UpdateRule::Kind::Copy && scanner.skip(BeforeSource))
        rule->source = takePath(scanner, problem);
}

template <typename Value> void take(Scanner &scanner, ByPath<Value> *records, QString *problem)
{
    bool moreCome = scanner.skip(BeforePath);
    while (moreCome && scanner.isFine()) {
        const QString path = takePath(scanner, problem);
        if (!records->empty() && !InByteOrder()(records->rbegin()->first, path))
            scanner.fail();
        take(scanner, &records->emplace_hint(records->end(), path, Value())->second, problem);
        scanner.expect(RecordEnd);
        moreCome = scanner.skip(Comma);
        if (moreCome)
            scanner.expect(BeforePath);
    }
}

/// Whether a rule of @p patch can have the source that it has. That the old build has it cannot be
/// known here, but what a rule says of that file must not differ.
QString contradictionOfSource(const SealedPatch &patch, const QString &path, const SealedRule &rule)
{
    if (rule.size == 0)
        return QStringLiteral("has a source for an empty file: ") + path;
    if (rule.source == path)
        return QStringLiteral("has a file as its own source: ") + path;
    const auto other = patch.rules.find(rule.source);
    const bool isKnown = other != patch.rules.cend() && hasOldFile(other->second.kind);
    if (isKnown && other->second.oldSha512 != rule.sha512)
        return QStringLiteral("has a source of another content: ") + path;
    return {};
}

/// Whether what @p patch says of its rules fits what it says of its files.
QString contradictionOf(const SealedPatch &patch)
{
    if (patch.release < 1)
        return QStringLiteral("has no release number");
    if (patch.files.count(Manifest::pathIn(QString(), PATCH_RULES_FILE)) == 0)
        return QStringLiteral("does not name ") + PATCH_RULES_FILE;
    for (const auto &[path, rule] : patch.rules) {
        if (!hasNewFile(rule.kind))
            continue;
        const auto file = patch.files.find(path);
        if (file == patch.files.cend())
            return QStringLiteral("has a rule without a file: ") + path;
        const bool isCopied = rule.kind == UpdateRule::Kind::Copy;
        if (isCopied && (file->second.size != rule.size || file->second.sha512 != rule.sha512))
            return QStringLiteral("has a rule that does not fit its file: ") + path;
        QString wrong
            = rule.source.isEmpty() ? QString() : contradictionOfSource(patch, path, rule);
        if (!wrong.isEmpty())
            return wrong;
    }
    return {};
}

} // namespace

bool mayBeLeftOut(const SealedPatch &patch, const QString &path)
{
    const auto rule = patch.rules.find(path);
    return rule != patch.rules.cend() && !rule->second.source.isEmpty()
        && path != Manifest::pathIn(QString(), PATCH_RULES_FILE);
}

bool InByteOrder::operator()(const QString &text, const QString &other) const
{
    const auto [one, two] = std::mismatch(text.cbegin(), text.cend(), other.cbegin(), other.cend());
    if (one == text.cend() || two == other.cend())
        return two != other.cend();
    // Pairs of surrogates come behind all else, but some characters have higher numbers in UTF-16.
    if (one->isSurrogate() != two->isSurrogate())
        return two->isSurrogate();
    return *one < *two;
}

Sha512 identityOf(const ByPath<Sha512> &build)
{
    Digest digest(QCryptographicHash::Sha512);
    for (const auto &[path, sha512] : build) {
        const QByteArray record = sha512.toText().toLatin1() + "  " + path.toUtf8() + '\0';
        digest.add(record.constData(), record.size());
    }
    return Sha512::fromDigest(digest.finish());
}

QByteArray sealedText(const SealedPatch &patch)
{
    return Format + (BeforeVersion + QByteArray::number(Version)) + BeforeRelease
        + QByteArray::number(patch.release) + BeforeFrom + patch.from.toText().toLatin1() + Quote
        + BeforeTo + patch.to.toText().toLatin1() + Quote + BeforeFiles + toText(patch.files)
        + BeforeRules + toText(patch.rules) + TextEnd;
}

std::optional<SealedPatch> readSealedText(const QByteArray &text, QString *problem)
{
    const auto refuse = [&](const QString &reason) {
        *problem = reason;
        return std::nullopt;
    };
    Scanner scanner(text);
    if (!scanner.skip(Format))
        return refuse(QStringLiteral("is signed, but no seal of a patch"));
    scanner.expect(BeforeVersion);
    if (scanner.number() != Version || !scanner.isFine())
        return refuse(QStringLiteral("is of a version that this library does not know"));

    SealedPatch patch;
    QString found;
    scanner.expect(BeforeRelease);
    patch.release = scanner.number();
    scanner.expect(BeforeFrom);
    patch.from = scanner.sha512();
    scanner.expect(BeforeTo);
    patch.to = scanner.sha512();
    scanner.expect(BeforeFiles);
    take(scanner, &patch.files, &found);
    scanner.expect(BeforeRules);
    take(scanner, &patch.rules, &found);
    scanner.expect(TextEnd);
    if (found.isEmpty() && !scanner.isAtEnd())
        found = QStringLiteral("not of the one form that a seal has");
    if (found.isEmpty())
        found = contradictionOf(patch);
    if (!found.isEmpty())
        return refuse(QLatin1String("is signed, but ") + found);
    return patch;
}

} // namespace Pellox
