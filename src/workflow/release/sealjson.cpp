// SPDX-License-Identifier: MIT
#include "sealjson.h"

#include <cstring>

namespace Pellox::SealJson {

namespace {

constexpr qint64 LargestNumber = (1LL << 53) - 1; // that JSON numbers tell from its neighbours

} // namespace

QByteArray escaped(QByteArray text)
{
    return text.replace('\\', "\\\\").replace('"', "\\\"");
}

bool Scanner::skip(const char *next)
{
    const int size = static_cast<int>(std::strlen(next));
    const bool isNext = m_isFine && m_bytes.mid(m_at, size) == QByteArray::fromRawData(next, size);
    if (isNext)
        m_at += size;
    return isNext;
}

QByteArray Scanner::take(int size)
{
    m_isFine &= size <= m_bytes.size() - m_at;
    if (!m_isFine)
        return {};
    m_at += size;
    return m_bytes.mid(m_at - size, size);
}

QByteArray Scanner::string()
{
    constexpr char FirstPrintable = ' ';
    int stringEnd = m_at;
    while (stringEnd < m_bytes.size() && m_bytes.at(stringEnd) != '"') {
        const char byte = m_bytes.at(stringEnd);
        const bool isEscape = byte == '\\';
        const char next = stringEnd + 1 < m_bytes.size() ? m_bytes.at(stringEnd + 1) : '\0';
        const bool isControl = byte >= 0 && byte < FirstPrintable;
        if (isControl || (isEscape && next != '"' && next != '\\')) {
            fail();
            return {};
        }
        stringEnd += isEscape ? 2 : 1;
    }
    QByteArray taken = take(stringEnd - m_at);
    expect(Quote);
    char *end = taken.data();
    for (auto byte = taken.cbegin(); byte != taken.cend(); ++byte) {
        byte += *byte == '\\' ? 1 : 0;
        *end++ = *byte;
    }
    taken.truncate(static_cast<int>(end - taken.cbegin()));
    return taken;
}

QString Scanner::text()
{
    const QByteArray bytes = string();
    QString text = QString::fromUtf8(bytes);
    m_isFine &= text.toUtf8() == bytes;
    return text;
}

Sha512 Scanner::sha512()
{
    const auto sha512 = Sha512::fromText(text());
    m_isFine &= sha512.has_value();
    return sha512.value_or(Sha512());
}

qint64 Scanner::number()
{
    constexpr int MostDigits = 16; // of the largest number
    int size = 0;
    const auto isDigit = [&](int at) {
        return at < m_bytes.size() && m_bytes.at(at) >= '0' && m_bytes.at(at) <= '9';
    };
    while (size <= MostDigits && isDigit(m_at + size))
        ++size;
    const QByteArray digits = take(size);
    const qint64 number = digits.toLongLong();
    m_isFine &= QByteArray::number(number) == digits && number <= LargestNumber;
    return number;
}

} // namespace Pellox::SealJson
