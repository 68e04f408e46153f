// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

#include <cstddef>

/*
 * librsync's signature files as the library writes them: a header of three 32-bit numbers (magic,
 * block length, length of the strong sum), then for each block of the file its weak sum (32 bits)
 * and its strong sum. All numbers are big-endian. The last block may be short.
 */
namespace Pellox::SignatureFormat {

constexpr quint32 Magic = 0x72730137; // BLAKE2 strong sums
constexpr std::size_t BlockLength = 2048;
constexpr std::size_t HeaderLength = 12;
constexpr std::size_t WeakSumLength = 4;
constexpr std::size_t StrongSumLength = 32;
constexpr std::size_t RecordLength = WeakSumLength + StrongSumLength;

constexpr qint64 blockCount(qint64 fileSize)
{
    constexpr auto Length = static_cast<qint64>(BlockLength);
    return fileSize / Length + (fileSize % Length != 0 ? 1 : 0);
}

/// The size of the signature of a file of @p fileSize bytes.
constexpr qint64 sizeFor(qint64 fileSize)
{
    return static_cast<qint64>(HeaderLength)
        + static_cast<qint64>(RecordLength) * blockCount(fileSize);
}

} // namespace Pellox::SignatureFormat
