// SPDX-License-Identifier: MIT
#pragma once

#include "deltaformat.h"
#include "pagedview.h"

#include <QString>

#include <array>
#include <optional>

namespace Pellox {

/// One command of a delta: bytes that the delta carries, or a range of the old file.
struct DeltaCommand
{
    bool isCopy = false;
    qint64 place = 0;  ///< of a copy: where in the old file; of a literal: where in the delta
    qint64 length = 0; ///< of what it adds to the new file; at least 1
};

/**
 * Walks the commands of a delta without the bytes of its literals, and takes none that librsync
 * would not take. Whether copies lie inside the old file it cannot know.
 */
class DeltaReader
{
public:
    /// @p delta outlives the reader.
    explicit DeltaReader(PagedView &delta);

    /// The next command; nothing behind the last one and after an error.
    std::optional<DeltaCommand> next();

    /// What is wrong with the delta, to be put behind its name; empty when nothing is.
    QString error() const { return m_error; }

private:
    bool checkMagic();
    bool checkEnd();
    bool prepare(qint64 size);
    quint64 take(int width);
    std::optional<DeltaCommand> literal(quint64 length);
    std::optional<DeltaCommand> copy(quint64 place, quint64 length);
    bool fail(const QString &error);

    PagedView &m_delta;
    qint64 m_position = 0;         ///< behind what was taken
    qint64 m_command = 0;          ///< where the command begins that is read
    const uchar *m_next = nullptr; ///< what is to be taken: in a page, or else in m_cut
    std::array<uchar, DeltaFormat::LongestHead> m_cut{}; ///< what two pages have a part of each
    bool m_ended = false;
    QString m_error;
};

/// What the commands of a delta make.
struct DeltaSums
{
    qint64 copiedBytes = 0;
    qint64 literalBytes = 0;
    qint64 commands = 0; ///< the one that ends the delta is not counted
};

/// Reads @p delta to its end. Nothing when it is broken; @p error then tells why, to be put
/// behind its name.
std::optional<DeltaSums> sumsOfDelta(Content &delta, QString *error);

} // namespace Pellox
