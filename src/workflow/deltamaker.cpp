// SPDX-License-Identifier: MIT
#include "deltamaker.h"

#include <algorithm>

namespace Pellox {

DeltaMaker::DeltaMaker(OutputFile &delta, const SignatureSet &oldBlocks)
    : m_oldBlocks(oldBlocks)
    , m_writer(delta, !oldBlocks.isEmpty())
{
}

void DeltaMaker::find(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
    std::vector<Match> *matches) const
{
    if (!m_oldBlocks.isEmpty())
        BlockMatcher(m_oldBlocks, stretch, alignedSums).find(stretch.begin, stretch.end, matches);
}

void DeltaMaker::write(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
    const std::vector<Match> &matches)
{
    constexpr auto BlockLength = static_cast<qint64>(SignatureFormat::BlockLength);
    for (const Match &match : join(stretch, alignedSums, matches)) {
        writeLiteral(stretch, match.position);
        m_writer.copy(match.block * BlockLength, match.length);
        m_end = match.end();
    }
    writeLiteral(stretch, stretch.end);
    m_end = std::max(m_end, stretch.end);
    if (stretch.endsFile && stretch.end == stretch.available)
        m_writer.finish();
}

void DeltaMaker::writeLiteral(const Stretch &stretch, qint64 end)
{
    if (end > m_end)
        m_writer.literal(stretch.data + (m_end - stretch.begin), end - m_end);
}

/**
 * The matches in @p stretch that a search from the file's beginning would find. The stretch was
 * searched from its first byte, but where the last match of the one before reaches into it, that
 * search would have gone on behind that match. From a position that lies in no match of either
 * search, both find the same.
 */
std::vector<Match> DeltaMaker::join(const Stretch &stretch,
    const std::vector<BlockRecord> &alignedSums, const std::vector<Match> &matches) const
{
    std::vector<Match> joined;
    qint64 position = std::max(stretch.begin, m_end);
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
