// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"

#include <vector>

namespace Pellox {

/**
 * Looks at a file's bytes here and there, a page at a time, so that many small pieces are not as
 * many calls to the system; for one thread.
 */
class PagedView
{
public:
    /// What stands in memory around a position.
    struct Bytes
    {
        const uchar *data = nullptr; ///< at the position
        qint64 before = 0;           ///< how many stand before it ...
        qint64 after = 0;            ///< ... and from it on; none where the file cannot be read
    };

    /// Of a file that is in memory as a whole; @p whole outlives the view.
    explicit PagedView(const std::vector<uchar> &whole);
    /// Of @p content, which outlives the view and has the error when it cannot be read. Keeps
    /// @p pages of 16 KiB at most.
    PagedView(Content &content, int pages);

    qint64 size() const { return m_size; }
    /// @p position lies in the file or at its end.
    Bytes at(qint64 position);
    /// Copies @p size bytes at @p position, which must lie in the file; large pieces do not go by
    /// pages. False when unreadable.
    bool copy(qint64 position, qint64 size, uchar *to);
    /// Why the file could not be read, without its name.
    QString error() const { return m_content ? m_content->error().reason : QString(); }

private:
    struct Page
    {
        qint64 number = -1;
        qint64 size = 0;
    };

    bool load(qint64 number, Page *page, uchar *data);

    Content *const m_content; ///< none of a file in memory
    const uchar *const m_whole;
    const qint64 m_size;
    std::vector<Page> m_pages; ///< each page of the file has its place
    std::vector<uchar> m_memory;
};

} // namespace Pellox
