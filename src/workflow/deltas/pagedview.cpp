// SPDX-License-Identifier: MIT
#include "pagedview.h"

#include <algorithm>

namespace Pellox {

namespace {

constexpr qint64 PageSize = 1 << 14;
constexpr qint64 LargePiece = 1 << 12; // worth a call of its own

} // namespace

PagedView::PagedView(const std::vector<uchar> &whole)
    : m_content(nullptr)
    , m_whole(whole.data())
    , m_size(static_cast<qint64>(whole.size()))
{
}

PagedView::PagedView(Content &content, int pages)
    : m_content(&content)
    , m_whole(nullptr)
    , m_size(content.size())
    , m_pages(static_cast<std::size_t>(std::min<qint64>(pages, m_size / PageSize + 1)))
    , m_memory(m_pages.size() * PageSize)
{
}

PagedView::Bytes PagedView::at(qint64 position)
{
    if (!m_content)
        return {m_whole + position, position, m_size - position};
    const qint64 number = position / PageSize;
    const qint64 offset = position % PageSize;
    const std::size_t place = static_cast<std::size_t>(number) % m_pages.size();
    Page &page = m_pages[place];
    uchar *const data = m_memory.data() + place * PageSize;
    if (page.number != number && !load(number, &page, data))
        return {};
    return {data + offset, offset, page.size - offset};
}

bool PagedView::load(qint64 number, Page *page, uchar *data)
{
    const qint64 begin = number * PageSize;
    page->number = -1;
    page->size = std::min(PageSize, m_size - begin);
    if (!m_content->readAt(begin, data, page->size))
        return false;
    page->number = number;
    return true;
}

bool PagedView::copy(qint64 position, qint64 size, uchar *to)
{
    if (m_content && size >= LargePiece)
        return m_content->readAt(position, to, size);
    while (size > 0) {
        const Bytes bytes = at(position);
        const qint64 part = std::min(size, bytes.after);
        if (part == 0)
            return false;
        to = std::copy_n(bytes.data, part, to);
        position += part;
        size -= part;
    }
    return true;
}

} // namespace Pellox
