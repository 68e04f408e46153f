// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

namespace Pellox {

/// How thoroughly a new file is searched for what the old one has.
struct SearchEffort
{
    /// Bytes that must be the same for a match to be found through the index; 8 to 32.
    int window;
    /// One window in 2 to the power of this is in the index, chosen by its content.
    int sampleBits;
    /// How many places with the same window the index knows, a power of two.
    int places;
    /// Behind a match its continuation is looked for up to so many bytes away from where it would
    /// be if nothing had been inserted or removed ...
    int nearDistance;
    /// ... from each of so many of the next positions.
    int nearPositions;
    /// Bytes that a thread takes, at the most, for what it works on; the index is apart.
    qint64 memoryPerThread;
};

// Found by measuring, see docs/benchmarks.md.
inline constexpr SearchEffort FastestSearch{32, 5, 2, 16, 4, 12 << 20};
inline constexpr SearchEffort BalancedSearch{16, 3, 4, 64, 8, 12 << 20};
inline constexpr SearchEffort SmallestSearch{12, 1, 16, 128, 8, 32 << 20};

} // namespace Pellox
