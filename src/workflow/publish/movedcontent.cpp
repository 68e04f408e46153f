// SPDX-License-Identifier: MIT
#include "movedcontent.h"

#include "blockmatcher.h"
#include "filedigest.h"
#include "manifest.h"
#include "manifestfile.h"
#include "rules.h"
#include "sealedpatch.h"
#include "signaturefile.h"

#include <QFileInfo>

#include <algorithm>
#include <unordered_map>
#include <utility>

namespace Pellox {

namespace {

constexpr auto BlockLength = static_cast<qint64>(SignatureFormat::BlockLength);
constexpr qint64 ChunkSize = 1 << 20; // a multiple of that

/// Of @p text, which begins with @p path.
FileError errorAbout(const QString &path, const QString &text)
{
    return {path, text.mid(aboutFile(path, QString()).size())};
}

/// By the size of the file alone.
qint64 blocksIn(const QString &signature)
{
    constexpr auto HeaderLength = static_cast<qint64>(SignatureFormat::HeaderLength);
    constexpr auto RecordLength = static_cast<qint64>(SignatureFormat::RecordLength);
    return std::max<qint64>(QFileInfo(signature).size() - HeaderLength, 0) / RecordLength;
}

/// Nothing with the file's error.
std::optional<Sha512> sha512Of(InputFile &file, const MovedContent::Report &report)
{
    qint64 done = 0;
    const auto sha512 = sha512OfWhole(file, [&](qint64 bytes) {
        done += bytes;
        report(static_cast<double>(done) / static_cast<double>(file.size()));
        return true;
    });
    return sha512 && file.isUnchanged() ? sha512 : std::nullopt;
}

/// The number of the old block that was found, among those that are known.
std::size_t blockOf(const Match &match)
{
    return static_cast<std::size_t>(match.oldPosition / BlockLength);
}

/// What was found of a new file.
class Findings
{
public:
    Findings(std::size_t blocks, qint64 every)
        : m_isKnown(blocks)
        , m_every(every)
    {
    }

    void add(const Match &match, std::size_t oldFile)
    {
        const std::size_t block = blockOf(match);
        m_bytesOf[oldFile] += match.length;
        // A block that is met again, as zeros are, stands for itself alone, not for those between
        // it and the next one that is known.
        m_bytes += m_isKnown[block] ? match.length : m_every * match.length;
        m_isKnown[block] = true;
    }

    qint64 bytes() const { return m_bytes; }

