// SPDX-License-Identifier: MIT
#include "updatework.h"

#include "filesystem.h"

#include <cerrno>

namespace Pellox {

UpdateProblem::Code codeOf(const FileError &error, UpdateProblem::Code ofContent)
{
    if (error.system == 0 || tellsNothing(error.system))
        return ofContent;
    return error.system == ENOMEM ? UpdateProblem::Code::NoMemory
                                  : UpdateProblem::Code::ReadOrWrite;
}

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
