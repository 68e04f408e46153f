// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"

namespace Pellox {

/**
 * Writes a delta, byte for byte as librsync does: copies that follow one another become one
 * command, literals are cut into pieces.
 */
class DeltaWriter
{
public:
    /// @p anyOldBlocks: whether the old file had any content; librsync cuts literals shorter if
    /// not.
    DeltaWriter(OutputFile &file, bool anyOldBlocks);

    void literal(const uchar *data, qint64 size);
    void copy(qint64 position, qint64 length);
    void finish();

private:
    void flushLiteral();
    void flushCopy();

    OutputFile &m_file;
    const std::size_t m_longestLiteral;
    std::vector<uchar> m_literal; ///< held back, as its length comes first
    qint64 m_copyBegin = 0;
    qint64 m_copyLength = 0; ///< held back, as it may grow
};

} // namespace Pellox