    /// The path, of @p files, of what most was found in.
    QString path(const QStringList &files) const
    {
        const auto pathOf
            = [&](const auto &entry) { return files.at(static_cast<int>(entry.first)); };
        const auto most = std::max_element(
            m_bytesOf.cbegin(), m_bytesOf.cend(), [&](const auto &one, const auto &other) {
                return one.second != other.second ? one.second < other.second
                                                  : InByteOrder()(pathOf(other), pathOf(one));
            });
        return most == m_bytesOf.cend() ? QString() : pathOf(*most);
    }

private:
    std::unordered_map<std::size_t, qint64> m_bytesOf; ///< by number of the old file
    std::vector<bool> m_isKnown;
    const qint64 m_every;
    qint64 m_bytes = 0;
};

} // namespace

MovedContent::MovedContent(QString signatures, qint64 mostBlocks)
    : m_signatures(std::move(signatures))
    , m_mostBlocks(mostBlocks)
{
}

bool MovedContent::read(const QStringList &touched, FileError *error)
{
    const auto files = readSignedFiles(m_signatures, error);
    if (!files)
        return false;
    for (const QString &path : touched)
        m_sources.noteRule(path);
    for (const SignedFile &file : *files) {
        if (!file.sha512) // then its signature is empty
            continue;
        m_files.append(file.relativePath);
        m_sources.offer(file.relativePath, *file.sha512);
    }
    return true;
}

std::optional<FoundContent> MovedContent::find(
    const QString &path, const QString &relativePath, const Report &report, FileError *error)
{
    constexpr double Half = 0.5; // it is read twice
    const auto fail = [&](const FileError &reason) {
        *error = reason;
        return std::nullopt;
    };
    InputFile file;
    if (!file.open(path))
        return fail(file.error());
    if (file.size() == 0)
        return FoundContent();
    const auto sha512 = sha512Of(file, [&](double share) { report(Half * share); });
    if (!sha512)
        return fail(file.error());
    const QString same = m_sources.sourceOf(relativePath, *sha512);
    if (!same.isEmpty())
        return FoundContent{same, file.size(), true, false};
    if (file.size() < BlockLength)
        return FoundContent();
    if (!m_blocks && !readBlocks([&] { report(Half); }, error))
        return {};
    auto found = search(file, [&](double share) { report(Half + Half * share); });
    return found ? found : fail(file.error());
}

/// Calls @p report after each old file.
bool MovedContent::readBlocks(const std::function<void()> &report, FileError *error)
{
    qint64 blocks = 0;
    for (const QString &file : std::as_const(m_files))
        blocks += blocksIn(m_signatures + file);
    m_every = std::max<qint64>((blocks + m_mostBlocks - 1) / m_mostBlocks, 1);
    std::vector<BlockRecord> records;
    records.reserve(static_cast<std::size_t>(blocks / m_every + 1));
    qint64 next = 0;
    qint64 begin = 0;
    for (int i = 0; i < m_files.size(); ++i) {
        if (!addBlocks(static_cast<std::size_t>(i), &next, &begin, &records, error))
            return false;
        report();
    }
    m_blockCount = records.size();
    m_blocks.emplace(std::move(records));
    return true;
}

/// Of old file number @p file, whose blocks have numbers from @p begin in the whole build, @p next
/// is the first that is taken. Both become those of the file after it.
bool MovedContent::addBlocks(std::size_t file, qint64 *next, qint64 *begin,
    std::vector<BlockRecord> *records, FileError *error)
{
    const auto fail = [&](const FileError &reason) {
        *error = reason;
        return false;
    };
    SignatureFile signature;
    const QString path = m_signatures + m_files.at(static_cast<int>(file));
    if (!signature.open(path))
        return fail(errorAbout(path, signature.error()));
    const qint64 end = *begin + signature.blockCount();
    if (*next < end)
        m_firstBlocks.push_back({records->size(), file});
    if (m_every == 1) {
        std::vector<BlockRecord> all;
        if (!signature.readAll(&all, GoOn()))
            return fail(errorAbout(path, signature.error()));
        records->insert(records->end(), all.cbegin(), all.cend());
        *next = end;
    }
    for (; *next < end; *next += m_every) {
        records->emplace_back();
        if (!signature.readBlock(*next - *begin, &records->back()))
            return fail(errorAbout(path, signature.error()));
    }
    *begin = end;
    return true;
}

/// Nothing with the file's error.
std::optional<FoundContent> MovedContent::search(InputFile &file, const Report &report) const
{
    const qint64 size = file.size();
    const std::vector<BlockRecord> noSums;
    std::vector<uchar> bytes(static_cast<std::size_t>(std::min(size, ChunkSize + BlockLength)));
    std::vector<Match> matches;
    Findings findings(m_blockCount, m_every);
    qint64 searched = 0;
    for (qint64 begin = 0; begin < size; begin += ChunkSize) {
        const qint64 end = std::min(size, begin + ChunkSize);
        const qint64 available = std::min(size, end + BlockLength);
        if (!file.readAt(begin, bytes.data(), available - begin))
            return {};
        const Stretch stretch{bytes.data(), begin, end, available, available == size};
        matches.clear();
        BlockMatcher(*m_blocks, stretch, noSums).find(std::max(begin, searched), end, &matches);
        for (const Match &match : matches)
            findings.add(match, fileOf(blockOf(match)));
        searched = matches.empty() ? end : std::max(end, matches.back().end());
        report(static_cast<double>(end) / static_cast<double>(size));
    }
    if (!file.isUnchanged())
        return {};
    return FoundContent{
        findings.path(m_files), std::min(findings.bytes(), size), false, m_every > 1};
}

std::size_t MovedContent::fileOf(std::size_t block) const
{
    const auto next = std::upper_bound(m_firstBlocks.cbegin(), m_firstBlocks.cend(), block,
        [](std::size_t number, const FirstBlock &first) { return number < first.block; });
    return std::prev(next)->file;
}

} // namespace Pellox
