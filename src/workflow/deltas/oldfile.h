// SPDX-License-Identifier: MIT
#pragma once

#include "pagedview.h"

#include <memory>
#include <mutex>
#include <vector>

namespace Pellox {

/// An old file for searches on several threads.
class OldFile
{
public:
    /// For one of them.
    class View
    {
    public:
        explicit View(const std::vector<uchar> &whole);
        View(const QString &path, qint64 size);

        PagedView &bytes() { return *m_bytes; }
        const FileError &error() const { return m_error.isEmpty() ? m_file.error() : m_error; }

    private:
        InputFile m_file; ///< not open where all is in memory
        FileError m_error;
        std::unique_ptr<PagedView> m_bytes;
    };

    /// Of a small file, @p whole is its content.
    OldFile(const QString &path, qint64 size, std::vector<uchar> whole);

    qint64 size() const { return m_size; }

    /// One that nobody uses, to be given back; with an error where it cannot be used.
    std::unique_ptr<View> takeView();
    void giveBack(std::unique_ptr<View> view);

private:
    const QString m_path;
    const qint64 m_size;
    const std::vector<uchar> m_whole;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<View>> m_views;
};

} // namespace Pellox
