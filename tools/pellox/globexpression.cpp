// SPDX-License-Identifier: MIT
#include "globexpression.h"

#include <array>
#include <cstring>
#include <optional>
#include <string>

namespace {

const QString Nothing = QStringLiteral("(?!)");

/// One character, without any meaning of its own.
QString literal(uint character)
{
    return QStringLiteral("\\x{%1}").arg(character, 0, 16);
}

/// Reads a glob from its beginning to its end.
class Translator
{
public:
    explicit Translator(const QString &glob)
        : m_glob(glob.toStdU32String())
    {
    }

    QString expression()
    {
        QString expression;
        while (m_at < m_glob.size()) {
            const std::optional<QString> next = nextPiece();
            if (!next)
                return Nothing;
            expression += *next;
        }
        return expression;
    }

private:
    /// 0 behind the end.
    uint at(std::size_t position) const { return position < m_glob.size() ? m_glob[position] : 0; }

    /// Nothing when the glob is broken from here on.
    std::optional<QString> nextPiece()
    {
        switch (at(m_at)) {
        case '*':
            return stars();
        case '?':
            ++m_at;
            return QStringLiteral("[^/]");
        case '[':
            return bracket();
        case '\\':
            ++m_at;
            if (m_at == m_glob.size())
                return {};
            return literal(at(m_at++));
        default:
            return literal(at(m_at++));
        }
    }

    QString stars()
    {
        const std::size_t first = m_at;
        while (at(m_at) == '*')
            ++m_at;
        const bool beginsPart = first == 0 || at(first - 1) == '/';
        const bool isEscaped = at(m_at) == '\\' && at(m_at + 1) == '/';
        const bool endsPart = m_at == m_glob.size() || at(m_at) == '/' || isEscaped;
        if (m_at - first == 1 || !beginsPart || !endsPart)
            return QStringLiteral("[^/]*");
        if (m_at == m_glob.size()
            || isEscaped) // Git takes that separator as one that must be there
            return QStringLiteral(".*");
        ++m_at; // no folder at all needs no separator either
        return QStringLiteral("(?:.*/)?");
    }

    std::optional<QString> bracket()
    {
        ++m_at;
        const bool isNegated = at(m_at) == '!' || at(m_at) == '^';
        if (isNegated)
            ++m_at;
        QString members;
        const std::size_t first = m_at;
        while (at(m_at) != ']' || m_at == first) {
            const std::optional<QString> next = nextMembers();
            if (!next)
                return {};
            members += *next;
        }
        ++m_at;
        // A separator is never one of the characters.
        return QLatin1String(isNegated ? "(?!/)[^" : "(?!/)[") + members + QLatin1Char(']');
    }

    std::optional<QString> nextMembers()
    {
        if (at(m_at) == '[' && at(m_at + 1) == ':') {
            const std::optional<QString> name = className();
            if (name)
                return isKnownClass(*name) ? name : std::nullopt;
        }
        const std::optional<uint> first = member();
        if (!first)
            return {};
        if (at(m_at) != '-' || at(m_at + 1) == ']')
            return literal(*first);
        ++m_at;
        const std::optional<uint> last = member();
        if (!last)
            return {};
        // From back to front it is a range of nothing, but for its first character.
        return *first <= *last ? literal(*first) + QLatin1Char('-') + literal(*last)
                               : literal(*first);
    }

    std::optional<uint> member()
    {
        if (at(m_at) == '\\')
            ++m_at;
        if (m_at >= m_glob.size())
            return {};
        return at(m_at++);
    }

    /// "[:alpha:]", and steps over it; nothing where it does not end like that.
    std::optional<QString> className()
    {
        const std::size_t end = m_glob.find(U']', m_at);
        if (end == std::u32string::npos || end < m_at + 3 || at(end - 1) != ':')
            return {};
        const QString name = QString::fromStdU32String(m_glob.substr(m_at, end + 1 - m_at));
        m_at = end + 1;
        return name;
    }

    static bool isKnownClass(const QString &name)
    {
        static const std::array<const char *, 12> Known{"[:alnum:]", "[:alpha:]", "[:blank:]",
            "[:cntrl:]", "[:digit:]", "[:graph:]", "[:lower:]", "[:print:]", "[:punct:]",
            "[:space:]", "[:upper:]", "[:xdigit:]"};
        for (const char *known : Known) {
            if (name == QLatin1String(known))
                return true;
        }
        return false;
    }

    const std::u32string m_glob;
    std::size_t m_at = 0;
};

} // namespace

QRegularExpression globExpression(const QString &glob)
{
    return QRegularExpression(QRegularExpression::anchoredPattern(Translator(glob).expression()),
        QRegularExpression::DotMatchesEverythingOption | QRegularExpression::DontCaptureOption);
}
