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
 * The records of the blocks of @p size bytes at @p data, computed by librsync; the last block may
 * be short. Replaces what @p records holds. False when librsync fails.
 */
bool computeBlockSums(const uchar *data, std::size_t size, std::vector<BlockRecord> *records);

} // namespace Pellox
