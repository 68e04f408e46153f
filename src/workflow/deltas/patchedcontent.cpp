// SPDX-License-Identifier: MIT
#include "patchedcontent.h"

#include <algorithm>
#include <array>

namespace Pellox {

bool PatchedContent::open(
    const QString &oldFile, const QString &delta, qint64 size, const IsStopped &isStopped)
{
    m_size = size;
    if (!openAll(oldFile, delta))
        return false;
    const Outcome outcome = readCommands(isStopped);
    if (!outcome.error.isEmpty()) {
        setPath(delta);
        return fail(outcome.error);
    }
    m_fits = outcome.oldSize <= m_old.size();
    constexpr int OldPages = 16;
    constexpr int DeltaPages = 1;
    m_oldPages.emplace(m_old, OldPages);
    m_deltaPages.emplace(m_deltaBytes, DeltaPages);
    return rewind();
}

bool PatchedContent::openAll(const QString &oldFile, const QString &delta)
{
    setPath(oldFile);
    if (!m_old.open(oldFile))
        return failAs(m_old);
    if (!m_deltaBytes.open(delta))
        return failAs(m_deltaBytes);
    m_deltaFile.setFileName(delta);
    if (m_deltaFile.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return true;
    setPath(delta);
    return fail(QLatin1String("cannot be opened: ") + m_deltaFile.errorString());
}

PatchedContent::Outcome PatchedContent::readCommands(const IsStopped &isStopped)
{
    constexpr qint64 UntilAsked = 1 << 16; // commands: a few milliseconds
    DeltaReader reader(m_deltaFile);
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

bool PatchedContent::rewind()
{
    m_reader.emplace(m_deltaFile);
    m_command.reset();
    m_taken = 0;
    return true;
}

bool PatchedContent::readAt(qint64 /*position*/, uchar *data, qint64 size)
{
    while (size > 0) {
        if (!m_command || m_taken == m_command->length) {
            m_command = m_reader->next();
            m_taken = 0;
            if (!m_command)
                return fail(QStringLiteral("cannot be patched: the delta has changed"));
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
        || failAs(m_command->isCopy ? m_old : m_deltaBytes);
}

bool PatchedContent::isUnchanged()
{
    return (m_old.isUnchanged() || failAs(m_old))
        && (m_deltaBytes.isUnchanged() || failAs(m_deltaBytes));
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
            mayBe = m_deltaBytes.readAt(m_command->place, literal.data(), size)
                && m_old.readAt(position, installed.data(), size) && literal == installed;
        }
        position += m_command->length;
    }
    rewind();
    return mayBe;
}

} // namespace Pellox
