// SPDX-License-Identifier: MIT
#include "blockmatcher.h"

#include <algorithm>

namespace Pellox {

namespace {

constexpr auto BlockLength = static_cast<qint64>(SignatureFormat::BlockLength);

} // namespace

BlockMatcher::BlockMatcher(const SignatureSet &oldBlocks, const Stretch &stretch,
    const std::vector<BlockRecord> &alignedSums)
    : m_oldBlocks(oldBlocks)
    , m_stretch(stretch)
    , m_alignedSums(alignedSums)
{
}

void BlockMatcher::find(qint64 from, qint64 to, std::vector<Match> *matches, std::size_t most)
{
    std::size_t found = 0;
    for (qint64 position = from; position < to && found < most;) {
        const BlockRecord &sums = sumsAt(position);
        const quint32 block = m_oldBlocks.blockWith(sums);
        if (block == SignatureSet::None) {
            position = nextCandidate(position, weakSumOf(sums), to);
            continue;
        }
        const qint64 length = std::min(BlockLength, m_stretch.available - position);
        matches->push_back({position, qint64{block} * BlockLength, length});
        position += length;
        ++found;
    }
}

/// Both sums of the block at @p position.
const BlockRecord &BlockMatcher::sumsAt(qint64 position)
{
    const auto indexFrom = [position](qint64 begin) {
        return static_cast<std::size_t>((position - begin) / BlockLength);
    };
    if (!m_alignedSums.empty() && (position - m_stretch.begin) % BlockLength == 0)
        return m_alignedSums.at(indexFrom(m_stretch.begin));
    if (position >= m_runBegin && (position - m_runBegin) % BlockLength == 0
        && indexFrom(m_runBegin) < m_run.size())
        return m_run[indexFrom(m_runBegin)];

    // A match is often followed by more, so the further it has come the more are computed ahead.
    constexpr qint64 MostAhead = 32;
    const auto lastRun = static_cast<qint64>(m_run.size());
    const bool continues = lastRun > 0 && position == m_runBegin + lastRun * BlockLength;
    const qint64 blocks = continues ? std::min(2 * lastRun, MostAhead) : 1;
    qint64 size = std::min(blocks * BlockLength, m_stretch.available - position);
    if (!m_stretch.endsFile)
        size -= size % BlockLength; // the last one goes on behind the data
    m_runBegin = position;
    computeBlockSums(at(position), static_cast<std::size_t>(size), &m_run);
    return m_run.front();
}

/**
 * The next position after @p position, whose weak sum is @p weakSum, where the weak sum is that of
 * some block; @p to when there is none before it. Each step takes the byte that leaves the window
 * out of the sum and the one that enters it in; at the file's end the window shrinks.
 */
qint64 BlockMatcher::nextCandidate(qint64 position, quint32 weakSum, qint64 to) const
{
    constexpr quint32 Offset = 31; // librsync adds it to every byte
    constexpr quint32 Half = 16;
    const uchar *byte = at(position);
    quint32 sum = weakSum & 0xffff;
    quint32 sumOfSums = weakSum >> Half;

    const qint64 lastWhole = std::min(to - 1, m_stretch.available - BlockLength);
    for (; position < lastWhole; ++byte) {
        sum += quint32{byte[BlockLength]} - byte[0];
        sumOfSums += sum - static_cast<quint32>(BlockLength) * (byte[0] + Offset);
        ++position;
        const quint32 weak = sumOfSums << Half | (sum & 0xffff);
        if (m_oldBlocks.mayHave(weak) && m_oldBlocks.has(weak))
            return position;
    }
    for (auto length = static_cast<quint32>(m_stretch.available - position); position + 1 < to;
         ++byte) {
        sum -= byte[0] + Offset;
        sumOfSums -= length * (byte[0] + Offset);
        --length;
        ++position;
        const quint32 weak = sumOfSums << Half | (sum & 0xffff);
        if (m_oldBlocks.mayHave(weak) && m_oldBlocks.has(weak))
            return position;
    }
    return to;
}

bool BlockMatchFinder::find(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
    std::vector<Match> *matches, FileError * /*error*/)
{
    if (!m_oldBlocks.isEmpty())
        BlockMatcher(m_oldBlocks, stretch, alignedSums).find(stretch.begin, stretch.end, matches);
    return true;
}

/**
 * The matches in @p stretch that a search from the file's beginning would find. The stretch was
 * searched from its first byte, but where the last match of the one before reaches into it, that
 * search would have gone on behind that match. From a position that lies in no match of either
 * search, both find the same.
 */
std::vector<Match> BlockMatchFinder::join(const Stretch &stretch,
    const std::vector<BlockRecord> &alignedSums, std::vector<Match> matches, qint64 from)
{
    if (from <= stretch.begin)
        return matches;
    std::vector<Match> joined;
    qint64 position = from;
    auto match = matches.cbegin();
    const auto last = matches.cend();
    BlockMatcher matcher(m_oldBlocks, stretch, alignedSums);
    while (position < stretch.end) {
        while (match != last && match->end() <= position)
            ++match;
        if (match == last || match->position >= position) {
            joined.insert(joined.end(), match, last);
            break;
        }
        // Inside a match that the search from here has not made.
        const std::size_t before = joined.size();
        const qint64 to = std::min(match->end(), stretch.end);
        matcher.find(position, to, &joined, 1);
        position = joined.size() > before ? joined.back().end() : to;
    }
    return joined;
}

} // namespace Pellox
