// SPDX-License-Identifier: MIT
#pragma once

#include "blockmatcher.h"
#include "deltawriter.h"

namespace Pellox {

/// Makes the delta of a new file that goes through memory in stretches, each with the sums of its
/// own blocks where they are known already.
class DeltaMaker
{
public:
    /// Both must outlive the maker.
    DeltaMaker(OutputFile &delta, const SignatureSet &oldBlocks);

    /// Appends to @p matches those of a search from the first byte of @p stretch on. For stretches
    /// in any order and on any thread.
    void find(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
        std::vector<Match> *matches) const;
    /// Writes what find() has found in @p stretch, one stretch after the other. Errors of the
    /// delta's file are its own.
    void write(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
        const std::vector<Match> &matches);

private:
    std::vector<Match> join(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
        const std::vector<Match> &matches) const;
    void writeLiteral(const Stretch &stretch, qint64 end);

    const SignatureSet &m_oldBlocks;
    DeltaWriter m_writer;
    qint64 m_end = 0; ///< of the new file, what the commands yield
};

} // namespace Pellox
