// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "pagedview.h"

#include <array>
#include <memory>
#include <optional>

#include <librsync.h>

namespace Pellox {

/**
 * What librsync's own patch makes of an old file and a delta, read from one end to the other: the
 * proof that a delta does what it is there for, with other code than that which made it.
 */
class RsyncPatched : public Content
{
public:
    /// @p delta is to make @p size bytes; they are not checked before they are read. False with
    /// error().
    bool open(const QString &oldFile, const QString &delta, qint64 size);

    qint64 size() const override { return m_size; }
    /// @p position is where the last reading ended. At the end also false when the delta makes
    /// more.
    bool readAt(qint64 position, uchar *data, qint64 size) override;
    bool isUnchanged() override;

private:
    struct Free
    {
        void operator()(rs_job_t *job) const { rs_job_free(job); }
    };

    static rs_result copyOld(void *self, rs_long_t position, std::size_t *length, void **buffer);
    rs_result make(uchar *data, std::size_t size, std::size_t *made);
    bool readDelta();

    InputFile m_old;
    std::optional<PagedView> m_oldPages; ///< for short pieces, as some deltas have very many
    InputFile m_delta;
    qint64 m_size = 0;
    qint64 m_deltaRead = 0;
    std::array<uchar, 1 << 16> m_window{}; ///< of the delta
    rs_buffers_t m_buffers{};
    std::unique_ptr<rs_job_t, Free> m_job;
};

} // namespace Pellox
