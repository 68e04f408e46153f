// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

/**
 * librsync's delta format: a magic number, then commands, each an opcode, its fields and, of a
 * literal, the bytes themselves; the last command is End. All numbers are big-endian. The new
 * file is what the commands yield, one behind the other.
 *
 *   0x00                          End
 *   0x01 .. 0x40                  literal; the opcode is its length
 *   0x41 0x42 0x43 0x44           literal; a field of 1, 2, 4 or 8 bytes holds its length
 *   0x45 0x46 .. 0x54             copy; a field each for its place in the old file and its length,
 *                                 of 1, 2, 4 or 8 bytes: 0x45 has 1 and 1, 0x46 has 1 and 2,
 *                                 0x49 has 2 and 1, 0x54 has 8 and 8
 *   0x55 .. 0xff                  no command
 */
namespace Pellox::DeltaFormat {

inline constexpr quint32 Magic = 0x72730236; ///< "rs" and the kind of the file
inline constexpr int MagicSize = 4;

inline constexpr quint8 End = 0x00;
inline constexpr quint8 FirstShortLiteral = 0x01;
inline constexpr quint8 LastShortLiteral = 0x40;
inline constexpr quint8 FirstLiteral = 0x41;
inline constexpr quint8 LastLiteral = 0x44;
inline constexpr quint8 FirstCopy = 0x45;
inline constexpr quint8 LastCopy = 0x54;

/// Fields have 1, 2, 4 or 8 bytes; opcodes count these widths from 0 to 3.
inline constexpr int WidthCount = 4;

inline constexpr int widthOf(int widthIndex)
{
    return 1 << widthIndex;
}

/// The narrowest width that holds @p value.
inline constexpr int narrowestFor(quint64 value)
{
    return value <= 0xff ? 0 : value <= 0xffff ? 1 : value <= 0xffffffff ? 2 : 3;
}

/// The longest command without the bytes of a literal: opcode, place and length.
inline constexpr int LongestHead = 1 + 8 + 8;

inline constexpr quint8 literalOpcode(int lengthWidthIndex)
{
    return static_cast<quint8>(FirstLiteral + lengthWidthIndex);
}

inline constexpr quint8 copyOpcode(int placeWidthIndex, int lengthWidthIndex)
{
    return static_cast<quint8>(FirstCopy + placeWidthIndex * WidthCount + lengthWidthIndex);
}

static_assert(literalOpcode(WidthCount - 1) == LastLiteral);
static_assert(copyOpcode(WidthCount - 1, WidthCount - 1) == LastCopy);

} // namespace Pellox::DeltaFormat
