// SPDX-License-Identifier: MIT
#include "updatework.h"

#include <cerrno>

namespace Pellox {

void Problems::add(UpdateProblem::Code code, const QString &file, const QString &reason)
{
    const std::lock_guard lock(m_mutex);
    m_problems.push_back({code, file, reason});
}

void Problems::add(UpdateProblem::Code code, const FileError &error)
{
    const bool isFull = error.system == ENOSPC || error.system == EDQUOT;
    add(isFull ? UpdateProblem::Code::NoSpace : code, error.path, error.reason);
}

} // namespace Pellox
