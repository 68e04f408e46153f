// SPDX-License-Identifier: MIT
#include "rsyncpatched.h"

#include <algorithm>

namespace Pellox {

namespace {

constexpr int Pages = 64;

} // namespace

bool RsyncPatched::open(const QString &oldFile, const QString &delta, qint64 size)
{
    m_size = size;
    setPath(delta);
    if (!m_old.open(oldFile))
        return failAs(m_old);
    m_oldPages.emplace(m_old, Pages);
    if (!m_delta.open(delta))
        return failAs(m_delta);
    m_job.reset(rs_patch_begin(copyOld, this));
    return m_job || fail(QStringLiteral("cannot be tried: out of memory"));
}

bool RsyncPatched::readAt(qint64 position, uchar *data, qint64 size)
{
    std::size_t made = 0;
    rs_result result = make(data, static_cast<std::size_t>(size), &made);
    if (result == RS_BLOCKED && position + size == m_size) { // all is there; so is the delta's end?
        uchar more = 0;
        std::size_t tooMuch = 0;
        result = make(&more, sizeof more, &tooMuch);
        if (tooMuch > 0)
            return fail(QStringLiteral("makes a larger file than it should"));
    }
    if (!m_delta.error().isEmpty())
        return failAs(m_delta);
    if (!m_old.error().isEmpty())
        return failAs(m_old);
    if (result != RS_DONE && result != RS_BLOCKED)
        return fail(QLatin1String("cannot be applied: ") + QLatin1String(rs_strerror(result)));
    if (static_cast<qint64>(made) != size)
        return fail(QStringLiteral("makes a smaller file than it should"));
    return true;
}

/// Goes on until @p size bytes are made, the delta has ended, or an error.
rs_result RsyncPatched::make(uchar *data, std::size_t size, std::size_t *made)
{
    m_buffers.next_out = reinterpret_cast<char *>(data);
    m_buffers.avail_out = size;
    rs_result result = RS_BLOCKED;
    while (result == RS_BLOCKED && m_buffers.avail_out > 0) {
        if (m_buffers.avail_in == 0 && m_buffers.eof_in == 0 && !readDelta())
            return RS_IO_ERROR;
        result = rs_job_iter(m_job.get(), &m_buffers);
    }
    *made = size - m_buffers.avail_out;
    return result;
}

bool RsyncPatched::readDelta()
{
    const qint64 size
        = std::min(m_delta.size() - m_deltaRead, static_cast<qint64>(m_window.size()));
    if (!m_delta.readAt(m_deltaRead, m_window.data(), size))
        return false;
    m_deltaRead += size;
    m_buffers.next_in = reinterpret_cast<char *>(m_window.data());
    m_buffers.avail_in = static_cast<std::size_t>(size);
    m_buffers.eof_in = m_deltaRead == m_delta.size() ? 1 : 0;
    return true;
}

rs_result RsyncPatched::copyOld(void *self, rs_long_t position, std::size_t *length, void **buffer)
{
    PagedView &old = *static_cast<RsyncPatched *>(self)->m_oldPages;
    const qint64 left = old.size() - position;
    if (position < 0 || left <= 0)
        return RS_INPUT_ENDED;
    const qint64 size = std::min(left, static_cast<qint64>(*length));
    *length = static_cast<std::size_t>(size);
    return old.copy(position, size, static_cast<uchar *>(*buffer)) ? RS_DONE : RS_IO_ERROR;
}

bool RsyncPatched::isUnchanged()
{
    return (m_old.isUnchanged() || failAs(m_old)) && (m_delta.isUnchanged() || failAs(m_delta));
}

} // namespace Pellox
