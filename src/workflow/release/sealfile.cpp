// SPDX-License-Identifier: MIT
#include "sealfile.h"

#include "digest.h"
#include "ed25519.h"
#include "filesystem.h"
#include "manifest.h"
#include "rules.h"
#include "wholefile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Pellox {

namespace {

constexpr qint64 LargestSeal = 1LL << 28;
constexpr qint64 Version = 1;
constexpr qint64 LargestNumber = (1LL << 53) - 1; // that JSON numbers tell from its neighbours

// What stands before each value. Values in quotation marks have the first of them here.
constexpr char BeforeText[] = R"({"sealed":")";
constexpr char BeforeSignatures[] = R"(,"signatures":[)";
constexpr char BeforeKey[] = R"({"key":")";
constexpr char BeforeSignature[] = R"(,"signature":")";
constexpr char SealEnd[] = "]}\n";

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
constexpr char Quote[] = "\"";
constexpr char RecordEnd[] = "}";
constexpr char Comma[] = ",";

const QString NoForm = QStringLiteral("is damaged: it has not the form of a seal");

struct Signature
{
    QByteArray key; ///< its id
    QByteArray bytes;
};

/// A seal whose signatures nobody has looked at.
struct SealParts
{
    QByteArray text;
    std::vector<Signature> signatures;
};

/// As in a JSON string. Control characters do not occur.
QByteArray escaped(QByteArray text)
{
    return text.replace('\\', "\\\\").replace('"', "\\\"");
}

QByteArray toBytes(const SealParts &seal)
{
    QByteArray bytes = BeforeText + escaped(seal.text) + Quote + BeforeSignatures;
    for (const Signature &signature : seal.signatures) {
        if (&signature != &seal.signatures.front())
            bytes += Comma;
        bytes += BeforeKey + signature.key + Quote + BeforeSignature + signature.bytes.toBase64()
            + Quote + RecordEnd;
    }
    return bytes + SealEnd;
}

/**
 * Takes bytes apart from one end to the other. A seal has one form, so that there is nothing to
 * interpret. After anything unexpected it is no longer fine, takes nothing more and gives values
 * that mean nothing.
 */
class Scanner
{
public:
    explicit Scanner(const QByteArray &bytes)
        : m_bytes(bytes)
    {
    }

    /// Whether @p next comes next; then goes behind it. Any answer is fine.
    bool skip(const char *next);
    void expect(const char *next) { m_isFine = skip(next); }
    QByteArray take(int size);
    /// Of a JSON string, up to the quotation mark that ends it and behind that.
    QByteArray string();
    QString text();
    Sha512 sha512();
    qint64 number();

    void fail() { m_isFine = false; }
    bool isFine() const { return m_isFine; }
    bool isAtEnd() const { return m_isFine && m_at == m_bytes.size(); }

private:
    const QByteArray &m_bytes;
    int m_at = 0;
    bool m_isFine = true;
};

bool Scanner::skip(const char *next)
{
    const int size = static_cast<int>(std::strlen(next));
    const bool isNext = m_isFine && m_bytes.mid(m_at, size) == QByteArray::fromRawData(next, size);
    if (isNext)
        m_at += size;
    return isNext;
}

QByteArray Scanner::take(int size)
{
    m_isFine &= size <= m_bytes.size() - m_at;
    if (!m_isFine)
        return {};
    m_at += size;
    return m_bytes.mid(m_at - size, size);
}

QByteArray Scanner::string()
{
    constexpr char FirstPrintable = ' ';
    int stringEnd = m_at;
    while (stringEnd < m_bytes.size() && m_bytes.at(stringEnd) != '"') {
        const char byte = m_bytes.at(stringEnd);
        const bool isEscape = byte == '\\';
        const char next = stringEnd + 1 < m_bytes.size() ? m_bytes.at(stringEnd + 1) : '\0';
        const bool isControl = byte >= 0 && byte < FirstPrintable;
        if (isControl || (isEscape && next != '"' && next != '\\')) {
            fail();
            return {};
        }
        stringEnd += isEscape ? 2 : 1;
    }
    QByteArray taken = take(stringEnd - m_at);
    expect(Quote);
    char *end = taken.data();
    for (auto byte = taken.cbegin(); byte != taken.cend(); ++byte) {
        byte += *byte == '\\' ? 1 : 0;
        *end++ = *byte;
    }
    taken.truncate(static_cast<int>(end - taken.cbegin()));
    return taken;
}

QString Scanner::text()
{
    const QByteArray bytes = string();
    QString text = QString::fromUtf8(bytes);
    m_isFine &= text.toUtf8() == bytes;
    return text;
}

Sha512 Scanner::sha512()
{
    const auto sha512 = Sha512::fromText(text());
    m_isFine &= sha512.has_value();
    return sha512.value_or(Sha512());
}

qint64 Scanner::number()
{
    constexpr int MostDigits = 16; // of the largest number
    int size = 0;
    const auto isDigit = [&](int at) {
        return at < m_bytes.size() && m_bytes.at(at) >= '0' && m_bytes.at(at) <= '9';
    };
    while (size <= MostDigits && isDigit(m_at + size))
        ++size;
    const QByteArray digits = take(size);
    const qint64 number = digits.toLongLong();
    m_isFine &= QByteArray::number(number) == digits && number <= LargestNumber;
    return number;
}

Signature takeSignature(Scanner &scanner)
{
    constexpr int KeySize = 64;
    scanner.expect(BeforeKey);
    const QByteArray key = scanner.string();
    scanner.expect(BeforeSignature);
    const QByteArray base64 = scanner.string();
    const QByteArray bytes = QByteArray::fromBase64(base64);
    // Decoding overlooks more than it should, so only the way back tells.
    if (key.size() != KeySize || QByteArray::fromHex(key).toHex() != key
        || bytes.size() != Ed25519::SignatureSize || bytes.toBase64() != base64)
        scanner.fail();
    scanner.expect(RecordEnd);
    return {key, bytes};
}

