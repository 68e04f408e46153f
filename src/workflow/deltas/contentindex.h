// SPDX-License-Identifier: MIT
#pragma once

#include "searcheffort.h"

#include <vector>

namespace Pellox {

/**
 * Where in an old file short pieces of content stand. Of all windows of a few bytes those are kept
 * whose fingerprint says so, in the old file as in the new one: so few are, and still each piece of
 * content that is somewhat longer has one that is, wherever it has been moved.
 *
 * Of equal windows the first ones are kept. Once all is inserted, any number of threads may look.
 */
class ContentIndex
{
public:
    /// For an old file of @p size bytes; keeps fewer windows where @p memory bytes ask for that.
    ContentIndex(qint64 size, const SearchEffort &effort, qint64 memory);

    /// Of a file of @p size bytes, when memory is no matter.
    static qint64 memoryFor(qint64 size, const SearchEffort &effort);

    int window() const { return m_window; }

    /// Of window() bytes at @p data.
    quint64 fingerprintOf(const uchar *data) const;
    /// Whether the index keeps such windows.
    bool keeps(quint64 fingerprint) const { return (fingerprint & m_sampleMask) == 0; }
    /// Where content repeats itself there may be no such window. So after as many positions without
    /// one the index keeps what comes next; and who looks for it must look at every position then.
    qint64 longestGap() const { return m_longestGap; }

    /// Appends those that are kept of the windows that begin in the @p count bytes at @p data, by
    /// their distance from there. There must be window() - 1 bytes more.
    void sample(const uchar *data, qint64 count, std::vector<quint32> *samples) const;
    /// Takes in what sample() has found at @p data, which stands at @p position of the file. From
    /// the beginning of the file to its end.
    void insert(const uchar *data, qint64 position, const std::vector<quint32> &samples);

    /// Calls @p take with the positions where a window with @p fingerprint may stand, in order.
    template <typename Take> void lookUp(quint64 fingerprint, const Take &take) const
    {
        const quint64 tag = tagOf(fingerprint);
        const quint64 *const place = m_buckets.data() + bucketOf(fingerprint);
        for (int i = 0; i < m_places && place[i] != Free; ++i) {
            if (place[i] >> PositionBits == tag)
                take(static_cast<qint64>(place[i] & MostPosition));
        }
    }

private:
    /// A place: the upper bits of a fingerprint's product, then the position.
    static constexpr int PositionBits = 40;
    static constexpr quint64 MostPosition = (quint64{1} << PositionBits) - 1;
    static constexpr quint64 Free = ~quint64{0};

    static quint64 tagOf(quint64 fingerprint);
    /// Where in m_buckets it begins.
    std::size_t bucketOf(quint64 fingerprint) const;

    const int m_window;
    const int m_places; ///< of a bucket
    qint64 m_longestGap = 0;
    quint64 m_sampleMask = 0; ///< of the bits that are zero in fingerprints that are kept
    quint64 m_bucketCount = 0;
    std::vector<quint64> m_buckets;
};

} // namespace Pellox
