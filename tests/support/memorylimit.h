// SPDX-License-Identifier: MIT
#pragma once

#include <QFile>

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool HasSanitizer = true; ///< which needs the memory itself
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool HasSanitizer = true;
#else
constexpr bool HasSanitizer = false;
#endif
#else
constexpr bool HasSanitizer = false;
#endif

/// What is freed goes back to the system, or it would count as memory that the process has: large
/// blocks at once, whatever sizes were freed before.
inline const bool ReturnsLargeBlocks = mallopt(M_MMAP_THRESHOLD, 128 << 10) == 1;

/// Gives the process no more than so much memory beyond what it has, while it lives.
class MemoryLimit
{
public:
    explicit MemoryLimit(rlim_t bytes)
    {
        malloc_trim(0);
        QFile status(QStringLiteral("/proc/self/statm"));
        if (!status.open(QIODevice::ReadOnly))
            qFatal("cannot read how much memory there is in use");
        const auto pages = status.readAll().split(' ').first().toULongLong();
        getrlimit(RLIMIT_AS, &m_previous);
        rlimit lowered = m_previous;
        lowered.rlim_cur = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + bytes;
        setrlimit(RLIMIT_AS, &lowered);
    }
    ~MemoryLimit() { setrlimit(RLIMIT_AS, &m_previous); }
    MemoryLimit(const MemoryLimit &) = delete;
    MemoryLimit &operator=(const MemoryLimit &) = delete;

private:
    rlimit m_previous{};
};
