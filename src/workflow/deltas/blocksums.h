// SPDX-License-Identifier: MIT
#pragma once

#include "signatureformat.h"

#include <array>
#include <vector>

namespace Pellox {

/// The two sums of a block, as a record of a signature file.
using BlockRecord = std::array<uchar, SignatureFormat::RecordLength>;

quint32 weakSumOf(const BlockRecord &record);

/// The header of every signature file.
const std::array<uchar, SignatureFormat::HeaderLength> &signatureHeader();

/**
 * The records of the blocks of @p size bytes at @p data, byte for byte as librsync computes them;
 * the last block may be short. Replaces what @p records holds.
 */
void computeBlockSums(const uchar *data, std::size_t size, std::vector<BlockRecord> *records);

/// A way to do that.
struct BlockSumMethod
{
    const char *name;
    void (*compute)(const uchar *data, std::size_t size, std::vector<BlockRecord> *records);
};

/// What there is on this machine, the fastest last. First librsync, which throws std::bad_alloc
/// where it has no memory for its own state.
std::vector<BlockSumMethod> blockSumMethods();

} // namespace Pellox
