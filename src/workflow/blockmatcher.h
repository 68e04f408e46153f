// SPDX-License-Identifier: MIT
#pragma once

#include "signatureset.h"

#include <vector>

namespace Pellox {

/// A block of the old file that stands in the new one.
struct Match
{
    qint64 position; ///< in the new file
    quint32 length;  ///< a block's, or less for the old file's last block
    quint32 block;   ///< index in the old file

    qint64 end() const { return position + length; }
};

/// A part of the new file in memory.
struct Stretch
{
    const uchar *data;
    qint64 begin;     ///< position of the first byte; a multiple of the block length
    qint64 end;       ///< up to here positions are searched ...
    qint64 available; ///< ... and up to here goes the data: a block further, or to the file's end
    bool endsFile;
};

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

} // namespace Pellox
