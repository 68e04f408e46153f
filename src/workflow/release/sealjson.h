// SPDX-License-Identifier: MIT
#pragma once

#include "sha512.h"

#include <QByteArray>
#include <QString>

/// The JSON of seals: one line without blanks, of which there is exactly one form.
namespace Pellox::SealJson {

inline constexpr char Quote[] = "\"";
inline constexpr char RecordEnd[] = "}";
inline constexpr char Comma[] = ",";

/// As in a JSON string. Control characters do not occur.
QByteArray escaped(QByteArray text);

/**
 * Takes bytes apart from one end to the other. A seal has one form, so that there is nothing to
 * interpret. After anything unexpected it is no longer fine, takes nothing more and gives values
 * that mean nothing.
 */
class Scanner
{
public:
    explicit Scanner(const QByteArray &bytes)
        : m_bytes(bytes)
    {
    }

    /// Whether @p next comes next; then goes behind it. Any answer is fine.
    bool skip(const char *next);
    void expect(const char *next) { m_isFine = skip(next); }
    QByteArray take(int size);
    /// Of a JSON string, up to the quotation mark that ends it and behind that.
    QByteArray string();
    QString text();
    Sha512 sha512();
    qint64 number();

    void fail() { m_isFine = false; }
    bool isFine() const { return m_isFine; }
    bool isAtEnd() const { return m_isFine && m_at == m_bytes.size(); }

private:
    const QByteArray &m_bytes;
    int m_at = 0;
    bool m_isFine = true;
};

} // namespace Pellox::SealJson
