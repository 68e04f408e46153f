// SPDX-License-Identifier: MIT
#pragma once

#include "blocksums.h"
#include "diskfile.h"
#include "stretch.h"

#include <vector>

namespace Pellox {

/// A part of the old file that stands in the new one.
struct Match
{
    qint64 position; ///< in the new file
    qint64 oldPosition;
    qint64 length;

    qint64 end() const { return position + length; }
};

/// Finds in a new file what the old one has, stretch by stretch.
class MatchFinder
{
public:
    MatchFinder() = default;
    virtual ~MatchFinder() = default;
    MatchFinder(const MatchFinder &) = delete;
    MatchFinder &operator=(const MatchFinder &) = delete;

    /**
     * Appends to @p matches, in the order of the new file, those of a search from the first byte of
     * @p stretch on. For stretches in any order and on any thread. @p alignedSums are those of the
     * stretch's own blocks where they are known already; may be empty. False with @p error.
     */
    virtual bool find(const Stretch &stretch, const std::vector<BlockRecord> &alignedSums,
        std::vector<Match> *matches, FileError *error)
        = 0;

    /**
     * Of what find() has found in @p stretch, what holds when the matches of the stretches before
     * reach up to @p from, which may lie inside of it.
     */
    virtual std::vector<Match> join(const Stretch &stretch,
        const std::vector<BlockRecord> &alignedSums, std::vector<Match> matches, qint64 from)
        = 0;

    /// Whether the old file has any content.
    virtual bool hasContent() const = 0;
};

} // namespace Pellox
