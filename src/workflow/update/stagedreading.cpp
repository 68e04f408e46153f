// SPDX-License-Identifier: MIT
#include "stagedreading.h"

#include "filedigest.h"
#include "filemark.h"

#include <algorithm>
#include <numeric>

namespace Pellox {

bool StagedReading::add(const std::vector<Journal::Placement> &placements)
{
    Standing standing;
    for (const Journal::Placement &placement : placements) {
        if (!m_files.look(placement.from, &standing, &m_error))
            return false;
        if (standing.isNothing())
            continue;
        if (!placement.mark.fits(standing)) {
            m_spoiled.insert(placement.from);
        } else if (placement.mark.sha512) {
            m_toRead.push_back(placement);
            m_sizes.push_back(placement.mark.size);
        }
    }
    return true;
}

bool StagedReading::carryOut()
{
    constexpr qint64 Large = 1 << 20; // the largest come first, as all wait for the last one
    const qint64 total = std::accumulate(m_sizes.cbegin(), m_sizes.cend(), qint64(0));
    if (m_toRead.empty())
        return true;
    Crew crew(m_means.threadCount, m_means.cancelled);
    const bool done = crew.run(
        m_sizes, Large, [&](std::size_t i) { read(crew, m_toRead[i]); }, [&] { report(total); });
    return crew.hasFailedItself() ? readHere() : done;
}

/// The build is to be finished also where the system gives no threads.
bool StagedReading::readHere()
{
    Crew none(1, m_means.cancelled);
    for (const Journal::Placement &placement : m_toRead) {
        if (none.isStopped())
            return false;
        read(none, placement);
    }
    return !none.isStopped();
}

void StagedReading::read(Crew &crew, const Journal::Placement &placement)
{
    InputFile file;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_files.open(placement.from, &file))
            return fail(crew, file.error());
    }
    const auto sha512 = sha512OfWhole(file, [&](qint64 bytes) {
        m_done += bytes;
        return !crew.isStopped();
    });
    const bool isStopped = !sha512 && file.error().isEmpty();
    const std::lock_guard lock(m_mutex);
    if (!sha512 && file.error().system != 0)
        fail(crew, file.error());
    else if (!isStopped && sha512 != placement.mark.sha512) // or it is changed this very moment
        m_spoiled.insert(placement.from);
}

void StagedReading::report(qint64 total) const
{
    m_means.progress(std::min<qint64>(m_done, total), total);
}

/// Called with the lock held. Stops the others.
void StagedReading::fail(Crew &crew, const FileError &error)
{
    if (m_error.isEmpty())
        m_error = error;
    crew.fail(error);
}

} // namespace Pellox
