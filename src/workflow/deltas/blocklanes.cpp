// SPDX-License-Identifier: MIT
#include "blocklanes.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>

namespace Pellox::BlockLanes {

#if defined(__GNUC__) && Q_BYTE_ORDER == Q_LITTLE_ENDIAN

namespace {

using SignatureFormat::BlockLength;
using SignatureFormat::StrongSumLength;
using SignatureFormat::WeakSumLength;

// BLAKE2b, RFC 7693
constexpr quint64 InitialValues[]
    = {0x6a09e667f3bcc908, 0xbb67ae8584caa73b, 0x3c6ef372fe94f82b, 0xa54ff53a5f1d36f1,
        0x510e527fade682d1, 0x9b05688c2b3e6c1f, 0x1f83d9abfb41bd6b, 0x5be0cd19137e2179};
constexpr int Rounds = 12;
constexpr uchar Order[Rounds][16] = {
    {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
    {14, 10, 4, 8, 9, 15, 13, 6, 1, 12, 0, 2, 11, 7, 5, 3},
    {11, 8, 12, 0, 5, 2, 15, 13, 10, 14, 3, 6, 7, 1, 9, 4},
    {7, 9, 3, 1, 13, 12, 11, 14, 2, 6, 5, 10, 4, 0, 15, 8},
    {9, 0, 5, 7, 2, 4, 10, 15, 14, 1, 11, 12, 6, 8, 3, 13},
    {2, 12, 6, 10, 0, 11, 8, 3, 4, 13, 7, 5, 15, 14, 1, 9},
    {12, 5, 1, 15, 14, 13, 4, 10, 0, 7, 6, 3, 9, 2, 8, 11},
    {13, 11, 7, 14, 12, 1, 3, 9, 5, 0, 15, 4, 8, 6, 2, 10},
    {6, 15, 14, 9, 11, 3, 0, 8, 12, 2, 13, 7, 1, 4, 10, 5},
    {10, 2, 8, 4, 7, 6, 1, 5, 15, 11, 9, 14, 3, 12, 13, 0},
    {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
    {14, 10, 4, 8, 9, 15, 13, 6, 1, 12, 0, 2, 11, 7, 5, 3},
};
constexpr quint64 Parameters = 0x01010000 | StrongSumLength; // no key, no tree
constexpr std::size_t Piece = 128;                           // bytes of one compression

static_assert(BlockLength % Piece == 0);

// Vectors go by reference: how they go by value depends on the processor.
template <int Lanes> struct Words
{
    // gcc ignores the attribute in an alias here
    // NOLINTNEXTLINE(modernize-use-using)
    typedef quint64 Type __attribute__((vector_size(Lanes * sizeof(quint64))));
    // NOLINTNEXTLINE(modernize-use-using)
    typedef quint16 Halves __attribute__((vector_size(Lanes * sizeof(quint64))));
};

template <int Bits, typename Vector> [[gnu::always_inline]] inline void rotateRight(Vector &vector)
{
    constexpr int All = 64;
    vector = vector >> Bits | vector << (All - Bits);
}

/// RFC 7693's function G.
template <typename Vector>
[[gnu::always_inline]] inline void mix(
    Vector &a, Vector &b, Vector &c, Vector &d, const Vector &x, const Vector &y)
{
    a += b + x;
    d ^= a;
    rotateRight<32>(d);
    c += d;
    b ^= c;
    rotateRight<24>(b);
    a += b + y;
    d ^= a;
    rotateRight<16>(d);
    c += d;
    b ^= c;
    rotateRight<63>(b);
}

/// RFC 7693's function F: takes the next words @p m into the state @p h, after @p size bytes with
/// them.
template <typename Vector>
[[gnu::always_inline]] inline void compress(
    Vector (&h)[8], const Vector (&m)[16], std::size_t size, bool isLast)
{
    Vector v[16];
    for (int i = 0; i < 8; ++i) {
        v[i] = h[i];
        v[i + 8] = Vector{} + InitialValues[i];
    }
    v[12] ^= Vector{} + quint64(size);
    if (isLast)
        v[14] = ~v[14];
    for (const auto &s : Order) {
        mix(v[0], v[4], v[8], v[12], m[s[0]], m[s[1]]);
        mix(v[1], v[5], v[9], v[13], m[s[2]], m[s[3]]);
        mix(v[2], v[6], v[10], v[14], m[s[4]], m[s[5]]);
        mix(v[3], v[7], v[11], v[15], m[s[6]], m[s[7]]);
        mix(v[0], v[5], v[10], v[15], m[s[8]], m[s[9]]);
        mix(v[1], v[6], v[11], v[12], m[s[10]], m[s[11]]);
        mix(v[2], v[7], v[8], v[13], m[s[12]], m[s[13]]);
        mix(v[3], v[4], v[9], v[14], m[s[14]], m[s[15]]);
    }
    for (int i = 0; i < 8; ++i)
        h[i] ^= v[i] ^ v[i + 8];
}

/// The blocks have @p size bytes and can be read up to the end of a piece, where zeros follow.
template <int Lanes>
[[gnu::always_inline]] inline void addStrongSums(
    const uchar *const (&blocks)[Lanes], std::size_t size, BlockRecord *const (&records)[Lanes])
{
    using Vector = typename Words<Lanes>::Type;
    Vector h[8];
    for (int i = 0; i < 8; ++i)
        h[i] = Vector{} + InitialValues[i];
    h[0] ^= Vector{} + Parameters;
    for (std::size_t at = 0; at < size; at += Piece) {
        Vector m[16];
        for (std::size_t word = 0; word < 16; ++word) {
            for (int lane = 0; lane < Lanes; ++lane) {
                quint64 value;
                std::memcpy(&value, blocks[lane] + at + word * sizeof value, sizeof value);
                m[word][lane] = value;
            }
        }
        compress(h, m, std::min(at + Piece, size), at + Piece >= size);
    }
    for (int lane = 0; lane < Lanes; ++lane) {
        for (std::size_t word = 0; word < StrongSumLength / sizeof(quint64); ++word) {
            const quint64 value = h[word][lane];
            std::memcpy(
                records[lane]->data() + WeakSumLength + word * sizeof value, &value, sizeof value);
        }
    }
}

/**
 * librsync's rolling sum: in its lower half the sum of all bytes, each with an offset, in its upper
 * half the sum of these sums behind each byte, so that a byte counts as often as bytes are left.
 * Each half is 16 bits wide, so sums may overflow in 16 bits on the way.
 */
template <int Lanes>
[[gnu::always_inline]] inline void addWeakSum(
    const uchar *block, std::size_t size, BlockRecord &record)
{
    using Row = typename Words<Lanes>::Halves; // two columns of bytes in each half word
    constexpr quint32 Offset = 31;
    constexpr std::size_t Width = sizeof(Row);
    static_assert(Piece % Width == 0);
    Row evenSums{}; // of all bytes in a column
    Row oddSums{};
    Row sumsOfEven{}; // of these sums behind each row
    Row sumsOfOdd{};
    std::size_t end = 0;
    for (; end < size; end += Width) {
        Row row;
        std::memcpy(&row, block + end, sizeof row);
        sumsOfEven += evenSums;
        sumsOfOdd += oddSums;
        evenSums += row & 0xff;
        oddSums += row >> 8;
    }
    quint32 sum = 0;
    quint32 sumOfSums = 0; // as of a block up to the end, where zeros may stand
    for (std::size_t i = 0; i < Width / 2; ++i) {
        const quint32 even = evenSums[i];
        const quint32 odd = oddSums[i];
        const auto left = static_cast<quint32>(Width - 2 * i); // columns from the even one on
        sum += even + odd;
        sumOfSums += quint32(Width) * (quint32(sumsOfEven[i]) + sumsOfOdd[i]) + left * even
            + (left - 1) * odd;
    }
    const auto count = static_cast<quint32>(size);
    sumOfSums -= static_cast<quint32>(end - size) * sum;
    sumOfSums += Offset * (count * (count + 1) / 2);
    sum += Offset * count;
    qToBigEndian<quint32>(sumOfSums << 16 | (sum & 0xffff), record.data());
}

template <int Lanes>
[[gnu::always_inline]] inline void sumBlocks(
    const uchar *data, std::size_t size, BlockRecord *records)
{
    const std::size_t whole = size / BlockLength;
    for (std::size_t first = 0; first < whole; first += Lanes) {
        const uchar *blocks[Lanes];
        BlockRecord *targets[Lanes];
        for (std::size_t lane = 0; lane < Lanes; ++lane) {
            const std::size_t index = std::min(first + lane, whole - 1); // the last fills the rest
            blocks[lane] = data + index * BlockLength;
            targets[lane] = records + index;
            addWeakSum<Lanes>(blocks[lane], BlockLength, *targets[lane]);
        }
        addStrongSums<Lanes>(blocks, BlockLength, targets);
    }
    const std::size_t rest = size % BlockLength;
    if (rest == 0)
        return;
    uchar padded[BlockLength] = {};
    std::memcpy(padded, data + whole * BlockLength, rest);
    const uchar *blocks[Lanes];
    BlockRecord *targets[Lanes];
    std::fill(std::begin(blocks), std::end(blocks), padded);
    std::fill(std::begin(targets), std::end(targets), records + whole);
    addWeakSum<Lanes>(padded, rest, records[whole]);
    addStrongSums<Lanes>(blocks, rest, targets);
}

template <typename SumBlocks>
[[gnu::always_inline]] inline void fill(const uchar *data, std::size_t size,
    std::vector<BlockRecord> *records, const SumBlocks &sumBlocks)
{
    records->resize(
        static_cast<std::size_t>(SignatureFormat::blockCount(static_cast<qint64>(size))));
    sumBlocks(data, size, records->data());
}

void sumTwo(const uchar *data, std::size_t size, BlockRecord *records)
{
    sumBlocks<2>(data, size, records);
}

void computeTwo(const uchar *data, std::size_t size, std::vector<BlockRecord> *records)
{
    fill(data, size, records, sumTwo);
}

#if defined(__x86_64__)

[[gnu::target("avx2")]] void sumFour(const uchar *data, std::size_t size, BlockRecord *records)
{
    sumBlocks<4>(data, size, records);
}

[[gnu::target("avx512f,avx512bw")]] void sumEight(
    const uchar *data, std::size_t size, BlockRecord *records)
{
    sumBlocks<8>(data, size, records);
}

void computeFour(const uchar *data, std::size_t size, std::vector<BlockRecord> *records)
{
    fill(data, size, records, sumFour);
}

void computeEight(const uchar *data, std::size_t size, std::vector<BlockRecord> *records)
{
    fill(data, size, records, sumEight);
}

#endif

} // namespace

std::vector<BlockSumMethod> methods()
{
    std::vector<BlockSumMethod> methods{{"two lanes", computeTwo}};
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx2"))
        methods.push_back({"four lanes", computeFour});
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw"))
        methods.push_back({"eight lanes", computeEight});
#endif
    return methods;
}

#else

std::vector<BlockSumMethod> methods()
{
    return {};
}

#endif

} // namespace Pellox::BlockLanes
