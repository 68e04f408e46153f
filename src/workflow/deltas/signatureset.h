// SPDX-License-Identifier: MIT
#pragma once

#include "blocksums.h"
#include "goon.h"

#include <vector>

namespace Pellox {

/**
 * The blocks of an old file by their sums, for a search at every position of a new one. Reading
 * is safe on any number of threads.
 *
 * The sums may have been chosen to be slow to find: where each goes depends on random numbers, so
 * that nobody can choose them.
 */
class SignatureSet
{
public:
    /// @p records are those of the signature file, in its order. Of no use after @p goOn says no.
    explicit SignatureSet(std::vector<BlockRecord> records, const GoOn &goOn = GoOn());

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
    quint64 scattered(quint32 weakSum) const { return weakSum * m_factor; }
    quint64 slotOf(quint32 weakSum) const;
    std::size_t placeAmongOthers(const BlockRecord &sums) const;
    void insert(quint32 block);
    void insertOther(quint32 block);
    void growOthers();

    const std::vector<BlockRecord> m_records;
    const quint64 m_factor;
    int m_filterShift;
    std::vector<quint64> m_filter;
    int m_slotShift;
    std::vector<Slot> m_slots; ///< one a weak sum: its first block, in the next free slot
    /// Further blocks that have the weak sum of one in a slot, but another strong sum, by both.
    std::vector<quint32> m_others;
    std::size_t m_otherCount = 0;
};

} // namespace Pellox
