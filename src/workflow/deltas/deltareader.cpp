// SPDX-License-Identifier: MIT
#include "deltareader.h"

#include <limits>

namespace Pellox {

namespace {

using namespace DeltaFormat;

constexpr auto LargestSize = static_cast<quint64>(std::numeric_limits<qint64>::max());

QString atByte(qint64 position, const char *problem)
{
    return QStringLiteral("is no whole delta: the command at byte %1 %2")
        .arg(QString::number(position), QLatin1String(problem));
}

} // namespace

DeltaReader::DeltaReader(PagedView &delta)
    : m_delta(delta)
{
}

std::optional<DeltaCommand> DeltaReader::next()
{
    if (m_ended || (m_position == 0 && !checkMagic()))
        return {};
    m_command = m_position;
    if (!prepare(1))
        return {};
    const auto opcode = static_cast<quint8>(take(1));
    if (opcode == End) {
        checkEnd();
        return {};
    }
    if (opcode <= LastShortLiteral)
        return literal(opcode);
    if (opcode <= LastLiteral) {
        const int width = widthOf(opcode - FirstLiteral);
        return prepare(width) ? literal(take(width)) : std::nullopt;
    }
    if (opcode <= LastCopy) {
        const int placeWidth = widthOf((opcode - FirstCopy) / WidthCount);
        const int lengthWidth = widthOf((opcode - FirstCopy) % WidthCount);
        if (!prepare(placeWidth + lengthWidth))
            return {};
        const quint64 place = take(placeWidth);
        return copy(place, take(lengthWidth));
    }
    fail(atByte(m_command, "is unknown"));
    return {};
}

bool DeltaReader::checkMagic()
{
    if (m_delta.size() < MagicSize)
        return fail(QStringLiteral("is no delta"));
    return prepare(MagicSize) && (take(MagicSize) == Magic || fail(QStringLiteral("is no delta")));
}

bool DeltaReader::checkEnd()
{
    m_ended = true;
    return m_position == m_delta.size()
        || fail(QStringLiteral("is no whole delta: it goes on behind its end"));
}

/// Makes sure that the next @p size bytes are there to be taken.
bool DeltaReader::prepare(qint64 size)
{
    if (size > m_delta.size() - m_position)
        return fail(QStringLiteral("is no whole delta: it is cut off"));
    const PagedView::Bytes bytes = m_delta.at(m_position);
    m_next = bytes.after >= size ? bytes.data : m_cut.data();
    return bytes.after >= size || m_delta.copy(m_position, size, m_cut.data())
        || fail(m_delta.error());
}

quint64 DeltaReader::take(int width)
{
    quint64 number = 0;
    for (int i = 0; i < width; ++i)
        number = number << 8 | m_next[i];
    m_next += width;
    m_position += width;
    return number;
}

std::optional<DeltaCommand> DeltaReader::literal(quint64 length)
{
    if (length == 0)
        fail(atByte(m_command, "has no length"));
    else if (length > static_cast<quint64>(m_delta.size() - m_position))
        fail(atByte(m_command, "holds more bytes than the file has left"));
    if (m_ended)
        return {};
    const DeltaCommand command{false, m_position, static_cast<qint64>(length)};
    m_position += command.length;
    return command;
}

std::optional<DeltaCommand> DeltaReader::copy(quint64 place, quint64 length)
{
    if (length == 0)
        fail(atByte(m_command, "has no length"));
    else if (place > LargestSize || length > LargestSize - place)
        fail(atByte(m_command, "copies from where no file can reach"));
    if (m_ended)
        return {};
    return DeltaCommand{true, static_cast<qint64>(place), static_cast<qint64>(length)};
}

bool DeltaReader::fail(const QString &error)
{
    m_ended = true;
    m_error = error;
    return false;
}

std::optional<DeltaSums> sumsOfDelta(Content &delta, QString *error)
{
    PagedView pages(delta, 1);
    DeltaReader reader(pages);
    DeltaSums sums;
    while (const auto command = reader.next()) {
        const qint64 room
            = std::numeric_limits<qint64>::max() - sums.copiedBytes - sums.literalBytes;
        if (command->length > room) {
            *error = QStringLiteral("is no delta: it makes more than a file can hold");
            return {};
        }
        (command->isCopy ? sums.copiedBytes : sums.literalBytes) += command->length;
        ++sums.commands;
    }
    *error = reader.error();
    return error->isEmpty() ? std::optional<DeltaSums>(sums) : std::nullopt;
}

} // namespace Pellox
