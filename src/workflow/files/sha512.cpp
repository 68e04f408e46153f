// SPDX-License-Identifier: MIT
#include "sha512.h"

#include <algorithm>

namespace Pellox {

namespace {

/// -1 for what is none. Capital letters are none: toText() never writes them.
int hexDigitOf(QChar character)
{
    const ushort code = character.unicode();
    if (code >= '0' && code <= '9')
        return code - '0';
    return code >= 'a' && code <= 'f' ? code - 'a' + 10 : -1;
}

} // namespace

std::optional<Sha512> Sha512::fromText(const QString &text)
{
    if (text.size() != 2 * Size)
        return {};
    Sha512 sha512;
    for (int i = 0; i < Size; ++i) {
        const int high = hexDigitOf(text.at(2 * i));
        const int low = hexDigitOf(text.at(2 * i + 1));
        if (high < 0 || low < 0)
            return {};
        sha512.m_bytes[static_cast<std::size_t>(i)] = static_cast<char>(high << 4 | low);
    }
    return sha512;
}

Sha512 Sha512::fromDigest(const QByteArray &digest)
{
    Sha512 sha512;
    std::copy_n(digest.cbegin(), std::min<qint64>(digest.size(), Size), sha512.m_bytes.begin());
    return sha512;
}

QString Sha512::toText() const
{
    return QString::fromLatin1(QByteArray::fromRawData(m_bytes.data(), Size).toHex());
}

} // namespace Pellox
