// SPDX-License-Identifier: MIT
#include "deltafile.h"

#include "namedpipe.h"

#include <QtGlobal>

#include <librsync.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace Pellox {

namespace {

// Streams must not leak into child processes that the host starts meanwhile.
#ifdef Q_OS_WIN
constexpr char ReadMode[] = "rbN";
constexpr char WriteMode[] = "wbN";
#else
constexpr char ReadMode[] = "rbe";
constexpr char WriteMode[] = "wbe";
#endif

bool isSameFile(const char *path, const char *other)
{
    std::error_code ignored;
    return other && std::filesystem::equivalent(path, other, ignored);
}

} // namespace

void DeltaFileCloser::operator()(std::FILE *file) const
{
    rs_file_close(file);
}

DeltaFile openInput(const char *path)
{
    if (!path || isNamedPipe(path))
        return nullptr;
    return DeltaFile(std::fopen(path, ReadMode));
}

DeltaFile openOutput(const char *path, std::initializer_list<const char *> inputs)
{
    const auto isOutput = [path](const char *input) { return isSameFile(path, input); };
    if (!path || isNamedPipe(path) || std::any_of(inputs.begin(), inputs.end(), isOutput))
        return nullptr;
    return DeltaFile(std::fopen(path, WriteMode));
}

} // namespace Pellox
