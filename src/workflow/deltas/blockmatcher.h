// SPDX-License-Identifier: MIT
#pragma once

#include "matchfinder.h"
#include "signatureset.h"

#include <vector>

namespace Pellox {

/**
 * Finds old blocks in a stretch of a new file as librsync's own delta does: at each position in
 * turn, the first block with the same sums; behind a match the search goes on after its end.
 */
class BlockMatcher
{
public:
    /// @p alignedSums are those of the stretch's own blocks where they are known already; may be
    /// empty. All must outlive the matcher.
    BlockMatcher(const SignatureSet &oldBlocks, const Stretch &stretch,
        const std::vector<BlockRecord> &alignedSums);

    /// Appends the matches that begin from @p from up to @p to, @p most at most, to @p matches.
    void find(qint64 from, qint64 to, std::vector<Match> *matches,
        std::size_t most = static_cast<std::size_t>(-1));

private:
    const BlockRecord &sumsAt(qint64 position);
    qint64 nextCandidate(qint64 position, quint32 weakSum, qint64 to) const;
    const uchar *at(qint64 position) const { return m_stretch.data + (position - m_stretch.begin); }

    const SignatureSet &m_oldBlocks;
    const Stretch &m_stretch;
    const std::vector<BlockRecord> &m_alignedSums;
    qint64 m_runBegin = 0; ///< sums computed ahead: of blocks one behind the other from here
    std::vector<BlockRecord> m_run;
};

/// Finds whole blocks of the old file by their sums, as librsync does.
class BlockMatchFinder : public MatchFinder
{
public:
    /// @p oldBlocks must outlive the finder.
    explicit BlockMatchFinder(const SignatureSet &oldBlocks)
        : m_oldBlocks(oldBlocks)
    {
    }

    bool find(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
        std::vector<Match> *matches, FileError *error) override;
    std::vector<Match> join(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
        std::vector<Match> matches, qint64 from) override;
    bool hasContent() const override { return !m_oldBlocks.isEmpty(); }

private:
    const SignatureSet &m_oldBlocks;
};

} // namespace Pellox
