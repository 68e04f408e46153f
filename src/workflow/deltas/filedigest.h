// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "sha512.h"

#include <functional>
#include <optional>

namespace Pellox {

/// Called for each part of a file that was read; false ends the reading.
using ReadPart = std::function<bool(qint64 bytes)>;

/// Of all of @p file, which is open. Nothing when it cannot be read, with its own error, and when
/// @p part said no.
std::optional<Sha512> sha512OfWhole(InputFile &file, const ReadPart &part = {});

} // namespace Pellox
