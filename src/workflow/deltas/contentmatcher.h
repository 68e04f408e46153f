// SPDX-License-Identifier: MIT
#pragma once

#include "contentindex.h"
#include "matchfinder.h"
#include "oldfile.h"

#include <array>
#include <vector>

namespace Pellox {

/**
 * Finds in a stretch of a new file what stands in the old one, at any place and of any length that
 * makes the delta smaller. What the index knows and what stands where the last match would go on is
 * extended byte by byte in both directions, and the one is taken that spares the most.
 */
class ContentMatcher
{
public:
    ContentMatcher(const SearchEffort &effort, const ContentIndex &index, PagedView &old,
        const Stretch &stretch, std::vector<Match> *matches);

    /// Appends all matches.
    void find();

private:
    struct Candidate
    {
        Match match{};
        qint64 spared = 0; ///< bytes of the delta
    };

    void lookBehindLastMatch();
    void lookIntoIndex();
    void consider(qint64 oldPosition);
    qint64 compare(qint64 oldPosition);
    qint64 spared(const Match &match) const;
    void take(const Match &match);
    void loadNeighbourhood();
    bool hasMatch() const { return m_matches.size() > m_before; }

    const uchar *newAt(qint64 position) const
    {
        return m_stretch.data + (position - m_stretch.begin);
    }
    qint64 sameAfter(qint64 position, qint64 oldPosition);
    qint64 sameBefore(qint64 position, qint64 oldPosition, qint64 most);

    const SearchEffort &m_effort;
    const ContentIndex &m_index;
    PagedView &m_old;
    const Stretch &m_stretch;
    std::vector<Match> &m_matches;
    const std::size_t m_before; ///< matches of others

    qint64 m_position;   ///< what is looked for begins here
    qint64 m_end;        ///< of the last match
    qint64 m_shift = 0;  ///< where the last match stands in the old file, less its position
    qint64 m_lastWindow; ///< windows begin before this position
    qint64 m_lastKept;   ///< the last position whose window the index keeps, or the last match
    Candidate m_best;    ///< at the position

    /// Of the old file around where the last match ends.
    std::vector<uchar> m_neighbourhood;
    qint64 m_neighbourhoodBegin = 0;
};

/// Finds any content of the old file.
class ContentMatchFinder : public MatchFinder
{
public:
    /// All must outlive the finder.
    ContentMatchFinder(const SearchEffort &effort, const ContentIndex &index, OldFile &old);

    bool find(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
        std::vector<Match> *matches, FileError *error) override;
    /// They stay in their stretch, so all hold.
    std::vector<Match> join(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
        std::vector<Match> matches, qint64 from) override;
    bool hasContent() const override { return m_old.size() > 0; }

private:
    const SearchEffort m_effort;
    const ContentIndex &m_index;
    OldFile &m_old;
};

} // namespace Pellox
