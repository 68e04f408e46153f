// SPDX-License-Identifier: MIT
#pragma once

#include <filesystem>
#include <system_error>

namespace Pellox {

/**
 * True when @p path (local 8-bit encoding) is a named pipe. To open one whose other end
 * nobody holds would hang the caller, so every opener asks first.
 */
inline bool isNamedPipe(const char *path)
{
    std::error_code ignored;
    return std::filesystem::is_fifo(path, ignored);
}

} // namespace Pellox
