// SPDX-License-Identifier: MIT
#pragma once

#include "blocksums.h"

#include <vector>

namespace Pellox {

/**
 * The blocks of an old file by their sums, for a search at every position of a new one. Reading
 * is safe on any number of threads.
 */
class SignatureSet
{
public:
    /// @p records are those of the signature file, in its order.
    explicit SignatureSet(std::vector<BlockRecord> records);

    bool isEmpty() const { return m_records.empty(); }

    /**
     * False for most weak sums that no block has. Called for every byte of a file that changed, so
     * it is one look into a bit field, which mostly stays in the processor's cache.
     */
    bool mayHave(quint32 weakSum) const
    {
        const quint64 bit = scattered(weakSum) >> m_filterShift;
        return (m_filter[bit / 64] >> (bit % 64) & 1) != 0;
    }

    /// Whether some block has @p weakSum.
    bool has(quint32 weakSum) const;

    static constexpr quint32 None = 0xffffffff;

    /// The index of the first block with exactly these sums, or None.
    quint32 blockWith(const BlockRecord &sums) const;

private:
    struct Slot
    {
        quint32 weakSum = 0;
        quint32 block = None;
    };

    /// The sums of similar blocks are similar; their products differ in the upper bits.
    static quint64 scattered(quint32 weakSum) { return weakSum * Q_UINT64_C(0x9e3779b97f4a7c15); }
    void insert(quint32 block);

    const std::vector<BlockRecord> m_records;
    int m_filterShift;
    std::vector<quint64> m_filter;
    int m_slotShift;
    std::vector<Slot> m_slots; ///< by weak sum, the next free slot where one is taken
};

} // namespace Pellox
