// SPDX-License-Identifier: MIT
#include "oldfile.h"

namespace Pellox {

OldFile::View::View(const std::vector<uchar> &whole)
    : m_bytes(std::make_unique<PagedView>(whole))
{
}

OldFile::View::View(const QString &path, qint64 size)
{
    constexpr int Pages = 64;
    if (!m_file.open(path))
        return;
    if (m_file.size() != size)
        m_error = {path, QStringLiteral("changed while it was read")};
    m_bytes = std::make_unique<PagedView>(m_file, Pages);
}

OldFile::OldFile(const QString &path, qint64 size, std::vector<uchar> whole)
    : m_path(path)
    , m_size(size)
    , m_whole(std::move(whole))
{
}

std::unique_ptr<OldFile::View> OldFile::takeView()
{
    {
        const std::lock_guard lock(m_mutex);
        if (!m_views.empty()) {
            auto view = std::move(m_views.back());
            m_views.pop_back();
            return view;
        }
    }
    if (static_cast<qint64>(m_whole.size()) == m_size)
        return std::make_unique<View>(m_whole);
    return std::make_unique<View>(m_path, m_size);
}

void OldFile::giveBack(std::unique_ptr<View> view)
{
    const std::lock_guard lock(m_mutex);
    m_views.push_back(std::move(view));
}

} // namespace Pellox
