// SPDX-License-Identifier: MIT
#include "contentindex.h"

#include <algorithm>
#include <cstring>

namespace Pellox {

namespace {

constexpr int FingerprintBits = 64;
constexpr int Half = FingerprintBits / 2;
constexpr qint64 PlaceSize = sizeof(quint64);
constexpr int MostSampleBits = 24;

// Odd numbers with bits all over; those of well-known mixing functions.
constexpr quint64 Factor1 = 0x9e3779b97f4a7c15;
constexpr quint64 Factor2 = 0xbf58476d1ce4e5b9;
constexpr quint64 Factor3 = 0x94d049bb133111eb;

quint64 wordAt(const uchar *data)
{
    quint64 word = 0;
    std::memcpy(&word, data, sizeof word);
    return word;
}

quint64 folded(quint64 product)
{
    return product ^ (product >> Half);
}

/// For the windows of a file of @p size bytes that are kept, about, and half as many more, so that
/// few find their bucket full.
qint64 placesFor(qint64 size, int sampleBits)
{
    const qint64 samples = (size >> sampleBits) + 1;
    return samples + samples / 2;
}

} // namespace

ContentIndex::ContentIndex(qint64 size, const SearchEffort &effort, qint64 memory)
    : m_window(effort.window)
    , m_places(effort.places)
{
    int sampleBits = effort.sampleBits;
    while (sampleBits < MostSampleBits && placesFor(size, sampleBits) * PlaceSize > memory)
        ++sampleBits;
    constexpr qint64 UsualGaps = 8; // without repetition nearly all gaps are shorter
    m_longestGap = UsualGaps << sampleBits;
    if (sampleBits > 0)
        m_sampleMask = ~quint64{0} << (FingerprintBits - sampleBits);
    m_bucketCount = static_cast<quint64>(placesFor(size, sampleBits) / m_places + 1);
    m_buckets.assign(m_bucketCount * static_cast<quint64>(m_places), Free);
}

qint64 ContentIndex::memoryFor(qint64 size, const SearchEffort &effort)
{
    return (placesFor(size, effort.sampleBits) + effort.places) * PlaceSize;
}

/// Words that overlap where the window is no multiple of their size.
quint64 ContentIndex::fingerprintOf(const uchar *data) const
{
    constexpr int Word = sizeof(quint64);
    quint64 mixed = folded(wordAt(data) * Factor1);
    for (int begin = Word; begin + Word < m_window; begin += Word)
        mixed = folded((mixed + wordAt(data + begin)) * Factor2);
    return folded((mixed + wordAt(data + m_window - Word)) * Factor3);
}

void ContentIndex::sample(const uchar *data, qint64 count, std::vector<quint32> *samples) const
{
    qint64 last = 0;
    quint64 lastFingerprint = 0;
    int equalOnes = 0; // in a row, as in a run of zeros; the index has no room for more
    for (qint64 i = 0; i < count; ++i) {
        const quint64 fingerprint = fingerprintOf(data + i);
        if (i - last < m_longestGap && !keeps(fingerprint))
            continue;
        last = i;
        equalOnes = fingerprint == lastFingerprint ? equalOnes + 1 : 0;
        lastFingerprint = fingerprint;
        if (equalOnes < m_places)
            samples->push_back(static_cast<quint32>(i));
    }
}

void ContentIndex::insert(const uchar *data, qint64 position, const std::vector<quint32> &samples)
{
    quint64 lastFingerprint = 0;
    for (const quint32 sample : samples) {
        const quint64 place = static_cast<quint64>(position) + sample;
        if (place >= MostPosition)
            return;
        const quint64 fingerprint = fingerprintOf(data + sample);
        const bool isRepeated = !keeps(fingerprint) || fingerprint == lastFingerprint;
        lastFingerprint = fingerprint;
        const quint64 tag = tagOf(fingerprint);
        quint64 *const bucket = m_buckets.data() + bucketOf(fingerprint);
        quint64 *const end = bucket + m_places;
        quint64 *target = std::find(bucket, end, Free);
        // Content that repeats itself has few windows, or this one alone; other content has more.
        const auto isSame = [tag](quint64 other) { return other >> PositionBits == tag; };
        if (target == end && isRepeated && std::none_of(bucket, end, isSame))
            --target;
        if (target != end)
            *target = tag << PositionBits | place;
    }
}

/// Not of the bits that keeps() or bucketOf() look at.
quint64 ContentIndex::tagOf(quint64 fingerprint)
{
    return fingerprint & ((quint64{1} << (FingerprintBits - PositionBits)) - 1);
}

std::size_t ContentIndex::bucketOf(quint64 fingerprint) const
{
    // The upper bits are zero in all that are kept; a product brings the others up.
    const quint64 spread = fingerprint * Factor1 >> Half;
    return (spread * m_bucketCount >> Half) * static_cast<quint64>(m_places);
}

} // namespace Pellox
