// SPDX-License-Identifier: MIT
#pragma once

#include <functional>

/**
 * Takes the percentage done, 0 to 100. An empty callback means no reports. The
 * operation that takes one says on which threads it calls it.
 */
using PROGRESS_CALLBACK = std::function<void(double)>;
