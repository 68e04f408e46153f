// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <array>
#include <optional>

namespace Pellox {

/// A SHA-512 as a value of its 64 bytes; a manifest's text for it is four times as large.
class Sha512
{
public:
    /// From a manifest: lowercase hexadecimal text. Nothing when @p text is anything else.
    static std::optional<Sha512> fromText(const QString &text);
    /// From a digest's 64 bytes.
    static Sha512 fromDigest(const QByteArray &digest);

    QString toText() const;

    bool operator==(const Sha512 &other) const { return m_bytes == other.m_bytes; }
    bool operator!=(const Sha512 &other) const { return m_bytes != other.m_bytes; }
    /// For maps: the order means nothing.
    bool operator<(const Sha512 &other) const { return m_bytes < other.m_bytes; }

private:
    static constexpr int Size = 64;
    std::array<char, Size> m_bytes{};
};

} // namespace Pellox
