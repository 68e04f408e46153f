// SPDX-License-Identifier: MIT
#pragma once

#include <cstdio>
#include <initializer_list>
#include <memory>

namespace Pellox {

struct DeltaFileCloser
{
    void operator()(std::FILE *file) const;
};

/// An open stream that librsync reads or writes, closed on destruction.
using DeltaFile = std::unique_ptr<std::FILE, DeltaFileCloser>;

/*
 * These stand in for librsync's own file opener, which ends the process when a
 * path does not open and takes "-" for a standard stream. Here "-" is a file of
 * that name and whatever does not open is null, a null path included.
 */

/// Opens @p path for reading. Null for a named pipe too: without a writer the open would hang.
DeltaFile openInput(const char *path);

/**
 * Opens @p path for writing and empties a file that stands there. Null for a named
 * pipe, and when @p path is the same file as one of @p inputs, which emptying would lose.
 */
DeltaFile openOutput(const char *path, std::initializer_list<const char *> inputs);

} // namespace Pellox
