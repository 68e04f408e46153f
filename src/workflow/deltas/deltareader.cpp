// SPDX-License-Identifier: MIT
#include "deltareader.h"

#include "deltaformat.h"

#include <QIODevice>

#include <algorithm>
#include <limits>

namespace Pellox {

namespace {

using namespace DeltaFormat;

/// A page: enough for hundreds of small commands, and little to read in vain between large ones.
constexpr qint64 WindowSize = 4096;
static_assert(WindowSize >= LongestHead);

constexpr auto LargestSize = static_cast<quint64>(std::numeric_limits<qint64>::max());

QString atByte(qint64 position, const char *problem)
{
    return QStringLiteral("is no whole delta: the command at byte %1 %2")
        .arg(QString::number(position), QLatin1String(problem));
}

} // namespace

DeltaReader::DeltaReader(QIODevice &delta)
    : m_delta(delta)
    , m_size(delta.size())
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
    if (m_size < MagicSize)
        return fail(QStringLiteral("is no delta"));
    return prepare(MagicSize) && (take(MagicSize) == Magic || fail(QStringLiteral("is no delta")));
}

bool DeltaReader::checkEnd()
{
    m_ended = true;
    return m_position == m_size
        || fail(QStringLiteral("is no whole delta: it goes on behind its end"));
}

/// Makes sure that the next @p size bytes are there to be taken.
bool DeltaReader::prepare(qint64 size)
{
    if (size > m_size - m_position)
        return fail(QStringLiteral("is no whole delta: it is cut off"));
    if (m_position >= m_windowStart && m_position + size <= m_windowStart + m_window.size())
        return true;
    m_windowStart = m_position;
    m_window.resize(static_cast<int>(std::min(WindowSize, m_size - m_position)));
    if (!m_delta.seek(m_position))
        return fail(QStringLiteral("cannot be read: ") + m_delta.errorString());
    const qint64 got = m_delta.read(m_window.data(), m_window.size());
    if (got < 0)
        return fail(QStringLiteral("cannot be read: ") + m_delta.errorString());
    return got == m_window.size() || fail(QStringLiteral("is being written"));
}

quint64 DeltaReader::take(int width)
{
    quint64 number = 0;
    for (int i = 0; i < width; ++i, ++m_position) {
        const auto index = static_cast<int>(m_position - m_windowStart);
        number = number << 8 | static_cast<quint8>(m_window.at(index));
    }
    return number;
}

std::optional<DeltaCommand> DeltaReader::literal(quint64 length)
{
    if (length == 0)
        fail(atByte(m_command, "has no length"));
    else if (length > static_cast<quint64>(m_size - m_position))
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

std::optional<DeltaSums> sumsOfDelta(QIODevice &delta, QString *error)
{
    DeltaReader reader(delta);
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
