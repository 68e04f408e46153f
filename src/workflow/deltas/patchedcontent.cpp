// SPDX-License-Identifier: MIT
#include "patchedcontent.h"

#include <algorithm>
#include <array>

namespace Pellox {

bool PatchedContent::open(
    const QString &oldFile, const QString &delta, qint64 size, const IsStopped &isStopped)
{
    m_size = size;
    setPath(oldFile);
    if (!m_old.open(oldFile))
        return failAs(m_old);
    if (!m_delta.open(delta))
        return failAs(m_delta);
    constexpr int OldPages = 16;
    constexpr int DeltaPages = 1;
    m_oldPages.emplace(m_old, OldPages);
    m_deltaPages.emplace(m_delta, DeltaPages);
    const Outcome outcome = readCommands(isStopped);
    if (!m_delta.error().isEmpty())
        return failAs(m_delta);
    if (!outcome.error.isEmpty()) {
        setPath(delta);
        return fail(outcome.error);
    }
    m_fits = outcome.oldSize <= m_old.size();
    rewind();
    return true;
}

PatchedContent::Outcome PatchedContent::readCommands(const IsStopped &isStopped)
{
    constexpr qint64 UntilAsked = 1 << 16; // commands: a few milliseconds
    DeltaReader reader(*m_deltaPages);
    Outcome outcome;
    for (qint64 read = 1; const auto command = reader.next(); ++read) {
        if (command->length > m_size - outcome.made) {
            outcome.error = QStringLiteral("makes a larger file than its rule says");
            return outcome;
        }
        if (read % UntilAsked == 0 && isStopped && isStopped()) {
            outcome.error = QStringLiteral("was not read to its end");
            return outcome;
        }
        outcome.made += command->length;
        if (command->isCopy)
            outcome.oldSize = std::max(outcome.oldSize, command->place + command->length);
    }
    outcome.error = reader.error();
    if (outcome.error.isEmpty() && outcome.made != m_size)
        outcome.error = QStringLiteral("makes a smaller file than its rule says");
    return outcome;
}

void PatchedContent::rewind()
{
    m_reader.emplace(*m_deltaPages);
    m_command.reset();
    m_taken = 0;
}

bool PatchedContent::readAt(qint64 /*position*/, uchar *data, qint64 size)
{
    while (size > 0) {
        if (!m_command || m_taken == m_command->length) {
            m_command = m_reader->next();
            m_taken = 0;
            if (!m_command)
                return m_delta.error().isEmpty()
                    ? fail(QStringLiteral("cannot be patched: the delta has changed"))
                    : failAs(m_delta);
        }
        const qint64 part = std::min(size, m_command->length - m_taken);
        if (!readPart(m_taken, data, part))
            return false;
        m_taken += part;
        data += part;
        size -= part;
    }
    return true;
}

/// @p size bytes of what the command makes, from @p offset on.
bool PatchedContent::readPart(qint64 offset, uchar *data, qint64 size)
{
    PagedView &pages = m_command->isCopy ? *m_oldPages : *m_deltaPages;
    return pages.copy(m_command->place + offset, size, data)
        || failAs(m_command->isCopy ? m_old : m_delta);
}

bool PatchedContent::isUnchanged()
{
    return (m_old.isUnchanged() || failAs(m_old)) && (m_delta.isUnchanged() || failAs(m_delta));
}

bool PatchedContent::mayBeNewAlready()
{
    constexpr qint64 Looks = 64; // at so many commands
    constexpr qint64 LookSize = 256;
    if (m_old.size() != m_size)
        return false;
    bool mayBe = true;
    qint64 position = 0;
    for (qint64 i = 0; i < Looks && mayBe; ++i) {
        m_command = m_reader->next();
        if (!m_command)
            break;
        if (!m_command->isCopy) {
            std::array<uchar, LookSize> literal{};
            std::array<uchar, LookSize> installed{};
            const qint64 size = std::min(LookSize, m_command->length);
            mayBe = m_deltaPages->copy(m_command->place, size, literal.data())
                && m_old.readAt(position, installed.data(), size) && literal == installed;
        }
        position += m_command->length;
    }
    rewind();
    return mayBe;
}

} // namespace Pellox
