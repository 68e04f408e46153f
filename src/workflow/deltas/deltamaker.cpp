// SPDX-License-Identifier: MIT
#include "deltamaker.h"

#include <algorithm>

namespace Pellox {

DeltaMaker::DeltaMaker(OutputFile &delta, MatchFinder &finder)
    : m_finder(finder)
    , m_writer(delta, finder.hasContent())
{
}

void DeltaMaker::write(
    const Stretch &stretch, const std::vector<BlockRecord> &alignedSums, std::vector<Match> matches)
{
    for (const Match &match : m_finder.join(stretch, alignedSums, std::move(matches), m_end)) {
        writeLiteral(stretch, match.position);
        m_writer.copy(match.oldPosition, match.length);
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

} // namespace Pellox
