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
 * the last block may be short. Replaces what @p records holds. False when that fails.
 */
bool computeBlockSums(const uchar *data, std::size_t size, std::vector<BlockRecord> *records);

/// A way to do that.
struct BlockSumMethod
{
    const char *name;
    bool (*compute)(const uchar *data, std::size_t size, std::vector<BlockRecord> *records);
};

/// What there is on this machine, librsync first and the fastest last.
std::vector<BlockSumMethod> blockSumMethods();

} // namespace Pellox
