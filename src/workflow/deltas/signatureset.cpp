// SPDX-License-Identifier: MIT
#include "signatureset.h"

#include <QRandomGenerator>
#include <QtEndian>

#include <algorithm>
#include <array>

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

/// An odd number whose products with similar numbers differ in the upper bits.
quint64 randomFactor()
{
    static const quint64 factor = QRandomGenerator::system()->generate64() | 1;
    return factor;
}

/**
 * A random function of both sums. Of any two records, however they were chosen, the upper 32 bits
 * are the same by chance alone.
 */
quint64 hashOf(const BlockRecord &record)
{
    constexpr std::size_t Words = sizeof(BlockRecord) / sizeof(quint32);
    static const auto factors = [] {
        std::array<quint64, Words + 1> numbers{};
        QRandomGenerator::system()->generate(numbers.begin(), numbers.end());
        return numbers;
    }();
    quint64 hash = factors[Words];
    for (std::size_t i = 0; i < Words; ++i)
        hash += factors[i] * qFromBigEndian<quint32>(record.data() + i * sizeof(quint32));
    return hash;
}

} // namespace

SignatureSet::SignatureSet(std::vector<BlockRecord> records, const GoOn &goOn)
    : m_records(std::move(records))
    , m_factor(randomFactor())
{
    // Sparse enough that one sum in 32 at most passes the filter by chance, and that a search
    // among the slots ends soon.
    constexpr quint64 FilterBitsPerBlock = 32;
    constexpr quint64 SlotsPerBlock = 2;
    constexpr quint32 BlocksAtOnce = 1 << 14;
    const int filterBits = indexBits(FilterBitsPerBlock * m_records.size());
    m_filterShift = ScatteredBits - filterBits;
    m_filter.resize((Q_UINT64_C(1) << filterBits) / 64);
    const int slotBits = indexBits(SlotsPerBlock * m_records.size());
    m_slotShift = ScatteredBits - slotBits;
    m_slots.resize(Q_UINT64_C(1) << slotBits);
    for (quint32 block = 0; block < m_records.size(); ++block) {
        if (block % BlocksAtOnce == 0 && !mayGoOn(goOn))
            return;
        insert(block);
    }
}

/// The index of the slot of @p weakSum, or of the free one where it would be.
quint64 SignatureSet::slotOf(quint32 weakSum) const
{
    for (quint64 i = scattered(weakSum) >> m_slotShift;; i = (i + 1) & (m_slots.size() - 1)) {
        const Slot &slot = m_slots[i];
        if (slot.block == None || slot.weakSum == weakSum)
            return i;
    }
}

/// The first of equal blocks stands for all.
void SignatureSet::insert(quint32 block)
{
    const quint32 weakSum = weakSumOf(m_records[block]);
    Slot &slot = m_slots[slotOf(weakSum)];
    if (slot.block == None) {
        slot = {weakSum, block};
        const quint64 bit = scattered(weakSum) >> m_filterShift;
        m_filter[bit / 64] |= Q_UINT64_C(1) << (bit % 64);
    } else if (m_records[slot.block] != m_records[block]) {
        insertOther(block);
    }
}

void SignatureSet::insertOther(quint32 block)
{
    if (2 * m_otherCount >= m_others.size())
        growOthers();
    quint32 &place = m_others[placeAmongOthers(m_records[block])];
    if (place != None)
        return;
    place = block;
    ++m_otherCount;
}

void SignatureSet::growOthers()
{
    constexpr std::size_t Least = 64;
    std::vector<quint32> blocks(std::max(Least, 2 * m_others.size()), None);
    blocks.swap(m_others);
    for (const quint32 block : blocks) {
        if (block != None)
            m_others[placeAmongOthers(m_records[block])] = block;
    }
}

/// Where the block with @p sums is, or where there is place for it.
std::size_t SignatureSet::placeAmongOthers(const BlockRecord &sums) const
{
    constexpr int GoodBits = 32;
    const std::size_t mask = m_others.size() - 1;
    for (std::size_t i = (hashOf(sums) >> GoodBits) & mask;; i = (i + 1) & mask) {
        const quint32 block = m_others[i];
        if (block == None || m_records[block] == sums)
            return i;
    }
}

bool SignatureSet::has(quint32 weakSum) const
{
    return m_slots[slotOf(weakSum)].block != None;
}

quint32 SignatureSet::blockWith(const BlockRecord &sums) const
{
    const quint32 block = m_slots[slotOf(weakSumOf(sums))].block;
    if (block == None || m_records[block] == sums)
        return block;
    return m_others.empty() ? None : m_others[placeAmongOthers(sums)];
}

} // namespace Pellox
