// SPDX-License-Identifier: MIT
#include "sha512.h"

#include <algorithm>

namespace Pellox {

std::optional<Sha512> Sha512::fromText(const QString &text)
{
    const QByteArray digest = QByteArray::fromHex(text.toLatin1());
    // Decoding skips what is no digit, so only the way back tells whether all were.
    if (digest.size() != Size || QString::fromLatin1(digest.toHex()) != text)
        return {};
    return fromDigest(digest);
}

Sha512 Sha512::fromDigest(const QByteArray &digest)
{
    Sha512 sha512;
    std::copy_n(digest.cbegin(), std::min(digest.size(), Size), sha512.m_bytes.begin());
    return sha512;
}

QString Sha512::toText() const
{
    return QString::fromLatin1(QByteArray::fromRawData(m_bytes.data(), Size).toHex());
}

} // namespace Pellox
