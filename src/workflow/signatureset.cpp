// SPDX-License-Identifier: MIT
#include "signatureset.h"

namespace Pellox {

namespace {

constexpr int ScatteredBits = 64;

/// Bits of an index into at least @p count places.
int indexBits(quint64 count)
{
    int bits = 6; // one word of the filter
    while ((Q_UINT64_C(1) << bits) < count)
        ++bits;
    return bits;
}

} // namespace

SignatureSet::SignatureSet(std::vector<BlockRecord> records)
    : m_records(std::move(records))
{
    // Sparse enough that one sum in 32 at most passes the filter by chance, and that a search
    // among the slots ends soon.
    constexpr quint64 FilterBitsPerBlock = 32;
    constexpr quint64 SlotsPerBlock = 2;
    const int filterBits = indexBits(FilterBitsPerBlock * m_records.size());
    m_filterShift = ScatteredBits - filterBits;
    m_filter.resize((Q_UINT64_C(1) << filterBits) / 64);
    const int slotBits = indexBits(SlotsPerBlock * m_records.size());
    m_slotShift = ScatteredBits - slotBits;
    m_slots.resize(Q_UINT64_C(1) << slotBits);
    for (quint32 block = 0; block < m_records.size(); ++block)
        insert(block);
}

void SignatureSet::insert(quint32 block)
{
    const BlockRecord &record = m_records[block];
    const quint32 weakSum = weakSumOf(record);
    const quint64 hash = scattered(weakSum);
    for (quint64 i = hash >> m_slotShift;; i = (i + 1) & (m_slots.size() - 1)) {
        Slot &slot = m_slots[i];
        if (slot.block == None) {
            slot = {weakSum, block};
            break;
        }
        if (slot.weakSum == weakSum && m_records[slot.block] == record)
            return; // the first of equal blocks stands for all
    }
    const quint64 bit = hash >> m_filterShift;
    m_filter[bit / 64] |= Q_UINT64_C(1) << (bit % 64);
}

bool SignatureSet::has(quint32 weakSum) const
{
    for (quint64 i = scattered(weakSum) >> m_slotShift;; i = (i + 1) & (m_slots.size() - 1)) {
        const Slot &slot = m_slots[i];
        if (slot.block == None)
            return false;
        if (slot.weakSum == weakSum)
            return true;
    }
}

quint32 SignatureSet::blockWith(const BlockRecord &sums) const
{
    const quint32 weakSum = weakSumOf(sums);
    for (quint64 i = scattered(weakSum) >> m_slotShift;; i = (i + 1) & (m_slots.size() - 1)) {
        const Slot &slot = m_slots[i];
        if (slot.block == None)
            return None;
        if (slot.weakSum == weakSum && m_records[slot.block] == sums)
            return slot.block;
    }
}

} // namespace Pellox
