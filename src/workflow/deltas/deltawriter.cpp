// SPDX-License-Identifier: MIT
#include "deltawriter.h"

#include "deltaformat.h"
#include "signatureformat.h"

#include <QtEndian>

#include <algorithm>
#include <array>

namespace Pellox {

namespace {

constexpr std::size_t LongestLiteral = 32768;

/// One command's opcode and fields.
class Head
{
public:
    void add(quint8 opcode) { m_bytes[m_size++] = opcode; }
    void addNumber(quint64 value, int widthIndex)
    {
        for (int shift = 8 * (DeltaFormat::widthOf(widthIndex) - 1); shift >= 0; shift -= 8)
            add(static_cast<quint8>(value >> shift & 0xff));
    }
    void writeTo(OutputFile &file) const { file.write(m_bytes.data(), m_size); }

private:
    std::array<quint8, DeltaFormat::LongestHead> m_bytes{};
    std::size_t m_size = 0;
};

} // namespace

DeltaWriter::DeltaWriter(OutputFile &file, bool anyOldBlocks)
    : m_file(file)
    , m_longestLiteral(anyOldBlocks ? LongestLiteral : SignatureFormat::BlockLength)
{
    std::array<uchar, DeltaFormat::MagicSize> magic{};
    qToBigEndian(DeltaFormat::Magic, magic.data());
    m_file.write(magic.data(), magic.size());
}

void DeltaWriter::literal(const uchar *data, qint64 size)
{
    flushCopy();
    while (size > 0) {
        const auto room = static_cast<qint64>(m_longestLiteral - m_literal.size());
        const qint64 part = std::min(size, room);
        m_literal.insert(m_literal.end(), data, data + part);
        data += part;
        size -= part;
        if (m_literal.size() == m_longestLiteral)
            flushLiteral();
    }
}

void DeltaWriter::copy(qint64 position, qint64 length)
{
    flushLiteral();
    if (m_copyLength == 0 || m_copyBegin + m_copyLength != position) {
        flushCopy();
        m_copyBegin = position;
    }
    m_copyLength += length;
}

void DeltaWriter::finish()
{
    flushLiteral();
    flushCopy();
    m_file.write(&DeltaFormat::End, sizeof(DeltaFormat::End));
}

void DeltaWriter::flushLiteral()
{
    if (m_literal.empty())
        return;
    Head head;
    if (m_literal.size() <= DeltaFormat::LastShortLiteral) {
        head.add(static_cast<quint8>(m_literal.size()));
    } else {
        const int width = DeltaFormat::narrowestFor(m_literal.size());
        head.add(DeltaFormat::literalOpcode(width));
        head.addNumber(m_literal.size(), width);
    }
    head.writeTo(m_file);
    m_file.write(m_literal.data(), m_literal.size());
    m_literal.clear();
}

void DeltaWriter::flushCopy()
{
    if (m_copyLength == 0)
        return;
    const auto begin = static_cast<quint64>(m_copyBegin);
    const auto length = static_cast<quint64>(m_copyLength);
    const int beginWidth = DeltaFormat::narrowestFor(begin);
    const int lengthWidth = DeltaFormat::narrowestFor(length);
    Head head;
    head.add(DeltaFormat::copyOpcode(beginWidth, lengthWidth));
    head.addNumber(begin, beginWidth);
    head.addNumber(length, lengthWidth);
    head.writeTo(m_file);
    m_copyLength = 0;
}

} // namespace Pellox
