// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

#include <cerrno>
#include <csignal>

#include <sys/types.h>
#include <sys/wait.h>

/// Whether this process has a child, a running one or one that nobody has waited for.
inline bool hasChildren()
{
    siginfo_t child;
    const int options = WEXITED | WSTOPPED | WCONTINUED | WNOHANG | WNOWAIT | __WALL;
    return waitid(P_ALL, 0, &child, options) == 0 || errno != ECHILD;
}

/// Whether the process @p pid exists; a zombie does.
inline bool processExists(qint64 pid)
{
    return ::kill(static_cast<pid_t>(pid), 0) == 0;
}