/// Reads what toBytes() writes.
std::optional<SealParts> readParts(const QByteArray &bytes)
{
    Scanner scanner(bytes);
    SealParts seal;
    scanner.expect(BeforeText);
    seal.text = scanner.string();
    scanner.expect(BeforeSignatures);
    do {
        Signature signature = takeSignature(scanner);
        if (seal.signatures.size() == MostSignatures
            || (!seal.signatures.empty() && signature.key <= seal.signatures.back().key))
            scanner.fail();
        seal.signatures.push_back(std::move(signature));
    } while (scanner.skip(Comma));
    scanner.expect(SealEnd);
    if (!scanner.isAtEnd())
        return {};
    return seal;
}

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

/// Of a text that a trusted key has signed.
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

/// Of @p text, which may begin with @p path.
FileError errorAbout(const QString &path, const QString &text)
{
    const QString begin = aboutFile(path, QString());
    return {path, text.startsWith(begin) ? text.mid(begin.size()) : text};
}

} // namespace

std::optional<QByteArray> readSealFile(const QString &patch, FileError *error)
{
    const QString path = Manifest::pathIn(patch, SealFileName);
    const auto status = statusOf(path);
    const bool isMissing = !status && (errno == ENOENT || errno == ENOTDIR);
    const auto fail = [&](const QString &reason) {
        *error = {path, reason};
        return std::nullopt;
    };
    if (isMissing)
        return fail(QStringLiteral("is missing, so the patch is not sealed"));
    if (status && !S_ISREG(status->st_mode))
        return fail(QStringLiteral("is damaged: it is no regular file"));
    InputFile file;
    if (!file.open(path)) {
        *error = file.error();
        return {};
    }
    if (file.size() > LargestSeal)
        return fail(QStringLiteral("is damaged: it is larger than any seal"));
    QString text; // the same as the file's own error
    auto bytes = readWhole(file, LargestSeal, &text);
    if (!bytes)
        *error = file.error();
    return bytes;
}

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

bool writeSeal(const QString &folder, const SealedPatch &patch,
    const std::vector<Ed25519::PrivateKey> &keys, QString *error)
{
    const QString path = Manifest::pathIn(folder, SealFileName);
    const auto fail = [&](const QString &reason) {
        *error = aboutFile(path, reason);
        return false;
    };
    SealParts seal{sealedText(patch), {}};
    QString problem;
    if (!readSealedText(seal.text, &problem)) // nobody could read it
        return fail(QStringLiteral("cannot be made: it ") + problem);
    for (const Ed25519::PrivateKey &key : keys)
        seal.signatures.push_back({key.id(), key.sign(seal.text)});
    std::sort(seal.signatures.begin(), seal.signatures.end(),
        [](const Signature &one, const Signature &other) { return one.key < other.key; });
    const bool isSigned = std::all_of(seal.signatures.cbegin(), seal.signatures.cend(),
        [](const Signature &signature) { return !signature.bytes.isEmpty(); });
    if (!isSigned)
        return fail(QStringLiteral("cannot be signed: libcrypto refuses"));
    const QByteArray bytes = toBytes(seal);
    if (bytes.size() > LargestSeal)
        return fail(QStringLiteral("would be too large: the patch has too many files"));
    return replaceWhole(path, bytes, error);
}

std::optional<std::vector<Ed25519::PublicKey>> readPublicKeys(
    const QStringList &files, FileError *error)
{
    std::vector<Ed25519::PublicKey> keys;
    for (const QString &file : files) {
        QString text = Ed25519::problemOfLibrary(file);
        auto key = text.isEmpty() ? Ed25519::PublicKey::read(file, &text) : std::nullopt;
        if (!key) {
            *error = errorAbout(file, text);
            return {};
        }
        keys.push_back(std::move(*key));
    }
    return keys;
}

std::optional<SealedPatch> readSeal(
    const QString &patch, const std::vector<Ed25519::PublicKey> &trusted, FileError *error)
{
    const auto bytes = readSealFile(patch, error);
    if (!bytes)
        return {};
    QString problem;
    auto sealed = readSealBytes(*bytes, trusted, &problem);
    if (!sealed)
        *error = {Manifest::pathIn(patch, SealFileName), problem};
    return sealed;
}

std::optional<SealedPatch> readSealOfAnybody(const QByteArray &bytes, QString *problem)
{
    const auto seal = readParts(bytes);
    if (seal)
        return readSealedText(seal->text, problem);
    *problem = NoForm;
    return {};
}

std::optional<SealedPatch> readSealBytes(
    const QByteArray &bytes, const std::vector<Ed25519::PublicKey> &trusted, QString *problem)
{
    const auto seal = readParts(bytes);
    if (!seal) {
        *problem = NoForm;
        return {};
    }
    bool isTrusted = false;
    for (const Signature &signature : seal->signatures) {
        const auto key = std::find_if(trusted.cbegin(), trusted.cend(),
            [&](const Ed25519::PublicKey &known) { return known.id() == signature.key; });
        if (key == trusted.cend())
            continue;
        if (!key->verifies(seal->text, signature.bytes)) {
            *problem = QStringLiteral("is damaged: its signature does not hold");
            return {};
        }
        isTrusted = true;
    }
    if (isTrusted)
        return readSealedText(seal->text, problem);
    *problem = QStringLiteral("is not by a trusted key");
    return {};
}

} // namespace Pellox
