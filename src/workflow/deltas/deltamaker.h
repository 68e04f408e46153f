// SPDX-License-Identifier: MIT
#pragma once

#include "deltawriter.h"
#include "matchfinder.h"

namespace Pellox {

/// Makes the delta of a new file that goes through memory in stretches, each with the sums of its
/// own blocks where they are known already.
class DeltaMaker
{
public:
    /// Both must outlive the maker.
    DeltaMaker(OutputFile &delta, MatchFinder &finder);

    /// Writes what MatchFinder::find() has found in @p stretch, one stretch after the other. Errors
    /// of the delta's file are its own.
    void write(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
        std::vector<Match> matches);

private:
    void writeLiteral(const Stretch &stretch, qint64 end);

    MatchFinder &m_finder;
    DeltaWriter m_writer;
    qint64 m_end = 0; ///< of the new file, what the commands yield
};

} // namespace Pellox
